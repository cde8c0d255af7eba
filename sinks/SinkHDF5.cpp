#include "sinks/SinkHDF5.h"

#include "sinks/ChunkCompressor.h"
#include "sinks/WriteBehindDriver.h"

#include <H5Cpp.h>

#include "platform/UtcTime.h"
#include "platform/Version.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace quarvel {

using morvik::pellum::log::Severity;

namespace {

// Our log line carries HDF5's detail; its own error-stack dump would only flood the terminal.
// Debian builds the HDF5 C library thread-safe, which keeps that setting per thread, and the
// sink is called from two threads: each call turns it off for its thread while it lasts, and
// puts back what the thread had, so that the rest of the process still sees HDF5's errors.
class QuietHdf5Errors {
public:
    QuietHdf5Errors() noexcept {
        mSaved = H5Eget_auto2(H5E_DEFAULT, &mPrint, &mData) >= 0;
        if (mSaved) {
            H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
        }
    }
    ~QuietHdf5Errors() {
        if (mSaved) {
            H5Eset_auto2(H5E_DEFAULT, mPrint, mData);
        }
    }
    QuietHdf5Errors(const QuietHdf5Errors&) = delete;
    QuietHdf5Errors& operator=(const QuietHdf5Errors&) = delete;

private:
    H5E_auto2_t mPrint = nullptr;
    void* mData = nullptr;
    bool mSaved = false;
};

const char* detailOf(const H5::Exception& error) {
    const char* detail = error.getCDetailMsg();
    return detail != nullptr ? detail : "";
}

bool getMetadataCacheConfig(hid_t file, H5AC_cache_config_t& config) {
    config.version = H5AC__CURR_CACHE_CONFIG_VERSION;
    return H5Fget_mdc_config(file, &config) >= 0;
}

// A fixed-size cache: HDF5's default one grows with the file (see the header).
bool limitMetadataCache(hid_t file, size_t bytes) {
    H5AC_cache_config_t config;
    if (!getMetadataCacheConfig(file, config)) {
        return false;
    }
    config.set_initial_size = true;
    config.initial_size = bytes;
    config.min_size = bytes;
    config.max_size = bytes;
    config.incr_mode = H5C_incr__off;
    config.flash_incr_mode = H5C_flash_incr__off;
    config.decr_mode = H5C_decr__off;
    return H5Fset_mdc_config(file, &config) >= 0;
}

// The system's reason when HDF5 failed in a system call, else what HDF5 says.
std::string reasonOf(const H5::Exception& error, int systemError) {
    return systemError != 0 ? std::strerror(systemError) : detailOf(error);
}

// The first free name FILE.1, FILE.2, ...; empty when the rename failed.
std::string moveAside(const std::string& path) {
    for (unsigned n = 1; n < 1000; ++n) {
        const std::string aside = path + "." + std::to_string(n);
        if (::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, aside.c_str(), RENAME_NOREPLACE) == 0) {
            return aside;
        }
        if (errno == EEXIST) {
            continue;
        }
        // A file system without RENAME_NOREPLACE: look, then rename.
        if (errno == EINVAL && ::access(aside.c_str(), F_OK) != 0 &&
            ::rename(path.c_str(), aside.c_str()) == 0) {
            return aside;
        }
        if (errno != EINVAL) {
            return {};
        }
    }
    return {};
}

std::string hostName() {
    char name[256] = {};
    if (::gethostname(name, sizeof name - 1) != 0) {
        return {};
    }
    return name;
}

// Fixed-length strings: a later value of the same size is written in place, needing no new
// room in the file. "state" fits its longest value, "recording".
constexpr size_t kStateSize = sizeof "recording";

H5::StrType fixedString(size_t size) {
    H5::StrType type(H5::PredType::C_S1, size);
    type.setStrpad(H5T_STR_NULLTERM);
    type.setCset(H5T_CSET_UTF8);
    return type;
}

void writeStringAttribute(H5::Attribute& attribute, const std::string& value) {
    const H5::StrType type = attribute.getStrType();
    std::vector<char> bytes(type.getSize(), '\0');
    value.copy(bytes.data(), bytes.size() - 1);
    attribute.write(type, bytes.data());
}

