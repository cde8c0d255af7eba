#include "platform/Logger.h"
#include "platform/MorvikApplication.h"
#include "platform/Sleep.h"
#include "platform/Version.h"

#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <regex>
#include <thread>

#include <pthread.h>

namespace quarvel::test {
namespace {

using namespace morvik::pellum::log;
using namespace std::chrono_literals;

// Sets how long repeats are held back, for one test.
class RepeatWindowFor {
public:
    explicit RepeatWindowFor(std::chrono::milliseconds window) : mSaved(repeatWindow()) {
        setRepeatWindow(window);
    }
    ~RepeatWindowFor() { setRepeatWindow(mSaved); }
    RepeatWindowFor(const RepeatWindowFor&) = delete;
    RepeatWindowFor& operator=(const RepeatWindowFor&) = delete;

private:
    std::chrono::milliseconds mSaved;
};

// Puts the log threshold back at the end of a test, however the test ends.
class ThresholdKept {
public:
    ThresholdKept() : mSaved(threshold()) {}
    ~ThresholdKept() { setThreshold(mSaved); }
    ThresholdKept(const ThresholdKept&) = delete;
    ThresholdKept& operator=(const ThresholdKept&) = delete;

private:
    int mSaved;
};

// What follows the time stamp on each line.
std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    const std::regex line(R"(\S{27} (.*)\n)");
    for (auto it = std::sregex_iterator(text.begin(), text.end(), line);
         it != std::sregex_iterator(); ++it) {
        lines.push_back((*it)[1]);
    }
    return lines;
}

// Regression: a filtered call must not even build its message. Where long is 32 bits a wrong
// va_arg width garbles what follows; the view stops before a "%s" that has no argument.
TEST(Logger, OneWholeLinePerMessageAboveTheThreshold) {
    int built = 0;
    const std::function<std::string()> context = [&] { return std::to_string(++built); };
    const Logger logger = makeLogger("SinkHDF5");
    const std::string format = "-write(%u): %s|%llu|%lu|0x%08x%s";
    const std::string longText(600, 'y'); // beyond any stack buffer of 512
    StderrCapture capture(1);
    logger.pellumDoLog(Severity::Warning, "hidden", context);
    pellumDoLog(Severity::Warning, "hidden", context);
    logger.pellumDoLog(Severity::Error, std::string_view(format.data(), format.size() - 2), context,
                       16u, longText.c_str(), 18446744073709551615ull, 4294967295ul, 0xABu);
    pellumDoLog(Severity::Fatal, "shown", {});
    const std::string text = capture.text();
    EXPECT_EQ(built, 1);
    EXPECT_TRUE(std::regex_match(
        text,
        std::regex(
            R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z ERROR \[SinkHDF5\] -write\(16\): y{600})"
            R"(\|18446744073709551615\|4294967295\|0x000000ab \| 1\n\S+ FATAL \[quarvel\] shown\n)")))
        << text;
}

