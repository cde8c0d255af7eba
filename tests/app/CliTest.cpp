// Black-box runs of the built program, through the emulator in cross builds. The recorder
// schemes read a regular file or a FIFO as their device (number 0:0), whose control directory
// is on a tmpfs over /sys/dev/char in a mount namespace of this test (root only).

#include "tests/support/TestSupport.h"

#include <H5Cpp.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include <sched.h>
#include <sys/ioctl.h>
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

struct Launch {
    std::vector<std::string> args;
    int stopSignal = 0; // sent stopDelay after the program has created its temporary file
    std::chrono::milliseconds stopDelay{0};
    rlim_t fileSizeLimit = RLIM_INFINITY; // a full disk
    bool closedStdout = false;            // standard output is a pipe nobody reads
};

struct RunResult {
    int exitCode = -1; // -1 when a signal ended the process
    std::string out, err;
    std::chrono::steady_clock::duration stopLatency{}; // from the stop signal to the end
};

RunResult runQuarvel(const Launch& launch) {
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
        int out = ::open(outPath.c_str(), O_CREAT | O_WRONLY, 0600);
        const int err = ::open(errPath.c_str(), O_CREAT | O_WRONLY, 0600);
        const rlimit limit{launch.fileSizeLimit, launch.fileSizeLimit};
        sigset_t none; // the test runner may have blocked signals
        sigemptyset(&none);
        int pipeEnds[2] = {-1, -1};
        if (launch.closedStdout && pipe(pipeEnds) == 0) {
            ::close(out);
            ::close(pipeEnds[0]);
            out = pipeEnds[1];
        }
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
        if (launch.stopSignal != 0 && created == never &&
            access((output + ".part").c_str(), F_OK) == 0) {
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
    r.values.resize(static_cast<size_t>(read));
    space.selectHyperslab(H5S_SELECT_SET, &read, &start);
    dataset.read(r.values.data(), H5::PredType::NATIVE_INT32, H5::DataSpace(1, &read), space);
    return r;
}

// A string attribute of the dataset, as any HDF5 reader sees it.
std::string stringAttribute(const H5::DataSet& dataset, const char* name) {
    const H5::Attribute attribute = dataset.openAttribute(name);
    std::string value;
    attribute.read(attribute.getStrType(), value);
    return value.substr(0, value.find('\0'));
}

// What the file says about its recording.
struct Description {
    uint64_t recordedValues = 0;
    std::string state, failure;
    bool hasFailure = false;
};

Description describe(const std::string& path) {
    H5::Exception::dontPrint();
    const H5::DataSet dataset = H5::H5File(path, H5F_ACC_RDONLY).openDataSet("quarvel");
    Description d;
    dataset.openAttribute("recorded_values").read(H5::PredType::NATIVE_UINT64, &d.recordedValues);
    d.state = stringAttribute(dataset, "state");
    d.hasFailure = dataset.attrExists("failure");
    if (d.hasFailure) {
        d.failure = stringAttribute(dataset, "failure");
    }
    return d;
}

bool exists(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
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
    const std::string unknown = "UNKNOWN EXCEPTION THROWN\n";
    // The last field is a log line that must be among the others (empty: none asked for).
    const std::tuple<std::vector<std::string>, int, std::string, std::string, std::string> cases[] =
        {{{},
          1,
          options,
          "no file argument provided but required\nno data-bytes argument provided but required\n"
          "no configuration name provided, but required\nno recorder device provided\n",
          ""},
         {{"--data-rate=10"}, 1, options, "", ""}, // reported in the log
         {argsFor(file, 4096, "MOCK"), 2, "", schemes, ""},
         {argsFor(file, 6), 42, "", "EXCPETION THROWNbytesCount must be a multiple of 4\n", ""},
         {argsFor(file, 4096, "int32"), 42, "",
          "EXCPETION THROWNFailed to get stat from cdev, file exist?\n", ""},
         // Destinations that cannot be created; HDF5's own exception type is no
         // std::exception.
         {argsFor(dir.file("missing/rec.h5"), 4096), 43, "", unknown,
          "ERROR [SinkHDF5] cannot create " + dir.file("missing/rec.h5") +
              ": No such file or directory"},
         {argsFor(dir.path(), 4096), 43, "", unknown,
          "ERROR [SinkHDF5] cannot create " + dir.path() + ": Is a directory"},
         {argsFor("/dev/full", 4096), 43, "", unknown,
          "ERROR [SinkHDF5] cannot create /dev/full: Not a regular file"}};
    for (const auto& [args, exitCode, out, err, logLine] : cases) {
        SCOPED_TRACE(::testing::PrintToString(args));
        const RunResult run = runQuarvel({args});
        EXPECT_EQ(run.exitCode, exitCode);
        EXPECT_EQ(run.out, out);
        EXPECT_EQ(withoutLogLines(run.err), err);
        if (!logLine.empty()) {
            EXPECT_THAT(run.err, ::testing::HasSubstr("Z " + logLine + "\n"));
        }
    }
    EXPECT_NE(access(file.c_str(), F_OK), 0);
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()))
        << "a run that could not start left something behind";
    EXPECT_FALSE(exists(dir.path() + ".part"));
    EXPECT_FALSE(exists("/dev/full.part"));
}