// size 0: just the value's own size.
std::unique_ptr<H5::Attribute> createStringAttribute(H5::DataSet& dataSet, const char* name,
                                                     size_t size, const std::string& value) {
    const H5::StrType type = fixedString(size == 0 ? value.size() + 1 : size);
    auto attribute = std::make_unique<H5::Attribute>(
        dataSet.createAttribute(name, type, H5::DataSpace(H5S_SCALAR)));
    writeStringAttribute(*attribute, value);
    return attribute;
}

// The open sinks, for a process that must end without them: see discardEmptyRecordings.
std::mutex& liveMutex() {
    static std::mutex mutex;
    return mutex;
}

std::vector<const SinkHDF5*>& liveSinks() {
    static std::vector<const SinkHDF5*> sinks;
    return sinks;
}

void registerLive(const SinkHDF5* sink) {
    std::lock_guard<std::mutex> lock(liveMutex());
    liveSinks().push_back(sink);
}

void unregisterLive(const SinkHDF5* sink) {
    std::lock_guard<std::mutex> lock(liveMutex());
    auto& sinks = liveSinks();
    sinks.erase(std::remove(sinks.begin(), sinks.end(), sink), sinks.end());
}

[[noreturn]] void refuseWrite(int error) {
    errno = error;
    throw H5::DataSetIException("SinkHDF5::write", std::strerror(error));
}

} // namespace

// HDF5 1.10 frees a file whose close failed while flushing but keeps its identifier, so any
// later close (the wrapper's destructor) touches freed memory. Such a wrapper is parked, still
// reachable, for the rest of the process instead of being destroyed.
namespace {
std::atomic<bool> gFileAbandoned{false};
}

void SinkHDF5::abandonFailedFile() {
    static auto* parked = new std::vector<std::unique_ptr<H5::H5File>>();
    if (mFile) {
        parked->push_back(std::move(mFile));
        gFileAbandoned.store(true);
    }
}

size_t SinkHDF5::metadataCacheLimit() const {
    const QuietHdf5Errors quiet;
    H5AC_cache_config_t config;
    return mOpen && getMetadataCacheConfig(mFile->getId(), config) ? config.max_size : 0;
}

bool SinkHDF5::hasAbandonedFiles() {
    return gFileAbandoned.load();
}

SinkHDF5::SinkHDF5(const std::string& fileName, size_t metadataCacheBytes, unsigned workers)
    : morvik::pellum::log::Logger(makeLogger("SinkHDF5")), mFileName(fileName),
      mTemporaryName(temporaryName(fileName)), mMetadataCacheBytes(metadataCacheBytes),
      mWorkers(workers) {}

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
    releaseTemporaryFile();
}

std::string SinkHDF5::temporaryName(const std::string& fileName) {
    return fileName + ".part";
}

void SinkHDF5::describe(const RecordingDescription& description) {
    mDescription = description;
}

void SinkHDF5::runEnding(RunOutcome outcome, const std::string& reason) {
    std::lock_guard<std::mutex> lock(mOutcomeMutex);
    if (!mOutcomeTold) {
        mOutcomeTold = true;
        mOutcome = outcome;
        mOutcomeReason = reason;
    }
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
    openFileAndDataSet();
    mOpen = true;
}

void SinkHDF5::openFileAndDataSet() {
    pellumDoLog(Severity::Info, "+openFileAndDataSet", {});
    mGrowing = (mTotalSize == 0);
    if (mTotalSize % mElementSize != 0) {
        throw std::runtime_error("Invalid transfer length: not a multiple of HDF5 data type");
    }

    // Aborts the process when the headers we were built with do not match the loaded library.
    H5check();
    H5open();

    lockTemporaryFile();
    try {
        errno = 0;
        createFileAndDataSet();
    } catch (const H5::Exception& error) {
        const std::string reason = reasonOf(error, errno);
        pellumDoLog(Severity::Error, "cannot create %s: %s", {}, mFileName.c_str(), reason.c_str());
        discardTemporaryFile();
        throw;
    } catch (...) {
        discardTemporaryFile();
        throw;
    }
}

void SinkHDF5::dropHdf5Objects() {
    mRecordedValues.reset();
    mStateAttribute.reset();
    mEndTime.reset();
    mDataSet.reset();
    mDataSpace.reset();
    mFile.reset();
}

