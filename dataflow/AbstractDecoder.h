#pragma once

#include "dataflow/AbstractDataSink.h"
#include "dataflow/AbstractDataSource.h"

namespace quarvel {

// Sink of one mover and source of the next; open() and close() serve both sides.
class AbstractDecoder : public virtual AbstractDataSource, public virtual AbstractDataSink {
public:
    // Bytes delivered on the source side for inputSize bytes written into the sink side.
    virtual uint32_t outputSizeFor(uint32_t inputSize) = 0;
};

} // namespace quarvel
