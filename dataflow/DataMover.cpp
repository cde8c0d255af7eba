#include "dataflow/DataMover.h"

#include "dataflow/WholeWords.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <iomanip>
#include <limits>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace quarvel {

using morvik::pellum::log::Severity;

namespace {

int64_t wholeMillisecondsSince(std::chrono::system_clock::time_point since) {
    const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(
                        std::chrono::system_clock::now() - since)
                        .count();
    return static_cast<int64_t>(ns) / 1000000;
}

// float -> uint32 by truncation, clamped so that no conversion overflows.
uint32_t toRate(float bytesPerSecond) {
    if (!(bytesPerSecond > 0.0f)) {
        return 0;
    }
    if (bytesPerSecond >= 4294967295.0f) {
        return std::numeric_limits<uint32_t>::max();
    }
    return static_cast<uint32_t>(bytesPerSecond);
}

} // namespace

std::string formatByteCount(uint32_t value) {
    if (value == 0) {
        return "0 B";
    }
    static const struct {
        uint32_t divisor;
        const char* unit;
    } units[] = {{1u << 30, "GB"}, {1u << 20, "MB"}, {1u << 10, "KB"}, {1u, "B"}};
    const auto* chosen = &units[3];
    for (const auto& unit : units) {
        if (unit.divisor < value) {
            chosen = &unit;
            break;
        }
    }
    std::ostringstream text;
    text << std::setprecision(3) << static_cast<float>(value) / static_cast<float>(chosen->divisor)
         << ' ' << chosen->unit;
    return text.str();
}

void writeProgress(std::ostream& out, uint32_t done, uint32_t total, uint32_t bytesPerSecond) {
    const unsigned percent =
        total == 0
            ? 0u
            : static_cast<unsigned>(static_cast<float>(done) / static_cast<float>(total) * 100.0f);
    out << formatByteCount(done) << " / " << formatByteCount(total) << "     " << percent << "%"
        << "     "
        << "@ " << formatByteCount(bytesPerSecond) << "/s" << std::string(37, ' ');
}

DataMover::DataMover(std::shared_ptr<AbstractDataSource> source,
                     std::shared_ptr<AbstractDataSink> sink, std::string name)
    : morvik::pellum::log::Logger(makeLogger("DataMover (name=" + name + ")")),
      mSource(std::move(source)), mSink(std::move(sink)), mName(std::move(name)),
      mDecoderSink(std::dynamic_pointer_cast<AbstractDecoder>(mSink)) {}

DataMover::~DataMover() {
    abort();
}

std::string DataMover::errorText() {
    // The text is only stable once the flag announcing it has been seen.
    return mFailed.load() ? mErrorText : std::string();
}

void DataMover::start(uint32_t dataSizeInBytes) {
    pellumDoLog(Severity::Debug, "+start(dataSizeInBytes=%u)", {}, dataSizeInBytes);
    if (mThread) {
        throw std::runtime_error("DataMover is already running");
    }
    if (!isWholeWords(dataSizeInBytes)) {
        throw std::runtime_error("Size must be a multiple of 4 bytes");
    }
    mSink->open(dataSizeInBytes);
    mSource->open(dataSizeInBytes);
    mBytesToTransfer.store(dataSizeInBytes);
    mBytesTransferred.store(0);
    mStop.store(kRunOn);
    mFailed.store(false);
    mFinished.store(false);
    mThread = std::make_unique<std::thread>(&DataMover::thread, this);
}

void DataMover::abort() {
    pellumDoLog(Severity::Warning, "abort data mover %s", {}, mName.c_str());
    if (mThread) {
        pellumDoLog(Severity::Info, "Killing data mover %s thread", {}, mName.c_str());
        mStop.store(kStopNow);
        if (mThread->joinable()) {
            mThread->join();
        }
        mThread.reset();
        pellumDoLog(Severity::Info, "Killed data mover %s thread", {}, mName.c_str());
    }
    mErrorText = "transfer aborted";
    mFailed.store(true);
    mFinished.store(true);
}

void DataMover::requestStop(bool whenDry) {
    if (!whenDry) {
        mStop.store(kStopNow);
        return;
    }
    int running = kRunOn; // a stop at once is never softened into one when dry
    mStop.compare_exchange_strong(running, kStopWhenDry);
}

void DataMover::printProgress(std::ostream& out) const {
    writeProgress(out, mBytesTransferred.load(), mBytesToTransfer.load(), mTransferRate.load());
}

uint32_t DataMover::computeBufferSize() {
    const uint32_t readSize = mSource->optimalReadSize();
    const uint32_t writeSize = mSink->optimalWriteSize();
    pellumDoLog(Severity::Debug,
                "+computeBufferSize, source optimal size = %u, sink optimal size = %u", {},
                readSize, writeSize);
    if (readSize == 0 || writeSize == 0) {
        throw std::runtime_error("optimal read and write sizes must not be 0");
    }
    // The largest multiple of the read size not above 128 KiB, and at least one read.
    uint32_t size = std::max(readSize, kMaxBufferSize / readSize * readSize);
    if (size % writeSize != 0) {
        pellumDoLog(Severity::Warning,
                    "~computeBufferSize: will use a multiple of source optimal size, which is "
                    "not a multiple of write optimal size",
                    {});
    }
    const uint32_t toTransfer = mBytesToTransfer.load();
    if (toTransfer != 0 && toTransfer < size) {
        pellumDoLog(Severity::Debug, "mBytesToTransfer lower than 128kB: use mBytesToTransfer", {});
        size = toTransfer;
    }
    pellumDoLog(Severity::Info, "-computeBufferSize returns %u", {}, size);
    return size;
}