// The values from index 0 up to what the file says it recorded are the decoded counter.
void expectMockPrefix(const std::string& path, uint64_t recorded) {
    const Recording recording = readRecording(path, recorded);
    ASSERT_EQ(recording.values.size(), recorded);
    for (size_t k = 0; k < recording.values.size(); ++k) {
        ASSERT_EQ(recording.values[k], mockSample(k)) << "sample " << k;
    }
}

TEST(Cli, MockRecordingHoldsEveryDecodedCounterWordAndDescribesItself) {
    for (const uint32_t bytes : {0u, 4096u, 1000000u}) {
        TempDir dir;
        const std::string file = dir.file("rec.h5");
        writeFile(file, "an older recording");
        const RunResult run = runQuarvel({argsFor(file, bytes)});
        ASSERT_EQ(run.exitCode, 0) << run.err;
        EXPECT_EQ(run.err, "");
        // Progress lines, each rewritten by the next, then the final one.
        EXPECT_TRUE(std::regex_match(
            run.out, std::regex("(Transfer: [^\r]*\r)*\rTransfered: (\\S+ \\S+)"
                                " / \\2     (100|0)%     @ \\S+ \\S+/s {68}Transfer successful\n")))
            << run.out;
        EXPECT_FALSE(exists(file + ".part"));
        const Recording recording = readRecording(file);
        EXPECT_EQ(recording.length, bytes / 4);
        expectMockPrefix(file, bytes / 4);

        const Description d = describe(file);
        EXPECT_EQ(d.state, "complete");
        EXPECT_EQ(d.recordedValues, bytes / 4);
        EXPECT_FALSE(d.hasFailure);
        const H5::DataSet dataset = H5::H5File(file, H5F_ACC_RDONLY).openDataSet("quarvel");
        EXPECT_EQ(stringAttribute(dataset, "scheme"), "mock");
        EXPECT_EQ(stringAttribute(dataset, "device"), "/dev/does-not-exist");
        const std::regex time(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)");
        EXPECT_TRUE(std::regex_match(stringAttribute(dataset, "start_time"), time));
        EXPECT_TRUE(std::regex_match(stringAttribute(dataset, "end_time"), time));
        EXPECT_LE(stringAttribute(dataset, "start_time"), stringAttribute(dataset, "end_time"));
        EXPECT_TRUE(std::regex_match(stringAttribute(dataset, "software"),
                                     std::regex(R"(quarvel \d+\.\d+\.\d+)")));
        EXPECT_NE(stringAttribute(dataset, "host"), "");
        uint32_t dataBytes = 1, srcAddr = 1;
        uint8_t dataRate = 1;
        dataset.openAttribute("data_bytes").read(H5::PredType::NATIVE_UINT32, &dataBytes);
        dataset.openAttribute("src_addr").read(H5::PredType::NATIVE_UINT32, &srcAddr);
        dataset.openAttribute("data_rate").read(H5::PredType::NATIVE_UINT8, &dataRate);
        EXPECT_EQ(dataBytes, bytes);
        EXPECT_EQ(srcAddr, 0u);
        EXPECT_EQ(dataRate, 0u);
    }
}

