#pragma once

#include "dataflow/AbstractDataSink.h"
#include "platform/Logger.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace H5 {
class H5File;
class DataSpace;
class DataSet;
} // namespace H5

namespace quarvel {

// Stores the bytes it receives, read as little-endian int32 values, in the chunked and
// deflate-compressed one-dimensional dataset "quarvel" (big-endian int32) of a new HDF5 file.
//
// Threads: open() runs on the thread that starts the movers, write() and close() on the last
// mover's thread, never at the same time. That is the only use of HDF5 in this program, and
// it must stay so: the C++ layer of the Debian HDF5 is not thread-safe, and the sink has no
// lock of its own.
//
// HDF5 failures leave as H5::Exception, which is not a std::exception.
class SinkHDF5 : public AbstractDataSink, public virtual morvik::pellum::log::Logger {
public:
    // HDF5 keeps every chunk-index node it has touched in its metadata cache, which by default
    // grows to 32 MiB of their on-disk size; in memory a node takes about ten times that, some
    // 20 MiB per recorded GiB. Appends only touch the newest nodes, so a small fixed cache
    // costs no speed. It is a setting of the open file; the file written is the same.
    static constexpr size_t kDefaultMetadataCacheBytes = 256 * 1024;

    explicit SinkHDF5(const std::string& fileName,
                      size_t metadataCacheBytes = kDefaultMetadataCacheBytes);
    virtual ~SinkHDF5();

    SinkHDF5(const SinkHDF5&) = delete;
    SinkHDF5& operator=(const SinkHDF5&) = delete;

    uint32_t optimalWriteSize() override;
    void open(uint32_t totalSize) override;
    void close() override;
    uint32_t write(const uint8_t* buffer, uint32_t len) override;

    // Chunk length in values.
    uint32_t getChunkSize();

    // The metadata cache size HDF5 keeps to for the open file; 0 when closed.
    size_t metadataCacheLimit() const;

    // True once a file failed to close; HDF5 then crashes in its exit handlers, so the process
    // must end without running them.
    static bool hasAbandonedFiles();

private:
    void abandonFailedFile();
    void openFileAndDataSet();

    std::string mFileName;
    size_t mMetadataCacheBytes;
    std::unique_ptr<H5::H5File> mFile;
    std::unique_ptr<H5::DataSpace> mDataSpace;
    std::unique_ptr<H5::DataSet> mDataSet;
    uint32_t mTotalSize = 0;
    uint32_t mWriteOffset = 0;
    const uint32_t mElementSize = 4;
    bool mGrowing = false;
    bool mOpen = false;
};

// HDF5's deflate allocates and frees some 256 KiB of zlib state for every 16 KiB chunk. Under
// glibc's default trim threshold a thread hands those pages back to the kernel at each free and
// faults them in again for the next chunk: about 13% of a recording. Call once, early in main.
void keepFreedMemoryForChunks();

} // namespace quarvel
