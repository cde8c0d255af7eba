#include "sinks/Recovery.h"

#include "sinks/Hdf5Support.h"
#include "sinks/Journal.h"

#include <hdf5.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quarvel {

namespace {

constexpr char kHdf5Signature[8] = {'\x89', 'H', 'D', 'F', '\r', '\n', '\x1a', '\n'};

// What a change to the file overwrote, so that it can be put back.
struct Undo {
    struct Range {
        uint64_t address;
        std::vector<uint8_t> bytes;
    };
    std::vector<Range> overwritten;
    uint64_t size = 0;
    std::vector<uint8_t> tail; // cut off beyond cutAt
    uint64_t cutAt = 0;
    bool changed = false;
};

bool readRange(int fd, uint64_t at, size_t size, std::vector<uint8_t>& out) {
    out.resize(size);
    return ::pread(fd, out.data(), size, static_cast<off_t>(at)) == static_cast<ssize_t>(size);
}

// False when the file could not be put back as it was.
bool putBack(int fd, const Undo& undo) {
    if (!undo.changed) {
        return true;
    }
    bool ok = ::ftruncate(fd, static_cast<off_t>(undo.cutAt)) == 0 &&
              ::pwrite(fd, undo.tail.data(), undo.tail.size(), static_cast<off_t>(undo.cutAt)) ==
                  static_cast<ssize_t>(undo.tail.size());
    for (auto range = undo.overwritten.rbegin(); ok && range != undo.overwritten.rend(); ++range) {
        ok = ::pwrite(fd, range->bytes.data(), range->bytes.size(),
                      static_cast<off_t>(range->address)) ==
             static_cast<ssize_t>(range->bytes.size());
    }
    return ok && ::ftruncate(fd, static_cast<off_t>(undo.size)) == 0 && ::fsync(fd) == 0;
}

// Applies or cuts off the journal at the file's end, keeping what it changes in undo.
bool settle(int fd, Undo* undo) {
    Journal journal;
    uint64_t offset = 0;
    const JournalFound found = findJournal(fd, journal, offset);
    if (found == JournalFound::None) {
        return false;
    }
    struct stat info {};
    if (::fstat(fd, &info) != 0) {
        return false;
    }
    const uint64_t size = static_cast<uint64_t>(info.st_size);
    const uint64_t cutAt = found == JournalFound::Complete ? journal.end : offset;
    if (undo != nullptr) {
        undo->size = size;
        undo->cutAt = cutAt;
        if (!readRange(fd, cutAt, static_cast<size_t>(size - cutAt), undo->tail)) {
            return false;
        }
        for (const JournalBlock& block : journal.blocks) {
            Undo::Range range{block.address, {}};
            if (block.address < cutAt) {
                const auto length = static_cast<size_t>(
                    std::min<uint64_t>(block.bytes.size(), cutAt - block.address));
                readRange(fd, block.address, length, range.bytes);
            }
            undo->overwritten.push_back(std::move(range));
        }
        undo->changed = true;
    }
    if (found == JournalFound::Complete) {
        return applyJournal(fd, journal) == 0;
    }
    // Incomplete: nothing of it was written in place yet.
    return ::ftruncate(fd, static_cast<off_t>(offset)) == 0 && ::fsync(fd) == 0;
}

// The attributes could claim values that the chunk index does not reach.
bool lastValueReads(hid_t dataSet, uint64_t recorded) {
    if (recorded == 0) {
        return true;
    }
    const hid_t space = H5Dget_space(dataSet);
    const hsize_t at = recorded - 1, one = 1;
    int32_t value = 0;
    const hid_t memory = H5Screate_simple(1, &one, nullptr);
    const bool ok = H5Sselect_hyperslab(space, H5S_SELECT_SET, &at, nullptr, &one, nullptr) >= 0 &&
                    H5Dread(dataSet, H5T_NATIVE_INT32, memory, space, H5P_DEFAULT, &value) >= 0;
    H5Sclose(memory);
    H5Sclose(space);
    return ok;
}

// What HDF5 reads of the recording's attributes; false when it is none.
bool readRecording(const std::string& path, Recovery& result) {
    const QuietHdf5Errors quiet;
    const hid_t file = H5Fopen(path.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
    if (file < 0) {
        result.reason = "HDF5 cannot read it";
        return false;
    }
    const hid_t dataSet = H5Dopen2(file, "quarvel", H5P_DEFAULT);
    bool ok = dataSet >= 0 && H5Aexists(dataSet, "recorded_values") > 0 &&
              H5Aexists(dataSet, "state") > 0;
    if (ok) {
        const hid_t values = H5Aopen(dataSet, "recorded_values", H5P_DEFAULT);
        const hid_t state = H5Aopen(dataSet, "state", H5P_DEFAULT);
        const hid_t type = H5Aget_type(state);
        std::vector<char> text(H5Tget_size(type) + 1, '\0');
        ok = H5Aread(values, H5T_NATIVE_UINT64, &result.recordedValues) >= 0 &&
             H5Aread(state, type, text.data()) >= 0;
        result.state = text.data();
        H5Tclose(type);
        H5Aclose(state);
        H5Aclose(values);
        ok = ok && lastValueReads(dataSet, result.recordedValues);
    }
    if (!ok) {
        result.reason = "it holds no quarvel recording";
    }
    if (dataSet >= 0) {
        H5Dclose(dataSet);
    }
    H5Fclose(file);
    return ok;
}

} // namespace

bool settleJournal(int fd) {
    return settle(fd, nullptr);
}

Recovery recoverRecording(const std::string& path) {
    Recovery result;
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        result.reason = std::strerror(errno);
        return result;
    }
    // The lock of a run that writes the file.
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    char signature[sizeof kHdf5Signature] = {};
    if (::fcntl(fd, F_OFD_SETLK, &lock) != 0) {
        result.reason = "a running quarvel is writing it";
    } else if (::pread(fd, signature, sizeof signature, 0) != sizeof signature ||
               std::memcmp(signature, kHdf5Signature, sizeof signature) != 0) {
        result.outcome = Recovery::Outcome::NotARecording;
        result.reason = "it is no HDF5 file";
    } else {
        Undo undo;
        if (!settle(fd, &undo) && undo.changed) {
            result.leftAsItWas = putBack(fd, undo);
            result.reason = "its journal could not be applied";
        } else if (readRecording(path, result)) {
            result.outcome =
                undo.changed ? Recovery::Outcome::Repaired : Recovery::Outcome::NothingToDo;
        } else {
            result.leftAsItWas = putBack(fd, undo);
            // HDF5 reads it, but finds no recording in it.
            if (!undo.changed && result.reason != "HDF5 cannot read it") {
                result.outcome = Recovery::Outcome::NotARecording;
            }
        }
    }
    ::close(fd);
    return result;
}

} // namespace quarvel
