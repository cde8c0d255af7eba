#include "platform/MorvikApplication.h"

#include "platform/Logger.h"
#include "platform/Version.h"

#include <atomic>
#include <csignal>
#include <exception>
#include <iostream>

#include <glibmm/init.h>
#include <glibmm/main.h>

namespace morvik::pellum::utils {

namespace {

std::atomic<bool> gStopSignal{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the signal flag must be lock-free");

extern "C" void recordStopSignal(int) {
    gStopSignal.store(true);
}

void installStopHandlers() {
    struct sigaction action {};
    action.sa_handler = recordStopSignal;
    sigemptyset(&action.sa_mask);
    // SA_RESTART: a signal must not make a blocking read of a mover thread fail.
    action.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    // A dropped terminal stops the recording as SIGTERM does, instead of killing it unclosed.
    sigaction(SIGHUP, &action, nullptr);
    // A closed standard output must not end a recording, and a file size limit must show as
    // a failed write (EFBIG) that the sink reports, not as a process killed mid-file.
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
}

constexpr const char* kLogLevelOption = "--log-level";
constexpr const char* kVersionOption = "--version";
constexpr const char* kRecoverOption = "--recover";

bool isHelp(const std::string& arg) {
    return arg == "--help" || arg == "-h";
}

// Run by the loader before any library's initialisation, and long before main: a stop that comes
// while the process starts is recorded and ends the run, instead of killing the process. Only the
// loader's own work comes before it.
void installStopHandlersFirst(int, char**, char**) {
    installStopHandlers();
}
__attribute__((section(".preinit_array"),
               used)) void (*const gInstallFirst)(int, char**, char**) = installStopHandlersFirst;

} // namespace

MorvikApplication::MorvikApplication(int& argc, char** argv, bool) {
    installStopHandlers();
    if (argc > 0 && argv != nullptr) {
        mArgv.push_back(argv[0]);
    }
    // Looked for before anything else, so that even "--log-level --version" shows the version.
    for (int i = 1; i < argc; ++i) {
        mVersionRequested = mVersionRequested || argv[i] == std::string(kVersionOption);
        mHelpRequested = mHelpRequested || isHelp(argv[i]);
    }
    const std::string prefix = std::string(kLogLevelOption) + "=";
    const std::string recoverPrefix = std::string(kRecoverOption) + "=";
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == kVersionOption || isHelp(arg)) {
            continue;
        }
        if (arg == kRecoverOption || arg.compare(0, recoverPrefix.size(), recoverPrefix) == 0) {
            mRecoverRequested = true;
            if (arg != kRecoverOption) {
                mRecoverPath = arg.substr(recoverPrefix.size());
            } else if (i + 1 < argc) {
                mRecoverPath = argv[++i];
            }
            continue;
        }
        std::string level;
        bool consumed = false;
        if (arg.compare(0, prefix.size(), prefix) == 0) {
            level = arg.substr(prefix.size());
            consumed = true;
        } else if (arg == kLogLevelOption && i + 1 < argc) {
            level = argv[++i];
            consumed = true;
        }
        if (consumed) {
            int threshold = 0;
            if (log::parseThreshold(level, threshold)) {
                log::setThreshold(threshold);
            } else {
                mLogLevelInvalid = true;
                mBadLogLevel = level;
            }
            continue;
        }
        mArgs.push_back(arg);
        mArgv.push_back(argv[i]);
    }
    argc = static_cast<int>(mArgv.size());
    mArgv.push_back(nullptr);
}

MorvikApplication::~MorvikApplication() = default;

bool MorvikApplication::gotSigTerm() const {
    return gStopSignal.load();
}

void MorvikApplication::parseCustomOptions(int, char const* const*) {}

// Laid out as the program's option parser lays out its list.
void MorvikApplication::printHelp(std::ostream& out) const {
    out << "Framework Options:\n"
           "  --log-level arg       the log on standard error: fatal, error (default),\n"
           "                        warning, info, debug, or 0 to 5\n"
           "  --version             print the version and exit\n"
           "  --recover PATH        bring a recording that a crash or a power cut left\n"
           "                        behind to its last checkpoint, and exit\n"
           "  -h [ --help ]         print this help and exit\n";
}

const std::vector<std::string>& MorvikApplication::ownOptions() {
    static const std::vector<std::string> names = {"log-level", "version", "help", "recover"};
    return names;
}

int MorvikApplication::recover(const std::string&) {
    std::cerr << "quarvel: --recover is not supported here" << std::endl;
    return 2;
}

void MorvikApplication::preInit() {}

void MorvikApplication::cleanUp() {}

int MorvikApplication::run() {
    // Both answer and end before any other option is looked at; help, which also lists
    // --version, comes first.
    if (mHelpRequested) {
        printHelp(std::cout);
        return 0;
    }
    if (mVersionRequested) {
        std::cout << "quarvel " << quarvel::version() << std::endl;
        return 0;
    }
    if (mRecoverRequested) {
        if (mRecoverPath.empty()) {
            std::cerr << "quarvel: --recover needs the path of a recording" << std::endl;
            return 1;
        }
        return recover(mRecoverPath);
    }
    if (mLogLevelInvalid) {
        std::cerr << "invalid value '" << mBadLogLevel << "' for " << kLogLevelOption
                  << ": use fatal, error, warning, info, debug or 0 to 5" << std::endl;
        return 1;
    }
    parseCustomOptions(static_cast<int>(mArgv.size()) - 1, mArgv.data());
    preInit();
    const int hookStatus = handleArguments(mArgs);
    if (hookStatus != 0) {
        cleanUp();
        return hookStatus;
    }

    Glib::init();
    Glib::RefPtr<Glib::MainLoop> loop = Glib::MainLoop::create();
    JobResult result;
    std::exception_ptr failure;
    // glibmm would swallow an exception escaping a callback; carry it out of the loop instead.
    Glib::signal_idle().connect_once([&]() {
        try {
            result = runJob();
        } catch (...) {
            failure = std::current_exception();
        }
        loop->quit();
    });
    loop->run();

    cleanUp();
    if (failure) {
        std::rethrow_exception(failure);
    }
    return result.exitCode;
}

} // namespace morvik::pellum::utils
