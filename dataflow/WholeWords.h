#pragma once

#include <cstdint>

namespace quarvel {

// Elements hand each other whole 32-bit words: every length that crosses an element boundary
// (a read, a write, a mover's byte count) is a multiple of kWordBytes. The recorder holds back
// the bytes of a word the device has not finished; everyone after it relies on this.
constexpr uint32_t kWordBytes = 4;

constexpr bool isWholeWords(uint64_t bytes) {
    return bytes % kWordBytes == 0;
}

// The whole words' part of a byte count.
constexpr uint32_t wholeWordBytes(uint32_t bytes) {
    return bytes - bytes % kWordBytes;
}

} // namespace quarvel
