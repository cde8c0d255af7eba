#pragma once

#include "configurations/AbstractConfiguration.h"

namespace quarvel {

class ConfigurationMock : public ConfigurationBase {
public:
    ConfigurationMock() : ConfigurationBase("mock", "Mock data recorder, HDF5 sink") {}
    Chain buildChain(const std::shared_ptr<CommandLineOptions>& options) const override;
};

class ConfigurationInt32 : public ConfigurationBase {
public:
    ConfigurationInt32() : ConfigurationBase("int32", "Decode 32 bits signed integer, into HDF5") {}
    Chain buildChain(const std::shared_ptr<CommandLineOptions>& options) const override;
};

class ConfigurationTavoADC : public ConfigurationBase {
public:
    ConfigurationTavoADC()
        : ConfigurationBase("tavoadc", "Decode data from Tavo ADC (Signal or Lock)") {}
    Chain buildChain(const std::shared_ptr<CommandLineOptions>& options) const override;
};

class ConfigurationLumetra : public ConfigurationBase {
public:
    ConfigurationLumetra()
        : ConfigurationBase("lumetra", "Decode data from Lumetra ADC (Signal or Lock)") {}
    Chain buildChain(const std::shared_ptr<CommandLineOptions>& options) const override;
};

} // namespace quarvel
