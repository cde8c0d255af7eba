#pragma once

#include "dataflow/AbstractDataSink.h"
#include "dataflow/RunOutcome.h"
#include "platform/Logger.h"
#include "sinks/RecordingAttributes.h"
#include "sinks/RecordingFile.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>

namespace H5 {
class H5File;
class DataSpace;
class DataSet;
class Exception;
} // namespace H5

namespace quarvel {

class ChunkWriter;

// Stores the bytes it receives, read as little-endian int32 values, in the chunked and
// deflate-compressed one-dimensional dataset "quarvel" (big-endian int32) of a new HDF5 file.
// Chunks are compressed by a pool of worker threads (HDF5 itself would use one core) and
// written in order with HDF5's direct chunk write (ChunkWriter); every HDF5 call stays on the
// caller's thread.
//
// The file's life on disk (FILE.part, its lock, the rename) is RecordingFile's; what the file
// says about itself, and when it says it (a checkpoint at least once a second, also while no
// data comes), is RecordingAttributes'. A checkpoint makes the file readable up to the values it
// then holds, whatever happens to the process afterwards.
//
// Threads: open() runs on the thread that starts the movers, write(), idle() and close() on the
// last mover's thread, never at the same time. That is the only use of HDF5 in this program,
// and it must stay so: the C++ layer of the Debian HDF5 is not thread-safe. runEnding() may come
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

    // workers: the threads that compress chunks, 0 for one per online CPU.
    explicit SinkHDF5(
        const std::string& fileName, size_t metadataCacheBytes = kDefaultMetadataCacheBytes,
        unsigned workers = 0,
        std::chrono::milliseconds checkpointPeriod = RecordingAttributes::kCheckpointPeriod);
    virtual ~SinkHDF5();

    SinkHDF5(const SinkHDF5&) = delete;
    SinkHDF5& operator=(const SinkHDF5&) = delete;

    uint32_t optimalWriteSize() override;
    void open(uint32_t totalSize) override;
    void close() override;
    uint32_t write(const uint8_t* buffer, uint32_t len) override;
    void idle() override;

    void runEnding(RunOutcome outcome, const std::string& reason) override {
        mAttributes.runEnding(outcome, reason);
    }

    // Set before open(): the attributes that say where the data came from.
    void describe(const RecordingDescription& description) { mDescription = description; }

    // The chunk length in values, not bytes; the name is the one the schemes know it by.
    uint32_t getChunkSize();

    static std::string temporaryName(const std::string& fileName) {
        return RecordingFile::temporaryName(fileName);
    }

    // The metadata cache size HDF5 keeps to for the open file; 0 when closed.
    size_t metadataCacheLimit() const;

    // True once a file failed to close; HDF5 then crashes in its exit handlers, so the process
    // must end without running them.
    static bool hasAbandonedFiles();

    // For a process that must end at once with sinks still open. Calls no HDF5 function.
    static void discardEmptyRecordings() noexcept { RecordingFile::discardEmptyRecordings(); }

private:
    void dropHdf5Objects();
    void createFileAndDataSet();
    void checkpoint();
    uint64_t storedValues() const;
    uint32_t roomFor(uint32_t len);
    void noteWriteFailure(const H5::Exception& error, int systemError);
    void finishAttributes(RecordingState state, const std::string& failure);
    // A file that HDF5 fails to close is parked; logged says whether each failure is logged.
    void closeHdf5Objects(std::exception_ptr& failure, bool logged = true);

    RecordingFile mRecordingFile;
    size_t mMetadataCacheBytes;
    unsigned mWorkers;
    RecordingDescription mDescription;
    std::unique_ptr<H5::H5File> mFile;
    std::unique_ptr<H5::DataSpace> mDataSpace;
    std::unique_ptr<H5::DataSet> mDataSet;
    RecordingAttributes mAttributes;
    std::unique_ptr<ChunkWriter> mChunks;
    uint32_t mTotalSize = 0;
    uint32_t mWriteOffset = 0;
    const uint32_t mElementSize = 4;
    bool mOpen = false;

    uint64_t mCheckpointValues = 0; // values known to be on disk
};

} // namespace quarvel
