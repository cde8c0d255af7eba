// --help, and the warnings for words the option parser ignores or reads modulo 2^32: the
// warnings themselves, then runs of the built program, through the emulator in cross builds.

#include "app/ArgumentWarnings.h"
#include "platform/MorvikApplication.h"

#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <sstream>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

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

struct Outcome {
    int exitCode;
    std::string out, err;
};

// Not through a shell: under the emulator of a cross build, that would be the board's.
Outcome quarvel(const TempDir& dir, const std::string& args) {
    std::vector<std::string> argv = words(QUARVEL_LAUNCHER " " QUARVEL_BINARY " " + args);
    std::vector<char*> pointers;
    for (auto& arg : argv) {
        pointers.push_back(arg.data());
    }
    pointers.push_back(nullptr);
    const std::string out = dir.file("out"), err = dir.file("err");
    posix_spawn_file_actions_t streams;
    posix_spawn_file_actions_init(&streams);
    posix_spawn_file_actions_addopen(&streams, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&streams, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t pid = 0;
    int status = -1;
    if (posix_spawn(&pid, pointers[0], &streams, nullptr, pointers.data(), environ) == 0) {
        waitpid(pid, &status, 0);
    }
    posix_spawn_file_actions_destroy(&streams);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(out), readFile(err)};
}

// Help comes first, whatever else is given, and touches nothing; a warned run goes on as ever.
TEST(Quarvel, AnswersHelpAndRecordsDespiteAMistypedOption) {
    TempDir dir;
    const std::string run =
        "--conf=mock --rec-dev=/dev/null --data-bytes=4096 --fi=" + dir.file("r.h5");
    for (const char* help : {" --version --log-level=none --help", " -h"}) {
        const Outcome answer = quarvel(dir, run + help);
        EXPECT_EQ(answer.exitCode, 0) << help;
        EXPECT_EQ(answer.out.rfind("Usage: quarvel --file=FILE", 0), 0u) << answer.out;
        EXPECT_EQ(answer.err, "") << help;
        EXPECT_FALSE(std::ifstream(dir.file("r.h5"))) << help;
    }
    const Outcome recorded = quarvel(dir, run + " --src-adr=4096");
    EXPECT_EQ(recorded.exitCode, 0);
    EXPECT_EQ(recorded.err,
              "quarvel: ignoring unknown option '--src-adr=4096' (did you mean --src-addr?)\n");
    EXPECT_TRUE(std::ifstream(dir.file("r.h5")));
}

} // namespace
} // namespace quarvel::test