// Regression: lines from many threads stay whole; a torn one leaves text behind.
TEST(Logger, ConcurrentLoggersNeverTearLines) {
    const RepeatWindowFor showAll(0ms);
    const std::string padding(200, '#');
    StderrCapture capture(5);
    std::vector<std::thread> threads(8);
    for (auto& thread : threads) {
        thread = std::thread([&padding] {
            const Logger logger("Decoder", "", std::make_shared<LoggerImpl>()); // one name for all
            for (int i = 0; i < 200; ++i) {
                logger.pellumDoLog(Severity::Debug, "%s", {}, padding.c_str());
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    const std::string text = capture.text();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 8 * 200);
    const std::string torn =
        std::regex_replace(text, std::regex(R"(\S{27} DEBUG \[Decoder\] #{200}\n)"), "");
    EXPECT_EQ(torn.substr(0, 300), ""); // what is left of the torn lines
}

// A failing device repeats the very same complaint many times a second. The next one shown
// after the window carries the count of those held back.
TEST(Logger, RepeatsOfAMessageAreHeldBackAndCountedUntilTheWindowHasPassed) {
    EXPECT_EQ(repeatWindow(), 10s);
    const RepeatWindowFor window(10s);
    int built = 0;
    const std::function<std::string()> context = [&] { return "ctx" + std::to_string(++built); };
    const Logger logger("Recoder", "", std::make_shared<LoggerImpl>());
    StderrCapture capture(5);
    for (int i = 0; i < 4; ++i) {
        logger.pellumDoLog(Severity::Error, "Got error %d while reading", context, 1);
    }
    logger.pellumDoLog(Severity::Error, "Got error 1 while reading", context);  // same text
    logger.pellumDoLog(Severity::Error, "Got error %d while reading", {}, 5);   // other text
    logger.pellumDoLog(Severity::Warning, "Got error %d while reading", {}, 1); // other severity
    pellumDoLog(Severity::Error, "Got error %d while reading", {}, 1);          // other stream
    pellumDoLog(Severity::Error, "Got error %d while reading", {}, 1);
    setRepeatWindow(0ms);
    logger.pellumDoLog(Severity::Error, "Got error %d while reading", context, 1);
    logger.pellumDoLog(Severity::Error, "Got error %d while reading", context, 1);
    pellumDoLog(Severity::Error, "Got error %d while reading", {}, 1);
    const std::vector<std::string> lines = linesOf(capture.text());
    ASSERT_EQ(lines.size(), 7u);
    EXPECT_EQ(lines[0], "ERROR [Recoder] Got error 1 while reading | ctx1");
    EXPECT_EQ(lines[1], "ERROR [Recoder] Got error 5 while reading");
    EXPECT_EQ(lines[2], "WARNING [Recoder] Got error 1 while reading");
    EXPECT_EQ(lines[3], "ERROR [quarvel] Got error 1 while reading");
    EXPECT_TRUE(std::regex_match(lines[4], std::regex(R"(ERROR \[Recoder\] Got error 1 while )"
                                                      R"(reading \| ctx2 \(4 repeats )"
                                                      R"(suppressed in the last \d+\.\d s\))")))
        << lines[4];
    EXPECT_EQ(lines[5], "ERROR [Recoder] Got error 1 while reading | ctx3"); // count starts over
    EXPECT_TRUE(std::regex_match(lines[6], std::regex(R"(ERROR \[quarvel\] Got error 1 while )"
                                                      R"(reading \(1 repeat )"
                                                      R"(suppressed in the last \d+\.\d s\))")))
        << lines[6];
    EXPECT_EQ(built, 3); // held back before the context is asked
}

// One logger object is one source: a namesake or a copy keeps its own count.
TEST(Logger, LoggersAndTheirCopiesHoldBackRepeatsEachOnTheirOwn) {
    const RepeatWindowFor window(10s);
    const Logger first("Decoder", "", std::make_shared<LoggerImpl>());
    const Logger namesake("Decoder", "", std::make_shared<LoggerImpl>());
    StderrCapture capture(5);
    first.pellumDoLog(Severity::Info, "queue full", {});
    namesake.pellumDoLog(Severity::Info, "queue full", {});
    const Logger copy(first);
    copy.pellumDoLog(Severity::Info, "queue full", {});
    first.pellumDoLog(Severity::Info, "queue full", {});
    namesake.pellumDoLog(Severity::Info, "queue full", {});
    copy.pellumDoLog(Severity::Info, "queue full", {});
    Logger assigned("Decoder", "", std::make_shared<LoggerImpl>());
    assigned.pellumDoLog(Severity::Info, "queue full", {});
    assigned = first;
    assigned.pellumDoLog(Severity::Info, "queue full", {});
    EXPECT_EQ(linesOf(capture.text()), std::vector<std::string>(5, "INFO [Decoder] queue full"));
}

// One format with changing values gives different messages, and none is held back. Memory
// stays bounded: a logger forgets messages it has not seen for a while and shows them again.
TEST(Logger, DifferentMessagesAreNeverHeldBackAndOldOnesAreForgotten) {
    const RepeatWindowFor window(10s);
    const Logger logger("SinkHDF5", "", std::make_shared<LoggerImpl>());
    StderrCapture capture(5);
    for (int i = 0; i < 64; ++i) {
        logger.pellumDoLog(Severity::Debug, "wrote block %d", {}, i);
    }
    logger.pellumDoLog(Severity::Debug, "wrote block %d", {}, 0);
    const std::vector<std::string> lines = linesOf(capture.text());
    ASSERT_EQ(lines.size(), 65u);
    EXPECT_EQ(lines[63], "DEBUG [SinkHDF5] wrote block 63");
    EXPECT_EQ(lines[64], "DEBUG [SinkHDF5] wrote block 0");
}

// Many threads repeating one message on one logger: one line, and not a repeat goes uncounted.
TEST(Logger, ThreadsRepeatingOneMessageShareOneCount) {
    const RepeatWindowFor window(10s);
    const Logger logger("DataMover", "", std::make_shared<LoggerImpl>());
    StderrCapture capture(5);
    std::vector<std::thread> threads(8);
    for (auto& thread : threads) {
        thread = std::thread([&logger] {
            for (int i = 0; i < 500; ++i) {
                logger.pellumDoLog(Severity::Warning, "read failed", {});
                pellumDoLog(Severity::Warning, "mover stalled", {});
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    setRepeatWindow(0ms);
    logger.pellumDoLog(Severity::Warning, "read failed", {});
    pellumDoLog(Severity::Warning, "mover stalled", {});
    const std::vector<std::string> lines = linesOf(capture.text());
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "WARNING [DataMover] read failed"), 1);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "WARNING [quarvel] mover stalled"), 1);
    EXPECT_TRUE(std::regex_match(lines[2], std::regex(R"(WARNING \[DataMover\] read failed )"
                                                      R"(\(3999 repeats suppressed .*)")))
        << lines[2];
    EXPECT_TRUE(std::regex_match(lines[3], std::regex(R"(WARNING \[quarvel\] mover stalled )"
                                                      R"(\(3999 repeats suppressed .*)")))
        << lines[3];
}

struct App : morvik::pellum::utils::MorvikApplication {
    App(int& argc, const char** argv) : MorvikApplication(argc, const_cast<char**>(argv), true) {}

    int handleArguments(const std::vector<std::string>& args) override {
        received.insert(received.end(), args.begin(), args.end());
        return 0;
    }
    morvik::pellum::utils::JobResult runJob() override {
        received.push_back("job");
        return {0, 43};
    }

    std::vector<std::string> received;
};

// A bad level ends the run before the hook.
TEST(Framework, RefusesAnUnknownLogLevelBeforeTheHook) {
    const ThresholdKept kept;
    const char* argv[] = {"quarvel", "--log-level=verbose", nullptr};
    int argc = 2;
    App refused(argc, argv);
    StderrCapture capture(1);
    EXPECT_EQ(refused.run(), 1);
    EXPECT_NE(capture.text().find("invalid value 'verbose' for --log-level"), std::string::npos);
    EXPECT_TRUE(refused.received.empty());
}

// "info" is 4, not 3: the numbering has a gap. The option is taken as one word or two, and the
// last one counts.
TEST(Framework, ConsumesItsLogLevelOptionInEitherForm) {
    const ThresholdKept kept;
    const char* twoWords[] = {"quarvel", "--log-level", "1", nullptr};
    int argc = 3;
    App first(argc, twoWords);
    EXPECT_EQ(argc, 1);
    EXPECT_EQ(threshold(), 1);

    const char* argv[] = {"quarvel", "--log-level",      "1",    "--conf=mock",
                          "word",    "--log-level=info", nullptr};
    argc = 6;
    App app(argc, argv);
    EXPECT_EQ(argc, 3);
    EXPECT_EQ(threshold(), 4);
}

TEST(Framework, HandsTheOtherArgumentsToTheHookAndRunsTheJobOnce) {
    const ThresholdKept kept;
    const char* argv[] = {"quarvel", "--log-level",      "1",    "--conf=mock",
                          "word",    "--log-level=info", nullptr};
    int argc = 6;
    App app(argc, argv);
    EXPECT_EQ(app.run(), 43);
    EXPECT_EQ(app.received, (std::vector<std::string>{"--conf=mock", "word", "job"}));
}

// Regression: SIGTERM and SIGINT are only recorded; the process goes on. Each application
// starts without a stop request.
TEST(Framework, RecordsStopSignalsInsteadOfEnding) {
    const char* argv[] = {"quarvel", nullptr};
    int argc = 1;
    App interrupted(argc, argv);
    EXPECT_FALSE(interrupted.gotSigTerm());
    std::raise(SIGINT);
    EXPECT_TRUE(interrupted.gotSigTerm());

    App terminated(argc, argv);
    EXPECT_FALSE(terminated.gotSigTerm());
    std::raise(SIGTERM);
    EXPECT_TRUE(terminated.gotSigTerm());
}

// The program handles its stop signals, and each would cut a bare nanosleep short.
TEST(SleepFor, SignalsDoNotShortenTheSleep) {
    struct sigaction handled {};
    struct sigaction saved {};
    handled.sa_handler = [](int) {};
    sigemptyset(&handled.sa_mask);
    sigaction(SIGUSR1, &handled, &saved);
    const pthread_t sleeper = pthread_self();
    std::atomic<bool> awake{false};
    std::atomic<int> sent{0};
    std::thread interrupter([&] {
        while (!awake.load()) {
            pthread_kill(sleeper, SIGUSR1);
            ++sent;
            std::this_thread::sleep_for(5ms);
        }
    });
    const auto start = std::chrono::steady_clock::now();
    sleepFor(200ms);
    const auto slept = std::chrono::steady_clock::now() - start;
    awake.store(true);
    interrupter.join();
    sigaction(SIGUSR1, &saved, nullptr);
    EXPECT_GE(slept, 200ms) << std::chrono::duration<double, std::milli>(slept).count() << " ms";
    EXPECT_GE(sent.load(), 5) << "too few signals reached the sleep";

    const auto before = std::chrono::steady_clock::now();
    sleepFor(-1s);
    sleepFor(0ms);
    EXPECT_LT(std::chrono::steady_clock::now() - before, 100ms);
}

// --version wins over a bad log level and every other word: it prints the name and the
// version on standard output, ends with 0 and runs neither the hook nor the job.
TEST(Framework, VersionOptionPrintsTheVersionAndEndsBeforeTheHookAndTheJob) {
    const std::string version = quarvel::version();
    EXPECT_TRUE(std::regex_match(version, std::regex(R"(\d+\.\d+\.\d+)"))) << version;
    const char* argv[] = {"quarvel", "--log-level=verbose", "--conf=mock", "--version", nullptr};
    int argc = 4;
    App app(argc, argv);
    EXPECT_EQ(argc, 2); // only --conf=mock is left for the program
    testing::internal::CaptureStdout();
    const int exitCode = app.run();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "quarvel " + version + "\n");
    EXPECT_EQ(exitCode, 0);
    EXPECT_TRUE(app.received.empty());
}

} // namespace
} // namespace quarvel::test
