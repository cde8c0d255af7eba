#pragma once

#include "dataflow/AbstractDataMover.h"
#include "platform/Logger.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

namespace quarvel {

// Text of a byte count for the progress line: 3 significant digits and a binary unit.
std::string formatByteCount(uint32_t value);

// One progress segment, without line end: "64 KB / 128 KB     50%     @ 512 B/s" and blanks.
void writeProgress(std::ostream& out, uint32_t done, uint32_t total, uint32_t bytesPerSecond);

// How many mover threads, of any mover, have failed or ended so far: the transfer run sleeps
// until this changes instead of looking again and again.
uint64_t moverEndings();
// Returns once moverEndings() differs from seen, or after timeout.
void waitForMoverEnding(uint64_t seen, std::chrono::steady_clock::duration timeout);

// Moves a byte count from a source to a sink on a thread of its own, in buffers of up to
// 128 KiB. The job's thread polls the atomics below while the worker runs; the error text is
// published before the failed flag, and read only after seeing it.
class DataMover : public AbstractDataMover, public virtual morvik::pellum::log::Logger {
public:
    static constexpr uint32_t kMaxBufferSize = 128 * 1024;

    DataMover(std::shared_ptr<AbstractDataSource> source, std::shared_ptr<AbstractDataSink> sink,
              std::string name);
    virtual ~DataMover();

    DataMover(const DataMover&) = delete;
    DataMover& operator=(const DataMover&) = delete;

    std::string name() override { return mName; }
    bool isFinished() override { return mFinished.load(); }
    bool failed() override { return mFailed.load(); }
    bool movedAll() override {
        return mFinished.load() && !mFailed.load() &&
               mBytesTransferred.load() >= mBytesToTransfer.load();
    }
    void start(uint32_t dataSizeInBytes) override;
    std::string errorText() override;
    void abort() override;
    void requestStop(bool whenDry) override;
    std::shared_ptr<AbstractDataSink> sink() override { return mSink; }
    std::shared_ptr<AbstractDataSource> source() override { return mSource; }
    bool hasDecoderSink() override { return static_cast<bool>(mDecoderSink); }
    std::shared_ptr<AbstractDecoder> decoderSink() override { return mDecoderSink; }
    void printProgress(std::ostream& out) const override;

    uint32_t transferRate() const { return mTransferRate.load(); }

    uint32_t computeBufferSize();

private:
    enum Stop : int { kRunOn, kStopWhenDry, kStopNow };

    void thread();
    void moveBytes();
    void closeSide(bool sourceSide);
    void recordFailure(const std::string& text);

    std::shared_ptr<AbstractDataSource> mSource;
    std::shared_ptr<AbstractDataSink> mSink;
    std::atomic<uint32_t> mBytesToTransfer{0};
    std::atomic<uint32_t> mBytesTransferred{0};
    std::atomic<uint32_t> mTransferRate{0};
    std::unique_ptr<std::thread> mThread;
    std::string mErrorText;
    std::atomic<bool> mFailed{false};
    std::atomic<bool> mFinished{false};
    std::atomic<int> mStop{kRunOn};
    std::string mName;
    std::shared_ptr<AbstractDecoder> mDecoderSink;
};

} // namespace quarvel
