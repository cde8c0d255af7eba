#pragma once

#include "dataflow/AbstractDataSink.h"
#include "platform/Logger.h"

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
    explicit SinkHDF5(const std::string& fileName);
    virtual ~SinkHDF5();

    SinkHDF5(const SinkHDF5&) = delete;
    SinkHDF5& operator=(const SinkHDF5&) = delete;

    uint32_t optimalWriteSize() override;
    void open(uint32_t totalSize) override;
    void close() override;
    uint32_t write(const uint8_t* buffer, uint32_t len) override;

    // Chunk length in values.
    uint32_t getChunkSize();

    bool isOpen() const { return mOpen; }
    bool isGrowing() const { return mGrowing; }
    // Values written so far, where the next write starts.
    uint32_t writeOffset() const { return mWriteOffset; }

    // True once a file failed to close; HDF5 then crashes in its exit handlers, so the process
    // must end without running them.
    static bool hasAbandonedFiles();

private:
    void abandonFailedFile();
    void openFileAndDataSet();

    std::string mFileName;
    std::unique_ptr<H5::H5File> mFile;
    std::unique_ptr<H5::DataSpace> mDataSpace;
    std::unique_ptr<H5::DataSet> mDataSet;
    uint32_t mTotalSize = 0;
    uint32_t mWriteOffset = 0;
    const uint32_t mElementSize = 4;
    bool mGrowing = false;
    bool mOpen = false;
};

} // namespace quarvel
