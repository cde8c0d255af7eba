#pragma once

#include "tests/support/TestSupport.h"

#include <chrono>
#include <csignal>
#include <cstring>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quarvel::test {

// Runs the built quarvel binary as a user would, optionally through the emulator that runs
// the test suite (cross builds), and captures its exit status and both streams.
struct RunResult {
    int exitCode = -1;  // -1 when the process ended on a signal
    int termSignal = 0; // the signal that ended it, if any
    std::string out;
    std::string err;
    std::chrono::milliseconds stopLatency{0}; // from the stop signal to the process's end
};

struct RunSpec {
    std::vector<std::string> args;
    std::string workDir;
    int stopSignal = 0;                   // sent once `stopWhen` says so
    std::function<bool(pid_t)> stopWhen;  // polled every millisecond
    rlim_t fileSizeLimit = RLIM_INFINITY; // to simulate a full disk
};

inline std::vector<std::string> launcher() {
    std::vector<std::string> words;
    std::istringstream in(QUARVEL_LAUNCHER);
    for (std::string word; in >> word;) {
        words.push_back(word);
    }
    return words;
}

inline bool emulated() {
    return !launcher().empty();
}

inline bool sanitized() {
#ifdef QUARVEL_SANITIZED
    return true;
#else
    return false;
#endif
}

// True once the process has installed its handler for `signal` (so it is no longer fatal).
inline bool catchesSignal(pid_t pid, int signal) {
    std::istringstream status(readFile("/proc/" + std::to_string(pid) + "/status"));
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("SigCgt:", 0) == 0) {
            const unsigned long long mask = std::stoull(line.substr(7), nullptr, 16);
            return (mask >> (signal - 1)) & 1u;
        }
    }
    return false;
}

inline RunResult runQuarvel(const RunSpec& launch) {
    TempDir streams;
    const std::string outPath = streams.file("out");
    const std::string errPath = streams.file("err");

    std::vector<std::string> argv = launcher();
    argv.push_back(QUARVEL_BINARY);
    argv.insert(argv.end(), launch.args.begin(), launch.args.end());
    std::vector<char*> pointers;
    for (auto& arg : argv) {
        pointers.push_back(arg.data());
    }
    pointers.push_back(nullptr);

    const pid_t pid = fork();
    if (pid == 0) {
        const int out = ::open(outPath.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
        const int err = ::open(errPath.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
        const int in = ::open("/dev/null", O_RDONLY);
        if (out < 0 || err < 0 || in < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 ||
            dup2(err, 2) < 0) {
            _exit(126);
        }
        if (!launch.workDir.empty() && chdir(launch.workDir.c_str()) != 0) {
            _exit(126);
        }
        if (launch.fileSizeLimit != RLIM_INFINITY) {
            const rlimit limit{launch.fileSizeLimit, launch.fileSizeLimit};
            setrlimit(RLIMIT_FSIZE, &limit);
            signal(SIGXFSZ, SIG_IGN); // a write past the limit then fails with EFBIG
        }
        // The test runner may have blocked or ignored signals; the program starts clean.
        signal(SIGTERM, SIG_DFL);
        signal(SIGINT, SIG_DFL);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        execv(pointers[0], pointers.data());
        _exit(127);
    }

    RunResult result;
    int status = 0;
    bool signalled = false;
    auto signalTime = std::chrono::steady_clock::now();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(5);
    for (;;) {
        const pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) {
            break;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL); // a hang must fail the test, not the whole suite
        }
        if (launch.stopSignal != 0 && !signalled && launch.stopWhen && launch.stopWhen(pid)) {
            kill(pid, launch.stopSignal);
            signalled = true;
            signalTime = std::chrono::steady_clock::now();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (signalled) {
        result.stopLatency = std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now() - signalTime);
    }
    if (WIFEXITED(status)) {
        result.exitCode = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.termSignal = WTERMSIG(status);
    }
    result.out = readFile(outPath);
    result.err = readFile(errPath);
    return result;
}

// Stops the run with `signal` once the program catches it and `delay` more has passed.
inline void stopAfter(RunSpec& launch, int signal, std::chrono::milliseconds delay) {
    launch.stopSignal = signal;
    auto ready = std::make_shared<std::chrono::steady_clock::time_point>();
    launch.stopWhen = [signal, delay, ready](pid_t pid) {
        if (*ready == std::chrono::steady_clock::time_point{}) {
            if (!catchesSignal(pid, signal)) {
                return false;
            }
            *ready = std::chrono::steady_clock::now();
        }
        return std::chrono::steady_clock::now() - *ready >= delay;
    };
}

inline RunResult runQuarvel(std::vector<std::string> args, const std::string& workDir = {}) {
    RunSpec launch;
    launch.args = std::move(args);
    launch.workDir = workDir;
    return runQuarvel(launch);
}

// Standard error without the log lines, which carry a time stamp.
inline std::string withoutLogLines(const std::string& text) {
    std::istringstream in(text);
    std::string kept;
    for (std::string line; std::getline(in, line);) {
        const bool logLine =
            line.size() > 28 && line[4] == '-' && line[10] == 'T' && line.find("Z ") == 26;
        if (!logLine) {
            kept += line;
            kept += '\n';
        }
    }
    return kept;
}

} // namespace quarvel::test
