#include "decoders/DecoderLumetraDds.h"

#include <limits>
#include <stdexcept>
#include <string>

namespace quarvel {

DecoderLumetraDds::DecoderLumetraDds(size_t capacitySamples)
    : morvik::pellum::log::Logger(makeLogger(kLoggerName)), QueueDecoder(capacitySamples, 2) {}

uint32_t DecoderLumetraDds::outputSizeFor(uint32_t inputSize) {
    constexpr uint32_t kMax = std::numeric_limits<uint32_t>::max();
    if (inputSize > kMax / 2) {
        throw std::runtime_error(
            "data-bytes too large for the Lumetra DDS decoder: " + std::to_string(inputSize) +
            " bytes decode to more than " + std::to_string(kMax) + " bytes");
    }
    return inputSize * 2;
}

void DecoderLumetraDds::decode(const uint8_t* words, uint32_t len, int32_t* out) const {
    for (uint32_t i = 0; i < len; i += 2) {
        const int32_t value = int32_t{words[i]} | (int32_t{words[i + 1]} << 8);
        *out++ = value >= 32768 ? value - 65536 : value;
    }
}

} // namespace quarvel
