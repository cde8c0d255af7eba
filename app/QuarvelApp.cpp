#include "app/QuarvelApp.h"

#include "app/ArgumentWarnings.h"
#include "app/StopDeadline.h"

#include "configurations/Configurations.h"
#include "dataflow/ChainAssembly.h"
#include "dataflow/DataMover.h"
#include "dataflow/RunOutcome.h"
#include "platform/Logger.h"
#include "sinks/SinkHDF5.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <functional>
#include <iomanip>
#include <iostream>

namespace quarvel {

using morvik::pellum::log::pellumDoLog;
using morvik::pellum::log::Severity;
using morvik::pellum::utils::JobResult;

namespace {

constexpr std::chrono::milliseconds kPollPeriod{250};
constexpr std::chrono::milliseconds kGlance{10};
// How long stopping the movers may take before the process leaves without them.
constexpr std::chrono::seconds kStopLimit{5};

JobResult exitWith(int32_t code) {
    return JobResult{0, code};
}

// Waits one progress period, but wakes as soon as a mover ends or fails, and within a glance
// for a stop signal: a run ends when its work ends, not at the next progress line.
void waitPollPeriod(const std::function<bool()>& ended) {
    const auto end = std::chrono::steady_clock::now() + kPollPeriod;
    for (;;) {
        const uint64_t seen = moverEndings(); // before the look, so that no ending is missed
        if (ended()) {
            return;
        }
        const auto left = end - std::chrono::steady_clock::now();
        if (left <= std::chrono::steady_clock::duration::zero()) {
            return;
        }
        waitForMoverEnding(seen, std::min<std::chrono::steady_clock::duration>(kGlance, left));
    }
}

// Every mover has finished, or one has failed: either way the loop has something to do.
bool workEnded(const std::vector<std::shared_ptr<AbstractDataMover>>& movers) {
    bool allFinished = true;
    for (const auto& mover : movers) {
        if (mover->failed()) {
            return true;
        }
        allFinished = allFinished && mover->isFinished();
    }
    return allFinished;
}

} // namespace

// The framework may change the count it is given, so it gets a copy.
QuarvelApp::QuarvelApp(int argc, char** argv) : MorvikApplication(argc, argv, true) {}

QuarvelApp::~QuarvelApp() = default;

// The warnings come before what the options themselves report, which they may explain.
int QuarvelApp::handleArguments(const std::vector<std::string>& args) {
    warnAboutArguments(args, ownOptions(), std::cerr);
    mOptions = std::make_shared<CommandLineOptions>(args);
    return 0;
}

void QuarvelApp::printHelp(std::ostream& out) const {
    out << "Usage: quarvel --file=FILE --data-bytes=N --conf=SCHEME --rec-dev=DEVICE\n"
           "               [--src-addr=N] [--data-rate=C] [--log-level=LEVEL]\n"
           "       quarvel --version | --help\n"
           "Records one block of FPGA recorder data into a new HDF5 file.\n\n"
        << CommandLineOptions::optionList() << '\n';
    MorvikApplication::printHelp(out);
    out << "\nSchemes, the values of --conf:\n";
    for (const auto& entry : createConfigurations()) {
        out << "  " << std::left << std::setw(22) << entry.first << entry.second->getDescription()
            << '\n';
    }
    out << "\nA value follows its option after = or as the next word. A prefix that names one\n"
           "option alone is that option (--fi is --file). More in the manual: man quarvel\n";
}

std::vector<std::shared_ptr<AbstractDataMover>> QuarvelApp::createMovers(const Chain& chain) {
    return quarvel::createMovers(chain);
}

// The file's writer, last in the chain, stops (and closes the file) first: whatever the movers
// before it do, the file is then complete with what reached it.
void QuarvelApp::abortMovers(const std::vector<std::shared_ptr<AbstractDataMover>>& movers) {
    for (auto mover = movers.rbegin(); mover != movers.rend(); ++mover) {
        if (!(*mover)->failed()) {
            (*mover)->abort();
        }
    }
}

std::string
QuarvelApp::collectErrors(const std::vector<std::shared_ptr<AbstractDataMover>>& movers) {
    std::string errors;
    for (const auto& mover : movers) {
        if (mover->failed()) {
            errors += mover->errorText();
            errors += '\n';
        }
    }
    return errors;
}

struct QuarvelApp::Run {
    ConfigurationMap registry;
    std::shared_ptr<AbstractConfiguration> scheme;
    Chain chain;
    std::vector<std::shared_ptr<AbstractDataMover>> movers;

