// The recorder schemes end to end without the board: the unchanged program reads a regular
// file or a FIFO as its device (device number 0:0) and finds that number's control directory
// on a tmpfs laid over /sys/dev/char in a mount namespace of this test, which it inherits.

#include "QuarvelRunner.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

namespace quarvel::test {
namespace {

namespace fs = std::filesystem;

const std::string kControl = "/sys/dev/char/0:0/device/control";
const std::string kStuck = "quarvel: a data mover did not stop (the recorder device delivers "
                           "nothing); leaving without it\n";

// Empty once this process has its own mount namespace with a tmpfs over /sys/dev/char;
// otherwise why not. Done once: the namespace cannot be left again.
std::string privateSysfs() {
    static const std::string why = []() -> std::string {
        if (kEmulated || ::geteuid() != 0) {
            return "a private mount namespace needs root and no emulator";
        }
        if (::unshare(CLONE_NEWNS) != 0 ||
            ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("none", "/sys/dev/char", "tmpfs", 0, "mode=0755") != 0) {
            return std::string("setting up the mount namespace failed: ") + std::strerror(errno);
        }
        return {};
    }();
    return why;
}

// Recorder words: sign edges first, then pseudo-random bytes.
std::string recorderWords(size_t words, uint32_t seed) {
    std::string bytes("\0\0\0\0\xFF\xFF\xFF\xFF\x80\0\0\x80\x7F\xFF\xFF\x7F\0\x80\xFE\x7F", 20);
    while (bytes.size() < words * 4) {
        seed = seed * 1664525u + 1013904223u;
        bytes.push_back(static_cast<char>(seed >> 24));
    }
    return bytes;
}

// What each scheme must store of the recorder's bytes.
std::vector<int32_t> decoded(const std::string& conf, const std::string& bytes) {
    std::vector<int32_t> values;
    const auto byte = [&](size_t i) { return static_cast<uint8_t>(bytes[i]); };
    for (size_t i = 0; i + 4 <= bytes.size(); i += 4) {
        if (conf == "int32") {
            values.push_back(static_cast<int32_t>(byte(i) | byte(i + 1) << 8 | byte(i + 2) << 16 |
                                                  static_cast<uint32_t>(byte(i + 3)) << 24));
        } else if (conf == "tavoadc") {
            values.push_back(static_cast<int16_t>(byte(i) << 8 | byte(i + 1)) >> 2);
        } else {
            values.push_back(static_cast<int16_t>(byte(i) | byte(i + 1) << 8));
            values.push_back(static_cast<int16_t>(byte(i + 2) | byte(i + 3) << 8));
        }
    }
    return values;
}

class RecorderSchemes : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override {
        if (!privateSysfs().empty()) {
            GTEST_SKIP() << "no fake control directory: " << privateSysfs();
        }
        fs::remove_all("/sys/dev/char/0:0"); // on our own tmpfs
        fs::create_directories(kControl);
    }

    std::vector<std::string> args(const std::string& conf, uint32_t bytes,
                                  std::vector<std::string> extra = {}) const {
        extra.insert(extra.end(), {"--conf=" + conf, "--rec-dev=" + device, "--file=" + output,
                                   "--data-bytes=" + std::to_string(bytes)});
        return extra;
    }

