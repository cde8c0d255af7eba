// Black-box runs of the built program, through the emulator in cross builds. The recorder
// schemes read a regular file or a FIFO as their device (number 0:0), whose control directory
// is on a tmpfs over /sys/dev/char in a mount namespace of this test (root only).

#include "tests/support/TestSupport.h"

#include <H5Cpp.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace quarvel::test {
namespace {

using namespace std::chrono_literals;

// Cross builds run the program through the emulator that runs the tests.
constexpr bool kEmulated = sizeof(QUARVEL_LAUNCHER) > 1;
// Sanitized programs stop more slowly.
constexpr bool kSanitized = sizeof(QUARVEL_SANITIZE) > 1;

struct RunSpec {
    std::vector<std::string> args;
    int stopSignal = 0; // sent stopDelay after the program has created its output file
    std::chrono::milliseconds stopDelay{0};
    rlim_t fileSizeLimit = RLIM_INFINITY; // a full disk
};

struct RunResult {
    int exitCode = -1; // -1 when a signal ended the process
    std::string out, err;
    std::chrono::steady_clock::duration stopLatency{}; // from the stop signal to the end
};

RunResult runQuarvel(const RunSpec& launch) {
    TempDir streams;
    const std::string outPath = streams.file("out"), errPath = streams.file("err");
    std::istringstream launcher(QUARVEL_LAUNCHER);
    std::vector<std::string> argv{std::istream_iterator<std::string>(launcher), {}};
    argv.push_back(QUARVEL_BINARY);
    argv.insert(argv.end(), launch.args.begin(), launch.args.end());
    std::string output; // the stop signal waits for it
    std::vector<char*> pointers;
    for (auto& arg : argv) {
        pointers.push_back(arg.data());
        output = arg.rfind("--file=", 0) == 0 ? arg.substr(7) : output;
    }
    pointers.push_back(nullptr);

    const pid_t pid = fork();
    if (pid == 0) {
        const int out = ::open(outPath.c_str(), O_CREAT | O_WRONLY, 0600);
        const int err = ::open(errPath.c_str(), O_CREAT | O_WRONLY, 0600);
        const rlimit limit{launch.fileSizeLimit, launch.fileSizeLimit};
        signal(SIGXFSZ, SIG_IGN); // a write past the limit fails with EFBIG instead
        sigset_t none;            // the test runner may have blocked signals
        sigemptyset(&none);
        if (dup2(out, 1) >= 0 && dup2(err, 2) >= 0 &&
            (launch.fileSizeLimit == RLIM_INFINITY || setrlimit(RLIMIT_FSIZE, &limit) == 0) &&
            sigprocmask(SIG_SETMASK, &none, nullptr) == 0) {
            execv(pointers[0], pointers.data());
        }
        _exit(127);
    }

    using Clock = std::chrono::steady_clock;
    const Clock::time_point never{}, deadline = Clock::now() + 5min;
    Clock::time_point created = never, signalled = never;
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) != pid) {
        const auto now = Clock::now();
        if (now > deadline) {
            kill(pid, SIGKILL); // a hang fails the test, not the whole suite
        }
        if (launch.stopSignal != 0 && created == never && access(output.c_str(), F_OK) == 0) {
            created = now;
        }
        if (created != never && signalled == never && now >= created + launch.stopDelay) {
            kill(pid, launch.stopSignal);
            signalled = now;
        }
        std::this_thread::sleep_for(1ms);
    }
    const auto end = Clock::now();
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(outPath), readFile(errPath),
            signalled == never ? Clock::duration{} : end - signalled};
}

// Standard error without the log lines, which begin with a time stamp.
std::string withoutLogLines(const std::string& text) {
    return std::regex_replace(text, std::regex(R"(\d{4}-\d\d-\d\dT\S*Z [^\n]*\n)"), "");
}

// The length of a recording and its first values, up to the limit asked for.
struct Recording {
    hsize_t length = 0;
    std::vector<int32_t> values;
};

Recording readRecording(const std::string& path, hsize_t limit = ~hsize_t{0}) {
    H5::Exception::dontPrint();
    Recording r;
    const H5::DataSet dataset = H5::H5File(path, H5F_ACC_RDONLY).openDataSet("quarvel");
    H5::DataSpace space = dataset.getSpace();
    space.getSimpleExtentDims(&r.length);
    hsize_t read = std::min(r.length, limit);
    const hsize_t start = 0;
    r.values.resize(read);
    space.selectHyperslab(H5S_SELECT_SET, &read, &start);
    dataset.read(r.values.data(), H5::PredType::NATIVE_INT32, H5::DataSpace(1, &read), space);
    return r;
}

// The sample that the Tavo decoder makes of the mock recorder's k-th counter word.
int32_t mockSample(size_t k) {
    return static_cast<int16_t>(static_cast<uint16_t>((k & 0xFF) << 8 | (k >> 8 & 0xFF))) >> 2;
}

