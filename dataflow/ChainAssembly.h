#pragma once

#include "dataflow/AbstractDataMover.h"
#include "dataflow/DataSinkOrSource.h"

#include <memory>
#include <vector>

namespace quarvel {

// Validates a chain (source first, sink last, sources-and-sinks between) and joins every
// pair of neighbours with a DataMover named "Mover i to i+1". Throws std::runtime_error on a
// malformed chain, before any mover exists.
std::vector<std::shared_ptr<AbstractDataMover>> createMovers(const Chain& chain);

// Starts the movers in chain order, the first with size bytes; a mover whose sink is a decoder
// hands the next one what the decoder delivers for its own size. What a start or a decoder
// throws is passed on, with the movers before it running.
void startMovers(const std::vector<std::shared_ptr<AbstractDataMover>>& movers, uint32_t size);

} // namespace quarvel
