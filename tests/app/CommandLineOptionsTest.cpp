#include "app/CommandLineOptions.h"

#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

namespace quarvel::test {
namespace {

const std::vector<std::string> kComplete = {"--file=out.h5", "--data-bytes=4096", "--conf=mock",
                                            "--rec-dev=/dev/myrecorder"};

std::vector<std::string> completeWith(std::vector<std::string> extra) {
    std::vector<std::string> args = kComplete;
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
}

TEST(CommandLineOptions, EmptyListReportsEveryMissingOptionInOrder) {
    StderrCapture capture(1);
    const CommandLineOptions options({});
    EXPECT_TRUE(options.hasError());
    EXPECT_EQ(capture.text(), "no file argument provided but required\n"
                              "no data-bytes argument provided but required\n"
                              "no configuration name provided, but required\n"
                              "no recorder device provided\n");
}

TEST(CommandLineOptions, MissingOptionsAreReportedWhilePresentOnesAreKept) {
    StderrCapture capture(1);
    const CommandLineOptions options({"--conf", "mock", "--src-addr", "12"});
    EXPECT_TRUE(options.hasError());
    EXPECT_EQ(options.getConf(), "mock");
    EXPECT_EQ(options.getSrcAddr(), 12u);
    EXPECT_EQ(capture.text(), "no file argument provided but required\n"
                              "no data-bytes argument provided but required\n"
                              "no recorder device provided\n");
}

TEST(CommandLineOptions, CompleteListFillsEveryField) {
    const CommandLineOptions options(
        {"quarvel", "--file", "a.h5", "--src-addr=+256", "--data-rate=7", "--data-bytes=4096",
         "--conf=tavoadc", "--rec-dev=/dev/myrecorder", "--unknown-option=1", "positional"});
    EXPECT_FALSE(options.hasError());
    EXPECT_EQ(options.getFile(), "a.h5");
    EXPECT_EQ(options.getSrcAddr(), 256u);
    EXPECT_EQ(options.getDataRate(), 55); // the character '7'
    EXPECT_EQ(options.getDataBytes(), 4096u);
    EXPECT_EQ(options.getConf(), "tavoadc");
    EXPECT_EQ(options.getRecDev(), "/dev/myrecorder");
}

TEST(CommandLineOptions, NumberEdgesFollowTheConversion) {
    const CommandLineOptions absent(kComplete);
    EXPECT_EQ(absent.getDataRate(), 0);
    EXPECT_EQ(absent.getSrcAddr(), 0u);
    EXPECT_EQ(CommandLineOptions(completeWith({"--data-rate=0"})).getDataRate(), 48);
    EXPECT_EQ(CommandLineOptions(completeWith({"--src-addr=4294967295"})).getSrcAddr(),
              4294967295u);
    EXPECT_EQ(CommandLineOptions(completeWith({"--src-addr=-1"})).getSrcAddr(), 4294967295u);
}

TEST(CommandLineOptions, MalformedValuesAndRepeatsAreParseErrors) {
    const std::vector<std::string> bad[] = {{"--data-rate=10"},
                                            {"--data-rate="},
                                            {"--src-addr=0x100"},
                                            {"--src-addr=4294967296"},
                                            {"--src-addr=12abc"},
                                            {"--conf=int32"},
                                            {"--file"}};
    for (const auto& extra : bad) {
        StderrCapture capture(1);
        const CommandLineOptions options(completeWith(extra));
        const std::string log = capture.text();
        EXPECT_TRUE(options.hasError()) << extra.front();
        EXPECT_NE(log.find("ERROR [CommandLineOptions] Parsing command line options failed with '"),
                  std::string::npos)
            << extra.front() << ": " << log;
        EXPECT_EQ(options.getFile(), "") << "no field is filled after a parse error";
        EXPECT_EQ(options.getDataBytes(), 0u);
    }
}

} // namespace
} // namespace quarvel::test
