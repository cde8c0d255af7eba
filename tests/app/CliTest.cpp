// Black-box runs of the built program: each row is one run, with its exit code, what it prints
// and what it leaves. A run's working directory is its own, so that paths and messages are the
// same in all: the device is "device", the recording "rec.h5". The recorder schemes read a
// regular file, a FIFO, a directory or a socket as their device (number 0:0), whose control
// directory lies in a mount namespace of this test (root only).

#include "tests/app/Harness.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>

namespace quarvel::test {
namespace {

using namespace std::chrono_literals;
using ::testing::_;
using ::testing::IsEmpty;
using Text = ::testing::Matcher<const std::string&>;
namespace fs = std::filesystem;

MATCHER_P(Fully, pattern, "") {
    return std::regex_match(arg, std::regex(pattern));
}

struct Scene {
    ~Scene() {
        for (const auto& last : atEnd) {
            last();
        }
    }
    TempDir dir;
    std::string device = dir.file("device"), file = dir.file("rec.h5");
    Launch launch{{}, dir.path()};
    std::string delivered;                    // what the device delivers in all
    std::vector<std::function<void()>> atEnd; // after the run's checks
};

using Setup = std::function<void(Scene&)>;
using Act = std::function<void(Scene&, Program&)>;
constexpr uint64_t kAll = ~uint64_t{0};
const Text kProgress = Fully("(Transfer: [^\r]*\r)*");

// One run and how it must end.
struct Row {
    explicit Row(std::string rowName) : name(std::move(rowName)) {}
    template <typename Field, typename Value> Row& set(Field& field, Value value) {
        field = std::move(value);
        return *this;
    }
    // Given as --conf, --data-bytes, --rec-dev=device and --file=rec.h5, unless only().
    Row& records(std::string scheme, uint32_t count) { return set(conf, scheme).set(bytes, count); }
    Row& from(uint32_t address, char rate) {
        more = {"--src-addr=" + std::to_string(address), std::string("--data-rate=") + rate};
        return set(srcAddr, address).set(dataRate, rate);
    }
    Row& plus(std::vector<std::string> options) { return set(more, std::move(options)); }
    Row& only(std::vector<std::string> options) { return set(bare, true).plus(options); }
    Row& on(Setup device) { return set(root, true).with(std::move(device)); } // as root
    Row& with(Setup what) { return set(setup, std::move(what)); }
    Row& ends(int code, Text printed, std::string complaint) {
        return set(exitCode, code).set(out, std::move(printed)).set(err, std::move(complaint));
    }
    Row& thrown(const std::string& what) {
        return ends(42, IsEmpty(), "EXCPETION THROWN" + what + "\n");
    }
    // HDF5's own exception type is no std::exception.
    Row& refused(const std::string& path, const std::string& why) {
        return set(file, path)
            .ends(43, IsEmpty(), "UNKNOWN EXCEPTION THROWN\n")
            .logs("ERROR [SinkHDF5] cannot create " + path + ": " + why);
    }
    Row& completes(const std::string& counts, std::string complaint = "") {
        return ends(0,
                    Fully("(Transfer: [^\r]*\r)*\rTransfered: " + counts +
                          "     @ \\S+ \\S+/s {68}Transfer successful\n"),
                    std::move(complaint))
            .leaves("complete");
    }
    // An act that ends in a stop signal, that long after the program created FILE.part.
    Row& acts(std::chrono::milliseconds after, Act what) {
        return set(at, after).set(act, std::move(what)).ends(1, kProgress, kStopped);
    }
    Row& stops(std::chrono::milliseconds after, int signal = SIGTERM) {
        return acts(after, [signal](Scene&, Program& program) { kill(program.pid(), signal); });
    }
    Row& failsWriting(const std::string& why) {
        return ends(2, Fully("(Transfer: [^\r]*\r)*\rTransfered: [^\r\n]*"),
                    "Transfer to file failed, error = transfer aborted\nunknown\n\n")
            .logs("ERROR [SinkHDF5] writing rec.h5 failed: " + why)
            .leaves("failed", 1 << 20);
    }
    // Each line once among the log lines, after its time stamp.
    Row& logs(std::string lines) { return set(log, std::move(lines)); }
    // The recording left in this state ("recording": FILE.part) with all the device delivered,
    // or at least atLeast values; without a state none, and an older FILE stays.
    Row& leaves(std::string end, uint64_t atLeast = kAll) {
        return set(state, std::move(end)).set(least, atLeast);
    }
    // The recorder's srcmemaddr, datacount and datarate after the run.
    Row& programs(std::string settings) { return set(control, std::move(settings)); }

