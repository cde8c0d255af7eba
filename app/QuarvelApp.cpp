#include "app/QuarvelApp.h"

#include "app/RunEnd.h"
#include "configurations/Configurations.h"
#include "dataflow/ChainAssembly.h"

#include <exception>

namespace quarvel {

// The framework may change the count it is given, so it gets a copy.
QuarvelApp::QuarvelApp(int argc, char** argv) : MorvikApplication(argc, argv, true) {}

QuarvelApp::~QuarvelApp() = default;

int QuarvelApp::handleArguments(const std::vector<std::string>& args) {
    mOptions = std::make_shared<CommandLineOptions>(args);
    return 0;
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
