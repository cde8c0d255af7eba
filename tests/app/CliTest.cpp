#include "H5File.h"
#include "QuarvelRunner.h"

#include <gtest/gtest.h>

#include <regex>

namespace quarvel::test {
namespace {

using namespace std::chrono_literals;

const std::string kOptionList = "Supported Options:\n"
                                "  --file arg            save the recorded data to the provided "
                                "file\n"
                                "  --src-addr arg        address at which the recorder starts to "
                                "write, default \n"
                                "                        is 0\n"
                                "  --data-rate arg       N in formula: used percentage of full "
                                "speed = 100 - (N \n"
                                "                        * 6.25), default 0 (full data rate)\n"
                                "  --data-bytes arg      Number of bytes to record\n"
                                "  --conf arg            Configuration scheme name\n"
                                "  --rec-dev arg         Path to the recorder device, e.g. "
                                "/dev/myrecorder\n"
                                "\n";

const std::string kSchemeReport =
    "The requested configuration doesn't exist. Available configurations are: \n"
    "int32\tDecode 32 bits signed integer, into HDF5\n"
    "lumetra\tDecode data from Lumetra ADC (Signal or Lock)\n"
    "mock\tMock data recorder, HDF5 sink\n"
    "tavoadc\tDecode data from Tavo ADC (Signal or Lock)\n"
    "\n";

std::vector<std::string> mockArgs(const std::string& file, uint32_t bytes) {
    return {"--conf=mock", "--rec-dev=/dev/does-not-exist", "--file=" + file,
            "--data-bytes=" + std::to_string(bytes)};
}

// Every written chunk holds the decoded counter words; unwritten chunks read as the fill
// value 0 and only follow the written ones. Returns the number of written values.
size_t checkMockPrefix(const Recording& recording) {
    const size_t chunk = recording.chunk;
    size_t written = 0;
    bool gap = false;
    for (size_t start = 0; start < recording.values.size(); start += chunk) {
        const size_t end = std::min(recording.values.size(), start + chunk);
        bool allZero = true;
        bool matches = true;
        for (size_t i = start; i < end; ++i) {
            allZero = allZero && recording.values[i] == 0;
            matches = matches && recording.values[i] == mockSample(static_cast<uint32_t>(i));
        }
        if (matches && !allZero) {
            EXPECT_FALSE(gap) << "chunk at " << start << " written after a gap";
            written = end;
        } else {
            EXPECT_TRUE(allZero) << "chunk at " << start << " holds wrong values";
            gap = true;
        }
    }
    return written;
}

TEST(Cli, NoArgumentsListsTheMissingOptionsAndTheOptionList) {
    const RunResult run = runQuarvel(std::vector<std::string>{});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.err, "no file argument provided but required\n"
                       "no data-bytes argument provided but required\n"
                       "no configuration name provided, but required\n"
                       "no recorder device provided\n");
    EXPECT_EQ(run.out, kOptionList);
}

TEST(Cli, MalformedOptionsAreReportedWithTheOptionList) {
    const std::vector<std::string> good = {"--conf=mock", "--rec-dev=/dev/null", "--file=x.h5"};
    const std::vector<std::vector<std::string>> extras = {{"--data-bytes=4", "--data-rate=10"},
                                                          {"--data-bytes=4", "--src-addr=0x100"},
                                                          {"--data-bytes=4294967296"},
                                                          {"--data-bytes=4", "--conf=int32"},
                                                          {"--data-bytes"}};
    for (const auto& extra : extras) {
        std::vector<std::string> args = good;
        args.insert(args.end(), extra.begin(), extra.end());
        const RunResult run = runQuarvel(args);
        EXPECT_EQ(run.exitCode, 1) << extra.back();
        EXPECT_EQ(run.out, kOptionList) << extra.back();
        EXPECT_NE(run.err.find("ERROR [CommandLineOptions] Parsing command line options failed "
                               "with '"),
                  std::string::npos)
            << run.err;
    }
}

TEST(Cli, UnknownSchemeListsTheSchemesAndTouchesNothing) {
    TempDir dir;
    for (const std::string name : {"MOCK", " mock", "mock ", "int", "int32x", "tavo adc"}) {
        const RunResult run = runQuarvel({"--conf=" + name, "--rec-dev=/dev/does-not-exist",
                                          "--file=out.h5", "--data-bytes=4096"},
                                         dir.path());
        EXPECT_EQ(run.exitCode, 2) << "'" << name << "'";
        EXPECT_EQ(run.err, kSchemeReport) << "'" << name << "'";
        EXPECT_EQ(run.out, "");
        EXPECT_NE(access(dir.file("out.h5").c_str(), F_OK), 0) << "no file may be created";
    }
}

class MockRecording : public ::testing::TestWithParam<uint32_t> {};

TEST_P(MockRecording, FileHoldsEveryDecodedCounterWord) {
    const uint32_t bytes = GetParam();
    TempDir dir;
    const RunResult run = runQuarvel(mockArgs(dir.file("rec.h5"), bytes));
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.err, "");
    const std::string total =
        std::regex_replace(run.out, std::regex(R"(^(Transfer: [^\r]*\r)*)"), "");
    const std::regex final(
        R"(\rTransfered: (\S+ \S+) / (\S+ \S+)     100%     @ \S+ \S+/s {68}Transfer successful\n)");
    std::smatch match;
    ASSERT_TRUE(std::regex_match(total, match, final)) << run.out;
    EXPECT_EQ(match[1], match[2]);

