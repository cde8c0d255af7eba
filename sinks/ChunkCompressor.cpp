#include "sinks/ChunkCompressor.h"

#include <libdeflate.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <system_error>

#include <unistd.h>

namespace quarvel {

namespace {

struct CompressorDeleter {
    void operator()(libdeflate_compressor* compressor) const {
        libdeflate_free_compressor(compressor);
    }
};
using CompressorPtr = std::unique_ptr<libdeflate_compressor, CompressorDeleter>;

// The file stores big-endian values; the samples arrive in the host's order. Byte moves
// rather than bswap, because the compiler vectorises those without SSSE3.
void toBigEndian(const uint8_t* __restrict in, uint8_t* __restrict out, size_t bytes) {
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    const size_t words = bytes / 4;
    for (size_t i = 0; i < words; ++i) {
        out[4 * i] = in[4 * i + 3];
        out[4 * i + 1] = in[4 * i + 2];
        out[4 * i + 2] = in[4 * i + 1];
        out[4 * i + 3] = in[4 * i];
    }
#else
    std::memcpy(out, in, bytes / 4 * 4);
#endif
}

unsigned onlineCpus() {
    const long count = ::sysconf(_SC_NPROCESSORS_ONLN);
    return count > 0 ? static_cast<unsigned>(count) : 1u;
}

} // namespace

ChunkCompressor::ChunkCompressor(size_t chunkBytes, unsigned workers, int level)
    : mChunkBytes(chunkBytes), mLevel(level) {
    const unsigned count = workers == 0 ? onlineCpus() : workers;
    // Enough chunks in flight to keep every worker busy while the caller writes one out.
    mSlots.resize(4 * static_cast<size_t>(count));
    for (Slot& slot : mSlots) {
        slot.input.resize(kChunksPerSlot * chunkBytes);
        slot.output.resize(kChunksPerSlot * chunkBytes);
    }
    try {
        for (unsigned i = 0; i < count; ++i) {
            mThreads.emplace_back(&ChunkCompressor::work, this);
        }
    } catch (const std::system_error&) {
        // Fewer workers, or none: the caller's thread then compresses.
    }
}

ChunkCompressor::~ChunkCompressor() {
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mStopping = true;
    }
    mWork.notify_all();
    for (std::thread& thread : mThreads) {
        thread.join();
    }
    if (mInlineCompressor != nullptr) {
        libdeflate_free_compressor(mInlineCompressor);
    }
}

uint8_t* ChunkCompressor::fillBuffer() {
    return slotOf(mFilled).input.data() + mFillCount * mChunkBytes;
}

void ChunkCompressor::submit() {
    if (++mFillCount == kChunksPerSlot) {
        flush();
    }
}

void ChunkCompressor::flush() {
    if (mFillCount == 0) {
        return;
    }
    Slot& slot = slotOf(mFilled++);
    slot.count = mFillCount;
    mFillCount = 0;
    if (mThreads.empty()) {
        if (mInlineCompressor == nullptr) {
            mInlineCompressor = libdeflate_alloc_compressor(mLevel);
            mInlineBigEndian.resize(mChunkBytes);
        }
        compress(slot, mInlineCompressor, mInlineBigEndian);
        std::lock_guard<std::mutex> lock(mMutex);
        slot.state = State::Done;
        ++mSubmitted;
        ++mQueued;
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mMutex);
        slot.state = State::Queued;
        ++mSubmitted;
    }
    mWork.notify_one();
}

ChunkCompressor::Chunk ChunkCompressor::takeOldest(bool wait) {
    if (mTaken == mFilled) {
        return {}; // nothing sent, at most a batch still being filled
    }
    Slot& slot = slotOf(mTaken);
    {
        std::unique_lock<std::mutex> lock(mMutex);
        if (slot.state != State::Done) {
            if (!wait) {
                return {};
            }
            // Wait until half of the batches in flight are done, so that the caller is woken
            // once for several batches rather than for each; they mostly finish in order.
            const uint64_t half = std::max<uint64_t>(1, mSlots.size() / 2);
            const Slot& last = slotOf(std::min(mFilled, mTaken + half) - 1);
            mAwaited[0] = &slot;
            mAwaited[1] = &last;
            mDone.wait(lock,
                       [&] { return slot.state == State::Done && last.state == State::Done; });
            mAwaited[0] = mAwaited[1] = nullptr;
        }
    }
    return {slot.output.data() + mTakenCount * mChunkBytes, slot.sizes[mTakenCount],
            slot.compressed[mTakenCount]};
}

void ChunkCompressor::release() {
    Slot& slot = slotOf(mTaken);
    if (++mTakenCount < slot.count) {
        return;
    }
    mTakenCount = 0;
    std::lock_guard<std::mutex> lock(mMutex);
    slot.state = State::Free;
    ++mTaken;
}

void ChunkCompressor::work() {
    const CompressorPtr compressor(libdeflate_alloc_compressor(mLevel));
    std::vector<uint8_t> bigEndian(mChunkBytes);
    std::unique_lock<std::mutex> lock(mMutex);
    for (;;) {
        mWork.wait(lock, [this] { return mStopping || mQueued < mSubmitted; });
        if (mStopping) {
            return;
        }
        Slot& slot = slotOf(mQueued++);
        slot.state = State::Busy;
        lock.unlock();
        compress(slot, compressor.get(), bigEndian);
        lock.lock();
        slot.state = State::Done;
        if (mAwaited[0] != nullptr && mAwaited[0]->state == State::Done &&
            mAwaited[1]->state == State::Done) {
            mAwaited[0] = mAwaited[1] = nullptr;
            lock.unlock(); // the caller then does not wake into a held mutex
            mDone.notify_one();
            lock.lock();
        }
    }
}

// A chunk that deflate does not make smaller is stored as it is, as HDF5's optional deflate
// filter would.
void ChunkCompressor::compress(Slot& slot, libdeflate_compressor* compressor,
                               std::vector<uint8_t>& bigEndian) const {
    for (size_t i = 0; i < slot.count; ++i) {
        const size_t at = i * mChunkBytes;
        toBigEndian(slot.input.data() + at, bigEndian.data(), mChunkBytes);
        const size_t size =
            compressor == nullptr
                ? 0
                : libdeflate_zlib_compress(compressor, bigEndian.data(), mChunkBytes,
                                           slot.output.data() + at, mChunkBytes - 1);
        slot.compressed[i] = size != 0;
        if (size != 0) {
            slot.sizes[i] = size;
        } else {
            std::memcpy(slot.output.data() + at, bigEndian.data(), mChunkBytes);
            slot.sizes[i] = mChunkBytes;
        }
    }
}

} // namespace quarvel
