#pragma once

#include "app/CommandLineOptions.h"
#include "dataflow/AbstractDataMover.h"
#include "dataflow/DataSinkOrSource.h"
#include "platform/MorvikApplication.h"

#include <memory>
#include <string>
#include <vector>

namespace quarvel {

class StopDeadline;

class QuarvelApp : public morvik::pellum::utils::MorvikApplication {
public:
    QuarvelApp(int argc, char** argv);
    ~QuarvelApp() override;

    int handleArguments(const std::vector<std::string>& args) override;
    morvik::pellum::utils::JobResult runJob() override;
    void printHelp(std::ostream& out) const override;

    std::vector<std::shared_ptr<AbstractDataMover>> createMovers(const Chain& chain);
    void abortMovers(const std::vector<std::shared_ptr<AbstractDataMover>>& movers);
    std::string collectErrors(const std::vector<std::shared_ptr<AbstractDataMover>>& movers);

private:
    struct Run;

    int transfer(Run& run, StopDeadline& deadline);

    std::shared_ptr<CommandLineOptions> mOptions;
};

} // namespace quarvel
