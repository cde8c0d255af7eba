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

} // namespace quarvel
