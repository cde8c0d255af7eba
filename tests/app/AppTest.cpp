#include "app/RunEnd.h"
#include "sinks/SinkHDF5.h"

#include "tests/support/TestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <thread>

#include <sys/resource.h>
#include <sys/stat.h>

namespace quarvel::test {
namespace {

using namespace std::chrono_literals;
using ::testing::ExitedWithCode;

// Holds a deadline of 200 ms for `hold` (a mover stuck in the kernel), releases it, waits
// 400 ms more and leaves with 0, unless the deadline ended the process first.
void holdDeadline(std::function<bool()> stopRequested, bool arm, std::chrono::milliseconds hold) {
    {
        StopDeadline deadline(std::move(stopRequested), 5, "stopped by request", 200ms,
                              [] { std::fputs("last call\n", stderr); });
        if (arm) {
            deadline.arm(7, "the run's report");
        }
        std::this_thread::sleep_for(hold);
    }
    std::this_thread::sleep_for(400ms);
    std::exit(0);
}

// When it fires, the process ends with the code and the report that the run decided, after the
// last call; released in time, it leaves the process alone.
TEST(StopDeadlineDeathTest, EndsTheProcessOnlyWhenTheStopTakesTooLong) {
    EXPECT_EXIT(holdDeadline(nullptr, true, 10s), ExitedWithCode(7),
                "^the run's report\nquarvel: a data mover did not stop.*\nlast call\n$");
    EXPECT_EXIT(holdDeadline([] { return true; }, false, 10s), ExitedWithCode(5),
                "^stopped by request\nquarvel: a data mover did not stop.*\nlast call\n$");
    EXPECT_EXIT(holdDeadline(nullptr, true, 0ms), ExitedWithCode(0), "");
    EXPECT_EXIT(holdDeadline([] { return false; }, false, 500ms), ExitedWithCode(0), "");
}

// Logs its abort() calls; an abort fails it, and never returns while it has not finished (a
// thread stuck in the kernel).
struct FakeMover final : AbstractDataMover {
    FakeMover(std::string& calls, std::string moverName, bool hasFailed, bool hasFinished = true)
        : log(calls), label(std::move(moverName)), broken(hasFailed), finished(hasFinished) {}
    std::string name() override { return label; }
    bool isFinished() override { return finished; }
    bool failed() override { return broken; }
    bool movedAll() override { return finished && !broken; }
    void start(uint32_t) override {}
    std::string errorText() override { return label + " broke"; }
    void abort() override {
        log += label + " ";
        broken = true;
        while (!finished) {
            std::this_thread::sleep_for(1h);
        }
    }
    void requestStop(bool) override {}
    std::shared_ptr<AbstractDataSink> sink() override { return {}; }
    std::shared_ptr<AbstractDataSource> source() override { return {}; }
    bool hasDecoderSink() override { return false; }
    std::shared_ptr<AbstractDecoder> decoderSink() override { return {}; }
    void printProgress(std::ostream&) const override {}

    std::string& log;
    std::string label;
    bool broken;
    bool finished;
};

// The file's writer, last in the chain, goes first: the file then closes with what reached it,
// whatever the movers before it do. A failed mover has ended already, and alone reports.
TEST(RunEnd, AbortsTheFilesWriterFirstAndReportsTheFailedMovers) {
    std::string aborted;
    const Movers movers = {std::make_shared<FakeMover>(aborted, "recorder", false),
                           std::make_shared<FakeMover>(aborted, "decoder", true),
                           std::make_shared<FakeMover>(aborted, "file", false)};
    EXPECT_EQ(RunEnd::collectErrors(movers), "decoder broke\n");
    RunEnd::abortMovers(movers);
    EXPECT_EQ(aborted, "file recorder ");
}

// An abort would fail movers that moved every byte: a stop that comes then is a success.
TEST(RunEnd, AStopAfterEveryByteMovedEndsTheRunAsFinished) {
    std::string aborted;
    RunEnd end([] { return true; });
    end.pieces().movers = {std::make_shared<FakeMover>(aborted, "recorder", false),
                           std::make_shared<FakeMover>(aborted, "file", false)};
    end.watch();
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(end.finish(), 0);
    EXPECT_THAT(::testing::internal::GetCapturedStdout(), ::testing::EndsWith("successful\n"));
}

// A run whose stop never ends (its mover cannot be aborted), with two recordings open, one of
// which holds values, and a progress line not yet flushed.
void stopHangs(const std::string& dir) {
    std::freopen((dir + "/stdout").c_str(), "w", stdout);
    std::fputs("Transfer: 7 MB", stdout);
    const auto log = makeLogger("test");
    RecordingFile empty(dir + "/empty.h5", log), holding(dir + "/holding.h5", log);
    empty.claim();
    holding.claim();
    holding.noteValues(1);
    RunEnd end([] { return true; });
    std::string aborted;
    end.pieces().movers = {std::make_shared<FakeMover>(aborted, "recorder", false, false)};
    end.watch();
    end.finish();
    std::exit(0);
}

// The deadline leaves with the stop's code and words, and removes the recordings of nothing.
TEST(RunEndDeathTest, AStopThatHangsLeavesOnlyRecordingsThatHoldValues) {
    TempDir dir;
    EXPECT_EXIT(stopHangs(dir.path()), ExitedWithCode(1),
                "^transfer abort requested by user \\(sigterm\\)\nquarvel: a data mover did not");
    EXPECT_FALSE(std::filesystem::exists(dir.file("empty.h5.part")));
    EXPECT_TRUE(std::filesystem::exists(dir.file("holding.h5.part")));
    EXPECT_EQ(readFile(dir.file("stdout")), "Transfer: 7 MB");
}

// A file whose close fails (its last writes pass the file size limit) ends an exception's run.
void closeFailsThenRunEnds(const std::string& path) {
    std::signal(SIGXFSZ, SIG_IGN);
    SinkHDF5 sink(path);
    sink.open(1 << 20);
    const std::vector<uint8_t> bytes(1 << 19, 7);
    sink.write(bytes.data(), static_cast<uint32_t>(bytes.size()));
    struct stat written {};
    ::stat(SinkHDF5::temporaryName(path).c_str(), &written);
    const rlimit limit{static_cast<rlim_t>(written.st_size), RLIM_INFINITY};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    try {
        sink.close();
    } catch (...) {
    }
    RunEnd end([] { return false; });
    end.exceptionThrown(nullptr);
    std::exit(100 + end.finish());
}

// HDF5's exit handlers would crash on such a file: the process leaves without them, with the
// code the run decided.
TEST(RunEndDeathTest, AFileThatFailedToCloseIsLeftWithoutExitHandlers) {
    TempDir dir;
    EXPECT_EXIT(closeFailsThenRunEnds(dir.file("rec.h5")), ExitedWithCode(43),
                "UNKNOWN EXCEPTION THROWN\n$");
}

} // namespace
} // namespace quarvel::test
