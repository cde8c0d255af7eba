#pragma once

// How a run ends is decided here, and only here. The ways, with what each prints, its exit code
// and what it leaves of FILE (written as FILE.part until the end):
//
//   every mover finished   "Transfer successful", 0; FILE "complete".
//   a mover failed         "Transfer to file failed, error = " and each failed mover's text, 2;
//                          the file's writer is aborted first, then the others, so that the file
//                          closes whatever they do; FILE "failed", `failure` says why.
//   a stop signal          "transfer abort requested by user (sigterm)", 1. SIGTERM, SIGINT and
//                          SIGHUP alike. The recorder's mover stops reading; what it read goes on
//                          through the decoder, and the movers behind it end once they have moved
//                          everything (for 1 s at most); FILE "stopped". A run that stored nothing
//                          leaves no FILE, and an older one stays. A stop that comes when every
//                          byte has been moved ends the run as finished: FILE "complete", 0.
//   unusable options       the option list, 1; nothing is made.
//   an unknown scheme      the list of schemes, 2; nothing is made.
//   an exception           "EXCPETION THROWN" and its text, 42, or "UNKNOWN EXCEPTION THROWN",
//                          43; a FILE already open says "failed".
//   a stop that hangs      5 s after the stop began (a device read stuck in the kernel), the
//                          deadline prints what the run would have printed, removes recordings
//                          that hold nothing and leaves at once with the same code; a recording
//                          with data stays as FILE.part.
//   a file that failed     the process leaves without HDF5's exit handlers, which would crash on
//   to close               it, with the code decided above.
//
// Everything else returns the code from QuarvelApp::runJob to main.

#include "app/StopDeadline.h"
#include "configurations/Configurations.h"
#include "dataflow/AbstractDataMover.h"
#include "dataflow/DataSinkOrSource.h"
#include "dataflow/RunOutcome.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace quarvel {

using Movers = std::vector<std::shared_ptr<AbstractDataMover>>;

// What one run made, released by the end in the reverse order of its making.
struct RunPieces {
    ConfigurationMap registry;
    std::shared_ptr<AbstractConfiguration> scheme;
    Chain chain;
    Movers movers;
};

class RunEnd {
public:
    // How long stopping may take before the process leaves without the movers.
    static constexpr std::chrono::seconds kStopLimit{5};
    // How long a stop waits for the recorder's mover before the others drain without it.
    static constexpr std::chrono::seconds kSourceStopWait{1};
    // How long the movers behind a decoder may drain it after a stop; on a slow card what is
    // left after that is dropped, so that a stop still ends in seconds.
    static constexpr std::chrono::seconds kDrainLimit{1};
    // How often the progress line is rewritten.
    static constexpr std::chrono::milliseconds kProgressPeriod{250};

    explicit RunEnd(std::function<bool()> stopRequested);

    RunPieces& pieces() { return mPieces; }

    // The run cannot start: its options are unusable, or its scheme is unknown (printed here).
    void optionsUnusable();
    void schemeUnknown();
    // Watches the started movers, printing their progress, until they have all finished, one has
    // failed or a stop was asked for.
    void watch();
    // An exception ended the run; null for one that is no std::exception.
    void exceptionThrown(const std::exception* error);

    // Stops what still runs, tells the file why, releases the run's pieces, prints the last
    // words and returns the exit code.
    int finish();

    static void abortMovers(const Movers& movers);
    static std::string collectErrors(const Movers& movers);

private:
    enum class Way { Finished, Failed, Stopped, OptionsUnusable, SchemeUnknown, Exception };

    void tellFile(RunOutcome outcome, const std::string& reason) const;
    // True when every mover had moved all its bytes after all.
    bool stopDraining();
    void printTransferred() const;
    void release();
    [[noreturn]] void leaveNow(int exitCode) const;

    const std::function<bool()> mStopRequested;
    StopDeadline mDeadline;
    RunPieces mPieces;
    Way mWay = Way::Finished;
    int mExceptionCode = 0;
    std::string mExceptionText;
};

} // namespace quarvel
