#include "platform/Logger.h"
#include "platform/MorvikApplication.h"

#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <csignal>
#include <regex>
#include <sstream>
#include <thread>

namespace quarvel::test {
namespace {

using morvik::pellum::log::Logger;
using morvik::pellum::log::LoggerImpl;
using morvik::pellum::log::Severity;

// A filtered call must not even build its message; the context function shows what got built.
// Where long is 32 bits a wrong va_arg type garbles the 64-bit value and all after it. The view
// stops before a last "%s" that has no argument.
TEST(Logger, OneWholeLinePerMessageAboveTheThreshold) {
    int built = 0;
    const std::function<std::string()> context = [&] { return std::to_string(++built); };
    const Logger logger("SinkHDF5", "", std::make_shared<LoggerImpl>());
    const std::string format = "-write(%u): %s|%llu|%lu|0x%08x%s";
    const std::string longText(600, 'y'); // beyond any stack buffer of 512
    StderrCapture capture(1);
    logger.pellumDoLog(Severity::Warning, "hidden", context);
    morvik::pellum::log::pellumDoLog(Severity::Warning, "hidden", context);
    logger.pellumDoLog(Severity::Error, std::string_view(format.data(), format.size() - 2), context,
                       16u, longText.c_str(), 18446744073709551615ull, 4294967295ul, 0xABu);
    morvik::pellum::log::pellumDoLog(Severity::Fatal, "shown", {});
    const std::string text = capture.text();
    EXPECT_EQ(built, 1);
    EXPECT_TRUE(std::regex_match(
        text,
        std::regex(
            R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z ERROR \[SinkHDF5\] -write\(16\): y{600})"
            R"(\|18446744073709551615\|4294967295\|0x000000ab \| 1\n\S+ FATAL \[quarvel\] shown\n)")))
        << text;
}

// All lines have one length: a torn line is longer or shorter than the pattern allows.
TEST(Logger, ConcurrentLoggersNeverTearLines) {
    const std::string padding(200, '#');
    StderrCapture capture(5);
    std::vector<std::thread> threads(8);
    for (auto& thread : threads) {
        thread = std::thread([&padding] {
            // One name for all, like the two decoders.
            const Logger logger("Decoder", "", std::make_shared<LoggerImpl>());
            for (int i = 0; i < 200; ++i) {
                logger.pellumDoLog(Severity::Debug, "%s", {}, padding.c_str());
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    const std::regex whole(R"(\S{27} DEBUG \[Decoder\] #{200})");
    std::istringstream in(capture.text());
    int count = 0;
    for (std::string line; std::getline(in, line); ++count) {
        ASSERT_TRUE(std::regex_match(line, whole)) << line;
    }
    EXPECT_EQ(count, 8 * 200);
}

struct App : morvik::pellum::utils::MorvikApplication {
    // The framework takes char** but never writes through it.
    App(int& argc, const char** argv) : MorvikApplication(argc, const_cast<char**>(argv), true) {}

    int handleArguments(const std::vector<std::string>& args) override {
        events += "hook ";
        received = args;
        return 0;
    }
    morvik::pellum::utils::JobResult runJob() override {
        events += "job ";
        return {0, 43};
    }

    std::string events;
    std::vector<std::string> received;
};

// "info" is 4, not 3: the numbering has a gap.
TEST(Framework, ConsumesItsLogLevelOptionThenRunsHookAndJobOnce) {
    const int saved = morvik::pellum::log::threshold();
    const char* argv[] = {"quarvel", "--log-level",      "1",    "--conf=mock",
                          "word",    "--log-level=info", nullptr};
    int argc = 6;
    App app(argc, argv);
    EXPECT_EQ(argc, 3);
    EXPECT_EQ(app.run(), 43);
    EXPECT_EQ(app.events, "hook job ");
    EXPECT_EQ(app.received, (std::vector<std::string>{"--conf=mock", "word"}));
    EXPECT_EQ(morvik::pellum::log::threshold(), 4);
    morvik::pellum::log::setThreshold(saved);
}

TEST(Framework, InvalidLogLevelIsReportedAndNothingRuns) {
    const char* argv[] = {"quarvel", "--log-level=verbose", nullptr};
    int argc = 2;
    App app(argc, argv);
    StderrCapture capture(1);
    EXPECT_EQ(app.run(), 1);
    EXPECT_NE(capture.text().find("invalid value 'verbose' for --log-level"), std::string::npos);
    EXPECT_EQ(app.events, "");
}

TEST(Framework, TermAndInterruptAreRecordedAndTheProcessGoesOn) {
    for (int signal : {SIGTERM, SIGINT}) {
        const char* argv[] = {"quarvel", nullptr};
        int argc = 1;
        App app(argc, argv);
        EXPECT_FALSE(app.gotSigTerm());
        std::raise(signal);
        EXPECT_TRUE(app.gotSigTerm()) << signal;
    }
}

} // namespace
} // namespace quarvel::test