// A mock recording that the file could not take whole: the mover texts, the log line that
// names the file and the reason, and a readable prefix that the file says is all it holds.
void expectFailedWriteKeptItsData(const RunResult& run, const std::string& file,
                                  const std::string& reason) {
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_EQ(withoutLogLines(run.err),
              "Transfer to file failed, error = transfer aborted\nunknown\n\n");
    EXPECT_THAT(run.err, ::testing::HasSubstr("Z ERROR [SinkHDF5] writing " + file +
                                              " failed: " + reason + "\n"));
    const Description d = describe(file);
    EXPECT_EQ(d.state, "failed");
    EXPECT_THAT(d.failure, ::testing::HasSubstr(reason));
    EXPECT_GT(d.recordedValues, 1u << 20);
    expectMockPrefix(file, d.recordedValues);
}

// SIGXFSZ is ignored: a file size limit (a FAT32 card) ends the run as a failed write, with
// the data so far in a readable file. Regression: HDF5's exit handlers crashed afterwards.
TEST(Cli, FileSizeLimitFailsTheRunAndKeepsWhatWasRecorded) {
    TempDir dir;
    const std::string file = dir.file("rec.h5");
    expectFailedWriteKeptItsData(runQuarvel({argsFor(file, 256u << 20), 0, 0ms, 8 << 20}), file,
                                 "File too large");
}

// Standard output that nobody reads (quarvel ... | head -c 300) does not end the recording.
TEST(Cli, ClosedStandardOutputDoesNotEndTheRecording) {
    TempDir dir;
    Launch launch{argsFor(dir.file("rec.h5"), 4u << 20)};
    launch.closedStdout = true;
    const RunResult run = runQuarvel(launch);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(describe(dir.file("rec.h5")).state, "complete");
}

// A failed start, a second run on a file being written and a crashed run's leftover never
// cost an existing recording.
TEST(Cli, RecordingsAreNeverReplacedByRunsThatStoreNothing) {
    TempDir dir;
    const std::string file = dir.file("rec.h5");
    writeFile(file, "an older recording");
    const RunResult failed = runQuarvel({argsFor(file, 4096, "int32")});
    EXPECT_EQ(failed.exitCode, 42);
    EXPECT_EQ(readFile(file), "an older recording");
    EXPECT_FALSE(exists(file + ".part"));

    // The first run would stop by itself only at 4 GiB; the second starts while it records.
    const pid_t first = fork();
    if (first == 0) {
        const RunResult run = runQuarvel({argsFor(file, 4294967292u), SIGTERM, 1500ms});
        _exit(run.exitCode == 1 ? 0 : 1);
    }
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (!exists(file + ".part") && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(5ms);
    }
    const RunResult second = runQuarvel({argsFor(file, 4096)});
    EXPECT_EQ(second.exitCode, 42);
    EXPECT_THAT(withoutLogLines(second.err),
                ::testing::HasSubstr("another run is writing " + file));
    int status = 0;
    ASSERT_EQ(waitpid(first, &status, 0), first);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the first run was disturbed";
    const Description d = describe(file);
    EXPECT_EQ(d.state, "stopped");
    expectMockPrefix(file, d.recordedValues);

    // What a crash left is moved aside, not overwritten.
    writeFile(file + ".part", "a crashed run's recording");
    const RunResult after = runQuarvel({argsFor(file, 4096)});
    EXPECT_EQ(after.exitCode, 0);
    EXPECT_THAT(after.err, ::testing::HasSubstr(file + ".part.1"));
    EXPECT_EQ(readFile(file + ".part.1"), "a crashed run's recording");
    EXPECT_EQ(describe(file).state, "complete");
}

