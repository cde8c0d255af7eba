// Black-box runs of the built program, through the emulator in cross builds: each row is one
// run, with its exit code, what it prints and what it leaves. The recorder schemes read a regular
// file, a FIFO, a directory or a socket as their device (number 0:0), whose control directory is
// on a tmpfs over /sys/dev/char in a mount namespace of this test (root only).

#include "tests/support/TestSupport.h"

#include <H5Cpp.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <map>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

namespace quarvel::test {
namespace {

using namespace std::chrono_literals;
using ::testing::_;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Text = ::testing::Matcher<const std::string&>;
namespace fs = std::filesystem;

// Cross builds run the program through the emulator that runs the tests.
constexpr bool kEmulated = sizeof(QUARVEL_LAUNCHER) > 1;
// Sanitized and emulated programs record and stop more slowly.
constexpr bool kSlow = kEmulated || sizeof(QUARVEL_SANITIZE) > 1;

// How the program is started, and what the test does while it runs.
struct Launch {
    std::vector<std::string> args;
    rlim_t fileSizeLimit = RLIM_INFINITY;
    bool closedStdout = false;       // standard output is a pipe nobody reads
    std::chrono::milliseconds at{0}; // after the program has created its temporary file
    std::function<void(pid_t)> act = {};
};

struct RunResult {
    int exitCode = -1; // -1 when a signal ended the process
    std::string out, err;
    std::chrono::steady_clock::duration latency{}; // from the end of the act to the end
};

std::vector<std::string> split(const std::string& words) {
    std::istringstream in(words);
    return {std::istream_iterator<std::string>(in), {}};
}

// The value of --name=VALUE among args; empty when it is not given so.
std::string option(const std::vector<std::string>& args, const std::string& name) {
    for (const auto& arg : args) {
        if (arg.rfind("--" + name + "=", 0) == 0) {
            return arg.substr(name.size() + 3);
        }
    }
    return {};
}

RunResult runQuarvel(const Launch& launch) {
    TempDir streams;
    const std::string outPath = streams.file("out"), errPath = streams.file("err");
    const std::string part = option(launch.args, "file") + ".part"; // the act waits for it
    std::vector<std::string> argv = split(QUARVEL_LAUNCHER);
    argv.push_back(QUARVEL_BINARY);
    argv.insert(argv.end(), launch.args.begin(), launch.args.end());
    std::vector<char*> pointers;
    for (auto& arg : argv) {
        pointers.push_back(arg.data());
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
    Clock::time_point created = never, acted = never;
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) != pid) {
        const auto now = Clock::now();
        if (now > deadline) {
            kill(pid, SIGKILL); // a hang fails the test, not the whole suite
        }
        if (launch.act && created == never && access(part.c_str(), F_OK) == 0) {
            created = now;
        }
        if (created != never && acted == never && now >= created + launch.at) {
            launch.act(pid);
            acted = Clock::now();
        }
        std::this_thread::sleep_for(1ms);
    }
    const auto end = Clock::now();
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(outPath), readFile(errPath),
            acted == never ? Clock::duration{} : end - acted};
}

// Standard error without the log lines, which begin with a time stamp.
std::string withoutLogLines(const std::string& text) {
    return std::regex_replace(text, std::regex(R"(\d{4}-\d\d-\d\dT\S*Z [^\n]*\n)"), "");
}

MATCHER_P(Fully, pattern, "") {
    return std::regex_match(arg, std::regex(pattern));
}

// Where one run happens.
struct Scene {
    ~Scene() {
        for (const auto& last : atEnd) {
            last();
        }
    }
    std::string expand(const std::string& text) const {
        const std::string withFile = std::regex_replace(text, std::regex("\\{file\\}"), file);
        const std::string withDevice =
            std::regex_replace(withFile, std::regex("\\{dev\\}"), device);
        return std::regex_replace(withDevice, std::regex("\\{dir\\}"), dir.path());
    }

    TempDir dir;
    std::string file = dir.file("rec.h5"), device = dir.file("device");
    Launch launch;
    std::string delivered;                    // what the device delivers in all
    std::vector<std::function<void()>> atEnd; // after the checks of the run
    std::string skip;                         // why the run cannot be made here
};

// What the test does before the run, and while it runs.
using Setup = std::function<void(Scene&)>;
using Act = std::function<void(Scene&, pid_t)>;

constexpr uint64_t kAll = ~uint64_t{0};
const char* const kOlder = "an older recording";

