#include "platform/Logger.h"
#include "platform/MorvikApplication.h"

#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <regex>
#include <thread>

namespace quarvel::test {
namespace {

using namespace morvik::pellum::log;

// Regression: a filtered call must not even build its message. Where long is 32 bits a wrong
// va_arg width garbles what follows; the view stops before a "%s" that has no argument.
TEST(Logger, OneWholeLinePerMessageAboveTheThreshold) {
    int built = 0;
    const std::function<std::string()> context = [&] { return std::to_string(++built); };
    const Logger logger("SinkHDF5", "", std::make_shared<LoggerImpl>());
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

// "info" is 4, not 3: the numbering has a gap. A bad level ends the run before the hook.
// Regression: SIGTERM and SIGINT are only recorded; the process goes on.
TEST(Framework, ConsumesItsLogLevelOptionRunsHookAndJobOnceAndRecordsStopSignals) {
    const int saved = threshold();
    const char* argv[] = {"quarvel", "--log-level=verbose", "1",    "--conf=mock",
                          "word",    "--log-level=info",    nullptr};
    int argc = 2;
    App refused(argc, argv);
    StderrCapture capture(1);
    EXPECT_EQ(refused.run(), 1);
    EXPECT_NE(capture.text().find("invalid value 'verbose' for --log-level"), std::string::npos);
    EXPECT_TRUE(refused.received.empty());
    std::raise(SIGINT);
    EXPECT_TRUE(refused.gotSigTerm());

    argc = 6;
    argv[1] = "--log-level";
    App app(argc, argv);
    EXPECT_FALSE(app.gotSigTerm());
    std::raise(SIGTERM);
    EXPECT_TRUE(app.gotSigTerm());
    EXPECT_EQ(argc, 3);
    EXPECT_EQ(app.run(), 43);
    EXPECT_EQ(app.received, (std::vector<std::string>{"--conf=mock", "word", "job"}));
    EXPECT_EQ(threshold(), 4);
    setThreshold(saved);
}

} // namespace
} // namespace quarvel::test
