#include "decoders/QueueDecoder.h"

#include "dataflow/WholeWords.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace quarvel {

using morvik::pellum::log::Severity;

QueueDecoder::QueueDecoder(size_t capacitySamples, size_t samplesPerWord)
    : mCapacity(capacitySamples), mSamplesPerWord(samplesPerWord) {
    if (capacitySamples == 0) {
        throw std::invalid_argument("decoder queue capacity must be at least one sample");
    }
    if (samplesPerWord == 0 || samplesPerWord > kMaxSamplesPerWord) {
        throw std::invalid_argument("a decoded word must give one to eight samples");
    }
}

void QueueDecoder::open(uint32_t /*totalSize*/) {
    // A writer waiting for the reader's open wakes by its own timeout; no notification, so that
    // open() never queues for the mutex behind it.
    mOpenCount.fetch_add(1);
}

void QueueDecoder::close() {
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mClosed = true;
        ++mGeneration;
    }
    mRoomMade.notify_all();
    mDataWritten.notify_all();
}

size_t QueueDecoder::peakBufferedSamples() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mPeak;
}

// Whether a call of samples may be appended while the queue holds at most highWater.
bool QueueDecoder::roomFor(size_t samples, size_t highWater) const {
    if (samples == 0 || mClosed || mSize == 0) {
        return true;
    }
    return mSize <= highWater && mSize < mCapacity && samples <= mCapacity - mSize;
}

void QueueDecoder::waitForRoom(std::unique_lock<std::mutex>& lock, size_t samples) {
    if (roomFor(samples, mCapacity)) {
        return;
    }
    mWriterWaiting = true;
    while (!roomFor(samples, writerResumeLevel())) {
        if (mOpenCount.load() >= 2) {
            mRoomMade.wait(lock);
        } else if (mRoomMade.wait_for(lock, kLoneWriterWait) == std::cv_status::timeout &&
                   mOpenCount.load() < 2) {
            // Still no reader: its mover may have failed to start, and the run is then
            // releasing ours, which can only see its stop request once this write returns.
            break;
        }
    }
    mWriterWaiting = false;
}

// Grows the ring, if need be, to take samples more; only calls that the capacity does not bound
// (one larger than it, a lone writer's, one after a close) grow it past the capacity.
void QueueDecoder::makeRoom(size_t samples) {
    const size_t needed = mSize + samples;
    if (needed <= mBufferSize) {
        return;
    }
    const size_t size = std::max({needed, mCapacity, 2 * mBufferSize});
    std::unique_ptr<int32_t[]> ring(new int32_t[size]);
    const size_t first = std::min(mSize, mBufferSize - mHead);
    std::copy_n(mBuffer.get() + mHead, first, ring.get());
    std::copy_n(mBuffer.get(), mSize - first, ring.get() + first);
    mBuffer = std::move(ring);
    mBufferSize = size;
    mHead = 0;
}

// Decodes straight into the ring's free space, which makeRoom has made large enough.
void QueueDecoder::append(const uint8_t* words, uint32_t len) {
    makeRoom(len / 4 * mSamplesPerWord);
    for (uint32_t at = 0; at < len;) {
        const size_t tail = (mHead + mSize) % mBufferSize;
        const size_t contiguous = tail >= mHead ? mBufferSize - tail : mHead - tail;
        const uint32_t bytes = static_cast<uint32_t>(
            std::min<size_t>((len - at) / 4, contiguous / mSamplesPerWord) * 4);
        if (bytes > 0) {
            decode(words + at, bytes, mBuffer.get() + tail);
            mSize += bytes / 4 * mSamplesPerWord;
            at += bytes;
            continue;
        }
        // A word whose samples straddle the end of the ring.
        int32_t samples[kMaxSamplesPerWord];
        decode(words + at, 4, samples);
        for (size_t i = 0; i < mSamplesPerWord; ++i) {
            mBuffer[(mHead + mSize) % mBufferSize] = samples[i];
            ++mSize;
        }
        at += 4;
    }
}

uint32_t QueueDecoder::write(const uint8_t* buffer, uint32_t len) {
    if (!isWholeWords(len)) {
        pellumDoLog(Severity::Fatal, "buffer_count %% 4 != 0: not supported", {});
        throw std::runtime_error("buffer_count not a multiple of four, not supported");
    }
    size_t count = 0;
    {
        std::unique_lock<std::mutex> lock(mMutex);
        waitForRoom(lock, len / 4 * mSamplesPerWord);
        append(buffer, len);
        ++mGeneration;
        count = mSize;
        mPeak = std::max(mPeak, count);
    }
    mDataWritten.notify_all();
    pellumDoLog(Severity::Debug, "-write: mBuffer.size() = %u", {}, static_cast<unsigned>(count));
    return len;
}

uint32_t QueueDecoder::read(uint8_t* buffer, uint32_t bufferLen) {
    if (bufferLen == 0) {
        pellumDoLog(Severity::Error, "Reading 0 bytes", {});
        return 0;
    }
    size_t count = 0;
    size_t left = 0;
    bool wakeWriter = false;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        count = std::min<size_t>(bufferLen / 4, mSize);
        // Byte copies: the caller's buffer need not be aligned for int32.
        const size_t first = std::min(count, mBufferSize - mHead);
        if (count > 0) {
            std::memcpy(buffer, mBuffer.get() + mHead, first * sizeof(int32_t));
            std::memcpy(buffer + first * sizeof(int32_t), mBuffer.get(),
                        (count - first) * sizeof(int32_t));
        }
        mSize -= count;
        mHead = mSize == 0 ? 0 : (mHead + count) % mBufferSize;
        // An emptied ring starts over at its front, whose lines are likely still cached; one that
        // a call grew past the capacity goes back to the heap, as the call's samples have gone.
        if (mSize == 0 && mBufferSize > mCapacity) {
            mBuffer.reset();
            mBufferSize = 0;
        }
        left = mSize;
        wakeWriter = mWriterWaiting && count > 0 && left <= writerResumeLevel();
    }
    if (wakeWriter) {
        mRoomMade.notify_all();
    }
    pellumDoLog(Severity::Debug, "-read, read %u elements, mBuffer.size() = %u", {},
                static_cast<unsigned>(count), static_cast<unsigned>(left));
    return static_cast<uint32_t>(count * sizeof(int32_t));
}

void QueueDecoder::waitForMaybeData() {
    pellumDoLog(Severity::Debug, "+waitForMaybeData", {});
    std::unique_lock<std::mutex> lock(mMutex);
    // Samples may have landed between the caller's empty read and this wait.
    if (mSize == 0) {
        const uint64_t seen = mGeneration;
        mDataWritten.wait_for(lock, kWaitTimeout, [&] { return mGeneration != seen; });
    }
    pellumDoLog(Severity::Debug, "-waitForMaybeData", {});
}

} // namespace quarvel