    std::vector<std::string> args() const {
        std::vector<std::string> all;
        if (!bare) {
            all = {"--conf=" + conf, "--data-bytes=" + std::to_string(bytes), "--rec-dev=device",
                   "--file=" + file};
        }
        all.insert(all.end(), more.begin(), more.end());
        return all;
    }

    inline static const std::string kStopped = "transfer abort requested by user (sigterm)\n";
    std::string name, conf = "mock", file = "rec.h5";
    uint32_t bytes = 4096, srcAddr = 0;
    char dataRate = 0;
    std::vector<std::string> more;
    bool bare = false, root = false;
    Setup setup = [](Scene&) {};
    int exitCode = 0;
    Text out = _;
    std::string err, log, state, control;
    uint64_t least = kAll;
    std::chrono::milliseconds at{0};
    Act act;
};

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

void expectRecording(const Row& row, const Scene& scene, const std::string& err) {
    const std::string path = scene.file + (row.state == "recording" ? ".part" : "");
    const uint64_t recorded = readRecording(path, 0).recorded();
    Recording r = readRecording(path, std::min<uint64_t>(recorded + 4096, 1 << 20));
    ASSERT_TRUE(r.opened);
    auto& a = r.attributes;
    EXPECT_EQ(a.size(), row.state == "failed" ? 12u : 11u); // "failure" only when failed
    if (row.state == "failed") {
        EXPECT_THAT(err, ::testing::HasSubstr("] " + a["failure"] + "\n"));
    }
    EXPECT_EQ(a["state"], row.state);
    EXPECT_EQ(a["scheme"] + " " + a["device"], row.conf + " device");
    EXPECT_EQ(a["data_bytes"] + " " + a["src_addr"] + " " + a["data_rate"],
              std::to_string(row.bytes) + " " + std::to_string(row.srcAddr) + " " +
                  std::to_string(int{row.dataRate}));
    const std::string stamp = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)";
    EXPECT_THAT(a["start_time"] + " " + a["end_time"], Fully(stamp + " " + stamp));
    EXPECT_LE(a["start_time"], a["end_time"]);
    EXPECT_THAT(a["software"], Fully(R"(quarvel \d+\.\d+\.\d+)"));
    EXPECT_NE(a["host"], "");
    EXPECT_EQ(r.length, row.bytes / (row.conf == "lumetra" ? 2 : 4));