    TempDir dir;
    const std::string output = dir.file("rec.h5");
    const std::string device = dir.file("device");
};

// From a regular file, then from a FIFO fed in small irregular pieces with pauses.
TEST_P(RecorderSchemes, RecordingIsStoredDecodedAndTheRecorderProgrammed) {
    const std::string words = recorderWords(160000 / 4, 7); // beyond one mover buffer
    for (const bool fifo : {false, true}) {
        fs::remove(device);
        if (fifo) {
            ASSERT_EQ(::mkfifo(device.c_str(), 0600), 0);
        } else {
            writeFile(device, words + "bytes beyond the byte count");
        }
        const int fd = fifo ? ::open(device.c_str(), O_RDWR | O_NONBLOCK) : -1; // no wait in open
        std::atomic<bool> done{false};
        size_t written = 0;
        std::thread feeder([&] {
            uint32_t state = 12345;
            for (int piece = 1; fd >= 0 && written < words.size() && !done; ++piece) {
                state = state * 1664525u + 1013904223u;
                const size_t size = std::min<size_t>(1 + state % 4093, words.size() - written);
                const ssize_t n = ::write(fd, words.data() + written, size); // fails while full
                written += n > 0 ? static_cast<size_t>(n) : 0;
                // Some pauses outlast the recorder's 50 ms wait.
                std::this_thread::sleep_for(piece % 23 == 0 ? 60ms : state % 3 * 1ms);
            }
        });
        const RunResult run =
            runQuarvel({args(GetParam(), 160000, {"--src-addr=4294967295", "--data-rate=7"})});
        done = true;
        feeder.join();
        ::close(fd);
        ASSERT_EQ(run.exitCode, 0) << run.err;
        EXPECT_EQ(run.err, "");
        EXPECT_EQ(readFile(kControl + "/srcmemaddr"), "4294967295");
        EXPECT_EQ(readFile(kControl + "/datacount"), "160000");
        EXPECT_EQ(readFile(kControl + "/datarate"), "55"); // the character '7'
        EXPECT_EQ(readRecording(output).values, decoded(GetParam(), words)) << "fifo " << fifo;
    }
}

TEST_P(RecorderSchemes, DeviceEndingEarlyIsPolledUntilSigtermAndWhatWasReadIsKept) {
    const std::string words = recorderWords(1000, 3);
    writeFile(device, words);
    const RunResult run =
        runQuarvel({args(GetParam(), 8192, {"--log-level=info"}), SIGTERM, 500ms});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(withoutLogLines(run.err), "transfer abort requested by user (sigterm)\n");
    EXPECT_NE(run.err.find("INFO [Recoder] Reached end of file on recorder device"),
              std::string::npos);
    const auto emptyRead = run.err.find("readThisTime = 0\n");
    EXPECT_NE(run.err.find("readThisTime = 0\n", emptyRead + 1), std::string::npos) << "no polls";
    EXPECT_EQ(run.out.find("Transfer successful"), std::string::npos);
    EXPECT_LT(run.stopLatency, kSanitized ? 3s : 1s);
    std::vector<int32_t> expected = decoded(GetParam(), words);
    expected.resize(GetParam() == "lumetra" ? 4096 : 2048); // zeros where nothing was written
    EXPECT_EQ(readRecording(output).values, expected);
}

INSTANTIATE_TEST_SUITE_P(Schemes, RecorderSchemes,
                         ::testing::Values("int32", "tavoadc", "lumetra"));

TEST_F(RecorderSchemes, BadDeviceOrByteCountEndsBeforeTheRecorderIsProgrammed) {
    const char* missing = "EXCPETION THROWNFailed to get stat from cdev, file exist?\n";
    for (const auto& [conf, bytes, err] :
         {std::tuple("int32", 4096u, missing), std::tuple("tavoadc", 4096u, missing),
          std::tuple("lumetra", 4096u, missing),
          std::tuple("lumetra", 2147483652u,
                     "EXCPETION THROWNdata-bytes too large for the Lumetra DDS decoder: "
                     "2147483652 bytes decode to more than 4294967295 bytes\n")}) {
        if (bytes > 4096u) {
            writeFile(device, ""); // only the byte count is wrong
        }
        const RunResult run = runQuarvel({args(conf, bytes)});
        EXPECT_EQ(run.exitCode, 42) << conf;
        EXPECT_EQ(withoutLogLines(run.err), err);
        EXPECT_TRUE(fs::is_empty(kControl)) << conf; // not programmed
        EXPECT_FALSE(fs::exists(output)) << conf;
    }
}

// Regression: a device that never delivers kept its mover in the kernel's read, out of
// reach of any abort, and the run never ended.
TEST_F(RecorderSchemes, SilentDeviceStillEndsOnSigterm) {
    ASSERT_EQ(::mkfifo(device.c_str(), 0600), 0);
    const int silentWriter = ::open(device.c_str(), O_RDWR);
    ASSERT_GE(silentWriter, 0);
    const RunResult run = runQuarvel({args("int32", 4096), SIGTERM, 300ms});
    ::close(silentWriter);
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(withoutLogLines(run.err), "transfer abort requested by user (sigterm)\n" + kStuck);
    EXPECT_GE(run.stopLatency, 4s) << "the movers get their time to stop first";
    EXPECT_LT(run.stopLatency, 8s);
}

// Regression: a FIFO that nobody writes kept the program in the device's open.
TEST_F(RecorderSchemes, DeviceWithoutWriterStillEndsOnSigterm) {
#ifdef QUARVEL_SANITIZED_THREAD
    GTEST_SKIP() << "ThreadSanitizer delivers no signal to a thread blocked inside open()";
#endif
    ASSERT_EQ(::mkfifo(device.c_str(), 0600), 0);
    const RunResult run = runQuarvel({args("int32", 4096), SIGTERM, 300ms});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(withoutLogLines(run.err), kStuck);
    EXPECT_LT(run.stopLatency, 8s);
}

} // namespace
} // namespace quarvel::test
