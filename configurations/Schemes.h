#pragma once

#include "configurations/AbstractConfiguration.h"
#include "dataflow/AbstractDecoder.h"
#include "dataflow/AbstractRecorder.h"

namespace quarvel {

// The part of every scheme's chain building after its source and decoder exist: creates the
// HDF5 sink, checks that the decoder can deliver the decoded size, programs the source and
// wraps the elements in holders. decoder may be empty.
Chain completeChain(const std::shared_ptr<AbstractRecorder>& source, std::string sourceName,
                    const std::shared_ptr<AbstractDecoder>& decoder, std::string decoderName,
                    const CommandLineOptions& options);

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