    std::vector<int32_t> expected =
        row.conf == "mock" ? mockValues(r.values.size()) : decoded(row.conf, scene.delivered);
    if (row.least == kAll) {
        EXPECT_EQ(recorded,
                  std::min<uint64_t>(r.length, row.conf == "mock" ? kAll : expected.size()));
    } else if (!kSlow || !row.act) {
        EXPECT_GE(recorded, row.least);
    }
    // The device's values up to what the file says it holds; in a finished file 0 after them.
    expected.resize(static_cast<size_t>(std::min<uint64_t>(recorded, r.values.size())));
    if (row.state == "recording") {
        r.values.resize(expected.size());
    } else {
        expected.resize(r.values.size(), 0);
    }
    EXPECT_TRUE(r.values == expected) << "the file differs from the device's values";
}

class Run : public ::testing::TestWithParam<Row> {};

TEST_P(Run, EndsWithItsCodeTextsAndFiles) {
    const Row& row = GetParam();
    Scene scene;
    const std::string why = row.root ? privateControlDirectory() : "";
    if (!why.empty()) {
        GTEST_SKIP() << why;
    }
    row.setup(scene);
    ASSERT_FALSE(HasFatalFailure());
    const char* const kOlder = "an older recording"; // only a recording replaces it
    writeFile(scene.file, kOlder);
    scene.launch.args = row.args();
    Program program(scene.launch);
    auto acted = std::chrono::steady_clock::now();
    if (row.act) {
        EXPECT_TRUE(
            eventually([&] { return !program.running() || fs::exists(scene.file + ".part"); }));
        std::this_thread::sleep_for(row.at);
        row.act(scene, program);
        acted = std::chrono::steady_clock::now();
    }
    const Finished run = program.wait();

    EXPECT_EQ(run.exitCode, row.exitCode) << run.err;
    EXPECT_THAT(run.out, row.out);
    EXPECT_EQ(withoutLogLines(run.err), row.err);
    std::istringstream logged(row.log);
    for (std::string line; std::getline(logged, line);) {
        const std::string whole = "Z " + line + "\n";
        const auto first = run.err.find(whole);
        EXPECT_TRUE(first != std::string::npos &&
                    run.err.find(whole, first + 1) == std::string::npos)
            << "not once: " << line << "\n"
            << run.err;
    }
    EXPECT_TRUE(!row.act || std::chrono::steady_clock::now() - acted < (kSlow ? 3s : 1s))
        << "slow to end";
    if (!row.control.empty()) {
        const std::string at = "/sys/dev/char/0:0/device/control/";
        EXPECT_EQ(readFile(at + "srcmemaddr") + " " + readFile(at + "datacount") + " " +
                      readFile(at + "datarate"),
                  row.control);
    }
    EXPECT_EQ(fs::exists(scene.file + ".part"), row.state == "recording");
    if (row.state.empty() || row.state == "recording") {
        EXPECT_EQ(readFile(scene.file), kOlder);
    }
    if (!row.state.empty()) {
        expectRecording(row, scene, run.err);
    }
}

// Recorder words: sign edges first, then pseudo-random bytes.
std::string words(size_t count) {
    std::string bytes("\0\0\0\0\xFF\xFF\xFF\xFF\x80\0\0\x80\x7F\xFF\xFF\x7F\0\x80\xFE\x7F", 20);
    for (uint32_t seed = 7; bytes.size() < count * 4; seed = seed * 1664525u + 1013904223u) {
        bytes.push_back(static_cast<char>(seed >> 24));
    }
    return bytes;
}

// The device: a regular file.
Setup fileOf(std::string bytes) {
    return [bytes](Scene& scene) { writeFile(scene.device, scene.delivered = bytes); };
}

// The device: a FIFO that delivers the bytes, then stalls; its writer stays there.
Setup stallingFifoOf(std::string bytes) {
    return [bytes](Scene& scene) {
        ASSERT_EQ(::mkfifo(scene.device.c_str(), 0600), 0);
        const int writer = ::open(scene.device.c_str(), O_RDWR | O_NONBLOCK);
        scene.atEnd.emplace_back([writer] { ::close(writer); });
        ::fcntl(writer, F_SETPIPE_SZ, static_cast<int>(bytes.size()));
        ASSERT_EQ(::write(writer, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        scene.delivered = bytes;
    };
}

// The device: a socket, which cannot be opened.
void socketFile(Scene& scene) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    scene.device.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ::close(fd);
}

// The run's directory is a file system of 8 MiB.
void smallDisk(Scene& scene) {
    const std::string disk = scene.dir.path();
    ASSERT_EQ(::mount("none", disk.c_str(), "tmpfs", 0, "size=8m"), 0);
    scene.atEnd.emplace_back([disk] { ::umount2(disk.c_str(), MNT_DETACH); });
}

// What a crashed run left; it must survive the run.
void crashLeftover(Scene& scene) {
    writeFile(scene.file + ".part", "a crashed run's recording");
    scene.atEnd.emplace_back(
        [&scene] { EXPECT_EQ(readFile(scene.file + ".part.1"), "a crashed run's recording"); });
}

// A second run on the same file, while this one records.
void secondRunIsRefused(Scene& scene, Program& first) {
    const Finished second = runQuarvel(scene.launch);
    EXPECT_EQ(second.exitCode, 42);
    EXPECT_EQ(withoutLogLines(second.err), "EXCPETION THROWNanother run is writing rec.h5 (its "
                                           "temporary file rec.h5.part is locked)\n");
    kill(first.pid(), SIGTERM);
}

// A device that stalls has what it delivered checkpointed within about a second all the same:
// FILE.part, as a crash would leave it now, holds it.
void checkpointedWhileStalled(Scene& scene, Program& program) {
    const std::string copy = scene.dir.file("copy.h5");
    const auto holdsAll = [&] {
        std::error_code ignored; // the run holds HDF5's lock on FILE.part: read a copy
        fs::copy_file(scene.file + ".part", copy, fs::copy_options::overwrite_existing, ignored);
        const Recording now = readRecording(copy, 0);
        return now.attributes.count("recorded_values") > 0 &&
               now.recorded() == scene.delivered.size() / 4;
    };
    EXPECT_TRUE(eventually(holdsAll, kSlow ? 6s : 2s)) << "no checkpoint while the device stalls";
    kill(program.pid(), SIGTERM);
}

const std::string kMissing = "no file argument provided but required\nno data-bytes argument "
                             "provided but required\nno configuration name provided, but "
                             "required\nno recorder device provided\n";
const std::string kSchemes =
    "The requested configuration doesn't exist. Available configurations are: \n"
    "int32\tDecode 32 bits signed integer, into HDF5\n"
    "lumetra\tDecode data from Lumetra ADC (Signal or Lock)\n"
    "mock\tMock data recorder, HDF5 sink\n"
    "tavoadc\tDecode data from Tavo ADC (Signal or Lock)\n\n";
constexpr uint32_t kLargest = 4294967292u; // no run of this size ends before its signal

INSTANTIATE_TEST_SUITE_P(
    Cli, Run,
    ::testing::Values(
        // Runs that cannot start.
        Row("NoOptions").only({}).ends(1, ::testing::StartsWith("Supported Options:\n"), kMissing),
        // A value of the wrong kind; the data rate is one character.
        Row("UnreadableValue")
            .plus({"--data-rate=10"})
            .ends(1, ::testing::StartsWith("Supported"), ""),
        Row("UnknownLogLevel")
            .plus({"--log-level=verbose"})
            .ends(1, IsEmpty(),
                  "invalid value 'verbose' for --log-level: use fatal, error, "
                  "warning, info, debug or 0 to 5\n"),
        Row("VersionWinsOverEveryOtherWord")
            .only({"--log-level=verbose", "--conf=mock", "--version"})
            .ends(0, Fully("quarvel \\d+\\.\\d+\\.\\d+\n"), ""),
        Row("UnknownScheme").records("MOCK", 4096).ends(2, IsEmpty(), kSchemes),
        Row("ByteCountNotAMultipleOf4")
            .records("mock", 6)
            .thrown("bytesCount must be a multiple of 4"),
        // Refused before the recorder is programmed.
        Row("ByteCountTheDecoderCannotDeliver")
            .records("lumetra", 2147483652u)
            .on(fileOf(""))
            .thrown("data-bytes too large for the Lumetra DDS decoder: 2147483652 bytes decode to "
                    "more than 4294967295 bytes")
            .programs("  "),
        Row("DeviceThatCannotBeOpened")
            .records("int32", 4096)
            .on(socketFile)
            .thrown("Failed to open the recorder device for reading")
            .logs("ERROR [Recoder] ~start: cannot open device: No such device or address"),
        Row("MissingDevice")
            .records("int32", 4096)
            .thrown("Failed to get stat from cdev, file exist?")
            .logs("ERROR [Recoder] ::stat on recorder cdev failed with 2"),
        Row("FileInAMissingDirectory").refused("missing/rec.h5", "No such file or directory"),
        Row("FileThatIsADirectory").refused(".", "Is a directory"),
        Row("FileThatIsADevice").refused("/dev/full", "Not a regular file"),

        // Whole recordings.
        Row("RecordingOfNothing").records("mock", 0).completes("0 B / 0 B     0%"),
        Row("MockRecording").records("mock", 1000000).completes("977 KB / 977 KB     100%"),
        Row("ClosedStandardOutputDoesNotEndTheRecording")
            .records("mock", 4u << 20)
            .with([](Scene& scene) { scene.launch.closedStdout = true; })
            .leaves("complete"),
        // Only the byte count is taken of a device that has more.
        Row("RecorderRecording")
            .records("lumetra", 160000)
            .from(4294967295u, '7')
            .on(fileOf(words(40000) + "bytes beyond the byte count"))
            .completes("156 KB / 156 KB     100%")
            .programs("4294967295 160000 55"),

        // Stopped within a second, with what was recorded.
        // The progress line is rewritten every 250 ms.
        Row("SigtermStops")
            .records("mock", kLargest)
            .stops(500ms)
            .ends(1, Fully("(Transfer: [^\r]*\r){2,}"), Row::kStopped)
            .logs("ERROR [quarvel] GOT SIGTERM")
            .leaves("stopped", 4096),
        Row("SigintStops").records("mock", kLargest).stops(500ms, SIGINT).leaves("stopped", 4096),
        Row("SighupStops").records("mock", kLargest).stops(500ms, SIGHUP).leaves("stopped", 4096),
        Row("DeviceThatEndsEarlyIsPolledUntilStopped")
            .records("lumetra", 8192)
            .plus({"--log-level=fatal", "--log-level", "4"})
            .on(fileOf(words(1000)))
            .stops(500ms)
            .logs("INFO [Recoder] Reached end of file on recorder device")
            .leaves("stopped"),
        // Regression: a device that delivered and then stalled kept its mover in the kernel's
        // read, and the deadline then left an unreadable file.
        Row("StalledDevice")
            .records("int32", 8u << 20)
            .on(stallingFifoOf(words(1u << 18)))
            .acts(0ms, checkpointedWhileStalled)
            .leaves("stopped"),
        // Regression: a FIFO that nobody writes kept the program in the device's open.
        Row("SilentDevice")
            .records("int32", 4096)
            .on([](Scene& scene) { ::mkfifo(scene.device.c_str(), 0600); })
            .stops(300ms),
        // A directory opens, but each read fails; the repeats are held back.
        Row("DeviceWhoseReadsFailDoesNotFloodTheLog")
            .records("int32", 4096)
            .on([](Scene& scene) { fs::create_directory(scene.device); })
            .stops(2s)
            .logs("ERROR [Recoder] Got error 1 while reading on recorder device\n"
                  "ERROR [Recoder] reading device failed: Is a directory"),
        // kill -9 leaves FILE.part readable up to its last checkpoint, at most a second old.
        Row("Killed")
            .records("mock", kLargest)
            .stops(1500ms, SIGKILL)
            .ends(-1, _, "")
            .leaves("recording", 1),

        // Failed writes keep what the file took.
        Row("FullDisk")
            .records("mock", 256u << 20)
            .on(smallDisk)
            .failsWriting("No space left on device"),
        Row("FileSizeLimit")
            .records("mock", 256u << 20)
            .with([](Scene& scene) { scene.launch.fileSizeLimit = 8 << 20; })
            .failsWriting("File too large"),

        // The run that writes FILE.part goes on undisturbed; a crashed run's one is kept.
        Row("SecondRunOnAFileBeingWrittenIsRefused")
            .records("mock", kLargest)
            .acts(300ms, secondRunIsRefused)
            .leaves("stopped", 1),
        Row("CrashedRunsRecordingIsMovedAside")
            .with(crashLeftover)
            .completes("4 KB / 4 KB     100%", "quarvel: moved the unfinished recording of an "
                                               "earlier run from rec.h5.part to rec.h5.part.1\n")),
    [](const ::testing::TestParamInfo<Row>& row) { return row.param.name; });

// A file size limit that the file's creation already passes: no signal ends the program (what
// HDF5 does at exit after the failed write is another matter).
TEST(Cli, FileSizeLimitIsNoSignal) {
    TempDir dir;
    const Finished run =
        runQuarvel({{"--conf=mock", "--data-bytes=4096", "--rec-dev=device", "--file=rec.h5"},
                    dir.path(),
                    1024});
    EXPECT_NE(run.signal, SIGXFSZ) << run.err;
}

} // namespace
} // namespace quarvel::test
