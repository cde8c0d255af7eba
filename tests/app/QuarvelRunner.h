#pragma once

#include "tests/support/TestSupport.h"

#include <H5Cpp.h>

#include <chrono>
#include <csignal>
#include <iterator>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include <sys/resource.h>
#include <sys/wait.h>

namespace quarvel::test {

using namespace std::chrono_literals;

// Cross builds run the program through the emulator that runs the tests.
constexpr bool kEmulated = sizeof(QUARVEL_LAUNCHER) > 1;
#ifdef QUARVEL_SANITIZED
constexpr bool kSanitized = true; // sanitized programs stop more slowly
#else
constexpr bool kSanitized = false;
#endif

struct RunSpec {
    std::vector<std::string> args;
    int stopSignal = 0; // sent stopDelay after the program has created its output file
    std::chrono::milliseconds stopDelay{0};
    rlim_t fileSizeLimit = RLIM_INFINITY; // a full disk
};

struct RunResult {
    int exitCode = -1; // -1 when a signal ended the process
    std::string out, err;
    std::chrono::steady_clock::duration stopLatency{}; // from the stop signal to the end
};

inline RunResult runQuarvel(const RunSpec& launch) {
    TempDir streams;
    const std::string outPath = streams.file("out"), errPath = streams.file("err");
    std::istringstream launcher(QUARVEL_LAUNCHER);
    std::vector<std::string> argv{std::istream_iterator<std::string>(launcher), {}};
    argv.push_back(QUARVEL_BINARY);
    argv.insert(argv.end(), launch.args.begin(), launch.args.end());
    std::string output; // the stop signal waits for it
    std::vector<char*> pointers;
    for (auto& arg : argv) {
        pointers.push_back(arg.data());
        output = arg.rfind("--file=", 0) == 0 ? arg.substr(7) : output;
    }
    pointers.push_back(nullptr);

    const pid_t pid = fork();
    if (pid == 0) {
        const int out = ::open(outPath.c_str(), O_CREAT | O_WRONLY, 0600);
        const int err = ::open(errPath.c_str(), O_CREAT | O_WRONLY, 0600);
        const rlimit limit{launch.fileSizeLimit, launch.fileSizeLimit};
        signal(SIGXFSZ, SIG_IGN); // a write past the limit fails with EFBIG instead
        sigset_t none;            // the test runner may have blocked signals
        sigemptyset(&none);
        if (dup2(out, 1) >= 0 && dup2(err, 2) >= 0 &&
            (launch.fileSizeLimit == RLIM_INFINITY || setrlimit(RLIMIT_FSIZE, &limit) == 0) &&
            sigprocmask(SIG_SETMASK, &none, nullptr) == 0) {
            execv(pointers[0], pointers.data());
        }
        _exit(127);
    }

    using Clock = std::chrono::steady_clock;
    const Clock::time_point never{}, deadline = Clock::now() + 5min;
    Clock::time_point created = never, signalled = never;
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) != pid) {
        const auto now = Clock::now();
        if (now > deadline) {
            kill(pid, SIGKILL); // a hang fails the test, not the whole suite
        }
        if (launch.stopSignal != 0 && created == never && access(output.c_str(), F_OK) == 0) {
            created = now;
        }
        if (created != never && signalled == never && now >= created + launch.stopDelay) {
            kill(pid, launch.stopSignal);
            signalled = now;
        }
        std::this_thread::sleep_for(1ms);
    }
    const auto end = Clock::now();
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(outPath), readFile(errPath),
            signalled == never ? Clock::duration{} : end - signalled};
}

// Standard error without the log lines, which begin with a time stamp.
inline std::string withoutLogLines(const std::string& text) {
    return std::regex_replace(text, std::regex(R"(\d{4}-\d\d-\d\dT\S*Z [^\n]*\n)"), "");
}

// What an independent reader sees in a recording.
struct Recording {
    hsize_t length = 0;
    hsize_t chunk = 0;
    unsigned deflateLevel = 0;
    bool bigEndianInt32 = false;
    std::vector<int32_t> values; // the first ones, up to the limit asked for
};

inline Recording readRecording(const std::string& path, hsize_t limit = ~hsize_t{0}) {
    H5::Exception::dontPrint();
    Recording r;
    const H5::DataSet dataset = H5::H5File(path, H5F_ACC_RDONLY).openDataSet("quarvel");
    H5::DataSpace space = dataset.getSpace();
    space.getSimpleExtentDims(&r.length);
    r.bigEndianInt32 = dataset.getIntType() == H5::PredType::STD_I32BE;
    const H5::DSetCreatPropList plist = dataset.getCreatePlist();
    plist.getChunk(1, &r.chunk);
    unsigned flags = 0, config = 0;
    size_t count = 1;
    plist.getFilterById(H5Z_FILTER_DEFLATE, flags, count, &r.deflateLevel, 0, nullptr, config);
    hsize_t read = std::min(r.length, limit);
    const hsize_t start = 0;
    r.values.resize(read);
    space.selectHyperslab(H5S_SELECT_SET, &read, &start);
    dataset.read(r.values.data(), H5::PredType::NATIVE_INT32, H5::DataSpace(1, &read), space);
    return r;
}

} // namespace quarvel::test
