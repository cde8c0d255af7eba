// The recorder schemes end to end without the board: the unchanged program reads a regular
// file, a FIFO or a device node without a driver as its recorder device, and finds the control
// directory of that node's device number on a tmpfs laid over /sys/dev/char in a mount
// namespace of this test process, which every started program inherits.

#include "H5File.h"
#include "QuarvelRunner.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <linux/magic.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>

namespace quarvel::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

const std::string kCharDir = "/sys/dev/char";

// Empty when this process is now in a mount namespace of its own with an empty tmpfs over
// /sys/dev/char; otherwise why not. Done once: the namespace cannot be left again.
const std::string& privateSysfs() {
    static const std::string why = []() -> std::string {
        if (emulated()) {
            return "the program runs under an emulator, which hides the namespace set-up";
        }
        if (::geteuid() != 0) {
            return "a private mount namespace needs root";
        }
        if (::unshare(CLONE_NEWNS) != 0) {
            return std::string("unshare(CLONE_NEWNS) failed: ") + std::strerror(errno);
        }
        if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            return std::string("making the mounts private failed: ") + std::strerror(errno);
        }
        if (::mount("none", kCharDir.c_str(), "tmpfs", 0, "mode=0755") != 0) {
            return "mounting a tmpfs over " + kCharDir + " failed: " + std::strerror(errno);
        }
        return std::string();
    }();
    return why;
}

std::string controlDir(unsigned major, unsigned minor) {
    return kCharDir + "/" + std::to_string(major) + ":" + std::to_string(minor) + "/device/control";
}

// A control directory as the driver offers it, with a "status" attribute.
std::string makeControl(unsigned major, unsigned minor) {
    const std::string dir = controlDir(major, minor);
    fs::create_directories(dir);
    writeFile(dir + "/status", "1");
    return dir;
}

std::vector<std::string> attributesIn(const std::string& dir) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Recorder words: some sign edges first, then pseudo-random bytes.
std::string recorderWords(size_t words, uint32_t seed) {
    std::string bytes = {'\x00', '\x00', '\x00', '\x00', '\xFF', '\xFF', '\xFF', '\xFF',
                         '\x80', '\x00', '\x00', '\x80', '\x7F', '\xFF', '\xFF', '\x7F',
                         '\x00', '\x80', '\xFE', '\x7F', '\x01', '\x00', '\xFF', '\xFF'};
    bytes.resize(std::min(bytes.size(), words * 4));
    uint32_t state = seed;
    while (bytes.size() < words * 4) {
        state = state * 1664525u + 1013904223u;
        bytes.push_back(static_cast<char>(state >> 24));
    }
    return bytes;
}

// What each scheme must store of the recorder's bytes.
std::vector<int32_t> decoded(const std::string& conf, const std::string& bytes) {
    std::vector<int32_t> values;
    const auto byte = [&](size_t i) { return static_cast<uint8_t>(bytes[i]); };
    for (size_t i = 0; i + 4 <= bytes.size(); i += 4) {
        if (conf == "int32") {
            const uint32_t word = byte(i) | byte(i + 1) << 8 | byte(i + 2) << 16 |
                                  static_cast<uint32_t>(byte(i + 3)) << 24;
            values.push_back(static_cast<int32_t>(word));
        } else if (conf == "tavoadc") {
            values.push_back(static_cast<int16_t>(byte(i) << 8 | byte(i + 1)) >> 2);
        } else {
            values.push_back(static_cast<int16_t>(byte(i) | byte(i + 1) << 8));
            values.push_back(static_cast<int16_t>(byte(i + 2) | byte(i + 3) << 8));
        }
    }
    return values;
}

size_t countOf(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++n;
    }
    return n;
}

bool exists(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0;
}

class RecorderSchemes : public ::testing::Test {
protected:
    void SetUp() override {
        if (!privateSysfs().empty()) {
            GTEST_SKIP() << "no fake control directory possible: " << privateSysfs();
        }
        // Only ever empty our own tmpfs, never the real directory.
        struct statfs info {};
        ASSERT_EQ(::statfs(kCharDir.c_str(), &info), 0);
        ASSERT_EQ(info.f_type, static_cast<decltype(info.f_type)>(TMPFS_MAGIC));
        for (const auto& entry : fs::directory_iterator(kCharDir)) {
            fs::remove_all(entry.path());
        }
    }

    std::vector<std::string> args(const std::string& conf, const std::string& recDev,
                                  uint32_t bytes, std::vector<std::string> extra = {}) const {
        std::vector<std::string> list = {"--conf=" + conf, "--rec-dev=" + recDev,
                                         "--file=" + output,
                                         "--data-bytes=" + std::to_string(bytes)};
        list.insert(list.end(), extra.begin(), extra.end());
        return list;
    }

