#include "app/QuarvelApp.h"
#include "app/StopDeadline.h"

#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace quarvel::test {
namespace {

class FakeMover : public AbstractDataMover {
public:
    FakeMover(std::string name, bool failed, std::string text, std::vector<std::string>& log)
        : mName(std::move(name)), mFailed(failed), mText(std::move(text)), mLog(log) {}

    std::string name() override { return mName; }
    bool isFinished() override { return true; }
    bool failed() override { return mFailed; }
    void start(uint32_t) override {}
    std::string errorText() override { return mText; }
    void abort() override {
        mLog.push_back(mName);
        mFailed = true;
        mText = "transfer aborted";
    }
    std::shared_ptr<AbstractDataSink> sink() override { return nullptr; }
    std::shared_ptr<AbstractDataSource> source() override { return nullptr; }
    bool hasDecoderSink() override { return false; }
    std::shared_ptr<AbstractDecoder> decoderSink() override { return nullptr; }
    void printProgress(std::ostream&) const override {}

private:
    std::string mName;
    bool mFailed;
    std::string mText;
    std::vector<std::string>& mLog;
};

class QuarvelAppTest : public ::testing::Test {
protected:
    std::string mName = "quarvel";
    char* mArgv[2] = {mName.data(), nullptr};
};

TEST_F(QuarvelAppTest, AbortMoversSkipsFailedOnesAndKeepsOrder) {
    std::vector<std::string> aborted;
    const std::vector<std::shared_ptr<AbstractDataMover>> movers = {
        std::make_shared<FakeMover>("Mover 0 to 1", false, "", aborted),
        std::make_shared<FakeMover>("Mover 1 to 2", true, "wrote nothing", aborted),
        std::make_shared<FakeMover>("Mover 2 to 3", false, "", aborted)};
    int argc = 1;
    QuarvelApp app(argc, mArgv);
    app.abortMovers(movers);
    EXPECT_EQ(aborted, (std::vector<std::string>{"Mover 0 to 1", "Mover 2 to 3"}));
    EXPECT_EQ(app.collectErrors(movers), "transfer aborted\nwrote nothing\ntransfer aborted\n");
}

TEST_F(QuarvelAppTest, CollectErrorsIsEmptyWhenNothingFailed) {
    std::vector<std::string> aborted;
    const std::vector<std::shared_ptr<AbstractDataMover>> movers = {
        std::make_shared<FakeMover>("Mover 0 to 1", false, "", aborted)};
    int argc = 1;
    QuarvelApp app(argc, mArgv);
    EXPECT_EQ(app.collectErrors(movers), "");
}

TEST_F(QuarvelAppTest, SecondArgumentHookReplacesTheOptions) {
    int argc = 1;
    QuarvelApp app(argc, mArgv);
    EXPECT_EQ(app.options(), nullptr);
    StderrCapture quiet(0);
    EXPECT_EQ(app.handleArguments({"--conf=mock"}), 0);
    const std::weak_ptr<CommandLineOptions> first = app.options();
    EXPECT_EQ(app.handleArguments({"--conf=int32"}), 0);
    EXPECT_TRUE(first.expired());
    EXPECT_EQ(app.options()->getConf(), "int32");
}

TEST_F(QuarvelAppTest, UnusableOptionsEndWithExitCodeOneBeforeAnythingIsBuilt) {
    int argc = 1;
    QuarvelApp app(argc, mArgv);
    StderrCapture quiet(0);
    app.handleArguments({"--conf=mock"});
    testing::internal::CaptureStdout();
    EXPECT_EQ(app.runJob().exitCode, 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout().rfind("Supported Options:", 0), 0u);
}

} // namespace
} // namespace quarvel::test

namespace quarvel::test {
namespace {

using namespace std::chrono_literals;

TEST(StopDeadlineDeathTest, EndsTheProcessWhenTheStopTakesTooLong) {
    EXPECT_EXIT(
        {
            StopDeadline deadline(nullptr, 1, 50ms);
            deadline.arm(7);
            std::this_thread::sleep_for(10s); // a mover stuck in the kernel
        },
        ::testing::ExitedWithCode(7), "a data mover did not stop");
}

TEST(StopDeadlineDeathTest, StartsCountingWhenAStopIsRequested) {
    EXPECT_EXIT(
        {
            std::atomic<bool> stop{false};
            StopDeadline deadline([&stop] { return stop.load(); }, 5, 100ms);
            stop = true;
            std::this_thread::sleep_for(10s);
        },
        ::testing::ExitedWithCode(5), "a data mover did not stop");
    EXPECT_EXIT(
        {
            StopDeadline deadline([] { return false; }, 5, 50ms);
            std::this_thread::sleep_for(300ms); // no stop requested: no countdown
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(StopDeadlineDeathTest, ReleasedInTimeLeavesTheProcessAlone) {
    EXPECT_EXIT(
        {
            {
                StopDeadline deadline(nullptr, 1, 200ms);
                deadline.arm(7);
            }
            std::this_thread::sleep_for(300ms);
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

} // namespace
} // namespace quarvel::test
