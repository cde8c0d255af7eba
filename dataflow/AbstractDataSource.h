#pragma once

#include <cstdint>

namespace quarvel {

// Whatever produces bytes for a data mover.
class AbstractDataSource {
public:
    virtual ~AbstractDataSource() = default;
    virtual void open(uint32_t totalSize) = 0;
    virtual void close() = 0;
    virtual uint32_t optimalReadSize() = 0;
    // Copies at most bufferLen bytes; 0 means "nothing right now", not an end or an error.
    virtual uint32_t read(uint8_t* buffer, uint32_t bufferLen) = 0;
    // Returns, within a bounded time, when data may have arrived.
    virtual void waitForMaybeData() = 0;
    virtual bool isEndOfData() = 0;
};

} // namespace quarvel