    TempDir dir;
    const std::string output = dir.file("rec.h5");
    const std::string device = dir.file("device");
};

class SchemeRecording : public RecorderSchemes,
                        public ::testing::WithParamInterface<std::string> {};

TEST_P(SchemeRecording, RegularFileIsStoredDecodedAndTheRecorderProgrammed) {
    const std::string conf = GetParam();
    const uint32_t bytes = 300000; // more than one mover buffer and many chunks
    const std::string words = recorderWords(bytes / 4, 7);
    writeFile(device, words + "trailing bytes beyond the byte count");
    const std::string control = makeControl(0, 0);

    const RunResult run =
        runQuarvel(args(conf, device, bytes, {"--src-addr=4294967295", "--data-rate=7"}));
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.err, "");
    ASSERT_GE(run.out.size(), 20u);
    EXPECT_EQ(run.out.substr(run.out.size() - 20), "Transfer successful\n");

    EXPECT_EQ(readFile(control + "/srcmemaddr"), "4294967295");
    EXPECT_EQ(readFile(control + "/datacount"), "300000");
    EXPECT_EQ(readFile(control + "/datarate"), "55"); // the character '7'
    EXPECT_EQ(readFile(control + "/status"), "1");

    const Recording recording = readRecording(output);
    const std::vector<int32_t> expected = decoded(conf, words);
    EXPECT_EQ(recording.length, expected.size());
    ASSERT_EQ(recording.values.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        ASSERT_EQ(recording.values[i], expected[i]) << "value " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Schemes, SchemeRecording,
                         ::testing::Values("int32", "tavoadc", "lumetra"));

// Writes data into a FIFO in small irregular pieces with pauses, some longer than the
// recorder's 50 ms wait, once the program has opened it for reading.
class FifoFeeder {
public:
    FifoFeeder(std::string path, std::string data)
        : mPath(std::move(path)), mData(std::move(data)), mThread([this] { feed(); }) {}
    ~FifoFeeder() { finish(); }
    FifoFeeder(const FifoFeeder&) = delete;
    FifoFeeder& operator=(const FifoFeeder&) = delete;

    // Waits for the feeder, which gives up once the program has ended; the bytes written.
    size_t finish() {
        mStop = true;
        if (mThread.joinable()) {
            mThread.join();
        }
        return mWritten;
    }

private:
    void feed() {
        // A program that ended early must not take the test down with SIGPIPE.
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe, nullptr);

        int fd = -1;
        const auto deadline = std::chrono::steady_clock::now() + 30s;
        while (fd < 0 && !mStop && std::chrono::steady_clock::now() < deadline) {
            fd = ::open(mPath.c_str(), O_WRONLY | O_NONBLOCK); // ENXIO until a reader is there
            if (fd < 0) {
                std::this_thread::sleep_for(1ms);
            }
        }
        if (fd < 0) {
            return;
        }
        ::fcntl(fd, F_SETFL, 0);
        uint32_t state = 12345;
        size_t piece = 0;
        while (mWritten < mData.size()) {
            state = state * 1664525u + 1013904223u;
            const size_t size = std::min<size_t>(1 + (state >> 8) % 4093, mData.size() - mWritten);
            const ssize_t n = ::write(fd, mData.data() + mWritten, size);
            if (n <= 0) {
                break;
            }
            mWritten += static_cast<size_t>(n);
            std::this_thread::sleep_for(++piece % 23 == 0 ? 60ms
                                                          : std::chrono::milliseconds(state % 3));
        }
        ::close(fd);
    }

    std::string mPath;
    std::string mData;
    std::atomic<bool> mStop{false};
    size_t mWritten = 0; // read after join only
    std::thread mThread;
};

class FifoRecording : public RecorderSchemes, public ::testing::WithParamInterface<std::string> {};

TEST_P(FifoRecording, SlowIrregularDeviceLosesNothingAndKeepsTheOrder) {
    const std::string conf = GetParam();
    const uint32_t bytes = 160000; // beyond one mover buffer of 128 KiB
    const std::string words = recorderWords(bytes / 4, 99);
    ASSERT_EQ(::mkfifo(device.c_str(), 0600), 0);
    makeControl(0, 0);

    FifoFeeder feeder(device, words);
    const RunResult run = runQuarvel(args(conf, device, bytes));
    EXPECT_EQ(feeder.finish(), words.size());
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.err, "");

    const Recording recording = readRecording(output);
    const std::vector<int32_t> expected = decoded(conf, words);
    ASSERT_EQ(recording.values.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        ASSERT_EQ(recording.values[i], expected[i]) << "value " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Schemes, FifoRecording, ::testing::Values("int32", "lumetra"));