std::vector<std::string> argsFor(const std::string& file, uint32_t bytes,
                                 const std::string& conf = "mock",
                                 const std::string& device = "/dev/does-not-exist") {
    return {"--conf=" + conf, "--rec-dev=" + device, "--file=" + file,
            "--data-bytes=" + std::to_string(bytes)};
}

// Runs that end before any data moves: exact streams and exit codes, and no file.
TEST(Cli, RunsThatCannotStartReportExactly) {
    TempDir dir;
    const std::string file = dir.file("rec.h5");
    const std::string options =
        "Supported Options:\n"
        "  --file arg            save the recorded data to the provided file\n"
        "  --src-addr arg        address at which the recorder starts to write, default \n"
        "                        is 0\n"
        "  --data-rate arg       N in formula: used percentage of full speed = 100 - (N \n"
        "                        * 6.25), default 0 (full data rate)\n"
        "  --data-bytes arg      Number of bytes to record\n"
        "  --conf arg            Configuration scheme name\n"
        "  --rec-dev arg         Path to the recorder device, e.g. /dev/myrecorder\n\n";
    const std::string schemes =
        "The requested configuration doesn't exist. Available configurations are: \n"
        "int32\tDecode 32 bits signed integer, into HDF5\n"
        "lumetra\tDecode data from Lumetra ADC (Signal or Lock)\n"
        "mock\tMock data recorder, HDF5 sink\n"
        "tavoadc\tDecode data from Tavo ADC (Signal or Lock)\n\n";
    const std::tuple<std::vector<std::string>, int, std::string, std::string> cases[] = {
        {{},
         1,
         options,
         "no file argument provided but required\nno data-bytes argument provided but required\n"
         "no configuration name provided, but required\nno recorder device provided\n"},
        {{"--data-rate=10"}, 1, options, ""}, // reported in the log
        {argsFor(file, 4096, "MOCK"), 2, "", schemes},
        {argsFor(file, 6), 42, "", "EXCPETION THROWNbytesCount must be a multiple of 4\n"},
        {argsFor(file, 4096, "int32"), 42, "",
         "EXCPETION THROWNFailed to get stat from cdev, file exist?\n"},
        // HDF5's own exception type is no std::exception.
        {argsFor(dir.file("missing/rec.h5"), 4096), 43, "", "UNKNOWN EXCEPTION THROWN\n"}};
    for (const auto& [args, exitCode, out, err] : cases) {
        SCOPED_TRACE(::testing::PrintToString(args));
        const RunResult run = runQuarvel({args});
        EXPECT_EQ(run.exitCode, exitCode);
        EXPECT_EQ(run.out, out);
        EXPECT_EQ(withoutLogLines(run.err), err);
    }
    EXPECT_NE(access(file.c_str(), F_OK), 0);
}

TEST(Cli, MockRecordingHoldsEveryDecodedCounterWord) {
    for (const uint32_t bytes : {4096u, 1000000u}) {
        TempDir dir;
        const RunResult run = runQuarvel({argsFor(dir.file("rec.h5"), bytes)});
        ASSERT_EQ(run.exitCode, 0) << run.err;
        EXPECT_EQ(run.err, "");
        // Progress lines, each rewritten by the next, then the final one.
        EXPECT_TRUE(
            std::regex_match(run.out, std::regex("(Transfer: [^\r]*\r)*\rTransfered: (\\S+ \\S+)"
                                                 " / \\2     100%     @ \\S+ \\S+/s {68}"
                                                 "Transfer successful\n")))
            << run.out;
        const Recording recording = readRecording(dir.file("rec.h5"));
        EXPECT_EQ(recording.length, bytes / 4);
        for (size_t k = 0; k < recording.values.size(); ++k) {
            ASSERT_EQ(recording.values[k], mockSample(k)) << "sample " << k;
        }
    }
}

// Regression: after a file failed to close, HDF5's exit handlers crashed the process.
TEST(Cli, WriteFailureMidwayIsReportedWithTheMoverTexts) {
    TempDir dir;
    const RunResult run = runQuarvel({argsFor(dir.file("rec.h5"), 256u << 20), 0, 0ms, 64 << 10});
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_EQ(withoutLogLines(run.err),
              "Transfer to file failed, error = transfer aborted\nunknown\n\n");
    EXPECT_EQ(run.out.find("Transfer successful"), std::string::npos);
}

class StoppedRecording : public ::testing::TestWithParam<std::tuple<int, int>> {};

