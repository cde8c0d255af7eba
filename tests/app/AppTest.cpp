#include "app/CommandLineOptions.h"
#include "app/QuarvelApp.h"
#include "app/StopDeadline.h"

#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <thread>

namespace quarvel::test {
namespace {

using namespace std::chrono_literals;
using ::testing::ExitedWithCode;

TEST(CommandLineOptions, NumbersFollowTheConversionAndUnknownWordsAreIgnored) {
    const CommandLineOptions options(
        {"quarvel", "--file", "a.h5", "--src-addr=+256", "--data-rate=7", "--data-bytes=4096",
         "--conf=tavoadc", "--rec-dev=/dev/myrecorder", "--unknown-option=1", "positional"});
    EXPECT_FALSE(options.hasError());
    EXPECT_EQ(options.getSrcAddr(), 256u);
    EXPECT_EQ(options.getDataRate(), 55); // the character '7'
    EXPECT_EQ(options.getRecDev(), "/dev/myrecorder");
}

TEST(CommandLineOptions, MalformedValuesAndRepeatsAreParseErrors) {
    for (const char* bad :
         {"--data-rate=10", "--src-addr=0x100", "--src-addr=4294967296", "--conf=int32"}) {
        StderrCapture capture(1);
        const CommandLineOptions options(
            {"--file=out.h5", "--data-bytes=4096", "--conf=mock", "--rec-dev=/dev/r", bad});
        EXPECT_NE(capture.text().find(
                      "ERROR [CommandLineOptions] Parsing command line options failed with '"),
                  std::string::npos)
            << bad;
        EXPECT_TRUE(options.hasError()) << bad;
        EXPECT_EQ(options.getFile(), "") << "no field is filled";
    }
}

class FakeMover : public AbstractDataMover {
public:
    FakeMover(std::string name, std::string failure, std::vector<std::string>& aborted)
        : mName(std::move(name)), mFailure(std::move(failure)), mAborted(aborted) {}

    std::string name() override { return mName; }
    bool isFinished() override { return true; }
    bool failed() override { return !mFailure.empty(); }
    void start(uint32_t) override {}
    std::string errorText() override { return mFailure; }
    void abort() override {
        mAborted.push_back(mName);
        mFailure = "transfer aborted";
    }
    std::shared_ptr<AbstractDataSink> sink() override { return nullptr; }
    std::shared_ptr<AbstractDataSource> source() override { return nullptr; }
    bool hasDecoderSink() override { return false; }
    std::shared_ptr<AbstractDecoder> decoderSink() override { return nullptr; }
    void printProgress(std::ostream&) const override {}

private:
    std::string mName;
    std::string mFailure; // empty while not failed
    std::vector<std::string>& mAborted;
};

TEST(QuarvelApp, AbortMoversSkipsFailedOnesAndErrorsComeInMoverOrder) {
    std::vector<std::string> aborted;
    const std::vector<std::shared_ptr<AbstractDataMover>> movers = {
        std::make_shared<FakeMover>("Mover 0 to 1", "", aborted),
        std::make_shared<FakeMover>("Mover 1 to 2", "wrote nothing", aborted),
        std::make_shared<FakeMover>("Mover 2 to 3", "", aborted)};
    std::string name = "quarvel";
    char* argv[] = {name.data(), nullptr};
    QuarvelApp app(1, argv);
    EXPECT_EQ(app.collectErrors(movers), "wrote nothing\n");
    app.abortMovers(movers);
    EXPECT_EQ(aborted, (std::vector<std::string>{"Mover 0 to 1", "Mover 2 to 3"}));
    EXPECT_EQ(app.collectErrors(movers), "transfer aborted\nwrote nothing\ntransfer aborted\n");
}

// Holds a deadline of 200 ms for `hold` (a mover stuck in the kernel), releases it, waits
// 400 ms more and leaves with 0, unless the deadline ended the process first.
void holdDeadline(std::function<bool()> stopRequested, bool arm, std::chrono::milliseconds hold) {
    {
        StopDeadline deadline(std::move(stopRequested), 5, 200ms);
        if (arm) {
            deadline.arm(7);
        }
        std::this_thread::sleep_for(hold);
    }
    std::this_thread::sleep_for(400ms);
    std::exit(0);
}

TEST(StopDeadlineDeathTest, EndsTheProcessWhenTheStopTakesTooLong) {
    EXPECT_EXIT(holdDeadline(nullptr, true, 10s), ExitedWithCode(7), "a data mover did not stop");
    EXPECT_EXIT(holdDeadline([] { return true; }, false, 10s), ExitedWithCode(5),
                "a data mover did not stop");
}

TEST(StopDeadlineDeathTest, LeavesTheProcessAloneWhenReleasedInTime) {
    EXPECT_EXIT(holdDeadline(nullptr, true, 0ms), ExitedWithCode(0), "");
    EXPECT_EXIT(holdDeadline([] { return false; }, false, 500ms), ExitedWithCode(0), "");
}

} // namespace
} // namespace quarvel::test
