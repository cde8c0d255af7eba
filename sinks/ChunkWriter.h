#pragma once

#include "sinks/ChunkCompressor.h"

#include <hdf5.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace quarvel {

// Cuts the sink's bytes into the dataset's chunks, has them compressed on the workers and
// writes them into the dataset in order with HDF5's direct chunk write, so that the values in
// the file always run from index 0 without gaps. Only the file's writer calls it.
class ChunkWriter {
public:
    ChunkWriter(hid_t dataSet, size_t chunkBytes, unsigned workers);

    size_t chunkBytes() const { return mCompressor.chunkBytes(); }
    // Bytes in the chunks handed to HDF5, from the first one without gaps; the padding of a
    // last chunk is not counted.
    uint64_t bytesWritten() const {
        return std::min<uint64_t>(mChunksWritten * chunkBytes(), mAppended);
    }
    // Bytes appended that HDF5 has not had yet, counted uncompressed.
    uint64_t bytesNotWritten() const { return mAppended - bytesWritten(); }

    // Whole chunks go to the workers; a partial one waits in its buffer until it is full.
    void append(const uint8_t* bytes, size_t length);
    // Every whole chunk handed over so far, compressed and written; the partial one stays.
    void writeEveryChunk();
    // The last chunk padded to its full size, as HDF5 stores edge chunks, and everything written.
    void finish();

private:
    bool writeOldestChunk(bool wait);

    const hid_t mDataSet;
    ChunkCompressor mCompressor;
    size_t mFill = 0; // bytes in the chunk being filled
    uint64_t mAppended = 0;
    uint64_t mChunksWritten = 0; // chunks handed to HDF5
    std::vector<uint8_t> mPartialChunk;
};

} // namespace quarvel
