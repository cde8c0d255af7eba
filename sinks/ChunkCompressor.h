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
// Chunks travel in batches (a slot), so that a hand-over between threads serves several
// chunks: a batch goes to the workers once it is full, or on flush(). At most slots() batches
// are in flight; when full(), the caller must take chunks back before it can fill another.
// Workers never fail: a compressor that cannot be had stores the chunk uncompressed.
class ChunkCompressor {
public:
    struct Chunk {
        const uint8_t* data = nullptr;
        size_t size = 0;
        bool compressed = false;
    };

    static constexpr size_t kChunksPerSlot = 8;

    // The file's deflate level: the dataset's filter says so to every reader.
    static constexpr int kDeflateLevel = 6;

    ChunkCompressor(size_t chunkBytes, unsigned workers, int level = kDeflateLevel);
    ~ChunkCompressor();

    ChunkCompressor(const ChunkCompressor&) = delete;
    ChunkCompressor& operator=(const ChunkCompressor&) = delete;

    size_t chunkBytes() const { return mChunkBytes; }
    size_t slots() const { return mSlots.size(); }
    size_t workers() const { return mThreads.size(); }
    // No room for another chunk until chunks are taken back.
    bool full() const { return mFillCount == 0 && mFilled - mTaken == mSlots.size(); }

    // The chunkBytes buffer of the next chunk; only while !full().
    uint8_t* fillBuffer();
    // The chunk is filled; a full batch goes to the workers.
    void submit();
    // Sends a batch that is not full yet to the workers.
    void flush();
    // The oldest chunk not yet taken back, once compressed; an empty chunk when there is none
    // (or, with wait false, when it is not compressed yet). Valid until release().
    Chunk takeOldest(bool wait);
    void release();

private:
    enum class State { Free, Queued, Busy, Done };
    struct Slot {
        std::vector<uint8_t> input;  // kChunksPerSlot chunks
        std::vector<uint8_t> output; // the same, each chunk at its own place
        size_t count = 0;            // chunks in the batch
        size_t sizes[kChunksPerSlot] = {};
        bool compressed[kChunksPerSlot] = {};
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
    uint64_t mFilled = 0;   // batches sent to the workers; the caller's alone
    size_t mFillCount = 0;  // chunks in the batch being filled
    uint64_t mTaken = 0;    // batches taken back
    size_t mTakenCount = 0; // chunks taken back of the oldest batch
    uint64_t mQueued = 0;   // batches a worker has started, under mMutex

    std::mutex mMutex;
    std::condition_variable mWork; // a batch is queued, or the pool stops
    std::condition_variable mDone; // a batch is compressed
    uint64_t mSubmitted = 0;       // under mMutex
    // The batches the caller waits for in takeOldest, or none; under mMutex.
    const Slot* mAwaited[2] = {nullptr, nullptr};
    bool mStopping = false;
    std::vector<std::thread> mThreads;
    libdeflate_compressor* mInlineCompressor = nullptr; // when no worker could start
    std::vector<uint8_t> mInlineBigEndian;
};

} // namespace quarvel