    const Recording recording = readRecording(dir.file("rec.h5"));
    EXPECT_EQ(recording.length, bytes / 4);
    EXPECT_EQ(recording.maxLength, bytes / 4);
    EXPECT_EQ(recording.chunk, bytes >= 16384 ? 4096u : bytes / 4);
    EXPECT_EQ(recording.deflateLevel, 6);
    EXPECT_TRUE(recording.bigEndian);
    EXPECT_TRUE(recording.signedInt);
    EXPECT_EQ(recording.typeSize, 4u);
    for (uint32_t k = 0; k < recording.length; ++k) {
        ASSERT_EQ(recording.values[k], mockSample(k)) << "sample " << k;
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, MockRecording, ::testing::Values(4096u, 1000000u, 300000u));

TEST(Cli, ByteCountNotMultipleOfFourEndsWithTheExceptionText) {
    TempDir dir;
    const RunResult run = runQuarvel(mockArgs(dir.file("rec.h5"), 6));
    EXPECT_EQ(run.exitCode, 42);
    EXPECT_EQ(withoutLogLines(run.err), "EXCPETION THROWNbytesCount must be a multiple of 4\n");
    EXPECT_NE(run.err.find("FATAL [quarvel] EXCPETION THROWN: bytesCount must be a multiple of 4"),
              std::string::npos);
    EXPECT_EQ(run.out, "");
}

TEST(Cli, OutputInAMissingDirectoryIsAnUnknownException) {
    TempDir dir;
    const RunResult run = runQuarvel(mockArgs(dir.file("missing/rec.h5"), 4096));
    EXPECT_EQ(run.exitCode, 43);
    EXPECT_EQ(withoutLogLines(run.err), "UNKNOWN EXCEPTION THROWN\n");
    EXPECT_EQ(run.out, "");
}

TEST(Cli, LogLevelOptionShowsTheTrace) {
    TempDir dir;
    std::vector<std::string> args = mockArgs(dir.file("rec.h5"), 4096);
    args.push_back("--log-level=debug");
    const RunResult run = runQuarvel(args);
    EXPECT_EQ(run.exitCode, 0);
    for (const char* line :
         {"INFO [quarvel] starting data mover Mover 0 to 1 with size 4096",
          "INFO [quarvel] starting data mover Mover 1 to 2 with size 4096",
          "INFO [DataMover (name=Mover 1 to 2)] +thread(mBytesToTransfer = 4096)",
          "INFO [SinkHDF5] HDF5 sink closed"}) {
        EXPECT_NE(run.err.find(line), std::string::npos) << line;
    }
}

// A full disk in the middle of a recording: the file size limit makes HDF5's writes fail.
TEST(Cli, WriteFailureMidwayIsReportedWithTheMoverTexts) {
    TempDir dir;
    RunSpec launch;
    launch.args = mockArgs(dir.file("rec.h5"), 256u << 20);
    launch.fileSizeLimit = 64 * 1024;
    const RunResult run = runQuarvel(launch);
    EXPECT_EQ(run.exitCode, 2) << run.err;
    const std::string report = withoutLogLines(run.err);
    EXPECT_EQ(report.rfind("Transfer to file failed, error = ", 0), 0u) << report;
    EXPECT_NE(report.find("unknown\n"), std::string::npos) << report;
    EXPECT_EQ(report.substr(report.size() - 2), "\n\n") << report;
    EXPECT_EQ(run.out.find("Transfer successful"), std::string::npos);
}

struct StopCase {
    int signal;
    std::chrono::milliseconds delay; // after the handler is installed
};

void PrintTo(const StopCase& stop, std::ostream* out) {
    *out << (stop.signal == SIGTERM ? "SIGTERM" : "SIGINT") << " after " << stop.delay.count()
         << " ms";
}

class StoppedRecording : public ::testing::TestWithParam<StopCase> {};

TEST_P(StoppedRecording, EndsWithinASecondAndKeepsAReadableFile) {
    const StopCase stop = GetParam();
    TempDir dir;
    RunSpec launch;
    launch.args = mockArgs(dir.file("rec.h5"), 1u << 30);
    // Under an emulator /proc shows the emulator's handlers, so give the guest time instead.
    const auto settle = emulated() ? 1500ms : 0ms;
    stopAfter(launch, stop.signal, stop.delay + settle);
    const RunResult run = runQuarvel(launch);
    ASSERT_EQ(run.termSignal, 0) << "killed by the signal instead of stopping";
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(withoutLogLines(run.err), "transfer abort requested by user (sigterm)\n");
    EXPECT_NE(run.err.find("ERROR [quarvel] GOT SIGTERM"), std::string::npos);
    EXPECT_EQ(run.out.find("Transfer successful"), std::string::npos);
    EXPECT_EQ(run.out.find("Transfered"), std::string::npos);
    const auto limit = (sanitized() || emulated()) ? 3000ms : 1000ms;
    EXPECT_LT(run.stopLatency, limit);

    const Recording recording = readRecording(dir.file("rec.h5"));
    EXPECT_EQ(recording.length, (1u << 30) / 4);
    const size_t written = checkMockPrefix(recording);
    if (stop.delay >= 1000ms && !sanitized() && !emulated()) {
        EXPECT_GT(written, 0u) << "a second into the recording something must be in the file";
    }
}

INSTANTIATE_TEST_SUITE_P(Moments, StoppedRecording,
                         ::testing::Values(StopCase{SIGTERM, 0ms}, StopCase{SIGTERM, 300ms},
                                           StopCase{SIGTERM, 1500ms}, StopCase{SIGINT, 0ms},
                                           StopCase{SIGINT, 300ms}, StopCase{SIGINT, 1500ms}),
                         [](const ::testing::TestParamInfo<StopCase>& param) {
                             return std::string(param.param.signal == SIGTERM ? "Term" : "Int") +
                                    "After" + std::to_string(param.param.delay.count()) + "ms";
                         });

} // namespace
} // namespace quarvel::test
