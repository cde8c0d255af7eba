#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

struct libdeflate_compressor;

namespace quarvel {

// Turns chunks of little-endian int32 samples into what a deflate-filtered HDF5 chunk of
// big-endian int32 holds: the zlib stream of the big-endian bytes, or those bytes themselves
// when deflate would not make them smaller. Compression runs on a pool of worker threads, one
// per online CPU unless told otherwise; without any, on the caller's thread.
//
// One caller (the file's writer) fills chunks in order and takes them back in the same order.
// At most slots() chunks are in flight: with all of them taken, the caller must take the
// oldest back (waitForOldest) before it can fill another. Workers never fail: a compressor
// that cannot be had stores the chunk uncompressed.
class ChunkCompressor {
public:
    struct Chunk {
        const uint8_t* data = nullptr;
        size_t size = 0;
        bool compressed = false;
    };

    ChunkCompressor(size_t chunkBytes, unsigned workers, int level = 6);
    ~ChunkCompressor();

    ChunkCompressor(const ChunkCompressor&) = delete;
    ChunkCompressor& operator=(const ChunkCompressor&) = delete;

    size_t chunkBytes() const { return mChunkBytes; }
    size_t slots() const { return mSlots.size(); }
    size_t workers() const { return mThreads.size(); }
    size_t inFlight() const { return static_cast<size_t>(mFilled - mTaken); }
    bool full() const { return inFlight() == slots(); }

    // The chunkBytes buffer of the next chunk; only while !full().
    uint8_t* fillBuffer();
    // Hands the filled buffer over for compression.
    void submit();
    // The oldest chunk in flight once compressed, or an empty chunk when none is in flight
    // (or, with wait false, when it is not compressed yet). Valid until release().
    Chunk takeOldest(bool wait);
    void release();

private:
    enum class State { Free, Queued, Busy, Done };
    struct Slot {
        std::vector<uint8_t> input;
        std::vector<uint8_t> output;
        size_t outputSize = 0;
        bool compressed = false;
        State state = State::Free;
    };

    void work();
    void compress(Slot& slot, libdeflate_compressor* compressor,
                  std::vector<uint8_t>& bigEndian) const;
    Slot& slotOf(uint64_t sequence) {
        return mSlots[static_cast<size_t>(sequence % mSlots.size())];
    }

    const size_t mChunkBytes;
    const int mLevel;
    std::vector<Slot> mSlots;
    uint64_t mFilled = 0; // chunks submitted; the caller's alone
    uint64_t mTaken = 0;  // chunks taken back
    uint64_t mQueued = 0; // chunks handed to a worker, under mMutex

    std::mutex mMutex;
    std::condition_variable mWork; // a chunk is queued, or the pool stops
    std::condition_variable mDone; // a chunk is compressed
    uint64_t mSubmitted = 0;       // under mMutex
    bool mStopping = false;
    std::vector<std::thread> mThreads;
    libdeflate_compressor* mInlineCompressor = nullptr; // when no worker could start
    std::vector<uint8_t> mInlineBigEndian;
};

} // namespace quarvel
