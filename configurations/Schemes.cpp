#include "configurations/Schemes.h"

#include "dataflow/AbstractDecoder.h"
#include "dataflow/AbstractRecorder.h"
#include "decoders/DecoderLumetraDds.h"
#include "decoders/DecoderTavoADC.h"
#include "sinks/SinkHDF5.h"
#include "sources/MockRecorder.h"
#include "sources/Recorder.h"

namespace quarvel {

namespace {

std::shared_ptr<AbstractRecorder> makeRecorder(const CommandLineOptions& options) {
    const std::string device = options.getRecDev();
    return std::make_shared<Recorder>(device);
}

// The part of every scheme's chain building after its source and decoder exist: creates the
// HDF5 sink, checks that the decoder can deliver the decoded size, programs the source and
// wraps the elements in holders. decoder may be empty.
Chain completeChain(const std::shared_ptr<AbstractRecorder>& source, std::string sourceName,
                    const std::shared_ptr<AbstractDecoder>& decoder, std::string decoderName,
                    const CommandLineOptions& options) {
    std::shared_ptr<SinkHDF5> sink;
    {
        const std::string file = options.getFile();
        sink = std::make_shared<SinkHDF5>(file);
    }
    sink->describe({options.getConf(), options.getRecDev(), options.getSrcAddr(),
                    options.getDataBytes(), options.getDataRate()});
    if (decoder) {
        // Refuses a byte count whose decoded size cannot be counted, before the recorder is
        // programmed or anything is opened.
        decoder->outputSizeFor(options.getDataBytes());
    }
    source->configure(options.getSrcAddr(), options.getDataBytes(), options.getDataRate());

    Chain chain;
    chain.push_back(std::make_shared<DataSinkOrSource>(source, nullptr, std::move(sourceName)));
    if (decoder) {
        chain.push_back(
            std::make_shared<DataSinkOrSource>(decoder, decoder, std::move(decoderName)));
    }
    chain.push_back(std::make_shared<DataSinkOrSource>(nullptr, sink, "H5 file"));
    return chain;
}

} // namespace

Chain ConfigurationMock::buildChain(const std::shared_ptr<CommandLineOptions>& options) const {
    std::shared_ptr<AbstractRecorder> source = std::make_shared<MockRecorder>();
    std::shared_ptr<AbstractDecoder> decoder = std::make_shared<DecoderTavoADC>();
    return completeChain(source, "mock recorder", decoder, "TavoADC decoder", *options);
}

Chain ConfigurationInt32::buildChain(const std::shared_ptr<CommandLineOptions>& options) const {
    return completeChain(makeRecorder(*options), "recorder", nullptr, std::string(), *options);
}

Chain ConfigurationTavoADC::buildChain(const std::shared_ptr<CommandLineOptions>& options) const {
    std::shared_ptr<AbstractRecorder> source = makeRecorder(*options);
    std::shared_ptr<AbstractDecoder> decoder = std::make_shared<DecoderTavoADC>();
    return completeChain(source, "recorder", decoder, "Tavo ADC decoder", *options);
}

Chain ConfigurationLumetra::buildChain(const std::shared_ptr<CommandLineOptions>& options) const {
    std::shared_ptr<AbstractRecorder> source = makeRecorder(*options);
    std::shared_ptr<AbstractDecoder> decoder = std::make_shared<DecoderLumetraDds>();
    return completeChain(source, "recorder", decoder, "Lumetra DDS decoder", *options);
}

} // namespace quarvel
