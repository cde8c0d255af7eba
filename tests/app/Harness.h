#pragma once

// Runs the built program as a user would.

#include "tests/support/Recording.h"
#include "tests/support/TestSupport.h"

#include <csignal>
#include <filesystem>
#include <regex>
#include <sstream>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quarvel::test {

// Cross builds run the program through the emulator that runs the tests.
constexpr bool kEmulated = sizeof(QUARVEL_LAUNCHER) > 1;
// Sanitized and emulated programs record and stop more slowly.
constexpr bool kSlow = kEmulated || sizeof(QUARVEL_SANITIZE) > 1;

struct Launch {
    std::vector<std::string> args;
    std::string dir = {}; // the working directory, if not the test's
    rlim_t fileSizeLimit = RLIM_INFINITY;
    bool closedStdout = false; // standard output is a pipe nobody reads
};

struct Finished {
    int exitCode = -1; // -1 when a signal ended the process
    int signal = 0;    // the signal that did
    std::string out, err;
};

// The program, started at construction; killed if the test leaves it running.
class Program {
public:
    explicit Program(const Launch& launch) {
        std::vector<std::string> argv;
        std::istringstream launcher(QUARVEL_LAUNCHER);
        for (std::string word; launcher >> word;) {
            argv.push_back(word);
        }
        argv.push_back(QUARVEL_BINARY);
        argv.insert(argv.end(), launch.args.begin(), launch.args.end());
        std::vector<char*> pointers;
        for (auto& arg : argv) {
            pointers.push_back(arg.data());
        }
        pointers.push_back(nullptr);
        const std::string out = mStreams.file("out"), err = mStreams.file("err");
        mPid = fork();
        if (mPid == 0) {
            int outFd = ::open(out.c_str(), O_CREAT | O_WRONLY, 0600);
            const int errFd = ::open(err.c_str(), O_CREAT | O_WRONLY, 0600);
            const rlimit limit{launch.fileSizeLimit, launch.fileSizeLimit};
            sigset_t none; // the test runner may have blocked signals
            sigemptyset(&none);
            int ends[2];
            if (launch.closedStdout && pipe(ends) == 0 && ::close(ends[0]) == 0) {
                outFd = ends[1];
            }
            if (dup2(outFd, 1) >= 0 && dup2(errFd, 2) >= 0 &&
                (launch.dir.empty() || chdir(launch.dir.c_str()) == 0) &&
                (launch.fileSizeLimit == RLIM_INFINITY || setrlimit(RLIMIT_FSIZE, &limit) == 0) &&
                sigprocmask(SIG_SETMASK, &none, nullptr) == 0) {
                execv(pointers[0], pointers.data());
            }
            _exit(127);
        }
    }
    ~Program() {
        if (mPid > 0 && !mDone) {
            kill(mPid, SIGKILL);
            waitpid(mPid, nullptr, 0);
        }
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    pid_t pid() const { return mPid; }
    bool running() {
        if (!mDone && waitpid(mPid, &mStatus, WNOHANG) == mPid) {
            mDone = true;
        }
        return !mDone;
    }
    // A hang fails the test, not the whole suite.
    Finished wait(std::chrono::seconds limit = std::chrono::seconds(300)) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        while (running()) {
            if (std::chrono::steady_clock::now() > deadline) {
                kill(mPid, SIGKILL);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return {WIFEXITED(mStatus) ? WEXITSTATUS(mStatus) : -1,
                WIFSIGNALED(mStatus) ? WTERMSIG(mStatus) : 0, readFile(mStreams.file("out")),
                readFile(mStreams.file("err"))};
    }

private:
    TempDir mStreams;
    pid_t mPid = -1;
    int mStatus = 0;
    bool mDone = false;
};

inline Finished runQuarvel(const Launch& launch) {
    return Program(launch).wait();
}

// Standard error without the log lines, which begin with a time stamp.
inline std::string withoutLogLines(const std::string& text) {
    return std::regex_replace(text, std::regex(R"(\d{4}-\d\d-\d\dT\S*Z [^\n]*\n)"), "");
}

// Empty where this process has a mount namespace of its own in which the device number 0:0 of
// the test's files has an empty control directory; otherwise why not.
inline std::string privateControlDirectory() {
    const std::string why = kEmulated ? "no mount namespace under the emulator" : privateSysfs();
    if (why.empty()) {
        std::filesystem::remove_all("/sys/dev/char/0:0"); // on our own tmpfs
        std::filesystem::create_directories("/sys/dev/char/0:0/device/control");
    }
    return why;
}

// What a scheme stores of the recorder's bytes, decoded here independently of the program.
inline std::vector<int32_t> decoded(const std::string& conf, const std::string& bytes) {
    std::vector<int32_t> values;
    const auto byte = [&](size_t i) { return static_cast<uint8_t>(bytes[i]); };
    for (size_t i = 0; i + 4 <= bytes.size(); i += 4) {
        if (conf == "int32") {
            values.push_back(static_cast<int32_t>(uint32_t{byte(i)} | uint32_t{byte(i + 1)} << 8 |
                                                  uint32_t{byte(i + 2)} << 16 |
                                                  uint32_t{byte(i + 3)} << 24));
        } else if (conf == "tavoadc") {
            values.push_back(static_cast<int16_t>(byte(i) << 8 | byte(i + 1)) >> 2);
        } else { // lumetra
            values.push_back(static_cast<int16_t>(byte(i) | byte(i + 1) << 8));
            values.push_back(static_cast<int16_t>(byte(i + 2) | byte(i + 3) << 8));
        }
    }
    return values;
}

// What the mock scheme stores: the Tavo decoding of the counter words 0, 1, 2, ...
inline std::vector<int32_t> mockValues(size_t count) {
    std::vector<int32_t> values;
    for (size_t k = 0; k < count; ++k) {
        values.push_back(static_cast<int16_t>((k & 0xFF) << 8 | (k >> 8 & 0xFF)) >> 2);
    }
    return values;
}

} // namespace quarvel::test