namespace {

struct MoverEndings {
    std::mutex mutex;
    std::condition_variable changed;
    uint64_t count = 0;
};

MoverEndings& endings() {
    static MoverEndings instance;
    return instance;
}

void announceMoverEnding() {
    MoverEndings& all = endings();
    {
        std::lock_guard<std::mutex> lock(all.mutex);
        ++all.count;
    }
    all.changed.notify_all();
}

} // namespace

uint64_t moverEndings() {
    MoverEndings& all = endings();
    std::lock_guard<std::mutex> lock(all.mutex);
    return all.count;
}

void waitForMoverEnding(uint64_t seen, std::chrono::steady_clock::duration timeout) {
    MoverEndings& all = endings();
    std::unique_lock<std::mutex> lock(all.mutex);
    all.changed.wait_for(lock, timeout, [&] { return all.count != seen; });
}

void DataMover::recordFailure(const std::string& text) {
    if (mFailed.load()) {
        return; // the first failure is the one worth reporting
    }
    mErrorText = text;
    mFailed.store(true);
    announceMoverEnding();
}

void DataMover::moveBytes() {
    const uint32_t toTransfer = mBytesToTransfer.load();
    pellumDoLog(Severity::Info, "+thread(mBytesToTransfer = %u)", {}, toTransfer);
    const uint32_t bufferSize = computeBufferSize();
    pellumDoLog(Severity::Debug, "will use read buffer of %lu bytes", {},
                static_cast<unsigned long>(bufferSize));
    std::vector<uint8_t> buffer(bufferSize);
    const auto transferStart = std::chrono::system_clock::now();
    pellumDoLog(Severity::Info, "~thread: entering transfer loop", {});

    // The rate is taken over spans of at least a millisecond: bytes moved since spanStart.
    auto spanStart = transferStart;
    uint32_t spanBytes = 0;
    uint32_t transferred = 0;
    while (mStop.load() != kStopNow && transferred < toTransfer) {
        const uint32_t request = std::min(bufferSize, toTransfer - transferred);
        pellumDoLog(Severity::Debug, "~thread: about to read, requesting %u bytes", {}, request);
        const uint32_t got = mSource->read(buffer.data(), request);
        pellumDoLog(Severity::Info, "~thread: readThisTime = %u", {}, got);
        if (got == 0) {
            if (mStop.load() != kRunOn) {
                break; // dry
            }
            mSink->idle();
            mSource->waitForMaybeData();
            continue;
        }
        if (!isWholeWords(got) || got > request) {
            throw std::runtime_error("the source handed over " + std::to_string(got) +
                                     " bytes for " + std::to_string(request) +
                                     ", not whole words within the request");
        }
        // What was read is written even when a stop came meanwhile: it left the source for good.
        for (uint32_t written = 0; written < got;) {
            pellumDoLog(Severity::Debug, "~thread: about to write", {});
            const uint32_t taken = mSink->write(buffer.data() + written, got - written);
            pellumDoLog(Severity::Info, "~thread: wrote %u", {}, taken);
            if (taken == 0) {
                recordFailure("wrote nothing");
                break;
            }
            written += taken;
        }
        if (mFailed.load()) {
            break;
        }
        transferred += got;
        mBytesTransferred.store(transferred);
        spanBytes += got;
        const int64_t elapsed = wholeMillisecondsSince(spanStart);
        if (elapsed > 0) {
            mTransferRate.store(
                toRate(static_cast<float>(spanBytes) / static_cast<float>(elapsed) * 1000.0f));
            spanStart = std::chrono::system_clock::now();
            spanBytes = 0;
        }
    }

    // A transfer shorter than a millisecond is rated as if it took one.
    const int64_t total = std::max<int64_t>(1, wholeMillisecondsSince(transferStart));
    mTransferRate.store(
        toRate(static_cast<float>(transferred) / static_cast<float>(total) * 1000.0f));
}

void DataMover::closeSide(bool sourceSide) {
    // A close that throws (an HDF5 file that cannot be flushed) is a failure of the transfer,
    // never the end of the process.
    try {
        if (sourceSide) {
            mSource->close();
        } else {
            mSink->close();
        }
    } catch (const std::exception& e) {
        pellumDoLog(Severity::Error, "DataMover (name = %s) close fails with exception %s", {},
                    mName.c_str(), e.what());
        recordFailure(e.what());
    } catch (...) {
        pellumDoLog(Severity::Error, "DataMover (name = %s) close fails with unknown exception", {},
                    mName.c_str());
        recordFailure("unknown");
    }
}

void DataMover::thread() {
    try {
        moveBytes();
    } catch (const std::exception& e) {
        pellumDoLog(Severity::Error, "DataMover (name = %s) thread fails with exception %s", {},
                    mName.c_str(), e.what());
        recordFailure(e.what());
    } catch (...) {
        pellumDoLog(Severity::Error, "DataMover (name = %s) thread failes with unknown exception",
                    {}, mName.c_str());
        recordFailure("unknown");
    }
    closeSide(true);
    closeSide(false);
    mFinished.store(true);
    announceMoverEnding();
    pellumDoLog(Severity::Info, "-thread", {});
}

} // namespace quarvel
