#pragma once

#include <cstdint>

namespace quarvel {

// Whatever consumes bytes from a data mover. Sinks are owned through their concrete type,
// hence no virtual destructor here.
class AbstractDataSink {
public:
    virtual uint32_t optimalWriteSize() = 0;
    virtual void open(uint32_t totalSize) = 0;
    virtual void close() = 0;
    // Returns the number of bytes taken; 0 fails the transfer.
    virtual uint32_t write(const uint8_t* buffer, uint32_t len) = 0;
    // Called by the mover, on its thread, while its source has nothing: a sink with work due on
    // time (a checkpoint) does it here too, not only when data arrives.
    virtual void idle() {}

protected:
    ~AbstractDataSink() = default;
};

} // namespace quarvel
