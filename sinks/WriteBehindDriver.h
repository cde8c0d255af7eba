#pragma once

#include <H5Cpp.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace quarvel {

// An HDF5 file driver over HDF5's POSIX driver that keeps the file on disk at its last commit,
// whatever happens to the process or the power:
// - New chunk data, which HDF5 places beyond the end of the last commit, goes to the disk as the
//   recording proceeds; chunks that follow one another are gathered into one system call.
// - Everything else (the chunk index, object headers, the superblock: HDF5's metadata, and the
//   rare raw write below the committed end) is held in memory until the next commit, and reads
//   are served from there. Between commits the file on disk thus never changes where the last
//   commit's metadata points.
// - commit() makes the file on disk what HDF5 now says it is, atomically, through a journal
//   (see Journal.h): data synced, journal synced, blocks in place synced, journal removed. The
//   close commits too.
// Once a write or a sync has failed, every later write, flush and commit fails with the same
// error: the file then stays as it was at the last commit that succeeded.
class WriteBehindDriver {
public:
    static constexpr size_t kBufferBytes = 256 * 1024;
    // Data written out is handed to the kernel's write-back in steps of at least this much (a
    // step ends with a buffer's write, so it may be longer by one), and the step before the last
    // is waited for: at most three steps are written but not yet on disk.
    static constexpr size_t kWriteBackBytes = 512 * 1024;
    static constexpr size_t kMaxUnsyncedBytes = 3 * (kWriteBackBytes + kBufferBytes);

    // File access properties that select the driver.
    static H5::FileAccPropList fileAccess();

    // Commits the open file, after H5Fflush has handed the driver all of HDF5's metadata.
    // Returns false and sets errno when the file could not be brought to disk.
    static bool commit(hid_t file);
    // The same for a file opened through the driver alone.
    static bool commit(H5FD_t* file);
    // Bytes held in memory for the next commit: about the journal's size.
    static uint64_t heldBytes(hid_t file);
    // Those and the data buffered, not yet written.
    static uint64_t pendingBytes(hid_t file);

    // What the driver does to a file, in order, for tests that rebuild the file as a crash at
    // any moment would leave it.
    struct Operation {
        // WrittenBack: the kernel has written the data up to offset to the disk (not a sync:
        // the disk's own cache may still hold it).
        enum Kind { Write, Sync, Truncate, Committed, WrittenBack } kind = Write;
        uint64_t offset = 0; // Write: where; Truncate: the new size; WrittenBack: up to where
        std::vector<uint8_t> data;
    };
    using OperationLog = std::function<void(const Operation&)>;
    static void setOperationLog(OperationLog log);
};

} // namespace quarvel
