#pragma once

#include <H5Cpp.h>

#include <cstddef>

namespace quarvel {

// An HDF5 file driver: HDF5's POSIX driver with a write-behind buffer for raw data. HDF5
// writes each chunk with a system call of its own, a few KiB each; here chunks that follow
// one another in the file are gathered and written together. The file itself is the one the
// POSIX driver writes.
//
// Any other write, any read of the buffered range, a flush, a truncate and the close write
// the buffer out first, so that the file never holds metadata pointing at data that is not
// there. Written data goes to the disk as the recording proceeds, not all at the close. Once
// writing the buffer has failed, every later write and flush fails with the same error: the file
// then stays as it was at the last flush that succeeded.
class WriteBehindDriver {
public:
    static constexpr size_t kBufferBytes = 256 * 1024;
    // Data written out is handed to the kernel's write-back in steps of at least this much.
    static constexpr size_t kWriteBackBytes = 2 * 1024 * 1024;

    // File access properties that select the driver.
    static H5::FileAccPropList fileAccess();
};

} // namespace quarvel
