#pragma once

#include "platform/Logger.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

namespace quarvel {

// The recording's life on disk, apart from what HDF5 writes into it: the recording is written
// as FILE.part, locked against a second run, and takes the name FILE only when it ends with
// data, so that an older FILE is replaced only by a recording that holds something. A FILE.part
// that a crashed run left is moved aside, never overwritten. Calls no HDF5 function.
//
// Threads: claim() on the thread that opens the sink, the rest on the file's writer; a process
// that must end at once calls discardEmptyRecordings() from any thread.
class RecordingFile {
public:
    // How much may be written before free space and the file size limit are looked at again;
    // another process may fill the disk meanwhile.
    static constexpr uint64_t kRoomRecheckBytes = 4 << 20;

    // Logs through the logger of the sink it serves.
    RecordingFile(std::string fileName, const morvik::pellum::log::Logger& log);
    ~RecordingFile();
    RecordingFile(const RecordingFile&) = delete;
    RecordingFile& operator=(const RecordingFile&) = delete;

    static std::string temporaryName(const std::string& fileName);
    const std::string& name() const { return mName; }
    const std::string& temporaryName() const { return mTemporaryName; }

    // Makes FILE.part ours: refuses a FILE that is no regular file and a FILE.part that another
    // run holds, and moves aside a crashed run's. Throws; HDF5's kind of failure (an
    // H5::Exception) for a file that cannot be created, logged with the reason.
    void claim();
    // How many of len bytes may be written so that reserve bytes stay free for the close; when
    // fewer than len, refusal says why (EFBIG for the file size limit, ENOSPC for the disk).
    // reserve is asked for only when the room is looked at again, not at every write.
    uint32_t roomFor(uint32_t len, const std::function<uint64_t()>& reserve, int& refusal);
    // How many values the file holds so far, for discardEmptyRecordings.
    void noteValues(uint32_t values) { mValues.store(values); }

    // FILE.part is gone from its directory (someone removed it).
    bool removed() const;
    // On disk under FILE when it holds data, removed when not.
    void publish(bool holdsData);
    // Left under its temporary name, at its last checkpoint.
    void keep();
    // Removed: nothing was recorded, and FILE is untouched.
    void discard();

    // For a process that must end at once: removes the temporary files of recordings that
    // hold no value yet.
    static void discardEmptyRecordings() noexcept;

private:
    [[noreturn]] void refuse(const std::string& reason, const std::string& name) const;
    void release();
    void syncDirectory() const;

    const morvik::pellum::log::Logger& mLog;
    const std::string mName;
    const std::string mTemporaryName;
    int mLockFd = -1; // the locked FILE.part
    uint64_t mFileSizeLimit = ~uint64_t{0};
    uint64_t mRoomLeft = 0; // bytes that may be written before the room is looked at again
    std::atomic<uint32_t> mValues{0};
};

} // namespace quarvel
