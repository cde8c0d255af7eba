#pragma once

#include "configurations/AbstractConfiguration.h"

#include <map>
#include <memory>
#include <ostream>
#include <string>

namespace quarvel {

using ConfigurationMap = std::map<std::string, std::shared_ptr<AbstractConfiguration>>;

// Every scheme the program offers, keyed by its name.
ConfigurationMap createConfigurations();

// The scheme registered under exactly this name; std::out_of_range otherwise.
std::shared_ptr<AbstractConfiguration> getConfiguration(const ConfigurationMap& configurations,
                                                        const std::string& name);

// One line per scheme in name order: name, a tab, description.
std::ostream& operator<<(std::ostream& out, const ConfigurationMap& configurations);

} // namespace quarvel
