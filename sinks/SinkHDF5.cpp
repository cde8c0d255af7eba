#include "sinks/SinkHDF5.h"

#include "dataflow/WholeWords.h"
#include "platform/Waiting.h"
#include "sinks/ChunkCompressor.h"
#include "sinks/ChunkWriter.h"
#include "sinks/Hdf5Support.h"
#include "sinks/WriteBehindDriver.h"

#include <H5Cpp.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <stdexcept>

namespace quarvel {

using morvik::pellum::log::Severity;

bool SinkHDF5::hasAbandonedFiles() {
    return hasAbandonedHdf5Files();
}

size_t SinkHDF5::metadataCacheLimit() const {
    const QuietHdf5Errors quiet;
    return mOpen ? quarvel::metadataCacheLimit(mFile->getId()) : 0;
}

SinkHDF5::SinkHDF5(const std::string& fileName, size_t metadataCacheBytes, unsigned workers,
                   std::chrono::milliseconds checkpointPeriod)
    : morvik::pellum::log::Logger(makeLogger("SinkHDF5")), mRecordingFile(fileName, *this),
      mMetadataCacheBytes(metadataCacheBytes), mWorkers(workers), mAttributes(checkpointPeriod) {}

// A sink dropped while open (a run torn down by an exception) still ends its recording.
SinkHDF5::~SinkHDF5() {
    const QuietHdf5Errors quiet;
    if (mOpen) {
        try {
            close();
        } catch (...) {
            // Already logged; a destructor has nobody to tell.
        }
    }
    // Here, not after the body: a close that failed leaves objects whose release calls HDF5.
    dropHdf5Objects();
}

uint32_t SinkHDF5::optimalWriteSize() {
    return getChunkSize() * mElementSize;
}

uint32_t SinkHDF5::getChunkSize() {
    uint32_t bytes = mTotalSize;
    if (bytes == 0) {
        bytes = 16388;
    } else if (bytes >= 16384) {
        bytes = 16384;
    }
    const uint32_t chunk = bytes / mElementSize;
    pellumDoLog(Severity::Info, "getChunkSize() returns %u", {}, chunk);
    return chunk;
}

void SinkHDF5::open(uint32_t totalSize) {
    pellumDoLog(Severity::Debug, "+open(totalSize=%u)", {}, totalSize);
    const QuietHdf5Errors quiet;
    if (mOpen) {
        pellumDoLog(Severity::Error, "-open: already open", {});
        throw std::runtime_error("SinkHDF5 already open");
    }
    mTotalSize = totalSize;
    pellumDoLog(Severity::Info, "+openFileAndDataSet", {});
    if (!isWholeWords(mTotalSize)) {
        throw std::runtime_error("Invalid transfer length: not a multiple of HDF5 data type");
    }
    // Aborts the process when the headers we were built with do not match the loaded library.
    H5check();
    H5open();

    mRecordingFile.claim();
    try {
        errno = 0;
        createFileAndDataSet();
    } catch (const H5::Exception& error) {
        const std::string reason = reasonOf(error, errno);
        pellumDoLog(Severity::Error, "cannot create %s: %s", {}, mRecordingFile.name().c_str(),
                    reason.c_str());
        std::exception_ptr ignored;
        closeHdf5Objects(ignored, false);
        dropHdf5Objects();
        mRecordingFile.discard();
        throw;
    } catch (...) {
        dropHdf5Objects();
        mRecordingFile.discard();
        throw;
    }
    mOpen = true;
}

void SinkHDF5::dropHdf5Objects() {
    mAttributes.release();
    mDataSet.reset();
    mDataSpace.reset();
    mFile.reset();
}

void SinkHDF5::createFileAndDataSet() {
    // Built aside and kept only when all of it exists.
    auto file = std::make_unique<H5::H5File>(mRecordingFile.temporaryName(), H5F_ACC_TRUNC,
                                             H5::FileCreatPropList::DEFAULT,
                                             WriteBehindDriver::fileAccess());
    if (!limitMetadataCache(file->getId(), mMetadataCacheBytes)) {
        pellumDoLog(Severity::Warning,
                    "could not limit HDF5's metadata cache; memory grows with the file", {});
    }

    const hsize_t dims[1] = {mTotalSize / mElementSize};
    const hsize_t chunkDims[1] = {getChunkSize()};
    pellumDoLog(Severity::Info, "openFileAndDataSet: dimsf[0] = %llu, chunk_dim[0] = %llu", {},
                static_cast<unsigned long long>(dims[0]),
                static_cast<unsigned long long>(chunkDims[0]));

    auto dataSpace = std::make_unique<H5::DataSpace>(1, dims);
    pellumDoLog(Severity::Info, "openFileAndDataSet: after mDataSpace", {});

    const H5::IntType dataType(H5::PredType::STD_I32BE);
    H5::DSetCreatPropList properties;
    properties.setChunk(1, chunkDims);
    properties.setDeflate(ChunkCompressor::kDeflateLevel);
    auto dataSet = std::make_unique<H5::DataSet>(
        file->createDataSet("quarvel", dataType, *dataSpace, properties));
    pellumDoLog(Severity::Info, "openFileAndDataSet: after mDataSet", {});

    mDataSet = std::move(dataSet);
    mDataSpace = std::move(dataSpace);
    mFile = std::move(file);
    mChunks =
        std::make_unique<ChunkWriter>(mDataSet->getId(), chunkDims[0] * mElementSize, mWorkers);
    mRecordingFile.noteValues(0);
    mCheckpointValues = 0;
    mAttributes.create(*mDataSet, mDescription);
    // From here on a killed process leaves a readable, empty recording.
    checkpoint();
}

// Attributes first, then the flush: the file on disk then says how far its data goes.
void SinkHDF5::checkpoint() {
    mChunks->writeEveryChunk();
    const uint64_t values = storedValues();
    mAttributes.checkpoint(values);
    mFile->flush(H5F_SCOPE_LOCAL);
    pellumDoLog(Severity::Debug, "~checkpoint: %llu values, %llu bytes of metadata to commit", {},
                static_cast<unsigned long long>(values),
                static_cast<unsigned long long>(WriteBehindDriver::heldBytes(mFile->getId())));
    errno = 0;
    if (!WriteBehindDriver::commit(mFile->getId())) {
        throw H5::FileIException("SinkHDF5::checkpoint", std::strerror(errno));
    }
    mCheckpointValues = values;
}

uint32_t SinkHDF5::write(const uint8_t* buffer, uint32_t len) {
    pellumDoLog(Severity::Debug, "+write(%u)", {}, len);
    const QuietHdf5Errors quiet;
    const WaitingFor waiting(Waiting::Disk, mRecordingFile.name());
    if (!mOpen) {
        pellumDoLog(Severity::Error, "write: sink is not open", {});
        throw std::runtime_error("Cannot write to HDF5 output as it has not been open yet");
    }
    uint32_t values = len / mElementSize;
    pellumDoLog(Severity::Debug, "~write: dataspace size = %u", {}, values);
    if (uint64_t{mWriteOffset} + values > mTotalSize / mElementSize) {
        // A caller's mistake, not the file's: what was written stays good.
        const char* const why = "write beyond the end of the dataset";
        pellumDoLog(Severity::Error, "SinkHDF5 failed to write with error %s", {}, why);
        throw H5::DataSetIException("SinkHDF5::write", why);
    }
    try {
        values = std::min(values, roomFor(len) / mElementSize);
        len = values * mElementSize;
        pellumDoLog(Severity::Debug, "~write: selecting hyperslab", {});
        pellumDoLog(Severity::Debug, "~wirte: writting data", {});
        mChunks->append(buffer, len);
        pellumDoLog(Severity::Debug, "~write: selectNone", {});

        mWriteOffset += values;
        mRecordingFile.noteValues(mWriteOffset);
        pellumDoLog(Severity::Info, "-write(%u): wrote %u values", {}, len, values);
        if (mAttributes.checkpointDue()) {
            checkpoint();
        }
    } catch (const H5::Exception& error) {
        noteWriteFailure(error, errno);
        throw;
    }
    return len;
}

// The bytes of len that may be written, keeping free what the close still needs: the values
// not yet handed to the driver (uncompressed, with the last chunk's padding), what the driver
// holds (its buffer, the metadata for the close's commit) and the journal of that commit; the
// failure attribute and the last index nodes fit in the margin. None: refused.
uint32_t SinkHDF5::roomFor(uint32_t len) {
    const auto closeNeeds = [this] {
        constexpr uint64_t kMarginBytes = 8 << 10;
        return mChunks->bytesNotWritten() + mChunks->chunkBytes() +
               2 * WriteBehindDriver::pendingBytes(mFile->getId()) + kMarginBytes;
    };
    int refusal = 0;
    uint32_t room = mRecordingFile.roomFor(len, closeNeeds, refusal);
    if (room < len) {
        // Counted uncompressed, what waits in the compressor may seem not to fit: look again
        // with it in the file.
        mChunks->writeEveryChunk();
        mFile->flush(H5F_SCOPE_LOCAL);
        room = mRecordingFile.roomFor(len, closeNeeds, refusal);
    }
    if (room < len && room < mElementSize) {
        errno = refusal == ENOENT ? 0 : refusal;
        throw H5::DataSetIException("SinkHDF5::write", refusal == ENOENT
                                                           ? mRecordingFile.temporaryName() +
                                                                 " was removed by someone else"
                                                           : std::strerror(refusal));
    }
    return room;
}

// A device that stalls still gets its checkpoint on time.
void SinkHDF5::idle() {
    const QuietHdf5Errors quiet;
    const WaitingFor waiting(Waiting::Disk, mRecordingFile.name());
    if (!mOpen || mAttributes.hasWriteFailed() || !mAttributes.checkpointDue()) {
        return;
    }
    try {
        checkpoint();
    } catch (const H5::Exception& error) {
        noteWriteFailure(error, errno);
        throw;
    }
}

void SinkHDF5::noteWriteFailure(const H5::Exception& error, int systemError) {
    pellumDoLog(Severity::Error, "SinkHDF5 failed to write with error %s", {}, detailOf(error));
    const std::string why =
        "writing " + mRecordingFile.name() + " failed: " + reasonOf(error, systemError);
    if (mAttributes.writeFailed(why)) {
        pellumDoLog(Severity::Error, "%s", {}, why.c_str());
    }
}

uint64_t SinkHDF5::storedValues() const {
    return mChunks->bytesWritten() / mElementSize;
}

// After a failed write, only a successful flush proves that the values since the last
// checkpoint reached the disk; otherwise the file claims no more than that checkpoint.
void SinkHDF5::finishAttributes(RecordingState state, const std::string& failure) {
    try {
        if (mAttributes.hasWriteFailed()) {
            mFile->flush(H5F_SCOPE_LOCAL);
        }
        mCheckpointValues = storedValues();
    } catch (const H5::Exception& error) {
        pellumDoLog(Severity::Error, "SinkHDF5 failed to flush with error %s", {}, detailOf(error));
    }
    mAttributes.finish(state, mCheckpointValues, failure);
}

void SinkHDF5::close() {
    pellumDoLog(Severity::Debug, "+close()", {});
    const QuietHdf5Errors quiet;
    const WaitingFor waiting(Waiting::Disk, mRecordingFile.name());
    if (!mOpen) {
        pellumDoLog(Severity::Warning, "SinkHDF5 already closed", {});
    }

    std::exception_ptr failure;
    RecordingState state = RecordingState::Stopped;
    if (mOpen && mDataSet) {
        if (!mAttributes.hasWriteFailed()) {
            try {
                mChunks->finish();
            } catch (const H5::Exception& error) {
                noteWriteFailure(error, errno);
                failure = std::current_exception();
            }
        }
        std::string why;
        state = mAttributes.stateAtEnd(uint64_t{mWriteOffset} * mElementSize >= mTotalSize, why);
        try {
            finishAttributes(state, why);
        } catch (const H5::Exception& error) {
            pellumDoLog(Severity::Error, "SinkHDF5 failed to close with error %s", {},
                        detailOf(error));
            failure = std::current_exception();
        }
    }
    closeHdf5Objects(failure);
    // The recording takes the file's name when it holds something (or all there was to hold);
    // a recording of nothing leaves an older file of that name as it was. One whose last words
    // did not reach the disk keeps its temporary name: its last checkpoint says "recording".
    if (failure) {
        mRecordingFile.keep();
    } else {
        mRecordingFile.publish(state == RecordingState::Complete || mCheckpointValues > 0);
    }
    mOpen = false;
    if (failure) {
        std::rethrow_exception(failure);
    }
    pellumDoLog(Severity::Info, "HDF5 sink closed", {});
}

// Closing the dataset and the file writes out the last chunks; when that fails (disk full)
// the rest is still closed and the first failure is passed on to the mover.
void SinkHDF5::closeHdf5Objects(std::exception_ptr& failure, bool logged) {
    const auto closeOne = [&failure, logged, this](const auto& object) {
        try {
            errno = 0;
            if (object) {
                object->close();
            }
            return true;
        } catch (const H5::Exception& error) {
            const std::string reason = reasonOf(error, errno);
            if (logged) {
                pellumDoLog(Severity::Error, "SinkHDF5 failed to close with error %s", {},
                            detailOf(error));
                pellumDoLog(Severity::Error, "closing %s failed: %s", {},
                            mRecordingFile.name().c_str(), reason.c_str());
            }
            failure = failure ? failure : std::current_exception();
            return false;
        }
    };
    closeOne(&mAttributes);
    closeOne(mDataSet);
    closeOne(mDataSpace);
    if (!closeOne(mFile)) {
        abandonFailedFile(std::move(mFile));
    }
}

} // namespace quarvel