class ShortDevice : public RecorderSchemes, public ::testing::WithParamInterface<std::string> {};

// The device holds fewer bytes than asked: the program keeps polling it until SIGTERM, and
// what it did read is in the file.
TEST_P(ShortDevice, KeepsPollingUntilSigtermAndKeepsWhatItRead) {
    const std::string conf = GetParam();
    const std::string words = recorderWords(1000, 3);
    writeFile(device, words);
    makeControl(0, 0);

    RunSpec launch;
    launch.args = args(conf, device, 8192, {"--log-level=info"});
    stopAfter(launch, SIGTERM, 500ms);
    const RunResult run = runQuarvel(launch);
    ASSERT_EQ(run.termSignal, 0) << "killed by the signal instead of stopping";
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(withoutLogLines(run.err), "transfer abort requested by user (sigterm)\n");
    EXPECT_NE(run.err.find("INFO [Recoder] Reached end of file on recorder device"),
              std::string::npos)
        << run.err;
    // The read after the end keeps coming back empty, every 50 ms.
    EXPECT_GE(countOf(run.err, "~thread: readThisTime = 0\n"), 2u) << run.err;
    EXPECT_EQ(run.out.find("Transfer successful"), std::string::npos);
    EXPECT_LT(run.stopLatency, sanitized() ? 3000ms : 1000ms);

    const Recording recording = readRecording(output);
    const std::vector<int32_t> prefix = decoded(conf, words);
    const size_t length = conf == "lumetra" ? 4096 : 2048;
    ASSERT_EQ(recording.values.size(), length);
    for (size_t i = 0; i < length; ++i) {
        ASSERT_EQ(recording.values[i], i < prefix.size() ? prefix[i] : 0) << "value " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Schemes, ShortDevice, ::testing::Values("int32", "tavoadc", "lumetra"));

TEST_F(RecorderSchemes, MissingDevicePathEndsBeforeAnythingIsProgrammed) {
    const std::string control = makeControl(0, 0);
    for (const std::string conf : {"int32", "tavoadc", "lumetra"}) {
        const RunResult run = runQuarvel(args(conf, dir.file("no-such-device"), 4096));
        EXPECT_EQ(run.exitCode, 42) << conf;
        EXPECT_EQ(withoutLogLines(run.err),
                  "EXCPETION THROWNFailed to get stat from cdev, file exist?\n")
            << conf;
        EXPECT_NE(run.err.find("ERROR [Recoder] ::stat on recorder cdev failed with 2"),
                  std::string::npos)
            << conf;
        EXPECT_EQ(run.out, "") << conf;
    }
    EXPECT_EQ(attributesIn(control), std::vector<std::string>{"status"});
    EXPECT_FALSE(exists(output));
}

TEST_F(RecorderSchemes, MissingControlDirectoryEndsTheRun) {
    ASSERT_EQ(::mknod(dir.file("node").c_str(), S_IFCHR | 0600, makedev(240, 3)), 0);
    writeFile(device, recorderWords(16, 1));
    makeControl(240, 4); // a neighbour's directory must not be taken
    for (const std::string& path : {device, dir.file("node")}) {
        const RunResult run = runQuarvel(args("tavoadc", path, 64));
        EXPECT_EQ(run.exitCode, 42) << path;
        EXPECT_EQ(withoutLogLines(run.err), "EXCPETION THROWNCould not open sysfs entry\n") << path;
    }
    EXPECT_EQ(attributesIn(controlDir(240, 4)), std::vector<std::string>{"status"});
    EXPECT_FALSE(exists(output));
}

struct DeviceNumber {
    unsigned major;
    unsigned minor;
};

void PrintTo(const DeviceNumber& number, std::ostream* out) {
    *out << number.major << ":" << number.minor;
}

class DeviceNode : public RecorderSchemes, public ::testing::WithParamInterface<DeviceNumber> {};

// A node without a driver: the control directory of its number is programmed, then the
// device cannot be opened.
TEST_P(DeviceNode, ProgramsTheControlDirectoryOfItsNumberThenFailsToOpen) {
    const DeviceNumber number = GetParam();
    ASSERT_EQ(::mknod(device.c_str(), S_IFCHR | 0600, makedev(number.major, number.minor)), 0);
    const std::string control = makeControl(number.major, number.minor);
    const std::string other = makeControl(0, 0);

    const RunResult run = runQuarvel(args("int32", device, 4096, {"--src-addr=256"}));
    EXPECT_EQ(run.exitCode, 42);
    EXPECT_EQ(withoutLogLines(run.err),
              "EXCPETION THROWNFailed to open the recorder device for reading\n");
    EXPECT_EQ(readFile(control + "/srcmemaddr"), "256");
    EXPECT_EQ(readFile(control + "/datacount"), "4096");
    EXPECT_EQ(readFile(control + "/datarate"), "0");
    EXPECT_EQ(attributesIn(other), std::vector<std::string>{"status"});
}

INSTANTIATE_TEST_SUITE_P(Numbers, DeviceNode,
                         ::testing::Values(DeviceNumber{240, 3}, DeviceNumber{511, 70000},
                                           DeviceNumber{4095, 1048575}),
                         [](const ::testing::TestParamInfo<DeviceNumber>& param) {
                             return std::to_string(param.param.major) + "_" +
                                    std::to_string(param.param.minor);
                         });

TEST_F(RecorderSchemes, LumetraByteCountTooLargeToDecodeLeavesTheRecorderAlone) {
    writeFile(device, "");
    const std::string control = makeControl(0, 0);
    const RunResult run = runQuarvel(args("lumetra", device, 2147483652u));
    EXPECT_EQ(run.exitCode, 42);
    EXPECT_EQ(withoutLogLines(run.err),
              "EXCPETION THROWNdata-bytes too large for the Lumetra DDS decoder: 2147483652 "
              "bytes decode to more than 4294967295 bytes\n");
    EXPECT_EQ(attributesIn(control), std::vector<std::string>{"status"});
    EXPECT_FALSE(exists(output));
}

TEST_F(RecorderSchemes, UnknownSchemeTouchesNoDevice) {
    writeFile(device, recorderWords(16, 5));
    const std::string control = makeControl(0, 0);
    for (const std::string conf : {"Int32", "tavo", "lumetra ", "int32\t"}) {
        const RunResult run = runQuarvel(args(conf, device, 64));
        EXPECT_EQ(run.exitCode, 2) << "'" << conf << "'";
        EXPECT_EQ(run.err.rfind("The requested configuration doesn't exist.", 0), 0u) << run.err;
    }
    EXPECT_EQ(attributesIn(control), std::vector<std::string>{"status"});
    EXPECT_FALSE(exists(output));
}

} // namespace
} // namespace quarvel::test

