#pragma once

#include "dataflow/AbstractDataSink.h"
#include "dataflow/RunOutcome.h"
#include "platform/Logger.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace H5 {
class H5File;
class DataSpace;
class DataSet;
class Attribute;
class Exception;
} // namespace H5

namespace quarvel {

class ChunkCompressor;

// What a recording's attributes say about where it came from.
struct RecordingDescription {
    std::string scheme;
    std::string device;
    uint32_t srcAddr = 0;
    uint32_t dataBytes = 0;
    uint8_t dataRate = 0;
};

// Stores the bytes it receives, read as little-endian int32 values, in the chunked and
// deflate-compressed one-dimensional dataset "quarvel" (big-endian int32) of a new HDF5 file.
// Chunks are compressed by a pool of worker threads (HDF5 itself would use one core) and
// written in order with HDF5's direct chunk write; every HDF5 call stays on the caller's thread.
//
// The recording never replaces the file in place: it is written as temporaryName(), locked
// against a second run, and renamed over the file name when the sink closes with data (or
// complete). While recording, a checkpoint at least once a second updates the attributes and
// flushes the file, so that a process killed at any moment leaves a readable file. The
// attributes of the dataset say how far the data goes ("recorded_values") and how the
// recording ended ("state", "failure").
//
// Threads: open() runs on the thread that starts the movers, write() and close() on the last
// mover's thread, never at the same time. That is the only use of HDF5 in this program, and
// it must stay so: the C++ layer of the Debian HDF5 is not thread-safe. runEnding() may come
// from the job's thread at any time.
//
// HDF5 failures leave as H5::Exception, which is not a std::exception.
class SinkHDF5 : public AbstractDataSink,
                 public AbstractOutcomeRecorder,
                 public virtual morvik::pellum::log::Logger {
public:
    // HDF5 keeps every chunk-index node it has touched in its metadata cache, which by default
    // grows to 32 MiB of their on-disk size; in memory a node takes about ten times that, some
    // 20 MiB per recorded GiB. Appends only touch the newest nodes, so a small fixed cache
    // costs no speed. It is a setting of the open file; the file written is the same.
    static constexpr size_t kDefaultMetadataCacheBytes = 256 * 1024;
    static constexpr std::chrono::milliseconds kCheckpointPeriod{1000};
    // Also after this many chunks: between checkpoints HDF5 must not have to write chunk-index
    // nodes out of its small metadata cache, or a killed process could leave an index that
    // points past the end the file admits to.
    static constexpr uint64_t kCheckpointChunks = 2048;
    // A write is refused (as a full disk) when less than this is left beyond it: closing the
    // file must still find room for HDF5's cached chunks and metadata.
    static constexpr uint64_t kCloseReserveBytes = 2 << 20;
    // How much may be written before free space and the file size limit are looked at again;
    // another process may fill the disk meanwhile.
    static constexpr uint64_t kRoomRecheckBytes = 4 << 20;

    // workers: the threads that compress chunks, 0 for one per online CPU.
    explicit SinkHDF5(const std::string& fileName,
                      size_t metadataCacheBytes = kDefaultMetadataCacheBytes, unsigned workers = 0);
    virtual ~SinkHDF5();

    SinkHDF5(const SinkHDF5&) = delete;
    SinkHDF5& operator=(const SinkHDF5&) = delete;

    uint32_t optimalWriteSize() override;
    void open(uint32_t totalSize) override;
    void close() override;
    uint32_t write(const uint8_t* buffer, uint32_t len) override;

    void runEnding(RunOutcome outcome, const std::string& reason) override;

    // Set before open(): the attributes that say where the data came from.
    void describe(const RecordingDescription& description);

    // Chunk length in values.
    uint32_t getChunkSize();

    // Where the recording is written until it is complete or stopped.
    static std::string temporaryName(const std::string& fileName);

    // The metadata cache size HDF5 keeps to for the open file; 0 when closed.
    size_t metadataCacheLimit() const;

    // True once a file failed to close; HDF5 then crashes in its exit handlers, so the process
    // must end without running them.
    static bool hasAbandonedFiles();

    // For a process that must end at once with sinks still open: removes the temporary files
    // of recordings that hold no value yet. Calls no HDF5 function.
    static void discardEmptyRecordings() noexcept;

private:
    enum class State { Recording, Complete, Stopped, Failed };

    void abandonFailedFile();
    void dropHdf5Objects();
    void openFileAndDataSet();
    void createFileAndDataSet();
    void lockTemporaryFile();
    void discardTemporaryFile();
    [[noreturn]] void refuseFile(const std::string& reason);
    void createAttributes();
    void checkpoint();
    void appendValues(const uint8_t* bytes, size_t length);
    bool writeOldestChunk(bool wait);
    void finishChunks();
    uint64_t storedValues() const;
    void noteWriteFailure(const H5::Exception& error, int systemError);
    void ensureRoomFor(uint32_t len);
    State finalState(std::string& failure);
    void finishAttributes(State state, const std::string& failure);
    void closeHdf5Objects(std::exception_ptr& failure);
    void publish(State state);
    void releaseTemporaryFile();

    std::string mFileName;
    std::string mTemporaryName;
    size_t mMetadataCacheBytes;
    unsigned mWorkers;
    RecordingDescription mDescription;
    std::unique_ptr<H5::H5File> mFile;
    std::unique_ptr<H5::DataSpace> mDataSpace;
    std::unique_ptr<H5::DataSet> mDataSet;
    std::unique_ptr<H5::Attribute> mRecordedValues;
    std::unique_ptr<H5::Attribute> mStateAttribute;
    std::unique_ptr<H5::Attribute> mEndTime;
    std::unique_ptr<ChunkCompressor> mCompressor;
    size_t mFill = 0;            // bytes in the chunk being filled
    uint64_t mChunksWritten = 0; // chunks handed to HDF5
    uint32_t mTotalSize = 0;
    uint32_t mWriteOffset = 0;
    const uint32_t mElementSize = 4;
    bool mGrowing = false;
    bool mOpen = false;

    int mLockFd = -1;                        // the locked temporary file
    std::atomic<uint32_t> mValuesWritten{0}; // read by discardEmptyRecordings
    uint64_t mCheckpointValues = 0;          // values known to be on disk
    std::chrono::steady_clock::time_point mNextCheckpoint{};
    uint64_t mCheckpointChunks = 0; // chunks written at the last checkpoint
    uint64_t mFileSizeLimit = ~uint64_t{0};
    uint64_t mRoomLeft = 0; // bytes that may be written before the room is looked at again
    bool mWriteFailed = false;
    std::string mWriteFailure; // why our own write failed

    std::mutex mOutcomeMutex; // runEnding comes from the job's thread
    bool mOutcomeTold = false;
    RunOutcome mOutcome = RunOutcome::Stopped;
    std::string mOutcomeReason;
};

} // namespace quarvel
