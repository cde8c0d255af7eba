#pragma once

#include "decoders/QueueDecoder.h"

namespace quarvel {

// Turns the recorder's data into one sample per little-endian signed 16-bit value, so every
// 32-bit word yields two samples and the output is twice the input.
// Queue rules: see QueueDecoder.
class DecoderLumetraDds final : public QueueDecoder {
public:
    explicit DecoderLumetraDds(size_t capacitySamples = kDefaultCapacity);

    // Throws std::runtime_error when twice inputSize does not fit a 32-bit byte count.
    uint32_t outputSizeFor(uint32_t inputSize) override;

private:
    void decode(const uint8_t* words, uint32_t len, int32_t* out) const override;
};

} // namespace quarvel
