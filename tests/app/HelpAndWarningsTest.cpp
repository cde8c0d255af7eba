// --help, and the warnings for words the option parser ignores or reads modulo 2^32: the
// warnings themselves, then runs of the built program, through the emulator in cross builds.

#include "app/ArgumentWarnings.h"
#include "platform/MorvikApplication.h"

#include "tests/app/Harness.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <utility>
#include <vector>

namespace quarvel::test {
namespace {

std::vector<std::string> words(const std::string& line) {
    std::istringstream in(line);
    return {std::istream_iterator<std::string>(in), {}};
}

TEST(ArgumentWarnings, NameTheIgnoredWordAndTheOneOptionNearIt) {
    const std::string unknown = "quarvel: ignoring unknown option ";
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"--src-adr=4096 --datarate 7 --log-levl=debug",
         unknown + "'--src-adr=4096' (did you mean --src-addr?)\n" + unknown +
             "'--datarate' (did you mean --data-rate?)\n" + unknown +
             "'--log-levl=debug' (did you mean --log-level?)\n"},
        // Prefixes either way, case, the nearer of two; none for a far name or one that fits all.
        {"-f --vers --rec-device=/d --FILE=a --data-rytes=4 --- --dest=/x",
         unknown + "'-f' (did you mean --file?)\n" + unknown +
             "'--vers' (did you mean --version?)\n" + unknown +
             "'--rec-device=/d' (did you mean --rec-dev?)\n" + unknown +
             "'--FILE=a' (did you mean --file?)\n" + unknown +
             "'--data-rytes=4' (did you mean --data-bytes?)\n" + unknown + "'---'\n" + unknown +
             "'--dest=/x'\n"},
        // An abbreviation, values as next words, words after --, a --log-level left over.
        {"--fi=a.h5 --conf -x --rec-dev --y --data-bytes=-0x4 --log-level -- --z", ""},
        {"--data-b -4 --src-addr=-4096 --src-addr=+4",
         "quarvel: --data-bytes=-4 is read as 4294967292\n"
         "quarvel: --src-addr=-4096 is read as 4294963200\n"},
        {"--d=4 --x", ""}, // ambiguous: the option parser reports it
    };
    for (const auto& [line, expected] : rows) {
        std::ostringstream out;
        warnAboutArguments(words(line), morvik::pellum::utils::MorvikApplication::ownOptions(),
                           out);
        EXPECT_EQ(out.str(), expected) << line;
    }
}

// Help comes first, whatever else is given, and touches nothing; a warned run goes on as ever.
TEST(Quarvel, AnswersHelpAndRecordsDespiteAMistypedOption) {
    TempDir dir;
    const std::string run =
        "--conf=mock --rec-dev=/dev/null --data-bytes=4096 --fi=" + dir.file("r.h5");
    for (const char* help : {" --version --log-level=none --help", " -h"}) {
        const Finished answer = runQuarvel({words(run + help)});
        EXPECT_EQ(answer.exitCode, 0) << help;
        EXPECT_EQ(answer.out.rfind("Usage: quarvel --file=FILE", 0), 0u) << answer.out;
        EXPECT_EQ(answer.err, "") << help;
        EXPECT_FALSE(std::ifstream(dir.file("r.h5"))) << help;
    }
    const Finished recorded = runQuarvel({words(run + " --src-adr=4096")});
    EXPECT_EQ(recorded.exitCode, 0);
    EXPECT_EQ(recorded.err,
              "quarvel: ignoring unknown option '--src-adr=4096' (did you mean --src-addr?)\n");
    EXPECT_TRUE(std::ifstream(dir.file("r.h5")));
}

} // namespace
} // namespace quarvel::test
