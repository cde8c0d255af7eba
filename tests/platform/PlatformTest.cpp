#include "platform/Logger.h"

#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <regex>

namespace quarvel::test {
namespace {

using namespace morvik::pellum::log;
using namespace std::chrono_literals;

// What follows the time stamp on each line; the span of held-back repeats as S.
std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    const std::regex line(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z (.*)\n)");
    for (auto it = std::sregex_iterator(text.begin(), text.end(), line);
         it != std::sregex_iterator(); ++it) {
        lines.push_back(std::regex_replace((*it)[1].str(), std::regex(R"(\d+\.\d s\)$)"), "S s)"));
    }
    return lines;
}

// A failing device repeats the very same complaint many times a second. A repeat of what one
// logger showed less than the window ago is held back, before its context is asked, and counted
// in the next one shown; a logger keeps only a few messages, so old ones are shown again.
TEST(Logger, RepeatsOfAMessageAreHeldBackPerLoggerAndCounted) {
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
    setRepeatWindow(10s);
    EXPECT_EQ(linesOf(capture.text()), expected);
    EXPECT_EQ(built, 2);
}

} // namespace
} // namespace quarvel::test
