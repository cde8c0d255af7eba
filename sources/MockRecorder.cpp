#include "sources/MockRecorder.h"

#include "dataflow/WholeWords.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace quarvel {

uint32_t MockRecorder::read(uint8_t* buffer, uint32_t bufferLen) {
    if (!isWholeWords(bufferLen)) {
        throw std::runtime_error("MockRecorder::read requires a bufferLen multiple of 4");
    }
    const uint64_t produced = uint64_t{mNextValue} * kWordBytes;
    const uint64_t remaining = mBytesCount > produced ? mBytesCount - produced : 0;
    const uint32_t words =
        static_cast<uint32_t>(std::min<uint64_t>(bufferLen, remaining) / kWordBytes);

    // Hot path of the mock recording: a plain loop with a fixed-size memcpy, which the
    // compiler turns into (vectorised) stores; buffer needs no particular alignment.
    uint32_t value = mNextValue;
    uint8_t* out = buffer;
    for (uint32_t i = 0; i < words; ++i) {
        std::memcpy(out, &value, sizeof value);
        out += sizeof value;
        ++value;
    }
    mNextValue = value;
    return words * kWordBytes;
}

void MockRecorder::configure(uint32_t /*srcAddr*/, uint32_t bytesCount, uint32_t /*dataRate*/) {
    // Stored before the check: a rejected count still sets the limit.
    mBytesCount = bytesCount;
    if (!isWholeWords(bytesCount)) {
        throw std::runtime_error("bytesCount must be a multiple of 4");
    }
}

} // namespace quarvel
