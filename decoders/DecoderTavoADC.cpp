#include "decoders/DecoderTavoADC.h"

namespace quarvel {

DecoderTavoADC::DecoderTavoADC(size_t capacitySamples)
    : morvik::pellum::log::Logger(makeLogger(kLoggerName)), QueueDecoder(capacitySamples, 1) {}

void DecoderTavoADC::decode(const uint8_t* words, uint32_t len, std::deque<int32_t>& out) const {
    for (uint32_t i = 0; i < len; i += 4) {
        // The top 14 bits of a big-endian 16-bit value; sign-extended by hand, which rounds
        // negative values towards minus infinity like an arithmetic shift.
        const int32_t top = ((int32_t{words[i]} << 8) | int32_t{words[i + 1]}) >> 2;
        out.push_back(top >= 8192 ? top - 16384 : top);
    }
}

} // namespace quarvel
