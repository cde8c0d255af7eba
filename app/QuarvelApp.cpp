#include "app/QuarvelApp.h"

#include "app/ArgumentWarnings.h"
#include "app/RunEnd.h"
#include "configurations/Configurations.h"
#include "dataflow/ChainAssembly.h"
#include "sinks/Recovery.h"

#include <exception>
#include <iomanip>
#include <iostream>

namespace quarvel {

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

int QuarvelApp::recover(const std::string& path) {
    const Recovery result = recoverRecording(path);
    const char* const left =
        result.leftAsItWas ? "; it is left as it was" : "; putting it back as it was failed";
    const std::string found = "recorded_values " + std::to_string(result.recordedValues) +
                              ", state \"" + result.state + "\"";
    switch (result.outcome) {
    case Recovery::Outcome::Repaired:
        std::cout << path << ": brought to its last checkpoint; " << found << std::endl;
        return 0;
    case Recovery::Outcome::NothingToDo:
        std::cout << path << ": nothing to repair; " << found << std::endl;
        return 0;
    case Recovery::Outcome::NotARecording:
        std::cerr << "quarvel: " << path << " is not a quarvel recording: " << result.reason << left
                  << std::endl;
        return 2;
    case Recovery::Outcome::CannotRepair:
        break;
    }
    std::cerr << "quarvel: cannot repair " << path << ": " << result.reason << left << std::endl;
    return 2;
}

morvik::pellum::utils::JobResult QuarvelApp::runJob() {
    RunEnd end([this] { return gotSigTerm(); });
    try {
        record(end);
    } catch (const std::exception& e) {
        end.exceptionThrown(&e);
    } catch (...) {
        end.exceptionThrown(nullptr);
    }
    return {0, end.finish()};
}

// Builds the chain the options ask for, starts its movers and watches them.
void QuarvelApp::record(RunEnd& end) {
    if (!mOptions || mOptions->hasError()) {
        if (mOptions) {
            mOptions->printHelp();
        }
        end.optionsUnusable();
        return;
    }
    RunPieces& run = end.pieces();
    run.registry = createConfigurations();
    try {
        run.scheme = getConfiguration(run.registry, mOptions->getConf());
    } catch (...) {
        end.schemeUnknown();
        return;
    }
    run.chain = run.scheme->buildChain(mOptions);
    run.movers = createMovers(run.chain);
    startMovers(run.movers, mOptions->getDataBytes());
    end.watch();
}

} // namespace quarvel