namespace quarvel::test {
namespace {

using namespace std::chrono_literals;

// A device that is open but never delivers keeps its mover blocked in the kernel's read,
// where no abort reaches it: SIGTERM must still end the run.
TEST_F(RecorderSchemes, SilentDeviceStillEndsOnSigterm) {
    ASSERT_EQ(mkfifo(device.c_str(), 0600), 0);
    // Held open for reading and writing: the program's open succeeds, and no data ever comes.
    const int silentWriter = ::open(device.c_str(), O_RDWR);
    ASSERT_GE(silentWriter, 0);
    makeControl(0, 0);

    RunSpec launch;
    launch.args = args("int32", device, 4096);
    stopAfter(launch, SIGTERM, 300ms);
    const RunResult run = runQuarvel(launch);
    ::close(silentWriter);
    ASSERT_EQ(run.termSignal, 0) << "killed by the signal instead of stopping";
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(withoutLogLines(run.err),
              "transfer abort requested by user (sigterm)\n"
              "quarvel: a data mover did not stop (the recorder device delivers nothing); "
              "leaving without it\n");
    EXPECT_LT(run.stopLatency, 8000ms);
    EXPECT_GE(run.stopLatency, 4000ms) << "the movers get their time to stop first";
}

// A FIFO that nobody writes keeps the program in the device's open, before any mover runs.
TEST_F(RecorderSchemes, DeviceWithoutWriterStillEndsOnSigterm) {
#ifdef QUARVEL_SANITIZED_THREAD
    GTEST_SKIP() << "ThreadSanitizer delivers no signal to a thread blocked inside open()";
#endif
    ASSERT_EQ(mkfifo(device.c_str(), 0600), 0);
    makeControl(0, 0);

    RunSpec launch;
    launch.args = args("int32", device, 4096);
    stopAfter(launch, SIGTERM, 300ms);
    const RunResult run = runQuarvel(launch);
    ASSERT_EQ(run.termSignal, 0) << "killed by the signal instead of stopping";
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(withoutLogLines(run.err), "quarvel: a data mover did not stop (the recorder device "
                                        "delivers nothing); leaving without it\n");
    EXPECT_LT(run.stopLatency, 8000ms);
}

} // namespace
} // namespace quarvel::test
