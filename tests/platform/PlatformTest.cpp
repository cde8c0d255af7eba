#include "platform/Logger.h"
#include "platform/Sleep.h"

#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <regex>

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
// va_arg width garbles what follows; the view stops before a "%s" that has no argument. The
// message is 512 characters, one more than the stack buffer takes.
TEST(Logger, OneWholeLinePerMessageAboveTheThreshold) {
    int built = 0;
    const std::function<std::string()> context = [&] { return std::to_string(++built); };
    const Logger logger = makeLogger("SinkHDF5");
    const std::string format = "-write(%u): %s|%llu|%lu|0x%08x%s";
    const std::string longText(457, 'y');
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
            R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z ERROR \[SinkHDF5\] -write\(16\): y{457})"
            R"(\|18446744073709551615\|4294967295\|0x000000ab \| 1\n\S+ FATAL \[quarvel\] shown\n)")))
        << text;
}

// A failing device repeats the very same complaint many times a second. A repeat of what one
// logger showed less than the window ago is held back, before its context is asked, and counted
// in the next one shown; a logger keeps only a few messages, so old ones are shown again.
TEST(Logger, RepeatsOfAMessageAreHeldBackPerLoggerAndCounted) {
    const Finally window{[] { setRepeatWindow(10s); }};
    int built = 0;
    const std::function<std::string()> context = [&] { return "ctx" + std::to_string(++built); };
    const Logger logger("Recoder", "", std::make_shared<LoggerImpl>());
    Logger other("Recoder", "", std::make_shared<LoggerImpl>());
    StderrCapture capture(5);
    for (int i = 0; i < 4; ++i) {
        logger.pellumDoLog(Severity::Error, "Got error %d while reading", context, 1);
    }
    logger.pellumDoLog(Severity::Error, "Got error %d while reading", {}, 5);   // other text
    logger.pellumDoLog(Severity::Warning, "Got error %d while reading", {}, 1); // other severity
    other.pellumDoLog(Severity::Error, "Got error 1 while reading", {});        // other logger
    other = logger; // starts with nothing held back
    other.pellumDoLog(Severity::Error, "Got error 1 while reading", {});
    std::vector<std::string> expected = {
        "ERROR [Recoder] Got error 1 while reading | ctx1",
        "ERROR [Recoder] Got error 5 while reading", "WARNING [Recoder] Got error 1 while reading",
        "ERROR [Recoder] Got error 1 while reading", "ERROR [Recoder] Got error 1 while reading"};
    for (int i = 0; i < 9; ++i) {
        other.pellumDoLog(Severity::Debug, "wrote block %d", {}, i);
        expected.push_back("DEBUG [Recoder] wrote block " + std::to_string(i));
    }
    other.pellumDoLog(Severity::Debug, "wrote block %d", {}, 0);
    setRepeatWindow(0ms);
    logger.pellumDoLog(Severity::Error, "Got error %d while reading", context, 1);
    expected.insert(expected.end(), {"DEBUG [Recoder] wrote block 0",
                                     "ERROR [Recoder] Got error 1 while reading | ctx2 (3 repeats "
                                     "suppressed in the last S s)"});
    EXPECT_EQ(linesOf(capture.text()), expected);
    EXPECT_EQ(built, 2);
}

// The program handles its stop signals, and each would cut a bare nanosleep short.
TEST(SleepFor, SignalsDoNotShortenTheSleep) {
    struct sigaction handled {};
    struct sigaction saved {};
    handled.sa_handler = [](int) {};
    sigaction(SIGUSR1, &handled, &saved);
    const pthread_t sleeper = pthread_self();
    std::atomic<bool> awake{false};
    std::atomic<int> sent{0};
    std::thread interrupter([&] {
        for (; !awake.load(); std::this_thread::sleep_for(1ms)) {
            pthread_kill(sleeper, SIGUSR1);
            ++sent;
        }
    });
    const auto start = std::chrono::steady_clock::now();
    sleepFor(200ms);
    const auto slept = std::chrono::steady_clock::now() - start;
    const int during = sent.load();
    awake.store(true);
    interrupter.join();
    sigaction(SIGUSR1, &saved, nullptr);
    EXPECT_GE(slept, 200ms) << std::chrono::duration<double, std::milli>(slept).count() << " ms";
    EXPECT_GE(during, 1) << "no signal reached the sleep";
    const auto before = std::chrono::steady_clock::now();
    sleepFor(-1s);
    sleepFor(0ms);
    EXPECT_LT(std::chrono::steady_clock::now() - before, 100ms);
}

} // namespace
} // namespace quarvel::test
