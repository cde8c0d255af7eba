#include "platform/MorvikApplication.h"

#include "platform/Logger.h"
#include "tests/support/TestSupport.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <csignal>

namespace quarvel::test {
namespace {

using morvik::pellum::utils::JobResult;
using morvik::pellum::utils::MorvikApplication;

class Argv {
public:
    explicit Argv(std::vector<std::string> args) : mArgs(std::move(args)) {
        for (auto& arg : mArgs) {
            mPointers.push_back(arg.data());
        }
        mPointers.push_back(nullptr);
    }
    int argc() const { return static_cast<int>(mArgs.size()); }
    char** argv() { return mPointers.data(); }

private:
    std::vector<std::string> mArgs;
    std::vector<char*> mPointers;
};

class RecordingApp : public MorvikApplication {
public:
    RecordingApp(int& argc, char** argv) : MorvikApplication(argc, argv, true) {}

    int handleArguments(const std::vector<std::string>& args) override {
        events.push_back("hook");
        received = args;
        return hookStatus;
    }
    JobResult runJob() override {
        events.push_back("job");
        insideMainLoop = g_main_depth() > 0;
        if (signalToRaise != 0) {
            std::raise(signalToRaise);
            sawStop = gotSigTerm();
        }
        if (throwFromJob) {
            throw std::runtime_error("job failed");
        }
        return JobResult{0, exitCode};
    }

    std::vector<std::string> events;
    std::vector<std::string> received;
    int hookStatus = 0;
    int exitCode = 0;
    int signalToRaise = 0;
    bool throwFromJob = false;
    bool insideMainLoop = false;
    bool sawStop = false;
};

// Restores the log threshold that the framework's option changes.
class MorvikApplicationTest : public ::testing::Test {
protected:
    void TearDown() override { morvik::pellum::log::setThreshold(mThreshold); }
    int mThreshold = morvik::pellum::log::threshold();
};

TEST_F(MorvikApplicationTest, HookThenJobOnceFromTheMainLoopAndItsExitCodeIsReturned) {
    for (int code : {0, 1, 2, 42, 43}) {
        Argv args({"quarvel", "--conf=mock", "word"});
        int argc = args.argc();
        RecordingApp app(argc, args.argv());
        app.exitCode = code;
        EXPECT_EQ(app.run(), code);
        EXPECT_EQ(app.events, (std::vector<std::string>{"hook", "job"}));
        EXPECT_EQ(app.received, (std::vector<std::string>{"--conf=mock", "word"}));
        EXPECT_TRUE(app.insideMainLoop);
    }
}

TEST_F(MorvikApplicationTest, LogLevelOptionIsConsumedByTheFramework) {
    Argv args({"quarvel", "--log-level=debug", "--file", "x.h5", "--log-level", "4"});
    int argc = args.argc();
    RecordingApp app(argc, args.argv());
    EXPECT_EQ(argc, 3);
    EXPECT_EQ(app.run(), 0);
    EXPECT_EQ(app.received, (std::vector<std::string>{"--file", "x.h5"}));
    EXPECT_EQ(morvik::pellum::log::threshold(), 4);
}

TEST_F(MorvikApplicationTest, InvalidLogLevelIsReportedAndNothingRuns) {
    Argv args({"quarvel", "--log-level=verbose"});
    int argc = args.argc();
    RecordingApp app(argc, args.argv());
    StderrCapture capture(1);
    EXPECT_EQ(app.run(), 1);
    EXPECT_NE(capture.text().find("invalid value 'verbose' for --log-level"), std::string::npos);
    EXPECT_TRUE(app.events.empty());
}

TEST_F(MorvikApplicationTest, NonZeroHookStatusSkipsTheJob) {
    Argv args({"quarvel"});
    int argc = args.argc();
    RecordingApp app(argc, args.argv());
    app.hookStatus = 5;
    EXPECT_EQ(app.run(), 5);
    EXPECT_EQ(app.events, (std::vector<std::string>{"hook"}));
}

TEST_F(MorvikApplicationTest, TermAndInterruptAreRecordedAndTheProcessGoesOn) {
    for (int signal : {SIGTERM, SIGINT}) {
        Argv args({"quarvel"});
        int argc = args.argc();
        RecordingApp app(argc, args.argv());
        app.signalToRaise = signal;
        EXPECT_FALSE(app.gotSigTerm());
        EXPECT_EQ(app.run(), 0);
        EXPECT_TRUE(app.sawStop) << signal;
        EXPECT_TRUE(app.gotSigTerm());
    }
}

TEST_F(MorvikApplicationTest, ExceptionFromTheJobLeavesRun) {
    Argv args({"quarvel"});
    int argc = args.argc();
    RecordingApp app(argc, args.argv());
    app.throwFromJob = true;
    EXPECT_THROW(app.run(), std::runtime_error);
}

} // namespace
} // namespace quarvel::test
