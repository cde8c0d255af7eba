#include "sinks/SinkHDF5.h"

#include <H5Cpp.h>

#ifdef __GLIBC__
#include <malloc.h>
#endif

#include <atomic>
#include <exception>
#include <stdexcept>
#include <vector>

namespace quarvel {

using morvik::pellum::log::Severity;

namespace {

// Our log line carries HDF5's detail; its own error-stack dump would only flood the terminal.
// Debian builds the HDF5 C library thread-safe, which keeps that setting per thread, so each
// thread that calls into HDF5 turns it off once for itself.
void silenceHdf5ErrorPrinting() noexcept {
    thread_local bool silenced = false;
    if (silenced) {
        return;
    }
    try {
        H5::Exception::dontPrint();
        silenced = true;
    } catch (...) {
        // Only the noise stays; the error itself still reaches us as an exception.
    }
}

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
    H5AC_cache_config_t config;
    return mOpen && getMetadataCacheConfig(mFile->getId(), config) ? config.max_size : 0;
}

void keepFreedMemoryForChunks() {
#ifdef __GLIBC__
    mallopt(M_TRIM_THRESHOLD, 4 << 20);
#endif
}

bool SinkHDF5::hasAbandonedFiles() {
    return gFileAbandoned.load();
}

SinkHDF5::SinkHDF5(const std::string& fileName, size_t metadataCacheBytes)
    : morvik::pellum::log::Logger("SinkHDF5", std::string(),
                                  std::make_shared<morvik::pellum::log::LoggerImpl>()),
      mFileName(fileName), mMetadataCacheBytes(metadataCacheBytes) {
    silenceHdf5ErrorPrinting();
}

// The HDF5 objects close themselves without throwing; a failure there is only printed.
SinkHDF5::~SinkHDF5() {
    silenceHdf5ErrorPrinting();
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
    silenceHdf5ErrorPrinting();
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

    // Built aside and kept only when all of it exists: a failure closes the new file (which then
    // holds no dataset) and leaves this sink's members as they were.
    auto file = std::make_unique<H5::H5File>(
        mFileName, H5F_ACC_TRUNC, H5::FileCreatPropList::DEFAULT, H5::FileAccPropList::DEFAULT);
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
}

uint32_t SinkHDF5::write(const uint8_t* buffer, uint32_t len) {
    pellumDoLog(Severity::Debug, "+write(%u)", {}, len);
    silenceHdf5ErrorPrinting();
    if (!mOpen) {
        pellumDoLog(Severity::Error, "write: sink is not open", {});
        throw std::runtime_error("Cannot write to HDF5 output as it has not been open yet");
    }
    try {
        const uint32_t values = len / mElementSize;
        pellumDoLog(Severity::Debug, "~write: dataspace size = %u", {}, values);
        const hsize_t count[1] = {values};
        const hsize_t start[1] = {mWriteOffset};
        const H5::DataSpace memorySpace(1, count);

        pellumDoLog(Severity::Debug, "~write: selecting hyperslab", {});
        mDataSpace->selectHyperslab(H5S_SELECT_SET, count, start);

        pellumDoLog(Severity::Debug, "~wirte: writting data", {});
        // HDF5 converts each value to the file's big-endian type while storing it.
        mDataSet->write(buffer, H5::PredType::STD_I32LE, memorySpace, *mDataSpace,
                        H5::DSetMemXferPropList::DEFAULT);

        pellumDoLog(Severity::Debug, "~write: selectNone", {});
        mDataSpace->selectNone();

        mWriteOffset += values;
        pellumDoLog(Severity::Info, "-write(%u): wrote %u values", {}, len, values);
    } catch (const H5::Exception& error) {
        pellumDoLog(Severity::Error, "SinkHDF5 failed to write with error %s", {}, detailOf(error));
        throw;
    }
    return len;
}

void SinkHDF5::close() {
    pellumDoLog(Severity::Debug, "+close()", {});
    silenceHdf5ErrorPrinting();
    if (!mOpen) {
        pellumDoLog(Severity::Warning, "SinkHDF5 already closed", {});
    }

    // Closing the dataset and the file writes out the last chunks; when that fails (disk full)
    // the rest is still closed and the first failure is passed on to the mover.
    std::exception_ptr failure;
    const auto closeOne = [&failure, this](auto& object) {
        if (!object) {
            return true;
        }
        try {
            object->close();
            return true;
        } catch (const H5::Exception& error) {
            pellumDoLog(Severity::Error, "SinkHDF5 failed to close with error %s", {},
                        detailOf(error));
            if (!failure) {
                failure = std::current_exception();
            }
            return false;
        }
    };
    closeOne(mDataSet);
    closeOne(mDataSpace);
    if (!closeOne(mFile)) {
        abandonFailedFile();
    }
    mOpen = false;
    if (failure) {
        std::rethrow_exception(failure);
    }
    pellumDoLog(Severity::Info, "HDF5 sink closed", {});
}

} // namespace quarvel
