#include "platform/Logger.h"
#include "platform/Sleep.h"

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

// What follows the time stamp on each line; the span of held-back repeats as S.
std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    const std::regex line(R"(\S{27} (.*)\n)");
    for (auto it = std::sregex_iterator(text.begin(), text.end(), line);
         it != std::sregex_iterator(); ++it) {
        lines.push_back(std::regex_replace((*it)[1].str(), std::regex(R"(\d+\.\d s\)$)"), "S s)"));
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

// A failing device repeats the very same complaint many times a second. A repeat of what one
// logger showed less than the window ago is held back, before its context is asked, and counted
// in the next one shown; a logger keeps only a few messages, so old ones are shown again.
TEST(Logger, RepeatsOfAMessageAreHeldBackPerLoggerAndCounted) {
    EXPECT_EQ(repeatWindow(), 10s);
    const Finally window{[] { setRepeatWindow(10s); }};
    int built = 0;
    const std::function<std::string()> context = [&] { return "ctx" + std::to_string(++built); };
    const Logger logger("Recoder", "", std::make_shared<LoggerImpl>());
    Logger namesake("Recoder", "", std::make_shared<LoggerImpl>());
    StderrCapture capture(5);
    for (int i = 0; i < 4; ++i) {
        logger.pellumDoLog(Severity::Error, "Got error %d while reading", context, 1);
    }
    logger.pellumDoLog(Severity::Error, "Got error 1 while reading", context);  // same text
    logger.pellumDoLog(Severity::Error, "Got error %d while reading", {}, 5);   // other text
    logger.pellumDoLog(Severity::Warning, "Got error %d while reading", {}, 1); // other severity
    pellumDoLog(Severity::Error, "Got error %d while reading", {}, 1);          // other stream
    pellumDoLog(Severity::Error, "Got error %d while reading", {}, 1);
    namesake.pellumDoLog(Severity::Error, "Got error 1 while reading", {});
    const Logger copy(logger); // a copy, made or assigned, starts with nothing held back
    copy.pellumDoLog(Severity::Error, "Got error 1 while reading", {});
    namesake = logger;
    namesake.pellumDoLog(Severity::Error, "Got error 1 while reading", {});
    std::vector<std::string> expected = {"ERROR [Recoder] Got error 1 while reading | ctx1",
                                         "ERROR [Recoder] Got error 5 while reading",
                                         "WARNING [Recoder] Got error 1 while reading",
                                         "ERROR [quarvel] Got error 1 while reading"};
    expected.insert(expected.end(), 3, "ERROR [Recoder] Got error 1 while reading");
    for (int i = 0; i < 64; ++i) {
        namesake.pellumDoLog(Severity::Debug, "wrote block %d", {}, i);
        expected.push_back("DEBUG [Recoder] wrote block " + std::to_string(i));
    }
    namesake.pellumDoLog(Severity::Debug, "wrote block %d", {}, 0);
    setRepeatWindow(0ms);
    logger.pellumDoLog(Severity::Error, "Got error %d while reading", context, 1);
    logger.pellumDoLog(Severity::Error, "Got error %d while reading", context, 1);
    pellumDoLog(Severity::Error, "Got error %d while reading", {}, 1);
    expected.insert(
        expected.end(),
        {"DEBUG [Recoder] wrote block 0",
         "ERROR [Recoder] Got error 1 while reading | ctx2 (4 repeats suppressed in the last S s)",
         "ERROR [Recoder] Got error 1 while reading | ctx3",
         "ERROR [quarvel] Got error 1 while reading (1 repeat suppressed in the last S s)"});
    EXPECT_EQ(linesOf(capture.text()), expected);
    EXPECT_EQ(built, 3);
}

// Regression: lines from many threads stay whole; a torn one leaves text behind. Threads that
// repeat one message share one count, and not a repeat goes uncounted.
TEST(Logger, ThreadsKeepLinesWholeAndShareOneRepeatCount) {
    const Finally window{[] { setRepeatWindow(10s); }};
    const std::string padding(200, '#');
    const Logger shared("DataMover", "", std::make_shared<LoggerImpl>());
    StderrCapture capture(5);
    std::vector<std::thread> threads(8);
    for (auto& thread : threads) {
        thread = std::thread([&] {
            const Logger own("Decoder", "", std::make_shared<LoggerImpl>());
            for (int i = 0; i < 200; ++i) {
                own.pellumDoLog(Severity::Debug, "%d %s", {}, i, padding.c_str());
                shared.pellumDoLog(Severity::Warning, "read failed", {});
                pellumDoLog(Severity::Warning, "mover stalled", {});
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    setRepeatWindow(0ms);
    shared.pellumDoLog(Severity::Warning, "read failed", {});
    pellumDoLog(Severity::Warning, "mover stalled", {});
    const std::string text = capture.text();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 8 * 200 + 4);
    const std::string torn = std::regex_replace(
        text,
        std::regex(R"(\S{27} (DEBUG \[Decoder\] \d+ #{200}|WARNING \[DataMover\] read failed|)"
                   R"(WARNING \[quarvel\] mover stalled)( \(1599 repeats suppressed .*\))?\n)"),
        "");
    EXPECT_EQ(torn.substr(0, 300), ""); // what is left of the torn lines
    const std::vector<std::string> lines = linesOf(text);
    EXPECT_EQ(lines[lines.size() - 2],
              "WARNING [DataMover] read failed (1599 repeats suppressed in the last S s)");
    EXPECT_EQ(lines.back(),
              "WARNING [quarvel] mover stalled (1599 repeats suppressed in the last S s)");
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

} // namespace
} // namespace quarvel::test
