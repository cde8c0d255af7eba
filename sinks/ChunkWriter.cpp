#include "sinks/ChunkWriter.h"

#include <H5Cpp.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace quarvel {

ChunkWriter::ChunkWriter(hid_t dataSet, size_t chunkBytes, unsigned workers)
    : mDataSet(dataSet), mCompressor(chunkBytes, workers) {}

void ChunkWriter::append(const uint8_t* bytes, size_t length) {
    const size_t chunkBytes = mCompressor.chunkBytes();
    mAppended += length;
    while (length > 0) {
        if (mFill == 0) {
            while (mCompressor.full()) {
                writeOldestChunk(true);
            }
        }
        const size_t take = std::min(length, chunkBytes - mFill);
        std::memcpy(mCompressor.fillBuffer() + mFill, bytes, take);
        mFill += take;
        bytes += take;
        length -= take;
        if (mFill == chunkBytes) {
            mCompressor.submit();
            mFill = 0;
        }
    }
    while (writeOldestChunk(false)) {
    }
}

bool ChunkWriter::writeOldestChunk(bool wait) {
    const ChunkCompressor::Chunk chunk = mCompressor.takeOldest(wait);
    if (chunk.data == nullptr) {
        return false;
    }
    const hsize_t offset[1] = {mChunksWritten * mCompressor.chunkBytes() / sizeof(int32_t)};
    // Bit 0 of the filter mask: the deflate filter was skipped for this chunk.
    const uint32_t filterMask = chunk.compressed ? 0u : 1u;
    errno = 0;
    const herr_t status =
        H5Dwrite_chunk(mDataSet, H5P_DEFAULT, filterMask, offset, chunk.size, chunk.data);
    mCompressor.release();
    if (status < 0) {
        throw H5::DataSetIException("SinkHDF5::write", "H5Dwrite_chunk failed");
    }
    ++mChunksWritten;
    return true;
}

// A flush sends the batch that holds the chunk being filled: its bytes move on with it to the
// buffer that the next chunk is filled in, or they would be lost.
void ChunkWriter::writeEveryChunk() {
    mPartialChunk.assign(mCompressor.fillBuffer(), mCompressor.fillBuffer() + mFill);
    mCompressor.flush();
    while (writeOldestChunk(true)) {
    }
    if (mFill > 0) {
        std::memcpy(mCompressor.fillBuffer(), mPartialChunk.data(), mFill);
    }
}

void ChunkWriter::finish() {
    if (mFill > 0) {
        std::memset(mCompressor.fillBuffer() + mFill, 0, mCompressor.chunkBytes() - mFill);
        mCompressor.submit();
        mFill = 0;
    }
    writeEveryChunk();
}

} // namespace quarvel