    // Tells the chain's elements how the run ends; the first word counts.
    void ending(RunOutcome outcome, const std::string& reason) const {
        for (const auto& element : chain) {
            if (element && element->isSink()) {
                if (auto recorder =
                        std::dynamic_pointer_cast<AbstractOutcomeRecorder>(element->getSink())) {
                    recorder->runEnding(outcome, reason);
                }
            }
        }
    }

    // Movers last to first, so that the file's writer closes the file first; an unfinished
    // run that nobody explained was stopped.
    void release() {
        ending(RunOutcome::Stopped, std::string());
        while (!movers.empty()) {
            movers.pop_back();
        }
        chain.clear();
        scheme.reset();
        registry.clear();
    }
};

// How the run ends is decided here for every exit: the deadline that guards the release ends
// the process with the same code and the same last words as the run would.
JobResult QuarvelApp::runJob() {
    Run run;
    StopDeadline deadline([this] { return gotSigTerm(); }, 1,
                          "transfer abort requested by user (sigterm)", kStopLimit,
                          [] { SinkHDF5::discardEmptyRecordings(); });
    int exitCode = 0;
    std::string farewell; // the report of an exception, given once the run is released
    std::string what;
    try {
        exitCode = transfer(run, deadline);
    } catch (const std::exception& e) {
        exitCode = 42;
        what = e.what();
        farewell = "EXCPETION THROWN" + what;
        run.ending(RunOutcome::Failed, what);
    } catch (...) {
        exitCode = 43;
        farewell = "UNKNOWN EXCEPTION THROWN";
        run.ending(RunOutcome::Failed, "unknown exception");
    }
    deadline.arm(exitCode, farewell);
    run.release();
    if (exitCode == 42) {
        pellumDoLog(Severity::Fatal, "EXCPETION THROWN: %s", {}, what.c_str());
    } else if (exitCode == 43) {
        pellumDoLog(Severity::Fatal, "UNKNOWN EXCEPTION THROWN", {});
    }
    if (!farewell.empty()) {
        std::cerr << farewell << std::endl;
    }
    return exitWith(exitCode);
}

// Returns the exit code; what the run has to say is said here, except for exceptions, which
// runJob reports once the run is released.
int QuarvelApp::transfer(Run& run, StopDeadline& deadline) {
    if (!mOptions || mOptions->hasError()) {
        if (mOptions) {
            mOptions->printHelp();
        }
        return 1;
    }

    run.registry = createConfigurations();
    try {
        run.scheme = getConfiguration(run.registry, mOptions->getConf());
    } catch (...) {
        std::cerr << "The requested configuration doesn't exist. Available configurations are: "
                  << std::endl
                  << run.registry << std::endl;
        run.registry.clear();
        return 2;
    }

    run.chain = run.scheme->buildChain(mOptions);
    run.movers = createMovers(run.chain);
    const auto& movers = run.movers;

    startMovers(movers, mOptions->getDataBytes());

    const auto& first = movers.front();
    for (;;) {
        if (gotSigTerm()) {
            break;
        }
        bool allFinished = true;
        bool anyFailed = false;
        for (const auto& mover : movers) {
            if (mover->failed()) {
                pellumDoLog(Severity::Error,
                            "Data mover %s failed, aborting all others and breaking loop", {},
                            mover->name().c_str());
                deadline.arm(2);
                std::string errors = collectErrors(movers);
                errors.pop_back(); // each text ends in a newline
                run.ending(RunOutcome::Failed, errors);
                abortMovers(movers);
                anyFailed = true;
                break;
            }
            if (!mover->isFinished()) {
                allFinished = false;
            }
        }
        if (anyFailed) {
            break;
        }
        if (allFinished) {
            pellumDoLog(Severity::Info, "All data movers finished their job, breaking loop", {});
            break;
        }
        std::cout << "Transfer: ";
        first->printProgress(std::cout);
        std::cout << '\r' << std::flush;
        waitPollPeriod([this, &movers] { return workEnded(movers) || gotSigTerm(); });
    }

    if (gotSigTerm()) {
        pellumDoLog(Severity::Error, "GOT SIGTERM", {});
        std::cerr << "transfer abort requested by user (sigterm)" << std::endl;
        deadline.arm(1);
        return 1;
    }

    pellumDoLog(Severity::Debug, "went out of data mover monitoring loop", {});
    std::cout << "\rTransfered: ";
    first->printProgress(std::cout);
    std::cout << std::string(31, ' ') << std::flush;
    const std::string errors = collectErrors(movers);
    if (errors.empty()) {
        std::cout << "Transfer successful" << std::endl;
        return 0;
    }
    std::cerr << "Transfer to file failed, error = " << errors << std::endl;
    return 2;
}

} // namespace quarvel
