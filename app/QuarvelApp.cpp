#include "app/QuarvelApp.h"

#include "app/StopDeadline.h"

#include "configurations/Configurations.h"
#include "dataflow/ChainAssembly.h"
#include "platform/Logger.h"

#include <cerrno>
#include <ctime>
#include <exception>
#include <iostream>

namespace quarvel {

using morvik::pellum::log::pellumDoLog;
using morvik::pellum::log::Severity;
using morvik::pellum::utils::JobResult;

namespace {

constexpr long kPollPeriodNs = 250000000;
// How long stopping the movers may take before the process leaves without them.
constexpr std::chrono::seconds kStopLimit{5};

JobResult exitWith(int32_t code) {
    return JobResult{0, code};
}

void sleepPollPeriod() {
    timespec request{0, kPollPeriodNs};
    timespec remaining{};
    while (nanosleep(&request, &remaining) == -1 && errno == EINTR) {
        request = remaining;
    }
}

} // namespace

// The framework may change the count it is given, so it gets a copy.
QuarvelApp::QuarvelApp(int argc, char** argv) : MorvikApplication(argc, argv, true) {}

QuarvelApp::~QuarvelApp() = default;

int QuarvelApp::handleArguments(const std::vector<std::string>& args) {
    mOptions = std::make_shared<CommandLineOptions>(args);
    return 0;
}

std::vector<std::shared_ptr<AbstractDataMover>> QuarvelApp::createMovers(const Chain& chain) {
    return quarvel::createMovers(chain);
}

void QuarvelApp::abortMovers(const std::vector<std::shared_ptr<AbstractDataMover>>& movers) {
    for (const auto& mover : movers) {
        if (!mover->failed()) {
            mover->abort();
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

JobResult QuarvelApp::runJob() {
    try {
        return transfer();
    } catch (const std::exception& e) {
        pellumDoLog(Severity::Fatal, "EXCPETION THROWN: %s", {}, e.what());
        std::cerr << "EXCPETION THROWN" << e.what() << std::endl;
        return exitWith(42);
    } catch (...) {
        pellumDoLog(Severity::Fatal, "UNKNOWN EXCEPTION THROWN", {});
        std::cerr << "UNKNOWN EXCEPTION THROWN" << std::endl;
        return exitWith(43);
    }
}

// Everything of the run is local here, so it is released (movers first, which joins their
// threads) before runJob's handlers report an exception.
JobResult QuarvelApp::transfer() {
    if (!mOptions || mOptions->hasError()) {
        if (mOptions) {
            mOptions->printHelp();
        }
        return exitWith(1);
    }

    ConfigurationMap registry = createConfigurations();
    std::shared_ptr<AbstractConfiguration> scheme;
    try {
        scheme = getConfiguration(registry, mOptions->getConf());
    } catch (...) {
        std::cerr << "The requested configuration doesn't exist. Available configurations are: "
                  << std::endl
                  << registry << std::endl;
        return exitWith(2);
    }

    // Outlives the elements and movers, whose opening and release it guards.
    StopDeadline deadline([this] { return gotSigTerm(); }, 1, kStopLimit);
    Chain chain = scheme->buildChain(mOptions);
    std::vector<std::shared_ptr<AbstractDataMover>> movers = createMovers(chain);
    int exitCode = 42; // stays so when an exception ends the run
    // However the run ends, releasing the movers is guarded by the deadline.
    struct ArmOnExit {
        StopDeadline& deadline;
        const int& code;
        ~ArmOnExit() { deadline.arm(code); }
    } armOnExit{deadline, exitCode};

    uint32_t size = mOptions->getDataBytes();
    for (const auto& mover : movers) {
        pellumDoLog(Severity::Info, "starting data mover %s with size %u", {},
                    mover->name().c_str(), size);
        mover->start(size);
        if (mover->hasDecoderSink()) {
            size = mover->decoderSink()->outputSizeFor(size);
        }
    }

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
                exitCode = 2;
                deadline.arm(exitCode);
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
        sleepPollPeriod();
    }

    if (gotSigTerm()) {
        exitCode = 1;
        pellumDoLog(Severity::Error, "GOT SIGTERM", {});
        std::cerr << "transfer abort requested by user (sigterm)" << std::endl;
        return exitWith(exitCode);
    }

    pellumDoLog(Severity::Debug, "went out of data mover monitoring loop", {});
    std::cout << "\rTransfered: ";
    first->printProgress(std::cout);
    std::cout << std::string(31, ' ') << std::flush;
    const std::string errors = collectErrors(movers);
    if (errors.empty()) {
        exitCode = 0;
        std::cout << "Transfer successful" << std::endl;
    } else {
        exitCode = 2;
        std::cerr << "Transfer to file failed, error = " << errors << std::endl;
    }
    return exitWith(exitCode);
}

} // namespace quarvel
