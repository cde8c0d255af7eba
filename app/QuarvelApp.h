#pragma once

#include "app/CommandLineOptions.h"
#include "platform/MorvikApplication.h"

#include <memory>
#include <string>
#include <vector>

namespace quarvel {

class RunEnd;

class QuarvelApp : public morvik::pellum::utils::MorvikApplication {
public:
    QuarvelApp(int argc, char** argv);
    ~QuarvelApp() override;

    int handleArguments(const std::vector<std::string>& args) override;
    // The transfer run; how it ends is RunEnd's to decide.
    morvik::pellum::utils::JobResult runJob() override;
    void printHelp(std::ostream& out) const override;
    int recover(const std::string& path) override;

private:
    void record(RunEnd& end);

    std::shared_ptr<CommandLineOptions> mOptions;
};

} // namespace quarvel
