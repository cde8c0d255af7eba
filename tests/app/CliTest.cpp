#include "QuarvelRunner.h"

#include <gtest/gtest.h>

namespace quarvel::test {
namespace {

// The sample that the Tavo decoder makes of the mock recorder's k-th counter word.
int32_t mockSample(size_t k) {
    return static_cast<int16_t>(static_cast<uint16_t>((k & 0xFF) << 8 | (k >> 8 & 0xFF))) >> 2;
}

std::vector<std::string> mockArgs(const std::string& file, uint32_t bytes,
                                  const std::string& conf = "mock") {
    return {"--conf=" + conf, "--rec-dev=/dev/does-not-exist", "--file=" + file,
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
    std::vector<std::string> malformed = mockArgs(file, 4096);
    malformed.push_back("--data-rate=10"); // reported in the log
    const std::tuple<std::vector<std::string>, int, std::string, std::string> cases[] = {
        {{},
         1,
         options,
         "no file argument provided but required\nno data-bytes argument provided but required\n"
         "no configuration name provided, but required\nno recorder device provided\n"},
        {malformed, 1, options, ""},
        {mockArgs(file, 4096, "MOCK"), 2, "", schemes},
        {mockArgs(file, 4096, " mock"), 2, "", schemes},
        {mockArgs(file, 4096, "int"), 2, "", schemes},
        {mockArgs(file, 6), 42, "", "EXCPETION THROWNbytesCount must be a multiple of 4\n"},
        // HDF5's own exception type is no std::exception.
        {mockArgs(dir.file("missing/rec.h5"), 4096), 43, "", "UNKNOWN EXCEPTION THROWN\n"}};
    for (const auto& [args, exitCode, out, err] : cases) {
        SCOPED_TRACE(::testing::PrintToString(args));
        const RunResult run = runQuarvel({args});
        EXPECT_EQ(run.exitCode, exitCode);
        EXPECT_EQ(run.out, out);
        EXPECT_EQ(withoutLogLines(run.err), err);
    }
    EXPECT_NE(access(file.c_str(), F_OK), 0);
}

class MockRecording : public ::testing::TestWithParam<uint32_t> {};

TEST_P(MockRecording, FileHoldsEveryDecodedCounterWord) {
    const uint32_t bytes = GetParam();
    TempDir dir;
    const RunResult run = runQuarvel({mockArgs(dir.file("rec.h5"), bytes)});
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
    EXPECT_EQ(recording.chunk, std::min(bytes / 4, 4096u));
    EXPECT_EQ(recording.deflateLevel, 6u);
    EXPECT_TRUE(recording.bigEndianInt32);
    for (size_t k = 0; k < recording.values.size(); ++k) {
        ASSERT_EQ(recording.values[k], mockSample(k)) << "sample " << k;
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, MockRecording, ::testing::Values(4096u, 1000000u, 300000u));

// Regression: after a file failed to close, HDF5's exit handlers crashed the process.
TEST(Cli, WriteFailureMidwayIsReportedWithTheMoverTexts) {
    TempDir dir;
    const RunResult run = runQuarvel({mockArgs(dir.file("rec.h5"), 256u << 20), 0, 0ms, 64 << 10});
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
        {mockArgs(dir.file("rec.h5"), 1u << 30), stopSignal, std::chrono::milliseconds(delayMs)});
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

} // namespace
} // namespace quarvel::test
