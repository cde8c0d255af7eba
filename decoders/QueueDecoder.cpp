#include "decoders/QueueDecoder.h"

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
    if (samples == 0 || mClosed || mBuffer.empty()) {
        return true;
    }
    const size_t size = mBuffer.size();
    return size <= highWater && size < mCapacity && samples <= mCapacity - size;
}

void QueueDecoder::waitForRoom(std::unique_lock<std::mutex>& lock, size_t samples) {
    if (roomFor(samples, mCapacity)) {
        return;
    }
    // A writer held by a full queue waits until the reader has taken half of it, not just room
    // for its call: waking it for every read would cost two context switches per read.
    mWriterWaiting = true;
    while (!roomFor(samples, mCapacity / 2)) {
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

uint32_t QueueDecoder::write(const uint8_t* buffer, uint32_t len) {
    if (len % 4 != 0) {
        pellumDoLog(Severity::Fatal, "buffer_count %% 4 != 0: not supported", {});
        throw std::runtime_error("buffer_count not a multiple of four, not supported");
    }
    const size_t samples = len / 4 * mSamplesPerWord;
    size_t count = 0;
    {
        std::unique_lock<std::mutex> lock(mMutex);
        waitForRoom(lock, samples);
        int32_t piece[kPieceSamples];
        const uint32_t pieceBytes = static_cast<uint32_t>(kPieceSamples / mSamplesPerWord * 4);
        for (uint32_t at = 0; at < len; at += pieceBytes) {
            const uint32_t bytes = std::min(pieceBytes, len - at);
            decode(buffer + at, bytes, piece);
            mBuffer.insert(mBuffer.end(), piece, piece + bytes / 4 * mSamplesPerWord);
        }
        ++mGeneration;
        count = mBuffer.size();
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
        count = std::min<size_t>(bufferLen / 4, mBuffer.size());
        // Through an aligned piece, because the caller's buffer need not be aligned.
        int32_t piece[kPieceSamples];
        auto from = mBuffer.begin();
        for (size_t at = 0; at < count; at += kPieceSamples) {
            const auto n = static_cast<std::ptrdiff_t>(std::min(kPieceSamples, count - at));
            std::copy(from, from + n, piece);
            std::memcpy(buffer + at * sizeof(int32_t), piece, static_cast<size_t>(n) * 4);
            from += n;
        }
        mBuffer.erase(mBuffer.begin(), from);
        left = mBuffer.size();
        wakeWriter = mWriterWaiting && count > 0 && left <= mCapacity / 2;
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
    if (mBuffer.empty()) {
        const uint64_t seen = mGeneration;
        mDataWritten.wait_for(lock, kWaitTimeout, [&] { return mGeneration != seen; });
    }
    pellumDoLog(Severity::Debug, "-waitForMaybeData", {});
}

} // namespace quarvel