// kill -9 (or a power cut) at any moment leaves the temporary file readable up to its last
// checkpoint, which is at most about a second old.
TEST(Cli, KilledRecordingIsReadableUpToItsLastCheckpoint) {
    for (const auto delay : {1300ms, 2100ms, 2900ms}) {
        SCOPED_TRACE(delay.count());
        TempDir dir;
        const std::string file = dir.file("rec.h5");
        // The largest recording, so that none ends before its kill, however fast the machine.
        const RunResult run = runQuarvel({argsFor(file, 4294967292u), SIGKILL, delay});
        EXPECT_EQ(run.exitCode, -1);
        ASSERT_TRUE(exists(file + ".part"));
        const Description d = describe(file + ".part");
        EXPECT_EQ(d.state, "recording");
        if (!kSanitized && !kEmulated) {
            EXPECT_GT(d.recordedValues, 0u) << "no checkpoint in over a second";
        }
        expectMockPrefix(file + ".part", d.recordedValues);
    }
}

class StoppedRecording : public ::testing::TestWithParam<std::tuple<int, int>> {};

// SIGHUP (a dropped ssh session) stops the run as SIGTERM and SIGINT do.
TEST_P(StoppedRecording, EndsWithinASecondAndKeepsAReadableFile) {
    const auto [stopSignal, delayMs] = GetParam();
    TempDir dir;
    const std::string file = dir.file("rec.h5");
    const RunResult run =
        runQuarvel({argsFor(file, 4294967292u), stopSignal, std::chrono::milliseconds(delayMs)});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(withoutLogLines(run.err), "transfer abort requested by user (sigterm)\n");
    EXPECT_TRUE(std::regex_match(run.out, std::regex("(Transfer: [^\r]*\r)*"))) << run.out;
    EXPECT_LT(run.stopLatency, kSanitized || kEmulated ? 3s : 1s);
    EXPECT_FALSE(exists(file + ".part"));
    if (!exists(file)) {
        EXPECT_EQ(delayMs, 0) << "a second into the recording something must be in the file";
        return; // stopped before anything was stored
    }
    const Description d = describe(file);
    EXPECT_EQ(d.state, "stopped");
    EXPECT_EQ(readRecording(file, 0).length, 4294967292u / 4);
    expectMockPrefix(file, std::min<uint64_t>(d.recordedValues, 1u << 20));
    if (delayMs > 0 && !kSanitized && !kEmulated) {
        EXPECT_GT(d.recordedValues, 4096u);
    }
}

