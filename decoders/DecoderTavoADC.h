#pragma once

#include "decoders/QueueDecoder.h"

namespace quarvel {

// Turns each 32-bit word of the Tavo ADC into one signed 14-bit sample (-8192..8191): the
// first two bytes, big-endian, shifted right by two; the last two bytes carry nothing.
// Queue rules: see QueueDecoder.
class DecoderTavoADC final : public QueueDecoder {
public:
    explicit DecoderTavoADC(size_t capacitySamples = kDefaultCapacity);

    uint32_t outputSizeFor(uint32_t inputSize) override { return inputSize; }

private:
    void decode(const uint8_t* words, uint32_t len, int32_t* out) const override;
};

} // namespace quarvel
