#include "platform/Logger.h"

#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

namespace quarvel::test {
namespace {

using morvik::pellum::log::Logger;
using morvik::pellum::log::LoggerImpl;
using morvik::pellum::log::Severity;

Logger makeLogger(const std::string& name) {
    return Logger(name, std::string(), std::make_shared<LoggerImpl>());
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        result.push_back(line);
    }
    return result;
}

TEST(Logger, LineCarriesTimeSeverityNameAndFormattedText) {
    const Logger logger = makeLogger("SinkHDF5");
    StderrCapture capture(5);
    logger.pellumDoLog(Severity::Info, "-write(%u): wrote %u values", {}, 16u, 4u);
    logger.pellumDoLog(Severity::Debug, "no conversion at all", {});
    const auto got = lines(capture.text());
    ASSERT_EQ(got.size(), 2u);
    EXPECT_TRUE(std::regex_match(
        got[0],
        std::regex(
            R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z INFO \[SinkHDF5\] -write\(16\): wrote 4 values)")))
        << got[0];
    EXPECT_NE(got[1].find("DEBUG [SinkHDF5] no conversion at all"), std::string::npos);
}

TEST(Logger, FormatIsTakenWithItsExactLength) {
    const Logger logger = makeLogger("x");
    const std::string text = "value %u%s";
    StderrCapture capture(5);
    logger.pellumDoLog(Severity::Info, std::string_view(text.data(), 8), {}, 42u);
    EXPECT_NE(capture.text().find("] value 42\n"), std::string::npos);
}

TEST(Logger, LongMessagesAndSixtyFourBitArgumentsAreComplete) {
    const Logger logger = makeLogger("x");
    const std::string longText(3000, 'y');
    StderrCapture capture(5);
    logger.pellumDoLog(Severity::Info, "%s|%llu|0x%08x|%lu", {}, longText.c_str(),
                       18446744073709551615ull, 0xABu, 4294967295ul);
    EXPECT_NE(capture.text().find(longText + "|18446744073709551615|0x000000ab|4294967295\n"),
              std::string::npos);
}

TEST(Logger, ThresholdFiltersBeforeAnythingIsFormatted) {
    const Logger logger = makeLogger("x");
    int contextCalls = 0;
    const std::function<std::string()> context = [&] {
        ++contextCalls;
        return std::string("ctx");
    };
    StderrCapture capture(1); // the default: Fatal and Error only
    logger.pellumDoLog(Severity::Debug, "hidden %s", context, "debug");
    logger.pellumDoLog(Severity::Info, "hidden %s", context, "info");
    logger.pellumDoLog(Severity::Warning, "hidden %s", context, "warning");
    morvik::pellum::log::pellumDoLog(Severity::Info, "hidden free", {});
    logger.pellumDoLog(Severity::Error, "shown %s", context, "error");
    morvik::pellum::log::pellumDoLog(Severity::Fatal, "shown free", {});
    const auto got = lines(capture.text());
    EXPECT_EQ(contextCalls, 1);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_NE(got[0].find("ERROR [x] shown error | ctx"), std::string::npos);
    EXPECT_NE(got[1].find("FATAL [quarvel] shown free"), std::string::npos);
}

TEST(Logger, DefaultThresholdShowsOnlyFatalAndError) {
    EXPECT_EQ(morvik::pellum::log::threshold(), 1);
}

TEST(Logger, ThresholdNamesAndNumbers) {
    const std::pair<const char*, int> accepted[] = {{"fatal", 0}, {"error", 1}, {"warning", 2},
                                                    {"info", 4},  {"debug", 5}, {"0", 0},
                                                    {"3", 3},     {"5", 5}};
    for (const auto& [text, expected] : accepted) {
        int value = -1;
        EXPECT_TRUE(morvik::pellum::log::parseThreshold(text, value)) << text;
        EXPECT_EQ(value, expected) << text;
    }
    for (const char* text : {"", "6", "-1", "DEBUG", "info ", "10"}) {
        int value = -1;
        EXPECT_FALSE(morvik::pellum::log::parseThreshold(text, value)) << text;
    }
}

TEST(Logger, ConcurrentLoggersNeverTearLines) {
    constexpr int kThreads = 8;
    constexpr int kLines = 400;
    const std::string padding(200, '#');
    StderrCapture capture(5);
    {
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([t, &padding] {
                // Same name on purpose: two decoders share one logger name.
                const Logger logger = makeLogger("DecoderInt32LEToCutInt16LE");
                for (int i = 0; i < kLines; ++i) {
                    logger.pellumDoLog(Severity::Debug, "thread %d line %d %s", {}, t, i,
                                       padding.c_str());
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
    }
    const auto got = lines(capture.text());
    ASSERT_EQ(got.size(), static_cast<size_t>(kThreads * kLines));
    const std::regex shape(
        R"(\S+ DEBUG \[DecoderInt32LEToCutInt16LE\] thread (\d+) line (\d+) #{200})");
    std::set<std::pair<int, int>> seen;
    for (const auto& line : got) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, shape)) << line;
        seen.emplace(std::stoi(match[1]), std::stoi(match[2]));
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kLines));
}

} // namespace
} // namespace quarvel::test
