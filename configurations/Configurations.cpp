#include "configurations/Configurations.h"

#include "configurations/Schemes.h"

#include <vector>

namespace quarvel {

ConfigurationMap createConfigurations() {
    const std::vector<std::shared_ptr<AbstractConfiguration>> schemes = {
        std::make_shared<ConfigurationMock>(), std::make_shared<ConfigurationInt32>(),
        std::make_shared<ConfigurationTavoADC>(), std::make_shared<ConfigurationLumetra>()};
    ConfigurationMap configurations;
    for (const auto& scheme : schemes) {
        configurations.emplace(scheme->getName(), scheme); // a duplicate name keeps the first
    }
    return configurations;
}

std::shared_ptr<AbstractConfiguration> getConfiguration(const ConfigurationMap& configurations,
                                                        const std::string& name) {
    return configurations.at(name);
}

std::ostream& operator<<(std::ostream& out, const ConfigurationMap& configurations) {
    for (const auto& entry : configurations) {
        out << entry.second->getName() << '\t' << entry.second->getDescription() << std::endl;
    }
    return out;
}

} // namespace quarvel
