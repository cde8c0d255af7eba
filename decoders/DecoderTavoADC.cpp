#include "decoders/DecoderTavoADC.h"

#include <cstring>

namespace quarvel {

DecoderTavoADC::DecoderTavoADC(size_t capacitySamples)
    : morvik::pellum::log::Logger(makeLogger(kLoggerName)), QueueDecoder(capacitySamples, 1) {}

void DecoderTavoADC::decode(const uint8_t* words, uint32_t len, int32_t* out) const {
    const uint32_t count = len / 4;
    for (uint32_t i = 0; i < count; ++i) {
        // Whole-word loads, so that the loop vectorises.
        uint32_t word;
        std::memcpy(&word, words + 4 * size_t{i}, sizeof word);
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
        const uint32_t raw = ((word & 0xFFu) << 8) | ((word >> 8) & 0xFFu);
#else
        const uint32_t raw = word >> 16;
#endif
        // The top 14 bits of the big-endian 16-bit value in the word's first two bytes;
        // sign-extended by hand, which rounds negative values towards minus infinity like an
        // arithmetic shift.
        const auto top = static_cast<int32_t>(raw >> 2);
        out[i] = top >= 8192 ? top - 16384 : top;
    }
}

} // namespace quarvel
