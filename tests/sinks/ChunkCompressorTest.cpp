#include "sinks/ChunkCompressor.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include <zlib.h>

namespace quarvel {
namespace {

// Chunk k holds a ramp from k (compresses well) or, every third chunk, noise (does not).
std::vector<int32_t> chunkValues(size_t k, size_t values) {
    std::vector<int32_t> out(values);
    std::mt19937 noise(static_cast<unsigned>(k));
    for (size_t i = 0; i < values; ++i) {
        out[i] = k % 3 == 2 ? static_cast<int32_t>(noise()) : static_cast<int32_t>(k + i);
    }
    return out;
}

// zlib, not libdeflate, undoes each chunk: any zlib reader (HDF5's deflate filter) must.
std::vector<int32_t> decoded(const ChunkCompressor::Chunk& chunk, size_t values) {
    std::vector<uint8_t> bigEndian(values * 4);
    if (chunk.compressed) {
        uLongf length = static_cast<uLongf>(bigEndian.size());
        EXPECT_EQ(uncompress(bigEndian.data(), &length, chunk.data, chunk.size), Z_OK);
        EXPECT_EQ(length, bigEndian.size());
    } else {
        EXPECT_EQ(chunk.size, bigEndian.size());
        std::memcpy(bigEndian.data(), chunk.data, chunk.size);
    }
    std::vector<int32_t> out(values);
    for (size_t i = 0; i < values; ++i) {
        const uint8_t* b = &bigEndian[i * 4];
        out[i] = static_cast<int32_t>(uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 |
                                      uint32_t{b[2]} << 8 | b[3]);
    }
    return out;
}

// Many chunks through a full pipeline, in order, whatever the number of workers; noise is
// stored as it is.
TEST(ChunkCompressor, ReturnsEveryChunkInOrderAsBigEndianZlibOrRaw) {
    constexpr size_t kValues = 4096, kChunks = 200;
    for (const unsigned workers : {1u, 3u, 0u}) {
        SCOPED_TRACE(workers);
        ChunkCompressor pool(kValues * 4, workers);
        size_t filled = 0, taken = 0, raw = 0;
        const auto takeOne = [&](bool wait) {
            const ChunkCompressor::Chunk chunk = pool.takeOldest(wait);
            if (chunk.data == nullptr) {
                return false;
            }
            EXPECT_EQ(chunk.compressed, taken % 3 != 2) << "chunk " << taken;
            raw += chunk.compressed ? 0 : 1;
            EXPECT_EQ(decoded(chunk, kValues), chunkValues(taken, kValues)) << "chunk " << taken;
            pool.release();
            ++taken;
            return true;
        };
        while (filled < kChunks) {
            while (pool.full()) {
                takeOne(true);
            }
            const std::vector<int32_t> values = chunkValues(filled++, kValues);
            std::memcpy(pool.fillBuffer(), values.data(), kValues * 4);
            pool.submit();
            while (takeOne(false)) {
            }
        }
        pool.flush(); // the last batch is not full
        while (takeOne(true)) {
        }
        EXPECT_EQ(taken, kChunks);
        EXPECT_EQ(raw, kChunks / 3);
    }
}

// Dropped with chunks still queued, the pool stops its workers instead of hanging.
TEST(ChunkCompressor, StopsWithChunksInFlight) {
    ChunkCompressor pool(16384, 2);
    while (!pool.full()) {
        std::memset(pool.fillBuffer(), 7, 16384);
        pool.submit();
    }
    EXPECT_TRUE(pool.full()); // the destructor must still join its workers
}

} // namespace
} // namespace quarvel