INSTANTIATE_TEST_SUITE_P(EarlyAndMidway, StoppedRecording,
                         ::testing::Combine(::testing::Values(SIGTERM, SIGINT, SIGHUP),
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
            values.push_back(static_cast<int32_t>(uint32_t{byte(i)} | uint32_t{byte(i + 1)} << 8 |
                                                  uint32_t{byte(i + 2)} << 16 |
                                                  uint32_t{byte(i + 3)} << 24));
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
    std::vector<std::string> args = argsFor(output, 8192, conf, device);
    args.push_back("--log-level=info");
    const RunResult run = runQuarvel({args, SIGTERM, 500ms});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(withoutLogLines(run.err), "transfer abort requested by user (sigterm)\n");
    EXPECT_NE(run.err.find("Reached end of file on recorder device"), std::string::npos);
    EXPECT_EQ(run.out.find("Transfer successful"), std::string::npos);
    EXPECT_LT(run.stopLatency, kSanitized ? 3s : 1s);
    std::vector<int32_t> expected = decoded(conf, few);
    const Description d = describe(output);
    EXPECT_EQ(d.state, "stopped");
    EXPECT_EQ(d.recordedValues, expected.size());
    expected.resize(conf == "lumetra" ? 4096 : 2048); // zeros where nothing was written
    EXPECT_EQ(readRecording(output).values, expected);
}

INSTANTIATE_TEST_SUITE_P(Schemes, RecorderSchemes,
                         ::testing::Values("int32", "tavoadc", "lumetra"));

// Regressions: a device that delivered and then stalled kept its mover in the kernel's read,
// and the deadline then left an unreadable file; a FIFO that nobody writes kept the program
// in the device's open.
TEST_F(RecorderSchemes, StalledDeviceStopsPromptlyWithEverythingItDelivered) {
    ASSERT_EQ(::mkfifo(device.c_str(), 0600), 0);
    const std::string words = recorderWords(1u << 18); // 1 MiB
    for (const std::string conf : {"int32", "tavoadc"}) {
        SCOPED_TRACE(conf);
        // Read-write: the writer stays open, so the device stalls instead of ending.
        const int writer = ::open(device.c_str(), O_RDWR);
        ASSERT_GE(writer, 0);
        std::thread feed([&] { EXPECT_EQ(::write(writer, words.data(), words.size()), 1 << 20); });
        const RunResult run =
            runQuarvel({argsFor(output, 8u << 20, conf, device), SIGTERM, 1500ms});
        feed.join();
        ::close(writer);
        EXPECT_EQ(run.exitCode, 1);
        EXPECT_EQ(withoutLogLines(run.err), "transfer abort requested by user (sigterm)\n");
        EXPECT_LT(run.stopLatency, kSanitized ? 3s : 1s);
        const Description d = describe(output);
        EXPECT_EQ(d.state, "stopped");
        const std::vector<int32_t> expected = decoded(conf, words);
        EXPECT_EQ(d.recordedValues, expected.size());
        EXPECT_EQ(readRecording(output, expected.size()).values, expected);
    }

    writeFile(output, "an older recording");
    const RunResult silent = runQuarvel({argsFor(output, 4096, "int32", device), SIGTERM, 300ms});
    EXPECT_EQ(silent.exitCode, 1);
    EXPECT_EQ(withoutLogLines(silent.err), "transfer abort requested by user (sigterm)\n");
    EXPECT_LT(silent.stopLatency, kSanitized ? 3s : 1s);
    EXPECT_EQ(readFile(output), "an older recording");
    EXPECT_FALSE(exists(output + ".part"));
}

// What the program logged: the lines that begin with a time stamp.
long logLineCount(const std::string& err) {
    const std::regex line(R"((^|\n)\d{4}-\d\d-\d\dT\S*Z )");
    return std::distance(std::sregex_iterator(err.begin(), err.end(), line),
                         std::sregex_iterator());
}

// Unmounts what a test mounted in the private namespace, also when the test fails early.
struct MountGuard {
    std::string path;
    ~MountGuard() { ::umount2(path.c_str(), MNT_DETACH); }
};

// The fixture's namespace also keeps this small file system to the test.
TEST_F(RecorderSchemes, FullDiskFailsTheRunAndTheFileSaysWhy) {
    TempDir disk;
    ASSERT_EQ(::mount("none", disk.path().c_str(), "tmpfs", 0, "size=8m"), 0)
        << std::strerror(errno);
    const MountGuard unmount{disk.path()};
    const std::string file = disk.file("rec.h5");
    expectFailedWriteKeptItsData(runQuarvel({argsFor(file, 256u << 20)}), file,
                                 "No space left on device");
}

// The attributes written before the one that fails stay written, those after it are not.
TEST_F(RecorderSchemes, AttributeThatCannotBeWrittenIsNamedWithTheReason) {
    const std::string control = "/sys/dev/char/0:0/device/control";
    const std::string datacount = control + "/datacount";
    writeFile(device, recorderWords(1024));
    const std::tuple<std::function<void()>, std::string, std::string> cases[] = {
        {[&] { fs::create_directory(datacount); }, "EXCPETION THROWNCould not open sysfs entry\n",
         "ERROR [Recoder] cannot open sysfs entry " + datacount + ": Is a directory"},
        // As a driver that refuses the value: the open works, the write fails.
        {[&] { fs::create_symlink("/dev/full", datacount); },
         "EXCPETION THROWNCould not write sysfs entry\n",
         "ERROR [Recoder] cannot write sysfs entry " + datacount + ": No space left on device"}};
    for (const auto& [makeDatacount, err, logLine] : cases) {
        SCOPED_TRACE(err);
        fs::remove_all(control); // a symlink goes, not what it points to
        fs::create_directories(control);
        makeDatacount();
        std::vector<std::string> args = argsFor(output, 4096, "int32", device);
        args.push_back("--src-addr=8192");
        const RunResult run = runQuarvel({args});
        EXPECT_EQ(run.exitCode, 42);
        EXPECT_EQ(withoutLogLines(run.err), err);
        EXPECT_THAT(run.err, ::testing::HasSubstr("Z " + logLine + "\n"));
        EXPECT_EQ(readFile(control + "/srcmemaddr"), "8192");
        EXPECT_FALSE(exists(control + "/datarate"));
        EXPECT_FALSE(exists(output));
    }
}

// A directory opens as a device, but each read fails: the reason is told, the repeats are held
// back. Besides those two lines only the stop is logged.
TEST_F(RecorderSchemes, DeviceWhoseReadsFailDoesNotFloodTheLog) {
    const std::string directory = dir.file("directory");
    ASSERT_TRUE(fs::create_directory(directory));
    const RunResult run = runQuarvel({argsFor(output, 4096, "int32", directory), SIGTERM, 2s});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(withoutLogLines(run.err), "transfer abort requested by user (sigterm)\n");
    EXPECT_THAT(run.err, ::testing::HasSubstr(
                             "Z ERROR [Recoder] Got error 1 while reading on recorder device\n"));
    EXPECT_THAT(run.err, ::testing::HasSubstr("Z ERROR [Recoder] reading " + directory +
                                              " failed: Is a directory\n"));
    EXPECT_LE(logLineCount(run.err), 4) << run.err;
}

// The FIFO's writer goes away (the program meets its end) and another one brings the rest.
TEST_F(RecorderSchemes, FifoWriterThatComesBackCompletesTheRecording) {
    ASSERT_EQ(::mkfifo(device.c_str(), 0600), 0);
    const std::string words = recorderWords(16384); // each half fits into the pipe
    const size_t half = words.size() / 2;
    // Read-write, so that the first half waits in the FIFO before the program opens it;
    // close-on-exec, so that the program holds no writer of its own.
    const int first = ::open(device.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(first, 0);
    ASSERT_EQ(::write(first, words.data(), half), static_cast<ssize_t>(half));
    std::atomic<bool> ended{false};
    std::thread feed([&] {
        int pending = 1;
        while (!ended && ::ioctl(first, FIONREAD, &pending) == 0 && pending > 0) {
            std::this_thread::sleep_for(5ms);
        }
        ::close(first);
        std::this_thread::sleep_for(1s); // meanwhile the program reads the end of the FIFO
        if (ended) {
            return;
        }
        const int second = ::open(device.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        ASSERT_GE(second, 0) << std::strerror(errno);
        EXPECT_EQ(::write(second, words.data() + half, words.size() - half),
                  static_cast<ssize_t>(words.size() - half));
        ::close(second);
    });
    std::vector<std::string> args =
        argsFor(output, static_cast<uint32_t>(words.size()), "int32", device);
    args.push_back("--log-level=info");
    const RunResult run = runQuarvel({args, SIGTERM, 20s}); // the signal only ends a hang
    ended = true;
    feed.join();
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(withoutLogLines(run.err), "");
    EXPECT_THAT(run.err, ::testing::HasSubstr("Reached end of file on recorder device"));
    EXPECT_NE(run.out.find("Transfer successful"), std::string::npos);
    EXPECT_EQ(describe(output).state, "complete");
    EXPECT_EQ(readRecording(output).values, decoded("int32", words));
}

} // namespace
} // namespace quarvel::test
