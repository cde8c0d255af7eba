#include "dataflow/ChainAssembly.h"

#include "dataflow/DataMover.h"
#include "platform/Logger.h"

#include <stdexcept>
#include <string>

namespace quarvel {

using morvik::pellum::log::pellumDoLog;
using morvik::pellum::log::Severity;

std::vector<std::shared_ptr<AbstractDataMover>> createMovers(const Chain& chain) {
    if (chain.size() < 2) {
        throw std::runtime_error("Invalid configuration chain: not enough elements");
    }
    if (!chain.front() || !chain.front()->isSource()) {
        throw std::runtime_error("Invalid configuration chain: first element must be a source");
    }
    if (!chain.back() || !chain.back()->isSink()) {
        throw std::runtime_error("Invalid configuration chain: last element must be a sink");
    }
    for (size_t i = 1; i + 1 < chain.size(); ++i) {
        if (!chain[i] || !chain[i]->isSink() || !chain[i]->isSource()) {
            throw std::runtime_error("Invalid configuration chain: elements in the middle must be "
                                     "both source and sink, index " +
                                     std::to_string(i));
        }
    }

    std::vector<std::shared_ptr<AbstractDataMover>> movers;
    movers.reserve(chain.size() - 1);
    for (size_t i = 0; i + 1 < chain.size(); ++i) {
        movers.push_back(std::make_shared<DataMover>(chain[i]->getSource(), chain[i + 1]->getSink(),
                                                     "Mover " + std::to_string(i) + " to " +
                                                         std::to_string(i + 1)));
    }
    return movers;
}

void startMovers(const std::vector<std::shared_ptr<AbstractDataMover>>& movers, uint32_t size) {
    for (const auto& mover : movers) {
        pellumDoLog(Severity::Info, "starting data mover %s with size %u", {},
                    mover->name().c_str(), size);
        mover->start(size);
        if (mover->hasDecoderSink()) {
            size = mover->decoderSink()->outputSizeFor(size);
        }
    }
}

} // namespace quarvel