// One run and how it must end. In options and texts {file}, {dev} and {dir} stand for the run's
// own paths.
struct Row {
    std::string name;
    std::vector<std::string> args;
    int exitCode;
    Text out;
    std::string err;      // standard error without its log lines
    std::string log = {}; // lines that are each once among the log lines, after their time stamp
    // The recording left: none ("", FILE as it was), or one in this state ("recording":
    // FILE.part) with all that the source delivered, or at least atLeast values.
    std::string state = {};
    uint64_t atLeast = kAll;
    Setup setup = [](Scene&) {};
    std::chrono::milliseconds at = 0ms;
    Act act = {};
};

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

std::vector<std::string> args(const std::string& conf, uint32_t bytes,
                              const std::string& file = "{file}", const std::string& more = "") {
    return split("--conf=" + conf + " --rec-dev={dev} --file=" + file +
                 " --data-bytes=" + std::to_string(bytes) + " " + more);
}

// Recorder words: sign edges first, then pseudo-random bytes.
std::string words(size_t count) {
    uint32_t seed = 7;
    std::string bytes("\0\0\0\0\xFF\xFF\xFF\xFF\x80\0\0\x80\x7F\xFF\xFF\x7F\0\x80\xFE\x7F", 20);
    while (bytes.size() < count * 4) {
        seed = seed * 1664525u + 1013904223u;
        bytes.push_back(static_cast<char>(seed >> 24));
    }
    return bytes;
}

// What the scheme must store of the recorder's bytes, or of the mock recorder's counter words.
std::vector<int32_t> decoded(const std::string& conf, const std::string& bytes, size_t mockCount) {
    std::vector<int32_t> values;
    for (size_t k = 0; conf == "mock" && k < mockCount; ++k) {
        values.push_back(static_cast<int16_t>((k & 0xFF) << 8 | (k >> 8 & 0xFF)) >> 2);
    }
    const auto byte = [&](size_t i) { return static_cast<uint8_t>(bytes[i]); };
    for (size_t i = 0; conf != "mock" && i + 4 <= bytes.size(); i += 4) {
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

// The dataset's attributes, as text.
std::map<std::string, std::string> attributesOf(const H5::DataSet& dataset) {
    std::map<std::string, std::string> found;
    for (int i = 0; i < dataset.getNumAttrs(); ++i) {
        const H5::Attribute attribute = dataset.openAttribute(static_cast<unsigned>(i));
        std::string value;
        if (attribute.getTypeClass() == H5T_STRING) {
            attribute.read(attribute.getStrType(), value);
            value = value.substr(0, value.find('\0'));
        } else {
            uint64_t number = 0;
            attribute.read(H5::PredType::NATIVE_UINT64, &number);
            value = std::to_string(number);
        }
        found[attribute.getName()] = value;
    }
    return found;
}

// The recording the run left, as any HDF5 reader sees it.
void expectRecording(const Row& row, const Scene& scene, const std::string& err) {
    const std::string file = option(scene.launch.args, "file");
    H5::Exception::dontPrint();
    const H5::DataSet dataset =
        H5::H5File(row.state == "recording" ? file + ".part" : file, H5F_ACC_RDONLY)
            .openDataSet("quarvel");
    std::map<std::string, std::string> a = attributesOf(dataset);
    // Every attribute; "failure" only when failed, and then it was logged.
    EXPECT_EQ(a.size(), row.state == "failed" ? 12u : 11u);
    EXPECT_EQ(a["state"], row.state);
    if (row.state == "failed") {
        EXPECT_THAT(err, HasSubstr("] " + a["failure"] + "\n"));
    }
    const std::string conf = option(scene.launch.args, "conf"),
                      rate = option(scene.launch.args, "data-rate");
    const std::string srcAddr = option(scene.launch.args, "src-addr");
    EXPECT_EQ(a["scheme"], conf);
    EXPECT_EQ(a["device"], option(scene.launch.args, "rec-dev"));
    EXPECT_EQ(a["data_bytes"], option(scene.launch.args, "data-bytes"));
    EXPECT_EQ(a["src_addr"], srcAddr.empty() ? "0" : srcAddr);
    EXPECT_EQ(a["data_rate"], std::to_string(rate.empty() ? 0 : rate[0]));
    const char* const stamp = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)";
    EXPECT_THAT(a["start_time"], Fully(stamp));
    EXPECT_THAT(a["end_time"], Fully(stamp));
    EXPECT_LE(a["start_time"], a["end_time"]);
    EXPECT_THAT(a["software"], Fully(R"(quarvel \d+\.\d+\.\d+)"));
    EXPECT_NE(a["host"], "");

    hsize_t length = 0;
    const H5::DataSpace space = dataset.getSpace();
    space.getSimpleExtentDims(&length);
    EXPECT_EQ(length, std::stoull(a["data_bytes"]) / (conf == "lumetra" ? 2 : 4));
    hsize_t count = std::min<hsize_t>(length, 1 << 20);
    const hsize_t start = 0;
    space.selectHyperslab(H5S_SELECT_SET, &count, &start);
    std::vector<int32_t> values(static_cast<size_t>(count));
    dataset.read(values.data(), H5::PredType::NATIVE_INT32, H5::DataSpace(1, &count), space);

    std::vector<int32_t> expected = decoded(conf, scene.delivered, values.size());
    const uint64_t recorded = std::stoull(a["recorded_values"]);
    if (row.atLeast == kAll) {
        EXPECT_EQ(recorded, conf == "mock" ? length : std::min<uint64_t>(length, expected.size()));
    } else if (!kSlow || !row.act) {
        EXPECT_GE(recorded, row.atLeast);
    }
    // Up to what the file says it holds, the source's values; in a finished file 0 after them.
    expected.resize(static_cast<size_t>(std::min<uint64_t>(recorded, values.size())));
    if (row.state == "recording") {
        values.resize(expected.size());
    } else {
        expected.resize(values.size(), 0);
    }
    EXPECT_EQ(values, expected);
}

size_t occurrences(const std::string& text, const std::string& part) {
    size_t found = 0;
    for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) {
        ++found;
    }
    return found;
}