// Nothing was recorded: no temporary file stays, and the file name is untouched.
void SinkHDF5::discardTemporaryFile() {
    dropHdf5Objects();
    ::unlink(mTemporaryName.c_str());
    releaseTemporaryFile();
}

// A file that cannot be created is HDF5's kind of failure, as when HDF5 itself refuses it.
void SinkHDF5::refuseFile(const std::string& reason) {
    pellumDoLog(Severity::Error, "cannot create %s: %s", {}, mFileName.c_str(), reason.c_str());
    throw H5::FileIException("SinkHDF5::open", "cannot create " + mFileName + ": " + reason);
}

// Refuses when another run writes the same file, and moves aside what a crashed run left.
void SinkHDF5::lockTemporaryFile() {
    struct stat target {};
    if (::stat(mFileName.c_str(), &target) == 0 && !S_ISREG(target.st_mode)) {
        // Renaming over it would replace a directory entry or a device node, not fill a file.
        refuseFile(
            std::string(S_ISDIR(target.st_mode) ? std::strerror(EISDIR) : "Not a regular file"));
    }
    for (;;) {
        const int fd =
            ::open(mTemporaryName.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666); // no O_TRUNC yet
        if (fd < 0) {
            refuseFile(std::strerror(errno));
        }
        // An open file description lock: HDF5's own flock on the same file does not meet it,
        // and closing HDF5's descriptor does not drop it.
        struct flock lock {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        if (::fcntl(fd, F_OFD_SETLK, &lock) != 0) {
            ::close(fd);
            throw std::runtime_error("another run is writing " + mFileName +
                                     " (its temporary file " + mTemporaryName + " is locked)");
        }
        struct stat info {};
        if (::fstat(fd, &info) != 0 || info.st_size == 0) {
            mLockFd = fd;
            break;
        }
        // Unlocked but not empty: a crashed run's recording, which must not be lost.
        const std::string aside = moveAside(mTemporaryName);
        ::close(fd);
        if (aside.empty()) {
            throw std::runtime_error("cannot move aside the unfinished recording " +
                                     mTemporaryName +
                                     " of an earlier run: " + std::strerror(errno));
        }
        std::cerr << "quarvel: moved the unfinished recording of an earlier run from "
                  << mTemporaryName << " to " << aside << std::endl;
    }
    struct rlimit limit {};
    if (::getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY) {
        mFileSizeLimit = limit.rlim_cur;
    }
    registerLive(this);
}

void SinkHDF5::releaseTemporaryFile() {
    if (mLockFd >= 0) {
        unregisterLive(this);
        ::close(mLockFd);
        mLockFd = -1;
    }
}

void SinkHDF5::createFileAndDataSet() {
    // Built aside and kept only when all of it exists.
    auto file =
        std::make_unique<H5::H5File>(mTemporaryName, H5F_ACC_TRUNC, H5::FileCreatPropList::DEFAULT,
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
    properties.setDeflate(6);
    auto dataSet = std::make_unique<H5::DataSet>(
        file->createDataSet("quarvel", dataType, *dataSpace, properties));
    pellumDoLog(Severity::Info, "openFileAndDataSet: after mDataSet", {});

    mDataSet = std::move(dataSet);
    mDataSpace = std::move(dataSpace);
    mFile = std::move(file);
    mCompressor = std::make_unique<ChunkCompressor>(chunkDims[0] * mElementSize, mWorkers);
    mRoomLeft = 0;
    mFill = 0;
    mChunksWritten = 0;
    mValuesWritten.store(0);
    mCheckpointValues = 0;
    mWriteFailed = false;
    mWriteFailure.clear();
    createAttributes();
    // From here on a killed process leaves a readable, empty recording.
    checkpoint();
}

void SinkHDF5::createAttributes() {
    const H5::DataSpace scalar(H5S_SCALAR);
    const auto number = [&](const char* name, const H5::PredType& fileType,
                            const H5::PredType& memoryType, const void* value) {
        auto attribute =
            std::make_unique<H5::Attribute>(mDataSet->createAttribute(name, fileType, scalar));
        attribute->write(memoryType, value);
        return attribute;
    };
    const uint64_t none = 0;
    mRecordedValues =
        number("recorded_values", H5::PredType::STD_U64LE, H5::PredType::NATIVE_UINT64, &none);
    mStateAttribute = createStringAttribute(*mDataSet, "state", kStateSize, "recording");
    createStringAttribute(*mDataSet, "scheme", 0, mDescription.scheme);
    createStringAttribute(*mDataSet, "device", 0, mDescription.device);
    number("src_addr", H5::PredType::STD_U32LE, H5::PredType::NATIVE_UINT32, &mDescription.srcAddr);
    number("data_bytes", H5::PredType::STD_U32LE, H5::PredType::NATIVE_UINT32,
           &mDescription.dataBytes);
    number("data_rate", H5::PredType::STD_U8LE, H5::PredType::NATIVE_UINT8, &mDescription.dataRate);
    const std::string now = utcTimestamp(3);
    createStringAttribute(*mDataSet, "start_time", 0, now);
    // While recording: the time of the last checkpoint.
    mEndTime = createStringAttribute(*mDataSet, "end_time", now.size() + 1, now);
    createStringAttribute(*mDataSet, "software", 0, std::string("quarvel ") + version());
    createStringAttribute(*mDataSet, "host", 0, hostName());
}

// Attributes first, then the flush: the file on disk then says how far its data goes.
void SinkHDF5::checkpoint() {
    const uint64_t values = storedValues();
    mRecordedValues->write(H5::PredType::NATIVE_UINT64, &values);
    writeStringAttribute(*mEndTime, utcTimestamp(3));
    mFile->flush(H5F_SCOPE_LOCAL);
    mCheckpointValues = values;
    mNextCheckpoint = std::chrono::steady_clock::now() + kCheckpointPeriod;
    mCheckpointChunks = mChunksWritten;
}

// The system is asked only when the room it gave last time is used up, so that the mover's
// writes do not each cost two system calls.
void SinkHDF5::ensureRoomFor(uint32_t len) {
    if (len <= mRoomLeft) {
        mRoomLeft -= len;
        return;
    }
    const uint64_t needed = uint64_t{len} + kCloseReserveBytes;
    uint64_t room = kRoomRecheckBytes + needed;
    struct stat info {};
    if (mFileSizeLimit != ~uint64_t{0} && ::fstat(mLockFd, &info) == 0) {
        const uint64_t size = static_cast<uint64_t>(info.st_size);
        room = std::min(room, mFileSizeLimit > size ? mFileSizeLimit - size : 0);
        if (room < needed) {
            refuseWrite(EFBIG);
        }
    }
    struct statvfs space {};
    if (::fstatvfs(mLockFd, &space) == 0) {
        // Root may use the blocks that the file system keeps back for it.
        const uint64_t blocks = ::geteuid() == 0 ? space.f_bfree : space.f_bavail;
        room = std::min(room, blocks * space.f_frsize);
        if (room < needed) {
            refuseWrite(ENOSPC);
        }
    }
    mRoomLeft = room - needed;
}

uint32_t SinkHDF5::write(const uint8_t* buffer, uint32_t len) {
    pellumDoLog(Severity::Debug, "+write(%u)", {}, len);
    const QuietHdf5Errors quiet;
    if (!mOpen) {
        pellumDoLog(Severity::Error, "write: sink is not open", {});
        throw std::runtime_error("Cannot write to HDF5 output as it has not been open yet");
    }
    const uint32_t values = len / mElementSize;
    pellumDoLog(Severity::Debug, "~write: dataspace size = %u", {}, values);
    if (uint64_t{mWriteOffset} + values > mTotalSize / mElementSize) {
        // A caller's mistake, not the file's: what was written stays good.
        const char* const why = "write beyond the end of the dataset";
        pellumDoLog(Severity::Error, "SinkHDF5 failed to write with error %s", {}, why);
        throw H5::DataSetIException("SinkHDF5::write", why);
    }
    try {
        ensureRoomFor(len);

        pellumDoLog(Severity::Debug, "~write: selecting hyperslab", {});
        pellumDoLog(Severity::Debug, "~wirte: writting data", {});
        appendValues(buffer, values * mElementSize);
        pellumDoLog(Severity::Debug, "~write: selectNone", {});

        mWriteOffset += values;
        mValuesWritten.store(mWriteOffset);
        pellumDoLog(Severity::Info, "-write(%u): wrote %u values", {}, len, values);
        if (std::chrono::steady_clock::now() >= mNextCheckpoint) {
            // A slow recording's whole chunks are in the file within a second.
            mCompressor->flush();
            while (writeOldestChunk(true)) {
            }
            checkpoint();
        } else if (mChunksWritten - mCheckpointChunks >= kCheckpointChunks) {
            checkpoint();
        }
    } catch (const H5::Exception& error) {
        noteWriteFailure(error, errno);
        throw;
    }
    return len;
}

void SinkHDF5::noteWriteFailure(const H5::Exception& error, int systemError) {
    pellumDoLog(Severity::Error, "SinkHDF5 failed to write with error %s", {}, detailOf(error));
    if (!mWriteFailed) {
        mWriteFailed = true;
        mWriteFailure = "writing " + mFileName + " failed: " + reasonOf(error, systemError);
        pellumDoLog(Severity::Error, "%s", {}, mWriteFailure.c_str());
    }
}

// Whole chunks go to the workers; a partial one waits in its buffer until it is full.
void SinkHDF5::appendValues(const uint8_t* bytes, size_t length) {
    const size_t chunkBytes = mCompressor->chunkBytes();
    while (length > 0) {
        if (mFill == 0) {
            while (mCompressor->full()) {
                writeOldestChunk(true);
            }
        }
        const size_t take = std::min(length, chunkBytes - mFill);
        std::memcpy(mCompressor->fillBuffer() + mFill, bytes, take);
        mFill += take;
        bytes += take;
        length -= take;
        if (mFill == chunkBytes) {
            mCompressor->submit();
            mFill = 0;
        }
    }
    while (writeOldestChunk(false)) {
    }
}

// In order, so that the values in the file always run from index 0 without gaps.
bool SinkHDF5::writeOldestChunk(bool wait) {
    const ChunkCompressor::Chunk chunk = mCompressor->takeOldest(wait);
    if (chunk.data == nullptr) {
        return false;
    }
    const hsize_t offset[1] = {mChunksWritten * mCompressor->chunkBytes() / mElementSize};
    // Bit 0 of the filter mask: the deflate filter was skipped for this chunk.
    const uint32_t filterMask = chunk.compressed ? 0u : 1u;
    errno = 0;
    const herr_t status =
        H5Dwrite_chunk(mDataSet->getId(), H5P_DEFAULT, filterMask, offset, chunk.size, chunk.data);
    mCompressor->release();
    if (status < 0) {
        throw H5::DataSetIException("SinkHDF5::write", "H5Dwrite_chunk failed");
    }
    ++mChunksWritten;
    return true;
}

// The last chunk is padded to its full size, as HDF5 stores edge chunks.
void SinkHDF5::finishChunks() {
    if (mFill > 0) {
        std::memset(mCompressor->fillBuffer() + mFill, 0, mCompressor->chunkBytes() - mFill);
        mCompressor->submit();
        mFill = 0;
    }
    mCompressor->flush();
    while (writeOldestChunk(true)) {
    }
}

// Values in chunks handed to HDF5, from index 0 without gaps.
uint64_t SinkHDF5::storedValues() const {
    const uint64_t inChunks =
        mCompressor ? mChunksWritten * mCompressor->chunkBytes() / mElementSize : 0;
    return std::min<uint64_t>(inChunks, mWriteOffset);
}

SinkHDF5::State SinkHDF5::finalState(std::string& failure) {
    if (mWriteFailed) {
        failure = mWriteFailure;
        return State::Failed;
    }
    if (uint64_t{mWriteOffset} * mElementSize >= mTotalSize) {
        return State::Complete;
    }
    std::lock_guard<std::mutex> lock(mOutcomeMutex);
    if (mOutcomeTold && mOutcome == RunOutcome::Failed) {
        failure = mOutcomeReason;
        return State::Failed;
    }
    return State::Stopped;
}

// After a failed write, only a successful flush proves that the values since the last
// checkpoint reached the disk; otherwise the file claims no more than that checkpoint.
void SinkHDF5::finishAttributes(State state, const std::string& failure) {
    if (mWriteFailed) {
        try {
            mFile->flush(H5F_SCOPE_LOCAL);
            mCheckpointValues = storedValues();
        } catch (const H5::Exception& error) {
            pellumDoLog(Severity::Error, "SinkHDF5 failed to flush with error %s", {},
                        detailOf(error));
        }
    } else {
        mCheckpointValues = storedValues();
    }
    // Fixed-size values overwritten in place: they need no new room on a full disk.
    const uint64_t values = mCheckpointValues;
    mRecordedValues->write(H5::PredType::NATIVE_UINT64, &values);
    writeStringAttribute(*mEndTime, utcTimestamp(3));
    const char* const names[] = {"recording", "complete", "stopped", "failed"};
    writeStringAttribute(*mStateAttribute, names[static_cast<int>(state)]);
    if (state == State::Failed) {
        createStringAttribute(*mDataSet, "failure", 0, failure.empty() ? "unknown" : failure);
    }
}

void SinkHDF5::close() {
    pellumDoLog(Severity::Debug, "+close()", {});
    const QuietHdf5Errors quiet;
    if (!mOpen) {
        pellumDoLog(Severity::Warning, "SinkHDF5 already closed", {});
    }

    std::exception_ptr failure;
    State state = State::Stopped;
    if (mOpen && mDataSet) {
        if (!mWriteFailed) {
            try {
                finishChunks();
            } catch (const H5::Exception& error) {
                noteWriteFailure(error, errno);
                failure = std::current_exception();
            }
        }
        std::string why;
        state = finalState(why);
        try {
            finishAttributes(state, why);
        } catch (const H5::Exception& error) {
            pellumDoLog(Severity::Error, "SinkHDF5 failed to close with error %s", {},
                        detailOf(error));
            failure = std::current_exception();
        }
    }
    closeHdf5Objects(failure);
    if (mLockFd >= 0) {
        publish(state);
    }
    mOpen = false;
    if (failure) {
        std::rethrow_exception(failure);
    }
    pellumDoLog(Severity::Info, "HDF5 sink closed", {});
}

// Closing the dataset and the file writes out the last chunks; when that fails (disk full)
// the rest is still closed and the first failure is passed on to the mover.
void SinkHDF5::closeHdf5Objects(std::exception_ptr& failure) {
    const auto closeOne = [&failure, this](auto& object) {
        if (!object) {
            return true;
        }
        try {
            errno = 0;
            object->close();
            return true;
        } catch (const H5::Exception& error) {
            const std::string reason = reasonOf(error, errno);
            pellumDoLog(Severity::Error, "SinkHDF5 failed to close with error %s", {},
                        detailOf(error));
            pellumDoLog(Severity::Error, "closing %s failed: %s", {}, mFileName.c_str(),
                        reason.c_str());
            if (!failure) {
                failure = std::current_exception();
            }
            return false;
        }
    };
    closeOne(mRecordedValues);
    closeOne(mStateAttribute);
    closeOne(mEndTime);
    closeOne(mDataSet);
    closeOne(mDataSpace);
    if (!closeOne(mFile)) {
        abandonFailedFile();
    }
}

// The recording takes the file's name when it holds something (or all there was to hold);
// a recording of nothing leaves an older file of that name as it was.
void SinkHDF5::publish(State state) {
    if (state == State::Complete || mCheckpointValues > 0) {
        // On disk before the name points to it.
        ::fsync(mLockFd);
        if (::rename(mTemporaryName.c_str(), mFileName.c_str()) != 0) {
            pellumDoLog(Severity::Error, "cannot rename %s to %s: %s; the recording stays there",
                        {}, mTemporaryName.c_str(), mFileName.c_str(), std::strerror(errno));
        }
    } else {
        ::unlink(mTemporaryName.c_str());
    }
    releaseTemporaryFile();
}

void SinkHDF5::discardEmptyRecordings() noexcept {
    std::lock_guard<std::mutex> lock(liveMutex());
    for (const SinkHDF5* sink : liveSinks()) {
        if (sink->mValuesWritten.load() == 0) {
            ::unlink(sink->mTemporaryName.c_str());
        }
    }
}

} // namespace quarvel
