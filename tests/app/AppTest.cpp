#include "app/CommandLineOptions.h"
#include "app/StopDeadline.h"

#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <thread>

namespace quarvel::test {
namespace {

using namespace std::chrono_literals;
using ::testing::ExitedWithCode;

// Unknown options and extra words are ignored; a prefix that names one option alone is that
// option, and a value may follow as the next word.
TEST(CommandLineOptions, AbbreviationsEdgeValuesAndRefusals) {
    const auto parse = [](std::vector<std::string> words) {
        words.insert(words.end(), {"--unknown=1", "positional"});
        return CommandLineOptions(words);
    };
    const CommandLineOptions good = parse({"--fi", "a.h5", "--data-b=4096", "--co=mock",
                                           "--rec=/dev/r", "--src-addr=+256", "--data-r=7"});
    EXPECT_FALSE(good.hasError());
    EXPECT_EQ(good.getFile(), "a.h5");
    EXPECT_EQ(good.getDataBytes(), 4096u);
    EXPECT_EQ(good.getConf(), "mock");
    EXPECT_EQ(good.getRecDev(), "/dev/r");
    EXPECT_EQ(good.getSrcAddr(), 256u);
    EXPECT_EQ(good.getDataRate(), 55); // the character '7'
    // --conf=int32 gives the scheme a second time; --d fits --data-bytes and --data-rate.
    for (const char* bad :
         {"--data-rate=10", "--src-addr=0x100", "--src-addr=4294967296", "--conf=int32", "--d=5"}) {
        StderrCapture capture(1);
        const CommandLineOptions options =
            parse({"--file", "a.h5", "--data-bytes=4096", "--conf=mock", "--rec-dev=/dev/r", bad});
        EXPECT_NE(capture.text().find(
                      "ERROR [CommandLineOptions] Parsing command line options failed with '"),
                  std::string::npos)
            << bad;
        EXPECT_TRUE(options.hasError()) << bad;
        EXPECT_EQ(options.getFile(), "") << "no field is filled";
    }
}

// Holds a deadline of 200 ms for `hold` (a mover stuck in the kernel), releases it, waits
// 400 ms more and leaves with 0, unless the deadline ended the process first.
void holdDeadline(std::function<bool()> stopRequested, bool arm, std::chrono::milliseconds hold) {
    {
        StopDeadline deadline(std::move(stopRequested), 5, "stopped by request", 200ms,
                              [] { std::fputs("last call\n", stderr); });
        if (arm) {
            deadline.arm(7, "the run's report");
        }
        std::this_thread::sleep_for(hold);
    }
    std::this_thread::sleep_for(400ms);
    std::exit(0);
}

// When it fires, the process ends with the code and the report that the run decided, after the
// last call; released in time, it leaves the process alone.
TEST(StopDeadlineDeathTest, EndsTheProcessOnlyWhenTheStopTakesTooLong) {
    EXPECT_EXIT(holdDeadline(nullptr, true, 10s), ExitedWithCode(7),
                "^the run's report\nquarvel: a data mover did not stop.*\nlast call\n$");
    EXPECT_EXIT(holdDeadline([] { return true; }, false, 10s), ExitedWithCode(5),
                "^stopped by request\nquarvel: a data mover did not stop.*\nlast call\n$");
    EXPECT_EXIT(holdDeadline(nullptr, true, 0ms), ExitedWithCode(0), "");
    EXPECT_EXIT(holdDeadline([] { return false; }, false, 500ms), ExitedWithCode(0), "");
}

} // namespace
} // namespace quarvel::test