class Run : public ::testing::TestWithParam<Row> {};

TEST_P(Run, EndsWithItsCodeTextsAndFiles) {
    const Row& row = GetParam();
    Scene scene;
    for (const auto& arg : row.args) {
        scene.launch.args.push_back(scene.expand(arg));
    }
    // Where the name allows, an older FILE, which only a recording replaces.
    const std::string file = option(scene.launch.args, "file");
    writeFile(file, kOlder);
    const bool older = fs::is_regular_file(file);
    row.setup(scene);
    if (!scene.skip.empty()) {
        GTEST_SKIP() << scene.skip;
    }
    ASSERT_FALSE(HasFatalFailure());
    scene.launch.at = row.at;
    if (row.act) {
        scene.launch.act = [&](pid_t pid) { row.act(scene, pid); };
    }
    const RunResult run = runQuarvel(scene.launch);

    EXPECT_EQ(run.exitCode, row.exitCode) << run.err;
    EXPECT_THAT(run.out, row.out);
    EXPECT_EQ(withoutLogLines(run.err), scene.expand(row.err));
    std::istringstream logged(scene.expand(row.log));
    for (std::string line; std::getline(logged, line);) {
        EXPECT_EQ(occurrences(run.err, "Z " + line + "\n"), 1u) << run.err;
    }
    EXPECT_LT(run.latency, kSlow ? 3s : 1s);
    if (file.empty()) {
        return;
    }
    EXPECT_EQ(fs::exists(file + ".part"), row.state == "recording");
    if (row.state.empty() || row.state == "recording") {
        EXPECT_EQ(fs::is_regular_file(file) ? readFile(file) : "", older ? kOlder : "");
    }
    if (!row.state.empty()) {
        expectRecording(row, scene, run.err);
    }
}

// False, and the run is skipped, where the test cannot have a mount namespace of its own; there
// the device number 0:0 of the test's files gets a control directory.
bool privateMounts(Scene& scene) {
    scene.skip = kEmulated ? "no mount namespace under the emulator" : privateSysfs();
    fs::remove_all("/sys/dev/char/0:0"); // on our own tmpfs
    return scene.skip.empty() && fs::create_directories("/sys/dev/char/0:0/device/control");
}

// The device: a regular file.
Setup fileOf(std::string bytes) {
    return [bytes](Scene& scene) {
        scene.delivered = bytes;
        if (privateMounts(scene)) {
            writeFile(scene.device, bytes);
        }
    };
}

