#pragma once

#include "app/CommandLineOptions.h"
#include "dataflow/DataSinkOrSource.h"

#include <memory>
#include <string>

namespace quarvel {

// A named recipe that turns the options into the chain of one transfer.
class AbstractConfiguration {
public:
    virtual ~AbstractConfiguration() = default;
    virtual std::string getName() const = 0;
    virtual std::string getDescription() const = 0;
    virtual Chain buildChain(const std::shared_ptr<CommandLineOptions>& options) const = 0;
};

class ConfigurationBase : public AbstractConfiguration {
public:
    ConfigurationBase(std::string name, std::string description)
        : mName(std::move(name)), mDescription(std::move(description)) {}

    std::string getName() const override { return mName; }
    std::string getDescription() const override { return mDescription; }

private:
    std::string mName;
    std::string mDescription;
};

} // namespace quarvel
