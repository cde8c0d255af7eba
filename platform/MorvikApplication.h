#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace morvik::pellum::utils {

struct JobResult {
    int32_t status = 0; // reserved for the framework; the program always leaves it 0
    int32_t exitCode = 0;
};

// Owns the process life cycle: consumes the framework's own options (--log-level, --version,
// --help, --recover), records SIGTERM, SIGINT and SIGHUP, hands the remaining arguments to the hook
// and runs the job once from a main loop.
class MorvikApplication {
public:
    MorvikApplication(int& argc, char** argv, bool);
    virtual ~MorvikApplication();

    MorvikApplication(const MorvikApplication&) = delete;
    MorvikApplication& operator=(const MorvikApplication&) = delete;

    int run();
    bool gotSigTerm() const;

    virtual void parseCustomOptions(int argc, char const* const* argv);
    virtual int handleArguments(const std::vector<std::string>& args) = 0;
    virtual void preInit();
    virtual void cleanUp();
    virtual JobResult runJob() = 0;
    // The answer to --help; this one lists the framework's own options, which a program puts
    // among its own.
    virtual void printHelp(std::ostream& out) const;
    // The answer to --recover PATH: brings a recording left by a crash to its last checkpoint
    // and returns the exit code.
    virtual int recover(const std::string& path);

    // The long names of the framework's own options, without their dashes.
    static const std::vector<std::string>& ownOptions();

private:
    std::vector<std::string> mArgs;
    std::vector<const char*> mArgv;
    std::string mBadLogLevel;
    bool mLogLevelInvalid = false;
    bool mVersionRequested = false;
    bool mHelpRequested = false;
    bool mRecoverRequested = false;
    std::string mRecoverPath;
};

} // namespace morvik::pellum::utils