TEST_P(StoppedRecording, EndsWithinASecondAndKeepsAReadableFile) {
    const auto [stopSignal, delayMs] = GetParam();
    TempDir dir;
    const RunResult run = runQuarvel(
        {argsFor(dir.file("rec.h5"), 1u << 30), stopSignal, std::chrono::milliseconds(delayMs)});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(withoutLogLines(run.err), "transfer abort requested by user (sigterm)\n");
    EXPECT_TRUE(std::regex_match(run.out, std::regex("(Transfer: [^\r]*\r)*"))) << run.out;
    EXPECT_LT(run.stopLatency, kSanitized || kEmulated ? 3s : 1s);
    const Recording recording = readRecording(dir.file("rec.h5"), 1u << 20);
    EXPECT_EQ(recording.length, (1u << 30) / 4);
    // The counter from the start, then zeros where nothing was written yet.
    size_t n = 0;
    while (n < recording.values.size() && recording.values[n] == mockSample(n)) {
        ++n;
    }
    const std::vector<int32_t> rest(recording.values.begin() + n, recording.values.end());
    EXPECT_EQ(rest, std::vector<int32_t>(rest.size(), 0));
    if (delayMs > 0 && !kSanitized && !kEmulated) {
        EXPECT_GT(n, 4096u) << "a second into the recording something must be in the file";
    }
}

INSTANTIATE_TEST_SUITE_P(EarlyAndMidway, StoppedRecording,
                         ::testing::Combine(::testing::Values(SIGTERM, SIGINT),
                                            ::testing::Values(0, 1000)));

namespace fs = std::filesystem;

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
std::string recorderWords(size_t words) {
    uint32_t seed = 7;
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
        fs::create_directories("/sys/dev/char/0:0/device/control");
    }

    TempDir dir;
    const std::string output = dir.file("rec.h5");
    const std::string device = dir.file("device");
};

// A whole recording, then a device that ends early: polled until SIGTERM, what it gave is kept.
TEST_P(RecorderSchemes, RecordingIsStoredDecoded) {
    const std::string conf = GetParam(), words = recorderWords(160000 / 4),
                      few = words.substr(0, 4000);
    writeFile(device, words + "bytes beyond the byte count");
    const RunResult whole = runQuarvel({argsFor(output, 160000, conf, device)});
    ASSERT_EQ(whole.exitCode, 0) << whole.err;
    EXPECT_EQ(whole.err, "");
    EXPECT_EQ(readRecording(output).values, decoded(conf, words));

    writeFile(device, few);
    fs::remove(output); // the stop signal waits for the program to create it
    std::vector<std::string> args = argsFor(output, 8192, conf, device);
    args.push_back("--log-level=info");
    const RunResult run = runQuarvel({args, SIGTERM, 500ms});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(withoutLogLines(run.err), "transfer abort requested by user (sigterm)\n");
    const auto emptyRead = run.err.find("readThisTime = 0\n");
    EXPECT_NE(run.err.find("readThisTime = 0\n", emptyRead + 1), std::string::npos) << "no polls";
    EXPECT_EQ(run.out.find("Transfer successful"), std::string::npos);
    EXPECT_LT(run.stopLatency, kSanitized ? 3s : 1s);
    std::vector<int32_t> expected = decoded(conf, few);
    expected.resize(conf == "lumetra" ? 4096 : 2048); // zeros where nothing was written
    EXPECT_EQ(readRecording(output).values, expected);
}

INSTANTIATE_TEST_SUITE_P(Schemes, RecorderSchemes,
                         ::testing::Values("int32", "tavoadc", "lumetra"));

// Regressions: a device that never delivers kept its mover in the kernel's read, out of reach
// of any abort, and a FIFO that nobody writes kept the program in the device's open.
TEST_F(RecorderSchemes, SilentDeviceStillEndsOnSigterm) {
    ASSERT_EQ(::mkfifo(device.c_str(), 0600), 0);
    for (const bool writer : {true, false}) {
        SCOPED_TRACE(writer ? "blocked in read" : "blocked in open");
        if (!writer && std::strstr(QUARVEL_SANITIZE, "thread")) {
            continue; // ThreadSanitizer delivers no signal to a thread blocked inside open()
        }
        const int silentWriter = writer ? ::open(device.c_str(), O_RDWR) : -1;
        fs::remove(output); // the stop signal waits for the program to create it
        const RunResult run = runQuarvel({argsFor(output, 4096, "int32", device), SIGTERM, 300ms});
        ::close(silentWriter);
        EXPECT_EQ(run.exitCode, 1);
        EXPECT_EQ(withoutLogLines(run.err),
                  std::string(writer ? "transfer abort requested by user (sigterm)\n" : "") +
                      "quarvel: a data mover did not stop (the recorder device delivers "
                      "nothing); leaving without it\n");
        EXPECT_GE(run.stopLatency, writer ? 4s : 0s) << "the movers get their time to stop first";
        EXPECT_LT(run.stopLatency, 8s);
    }
}

} // namespace
} // namespace quarvel::test
