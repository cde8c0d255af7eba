#pragma once

#include "decoders/QueueDecoder.h"

#include <cstdint>
#include <cstring>
#include <vector>

namespace quarvel::test {

inline uint32_t writeBytes(QueueDecoder& decoder, const std::vector<uint8_t>& bytes) {
    return decoder.write(bytes.data(), static_cast<uint32_t>(bytes.size()));
}

// One read of up to maxSamples samples, decoded from the host-order bytes the reader gets.
inline std::vector<int32_t> readSamples(QueueDecoder& decoder, size_t maxSamples) {
    std::vector<uint8_t> bytes(maxSamples * 4);
    const uint32_t got = decoder.read(bytes.data(), static_cast<uint32_t>(bytes.size()));
    std::vector<int32_t> samples(got / 4);
    if (!samples.empty()) {
        std::memcpy(samples.data(), bytes.data(), got);
    }
    return samples;
}

} // namespace quarvel::test
