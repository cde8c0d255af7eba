#pragma once

#include "dataflow/AbstractDecoder.h"
#include "platform/Logger.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

namespace quarvel {

// Common body of the decoders: the sample queue between the mover in front (the only
// producer, calling write) and the mover behind (the only consumer, calling read and
// waitForMaybeData).
//
// The queue holds at most mCapacity decoded samples. A write whose samples do not fit
// blocks the writer until reads have left the queue at most half full with room for them;
// its samples are then appended all at once, so a reader sees none or all of one call. A single
// call larger than the whole capacity is let in when the queue is empty, so it cannot deadlock; the
// queue then briefly holds more. Before both sides have opened the decoder, a writer waits at most
// kLoneWriterWait per call and then appends anyway: a reader whose mover failed to start would
// never make room. After either side has closed it, the writer no longer waits (the reader is gone,
// or nothing more comes). read never blocks; waitForMaybeData waits for a write, a close or
// kWaitTimeout, whichever comes first.
class QueueDecoder : public AbstractDecoder, public virtual morvik::pellum::log::Logger {
public:
    static constexpr const char* kLoggerName = "DecoderInt32LEToCutInt16LE";
    // 16 MiB of int32 samples: what the queue may take of the board's memory.
    static constexpr size_t kDefaultCapacity = 4 * 1024 * 1024;
    static constexpr std::chrono::milliseconds kWaitTimeout{20};
    static constexpr std::chrono::milliseconds kLoneWriterWait{50};

    QueueDecoder(const QueueDecoder&) = delete;
    QueueDecoder& operator=(const QueueDecoder&) = delete;

    void open(uint32_t totalSize) override;
    void close() override;
    uint32_t optimalReadSize() override { return 4; }
    uint32_t read(uint8_t* buffer, uint32_t bufferLen) override;
    void waitForMaybeData() override;
    bool isEndOfData() override { return false; }
    uint32_t optimalWriteSize() override { return 4; }
    uint32_t write(const uint8_t* buffer, uint32_t len) override;

    // The largest number of samples the queue has held at once.
    size_t peakBufferedSamples() const;

protected:
    QueueDecoder(size_t capacitySamples, size_t samplesPerWord);
    ~QueueDecoder() override = default;

    // Decodes the len / 4 words at words into out, which has room for all their samples;
    // called under mMutex.
    virtual void decode(const uint8_t* words, uint32_t len, int32_t* out) const = 0;

private:
    static constexpr size_t kMaxSamplesPerWord = 8;

    // A writer held by a full queue waits until the reader has taken half of it, not just room
    // for its call: waking it for every read would cost two context switches per read.
    size_t writerResumeLevel() const { return mCapacity / 2; }
    bool roomFor(size_t samples, size_t highWater) const;
    void waitForRoom(std::unique_lock<std::mutex>& lock, size_t samples);
    void makeRoom(size_t samples);
    void append(const uint8_t* words, uint32_t len);

    // A ring of mBufferSize samples, mSize of them queued from mHead on. Samples are decoded
    // straight into it and leave it in at most two block copies; with a deque, a 256 MiB mock
    // recording took 7% more CPU time. Allocated on the first write, uninitialised, so that
    // its pages cost memory only once they carry samples.
    std::unique_ptr<int32_t[]> mBuffer;
    size_t mBufferSize = 0;
    size_t mHead = 0;
    size_t mSize = 0;
    mutable std::mutex mMutex;
    std::condition_variable mDataWritten;
    std::condition_variable mRoomMade;
    // Bumped by every write and close, so that a waiting reader can tell news from a timeout.
    uint64_t mGeneration = 0;
    // Atomic, so that open() never queues for the mutex behind a writer.
    std::atomic<unsigned> mOpenCount{0};
    bool mClosed = false;
    bool mWriterWaiting = false;
    size_t mPeak = 0;
    const size_t mCapacity = kDefaultCapacity;
    const size_t mSamplesPerWord = 1;
};

} // namespace quarvel
