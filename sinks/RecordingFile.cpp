#include "sinks/RecordingFile.h"

#include "sinks/Recovery.h"

#include <H5Cpp.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <mutex>
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

// The claimed files, for a process that must end without their sinks.
std::mutex& liveMutex() {
    static std::mutex mutex;
    return mutex;
}

std::vector<const RecordingFile*>& liveFiles() {
    static std::vector<const RecordingFile*> files;
    return files;
}

} // namespace

RecordingFile::RecordingFile(std::string fileName, const morvik::pellum::log::Logger& log)
    : mLog(log), mName(std::move(fileName)), mTemporaryName(temporaryName(mName)) {}

RecordingFile::~RecordingFile() {
    release();
}

std::string RecordingFile::temporaryName(const std::string& fileName) {
    return fileName + ".part";
}

// A file that cannot be created is HDF5's kind of failure, as when HDF5 itself refuses it.
void RecordingFile::refuse(const std::string& reason, const std::string& name) const {
    mLog.pellumDoLog(Severity::Error, "cannot create %s: %s", {}, name.c_str(), reason.c_str());
    throw H5::FileIException("SinkHDF5::open", "cannot create " + name + ": " + reason);
}

void RecordingFile::claim() {
    struct stat target {};
    if (::stat(mName.c_str(), &target) == 0 && !S_ISREG(target.st_mode)) {
        // Renaming over it would replace a directory entry or a device node, not fill a file.
        refuse(std::string(S_ISDIR(target.st_mode) ? std::strerror(EISDIR) : "Not a regular file"),
               mName);
    }
    for (;;) {
        const int fd =
            ::open(mTemporaryName.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666); // no O_TRUNC yet
        if (fd < 0) {
            // A FILE.part in the way that is no file is named, not FILE.
            refuse(std::strerror(errno), errno == EISDIR ? mTemporaryName : mName);
        }
        // An open file description lock: HDF5's own flock on the same file does not meet it,
        // and closing HDF5's descriptor does not drop it.
        struct flock lock {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        if (::fcntl(fd, F_OFD_SETLK, &lock) != 0) {
            ::close(fd);
            throw std::runtime_error("another run is writing " + mName + " (its temporary file " +
                                     mTemporaryName + " is locked)");
        }
        struct stat info {};
        if (::fstat(fd, &info) != 0 || info.st_size == 0) {
            mLockFd = fd;
            break;
        }
        // Unlocked but not empty: a crashed run's recording, which must not be lost. Its last
        // checkpoint is made whole first, should the crash have come in the middle of one.
        if (settleJournal(fd)) {
            std::cerr << "quarvel: brought the unfinished recording " << mTemporaryName
                      << " of an earlier run to its last checkpoint" << std::endl;
        }
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
    syncDirectory();
    mRoomLeft = 0;
    std::lock_guard<std::mutex> guard(liveMutex());
    liveFiles().push_back(this);
}

// The system is asked only when the room it gave last time is used up, so that the mover's
// writes do not each cost two system calls.
uint32_t RecordingFile::roomFor(uint32_t len, const std::function<uint64_t()>& needed,
                                int& refusal) {
    refusal = 0;
    if (len <= mRoomLeft) {
        mRoomLeft -= len;
        return len;
    }
    const uint64_t reserve = needed();
    uint64_t room = kRoomRecheckBytes + len + reserve;
    struct stat info {};
    if (::fstat(mLockFd, &info) == 0 && info.st_nlink == 0) {
        refusal = ENOENT; // removed by someone else: whatever is written is lost
        return 0;
    }
    if (mFileSizeLimit != ~uint64_t{0}) {
        const uint64_t size = static_cast<uint64_t>(info.st_size);
        room = std::min(room, mFileSizeLimit > size ? mFileSizeLimit - size : 0);
        refusal = room < len + reserve ? EFBIG : 0;
    }
    struct statvfs space {};
    if (::fstatvfs(mLockFd, &space) == 0) {
        // Root may use the blocks that the file system keeps back for it.
        const uint64_t blocks = ::geteuid() == 0 ? space.f_bfree : space.f_bavail;
        if (blocks * space.f_frsize < room) {
            room = blocks * space.f_frsize;
            refusal = room < len + reserve ? ENOSPC : refusal;
        }
    }
    if (refusal != 0) {
        mRoomLeft = 0;
        return static_cast<uint32_t>(room > reserve ? std::min<uint64_t>(len, room - reserve) : 0);
    }
    mRoomLeft = room - len - reserve;
    return len;
}

bool RecordingFile::removed() const {
    struct stat info {};
    return mLockFd >= 0 && ::fstat(mLockFd, &info) == 0 && info.st_nlink == 0;
}

void RecordingFile::publish(bool holdsData) {
    if (mLockFd < 0) {
        return;
    }
    if (removed()) {
        mLog.pellumDoLog(Severity::Error, "%s was removed by someone else; the recording is lost",
                         {}, mTemporaryName.c_str());
        release();
        return;
    }
    if (!holdsData) {
        discard();
        return;
    }
    // On disk before the name points to it: a file that may not be never replaces an older one.
    if (::fsync(mLockFd) != 0) {
        mLog.pellumDoLog(Severity::Error, "cannot sync %s: %s; the recording stays there", {},
                         mTemporaryName.c_str(), std::strerror(errno));
    } else if (::rename(mTemporaryName.c_str(), mName.c_str()) != 0) {
        mLog.pellumDoLog(Severity::Error, "cannot rename %s to %s: %s; the recording stays there",
                         {}, mTemporaryName.c_str(), mName.c_str(), std::strerror(errno));
    } else {
        syncDirectory();
    }
    release();
}

// A new name is on disk only once its directory is: a power cut after the rename, or after the
// create, must not lose the recording's name.
void RecordingFile::syncDirectory() const {
    const auto slash = mName.rfind('/');
    const std::string directory = slash == std::string::npos ? "."
                                  : slash == 0               ? "/"
                                                             : mName.substr(0, slash);
    const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0 || ::fsync(fd) != 0) {
        mLog.pellumDoLog(Severity::Warning, "cannot sync the directory %s: %s", {},
                         directory.c_str(), std::strerror(errno));
    }
    if (fd >= 0) {
        ::close(fd);
    }
}

void RecordingFile::keep() {
    if (mLockFd >= 0) {
        mLog.pellumDoLog(Severity::Error, "the recording stays in %s, at its last checkpoint", {},
                         mTemporaryName.c_str());
        release();
    }
}

void RecordingFile::discard() {
    if (mLockFd >= 0) {
        ::unlink(mTemporaryName.c_str());
        release();
    }
}

void RecordingFile::release() {
    if (mLockFd >= 0) {
        {
            std::lock_guard<std::mutex> guard(liveMutex());
            auto& files = liveFiles();
            files.erase(std::remove(files.begin(), files.end(), this), files.end());
        }
        ::close(mLockFd);
        mLockFd = -1;
    }
}

void RecordingFile::discardEmptyRecordings() noexcept {
    std::lock_guard<std::mutex> guard(liveMutex());
    for (const RecordingFile* file : liveFiles()) {
        if (file->mValues.load() == 0) {
            ::unlink(file->mTemporaryName.c_str());
        }
    }
}

} // namespace quarvel
