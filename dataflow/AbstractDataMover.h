#pragma once

#include "dataflow/AbstractDataSink.h"
#include "dataflow/AbstractDataSource.h"
#include "dataflow/AbstractDecoder.h"

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>

namespace quarvel {

// What the transfer run drives: a worker that moves a byte count from a source to a sink.
// Movers are owned through std::make_shared of the concrete class, hence no destructor here.
class AbstractDataMover {
public:
    virtual std::string name() = 0;
    virtual bool isFinished() = 0;
    virtual bool failed() = 0;
    // The thread has ended after moving its whole byte count, without failure.
    virtual bool movedAll() = 0;
    virtual void start(uint32_t dataSizeInBytes) = 0;
    virtual std::string errorText() = 0;
    virtual void abort() = 0;
    // Asks the thread to end, without waiting for it: at once, or once its source has nothing
    // more for now (dry). Either way, what it has read still reaches its sink.
    virtual void requestStop(bool whenDry) = 0;
    virtual std::shared_ptr<AbstractDataSink> sink() = 0;
    virtual std::shared_ptr<AbstractDataSource> source() = 0;
    virtual bool hasDecoderSink() = 0;
    virtual std::shared_ptr<AbstractDecoder> decoderSink() = 0;
    virtual void printProgress(std::ostream& out) const = 0;

protected:
    ~AbstractDataMover() = default;
};

} // namespace quarvel