// The device: a FIFO that delivers the bytes, then stalls; its writer stays there.
Setup stallingFifoOf(std::string bytes) {
    return [bytes](Scene& scene) {
        if (!privateMounts(scene) || ::mkfifo(scene.device.c_str(), 0600) != 0) {
            return;
        }
        const int writer = ::open(scene.device.c_str(), O_RDWR | O_NONBLOCK);
        scene.atEnd.emplace_back([writer] { ::close(writer); });
        ::fcntl(writer, F_SETPIPE_SZ, static_cast<int>(bytes.size()));
        ASSERT_EQ(::write(writer, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        scene.delivered = bytes;
    };
}

// The device: a FIFO whose writer delivers the first half of the bytes and stays, until the
// writer comes back.
Setup returningFifoOf(std::string bytes) {
    return [bytes](Scene& scene) {
        if (!privateMounts(scene) || ::mkfifo(scene.device.c_str(), 0600) != 0) {
            return;
        }
        // Read-write, so that the first half waits in the FIFO before the program opens it;
        // close-on-exec, so that the program holds no writer of its own.
        const int first = ::open(scene.device.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        const size_t half = bytes.size() / 2; // fits into the pipe
        ASSERT_EQ(::write(first, bytes.data(), half), static_cast<ssize_t>(half));
        scene.delivered = bytes;
        scene.atEnd.emplace_back([first] { ::close(first); });
    };
}

// The writer goes away (the program meets the FIFO's end); a second later another one brings
// the rest.
void writerComesBack(Scene& scene, pid_t) {
    scene.atEnd.back()();
    scene.atEnd.pop_back();
    std::this_thread::sleep_for(1s);
    const std::string rest = scene.delivered.substr(scene.delivered.size() / 2);
    const int second = ::open(scene.device.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(::write(second, rest.data(), rest.size()), static_cast<ssize_t>(rest.size()));
    ::close(second);
}

// The device: a FIFO that nobody writes.
void silentFifo(Scene& scene) {
    if (privateMounts(scene)) {
        ::mkfifo(scene.device.c_str(), 0600);
    }
}

// The device: a directory, which opens, but each read fails.
void directory(Scene& scene) {
    if (privateMounts(scene)) {
        fs::create_directory(scene.device);
    }
}

// The device: a socket, which cannot be opened.
void socketFile(Scene& scene) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    scene.device.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (privateMounts(scene)) {
        ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ::close(fd);
}

// The run's directory is a file system of 8 MiB.
void smallDisk(Scene& scene) {
    const std::string disk = scene.dir.path();
    if (privateMounts(scene) && ::mount("none", disk.c_str(), "tmpfs", 0, "size=8m") == 0) {
        scene.atEnd.emplace_back([disk] { ::umount2(disk.c_str(), MNT_DETACH); });
    }
}

// A second run on the same file, while this one records; this one is stopped after it.
void secondRunIsRefused(Scene& scene, pid_t pid) {
    const RunResult second = runQuarvel({scene.launch.args});
    EXPECT_EQ(second.exitCode, 42);
    EXPECT_EQ(withoutLogLines(second.err),
              scene.expand("EXCPETION THROWNanother run is writing {file} (its temporary file "
                           "{file}.part is locked)\n"));
    kill(pid, SIGTERM);
}

Act send(int signalNumber) {
    return [signalNumber](Scene&, pid_t pid) { kill(pid, signalNumber); };
}

void closedStdout(Scene& scene) {
    scene.launch.closedStdout = true;
}

void fileSizeLimit(Scene& scene) {
    scene.launch.fileSizeLimit = 8 << 20;
}

// What a crashed run left; it must survive the run.
void crashLeftover(Scene& scene) {
    writeFile(scene.file + ".part", "a crashed run's recording");
    scene.atEnd.emplace_back(
        [&scene] { EXPECT_EQ(readFile(scene.file + ".part.1"), "a crashed run's recording"); });
}

const std::string kHelp =
    "Supported Options:\n"
    "  --file arg            save the recorded data to the provided file\n"
    "  --src-addr arg        address at which the recorder starts to write, default \n"
    "                        is 0\n"
    "  --data-rate arg       N in formula: used percentage of full speed = 100 - (N \n"
    "                        * 6.25), default 0 (full data rate)\n"
    "  --data-bytes arg      Number of bytes to record\n"
    "  --conf arg            Configuration scheme name\n"
    "  --rec-dev arg         Path to the recorder device, e.g. /dev/myrecorder\n\n";
const std::string kSchemes =
    "The requested configuration doesn't exist. Available configurations are: \n"
    "int32\tDecode 32 bits signed integer, into HDF5\n"
    "lumetra\tDecode data from Lumetra ADC (Signal or Lock)\n"
    "mock\tMock data recorder, HDF5 sink\n"
    "tavoadc\tDecode data from Tavo ADC (Signal or Lock)\n\n";
const std::string kUnknown = "UNKNOWN EXCEPTION THROWN\n";
const std::string kStopped = "transfer abort requested by user (sigterm)\n";
const std::string kWriteFailed = "Transfer to file failed, error = transfer aborted\nunknown\n\n";
const std::string kEndOfDevice = "INFO [Recoder] Reached end of file on recorder device";
// Progress lines, each rewritten by the next; then the last one.
const Text kProgress = Fully("(Transfer: [^\r]*\r)*");
const Text kSucceeded = Fully("(Transfer: [^\r]*\r)*\rTransfered: (\\S+ \\S+) / \\2     (100|0)%"
                              "     @ \\S+ \\S+/s {68}Transfer successful\n");
const Text kUnfinished = Fully("(Transfer: [^\r]*\r)*\rTransfered: [^\r\n]*");
// No recording of this size ends before its signal, however fast the machine.
constexpr uint32_t kLargest = 4294967292u;
const Setup kNothing = [](Scene&) {};
const std::string kDeviceWords = words(40000) + "bytes beyond the byte count";

INSTANTIATE_TEST_SUITE_P(
    Cli, Run,
    ::testing::Values(
        // Runs that cannot start.
        Row{"NoOptions", split(""), 1, kHelp,
            "no file argument provided but required\nno data-bytes argument provided but "
            "required\nno configuration name provided, but required\nno recorder device "
            "provided\n"},
        Row{"UnreadableValue", args("mock", 4096, "{file}", "--data-rate=10"), 1, kHelp, "",
            "ERROR [CommandLineOptions] Parsing command line options failed with 'the argument "
            "('10') for option '--data-rate' is invalid'"},
        Row{"UnknownLogLevel", args("mock", 4096, "{file}", "--log-level=verbose"), 1, IsEmpty(),
            "invalid value 'verbose' for --log-level: use fatal, error, warning, info, debug or 0 "
            "to 5\n"},
        Row{"VersionWinsOverEveryOtherWord", split("--log-level=verbose --conf=mock --version"), 0,
            Fully("quarvel \\d+\\.\\d+\\.\\d+\n"), ""},
        Row{"UnknownScheme", args("MOCK", 4096), 2, IsEmpty(), kSchemes},
        Row{"ByteCountNotAMultipleOf4", args("mock", 6), 42, IsEmpty(),
            "EXCPETION THROWNbytesCount must be a multiple of 4\n"},
        Row{"RecorderByteCountNotAMultipleOf4", args("int32", 6), 42, IsEmpty(),
            "EXCPETION THROWNSize must be a multiple of 4 bytes\n", "", "", kAll, fileOf("")},
        Row{"DeviceThatCannotBeOpened", args("int32", 4096), 42, IsEmpty(),
            "EXCPETION THROWNFailed to open the recorder device for reading\n",
            "ERROR [Recoder] ~start: cannot open {dev}: No such device or address", "", kAll,
            socketFile},
        Row{"MissingDevice", args("int32", 4096), 42, IsEmpty(),
            "EXCPETION THROWNFailed to get stat from cdev, file exist?\n",
            "ERROR [Recoder] ::stat on recorder cdev failed with 2"},
        // HDF5's own exception type is no std::exception.
        Row{"FileInAMissingDirectory", args("mock", 4096, "{dir}/missing/rec.h5"), 43, IsEmpty(),
            kUnknown,
            "ERROR [SinkHDF5] cannot create {dir}/missing/rec.h5: No such file or directory"},
        Row{"FileThatIsADirectory", args("mock", 4096, "{dir}"), 43, IsEmpty(), kUnknown,
            "ERROR [SinkHDF5] cannot create {dir}: Is a directory"},
        Row{"FileThatIsADevice", args("mock", 4096, "/dev/full"), 43, IsEmpty(), kUnknown,
            "ERROR [SinkHDF5] cannot create /dev/full: Not a regular file"},

        // Whole recordings.
        Row{"RecordingOfNothing", args("mock", 0), 0, kSucceeded, "", "", "complete"},
        Row{"MockRecording", args("mock", 1000000, "{file}", "--src-addr=8192 --data-rate=7"), 0,
            kSucceeded, "", "", "complete"},
        Row{"ClosedStandardOutputDoesNotEndTheRecording", args("mock", 4u << 20), 0, _, "", "",
            "complete", kAll, closedStdout},
        Row{"Int32Recording", args("int32", 160000), 0, kSucceeded, "", "", "complete", kAll,
            fileOf(kDeviceWords)},
        Row{"TavoAdcRecording", args("tavoadc", 160000), 0, kSucceeded, "", "", "complete", kAll,
            fileOf(kDeviceWords)},
        Row{"LumetraRecording", args("lumetra", 160000), 0, kSucceeded, "", "", "complete", kAll,
            fileOf(kDeviceWords)},
        Row{"FifoWriterThatComesBackCompletesTheRecording",
            args("int32", 65536, "{file}", "--log-level=info"), 0, kSucceeded, "", kEndOfDevice,
            "complete", kAll, returningFifoOf(words(16384)), 500ms, writerComesBack},

        // Stopped within a second, with what was recorded.
        Row{"SigtermStops", args("mock", kLargest), 1, kProgress, kStopped, "", "stopped", 4096,
            kNothing, 1s, send(SIGTERM)},
        Row{"SigintStops", args("mock", kLargest), 1, kProgress, kStopped, "", "stopped", 4096,
            kNothing, 1s, send(SIGINT)},
        Row{"SighupOfADroppedSessionStops", args("mock", kLargest), 1, kProgress, kStopped, "",
            "stopped", 4096, kNothing, 1s, send(SIGHUP)},
        Row{"DeviceThatEndsEarlyIsPolledUntilStopped",
            args("lumetra", 8192, "{file}", "--log-level=fatal --log-level info"), 1, kProgress,
            kStopped, kEndOfDevice, "stopped", kAll, fileOf(words(1000)), 500ms, send(SIGTERM)},
        // Regression: a device that delivered and then stalled kept its mover in the kernel's
        // read, and the deadline then left an unreadable file.
        Row{"StalledDevice", args("int32", 8u << 20), 1, kProgress, kStopped, "", "stopped", kAll,
            stallingFifoOf(words(1u << 18)), 1500ms, send(SIGTERM)},
        // Regression: a FIFO that nobody writes kept the program in the device's open.
        Row{"SilentDevice", args("int32", 4096), 1, kProgress, kStopped, "", "", kAll, silentFifo,
            300ms, send(SIGTERM)},
        // The repeats of a failing read are held back.
        Row{"DeviceWhoseReadsFailDoesNotFloodTheLog", args("int32", 4096), 1, kProgress, kStopped,
            "ERROR [Recoder] Got error 1 while reading on recorder device\n"
            "ERROR [Recoder] reading {dev} failed: Is a directory",
            "", kAll, directory, 2s, send(SIGTERM)},

        // kill -9 at any moment leaves FILE.part readable up to its last checkpoint, at most
        // about a second old.
        Row{"KilledAfter1300ms", args("mock", kLargest), -1, _, "", "", "recording", 1, kNothing,
            1300ms, send(SIGKILL)},
        Row{"KilledAfter2100ms", args("mock", kLargest), -1, _, "", "", "recording", 1, kNothing,
            2100ms, send(SIGKILL)},
        Row{"KilledAfter2900ms", args("mock", kLargest), -1, _, "", "", "recording", 1, kNothing,
            2900ms, send(SIGKILL)},

        // Failed writes keep what the file took. Regression: after a file size limit (SIGXFSZ
        // is ignored), HDF5's exit handlers crashed.
        Row{"FullDisk", args("mock", 256u << 20), 2, kUnfinished, kWriteFailed,
            "ERROR [SinkHDF5] writing {file} failed: No space left on device", "failed", 1 << 20,
            smallDisk},
        Row{"FileSizeLimit", args("mock", 256u << 20), 2, kUnfinished, kWriteFailed,
            "ERROR [SinkHDF5] writing {file} failed: File too large", "failed", 1 << 20,
            fileSizeLimit},

        // The run that writes FILE.part goes on undisturbed; a crashed run's one is kept.
        Row{"SecondRunOnAFileBeingWrittenIsRefused", args("mock", kLargest), 1, kProgress, kStopped,
            "", "stopped", 1, kNothing, 500ms, secondRunIsRefused},
        Row{"CrashedRunsRecordingIsMovedAside", args("mock", 4096), 0, kSucceeded,
            "quarvel: moved the unfinished recording of an earlier run from {file}.part to "
            "{file}.part.1\n",
            "", "complete", kAll, crashLeftover}),
    [](const ::testing::TestParamInfo<Row>& row) { return row.param.name; });

} // namespace
} // namespace quarvel::test
