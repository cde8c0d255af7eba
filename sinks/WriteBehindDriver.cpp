#include "sinks/WriteBehindDriver.h"

#include "sinks/Journal.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quarvel {

static_assert(sizeof(off_t) == 8, "file offsets must not wrap at 2 GiB");

namespace {

std::mutex gLogMutex;
WriteBehindDriver::OperationLog gLog; // tests only

void logOperation(WriteBehindDriver::Operation::Kind kind, uint64_t offset = 0,
                  const void* data = nullptr, size_t size = 0) {
    std::lock_guard<std::mutex> lock(gLogMutex);
    if (gLog) {
        WriteBehindDriver::Operation operation;
        operation.kind = kind;
        operation.offset = offset;
        const auto* bytes = static_cast<const uint8_t*>(data);
        operation.data.assign(bytes, bytes + size);
        gLog(operation);
    }
}

// Writes held for the next commit: non-overlapping ranges, each with HDF5's kind of the block.
class HeldBlocks {
public:
    void put(haddr_t address, const uint8_t* data, size_t size, H5FD_mem_t type) {
        const haddr_t end = address + size;
        auto at = mBlocks.lower_bound(address);
        if (at != mBlocks.begin() &&
            std::prev(at)->first + std::prev(at)->second.bytes.size() > address) {
            --at;
        }
        while (at != mBlocks.end() && at->first < end) {
            const haddr_t start = at->first;
            Block& old = at->second;
            const haddr_t oldEnd = start + old.bytes.size();
            mBytes -= std::min(oldEnd, end) - std::max(start, address);
            if (oldEnd > end) { // its tail survives
                Block tail{old.type,
                           std::vector<uint8_t>(old.bytes.begin() +
                                                    static_cast<std::ptrdiff_t>(end - start),
                                                old.bytes.end())};
                mBlocks.emplace(end, std::move(tail));
            }
            if (start < address) { // its head survives
                old.bytes.resize(static_cast<size_t>(address - start));
                ++at;
            } else {
                at = mBlocks.erase(at);
            }
        }
        mBytes += size;
        mBlocks[address] = Block{type, std::vector<uint8_t>(data, data + size)};
    }

    void overlay(haddr_t address, uint8_t* out, size_t size) const {
        const haddr_t end = address + size;
        auto at = mBlocks.upper_bound(address);
        if (at != mBlocks.begin()) {
            --at;
        }
        for (; at != mBlocks.end() && at->first < end; ++at) {
            const haddr_t from = std::max(address, at->first);
            const haddr_t to = std::min<haddr_t>(end, at->first + at->second.bytes.size());
            if (from < to) {
                // Offsets within one read or one block, which are in memory.
                std::memcpy(out + static_cast<size_t>(from - address),
                            at->second.bytes.data() + static_cast<size_t>(from - at->first),
                            static_cast<size_t>(to - from));
            }
        }
    }

    haddr_t end() const {
        return mBlocks.empty() ? 0
                               : mBlocks.rbegin()->first + mBlocks.rbegin()->second.bytes.size();
    }
    bool empty() const { return mBlocks.empty(); }
    uint64_t bytes() const { return mBytes; }

    // The superblock, then the object headers, whose "recorded_values" then comes last: a
    // process killed while they are written in place leaves a file that claims no more than
    // the index already written shows.
    std::vector<JournalBlock> inCommitOrder() const {
        std::vector<JournalBlock> blocks;
        for (int rank = 0; rank < 3; ++rank) {
            for (const auto& [address, block] : mBlocks) {
                if (rankOf(block.type) == rank) {
                    blocks.push_back(JournalBlock{address, block.bytes});
                }
            }
        }
        return blocks;
    }

    void clear() {
        mBlocks.clear();
        mBytes = 0;
    }

private:
    struct Block {
        H5FD_mem_t type;
        std::vector<uint8_t> bytes;
    };
    static int rankOf(H5FD_mem_t type) {
        return type == H5FD_MEM_OHDR ? 2 : type == H5FD_MEM_SUPER ? 1 : 0;
    }

    std::map<haddr_t, Block> mBlocks;
    uint64_t mBytes = 0;
};

// HDF5 fills in the leading public part after open.
struct File {
    H5FD_t base;
    H5FD_t* inner = nullptr;
    std::vector<uint8_t> buffer; // raw data beyond the committed end, written behind
    haddr_t bufferAddress = 0;
    std::unique_ptr<HeldBlocks> held =
        std::make_unique<HeldBlocks>(); // a map has no standard layout
    haddr_t committedEnd = 0;           // the file's size at the last commit
    uint64_t sequence = 0;              // of the last commit's journal
    int failure = 0;                    // errno of the write that failed, for good
    int fd = -1;
    bool writable = false;
    bool dataSinceSync = true; // written since the last sync
    haddr_t writeBackFrom = 0; // write-back started up to here
    haddr_t lastStep = 0;      // where the last step began
    haddr_t waitedFor = 0;     // write-back waited for up to here
};
static_assert(std::is_standard_layout_v<File>, "HDF5 holds a File by its leading H5FD_t");

File* fileOf(H5FD_t* file) {
    return reinterpret_cast<File*>(file);
}
const File* fileOf(const H5FD_t* file) {
    return reinterpret_cast<const File*>(file);
}

// The open files, found by their descriptor from an HDF5 file identifier.
std::mutex gFilesMutex;
std::vector<File*> gFiles;

File* openFileOf(hid_t id) {
    void* handle = nullptr;
    if (H5Fget_vfd_handle(id, H5P_DEFAULT, &handle) < 0 || handle == nullptr) {
        return nullptr;
    }
    const int fd = *static_cast<int*>(handle);
    std::lock_guard<std::mutex> lock(gFilesMutex);
    for (File* file : gFiles) {
        if (file->fd == fd) {
            return file;
        }
    }
    return nullptr;
}

hid_t innerAccess() {
    static const hid_t access = [] {
        const hid_t id = H5Pcreate(H5P_FILE_ACCESS);
        if (id < 0 || H5Pset_fapl_sec2(id) < 0) {
            throw std::runtime_error("cannot set up HDF5's POSIX file driver");
        }
        return id;
    }();
    return access;
}

herr_t failWith(int error) {
    errno = error;
    return -1;
}

herr_t fail(File& file, int error) {
    file.failure = error != 0 ? error : EIO;
    return failWith(file.failure);
}

herr_t writeThrough(File& file, H5FD_mem_t type, haddr_t address, size_t size, const void* data) {
    logOperation(WriteBehindDriver::Operation::Write, address, data, size);
    file.dataSinceSync = true;
    errno = 0;
    if (H5FDwrite(file.inner, type, H5P_DEFAULT, address, size, data) < 0) {
        return fail(file, errno);
    }
    return 0;
}

herr_t syncFile(File& file) {
    logOperation(WriteBehindDriver::Operation::Sync);
    if (file.fd >= 0 && ::fdatasync(file.fd) != 0) {
        return fail(file, errno);
    }
    file.dataSinceSync = false;
    return 0;
}

// Bounds the data written but not yet on disk. Every kWriteBackBytes the kernel is asked to start
// writing the new step, and the step before the last one is waited for (it has had a step's time
// to reach the disk, so the wait is mostly none): on a slow card the recording then goes at the
// card's speed, instead of filling the board's memory with dirty pages that a stop or a commit's
// sync would then wait for all at once. The syncs see the failures.
void boundDirtyData(File& file, haddr_t end) {
    constexpr haddr_t kPage = 4096;
    const haddr_t to = end / kPage * kPage; // a partial last page will be written again
    if (file.fd < 0 || to < file.writeBackFrom + WriteBehindDriver::kWriteBackBytes) {
        return;
    }
    ::sync_file_range(file.fd, static_cast<off_t>(file.writeBackFrom),
                      static_cast<off_t>(to - file.writeBackFrom), SYNC_FILE_RANGE_WRITE);
    if (file.lastStep > file.waitedFor) {
        ::sync_file_range(file.fd, static_cast<off_t>(file.waitedFor),
                          static_cast<off_t>(file.lastStep - file.waitedFor),
                          SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE |
                              SYNC_FILE_RANGE_WAIT_AFTER);
        file.waitedFor = file.lastStep;
        logOperation(WriteBehindDriver::Operation::WrittenBack, file.waitedFor);
    }
    file.lastStep = file.writeBackFrom;
    file.writeBackFrom = to;
}

herr_t writeBuffer(File& file) {
    if (file.failure != 0) {
        return failWith(file.failure);
    }
    if (file.buffer.empty()) {
        return 0;
    }
    if (writeThrough(file, H5FD_MEM_DRAW, file.bufferAddress, file.buffer.size(),
                     file.buffer.data()) < 0) {
        return -1;
    }
    boundDirtyData(file, file.bufferAddress + file.buffer.size());
    file.buffer.clear();
    return 0;
}

herr_t commitFile(File& file) {
    if (writeBuffer(file) < 0 || (file.dataSinceSync && syncFile(file) < 0)) {
        return -1;
    }
    const haddr_t end = H5FDget_eoa(file.inner, H5FD_MEM_SUPER);
    if (file.held->empty() && end == file.committedEnd) {
        logOperation(WriteBehindDriver::Operation::Committed);
        return 0;
    }
    Journal journal{file.sequence + 1, end, file.held->inCommitOrder()};
    // A file that has never been committed has no checkpoint to keep: no journal for it.
    const bool journaled = file.committedEnd > 0;
    struct stat info {};
    if (journaled && ::fstat(file.fd, &info) != 0) {
        return fail(file, errno);
    }
    // Beyond everything, so that it overwrites nothing the last commit may need.
    const uint64_t at = std::max<uint64_t>(static_cast<uint64_t>(info.st_size), end);
    const std::vector<uint8_t> bytes =
        journaled ? encodeJournal(journal, at) : std::vector<uint8_t>();
    if (journaled) {
        logOperation(WriteBehindDriver::Operation::Write, at, bytes.data(), bytes.size());
    }
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t n = ::pwrite(file.fd, bytes.data() + done, bytes.size() - done,
                                   static_cast<off_t>(at + done));
        if (n <= 0 && !(n < 0 && errno == EINTR)) {
            return fail(file, n < 0 ? errno : EIO);
        }
        done += n > 0 ? static_cast<size_t>(n) : 0;
    }
    if (journaled && syncFile(file) < 0) {
        return -1;
    }
    for (const JournalBlock& block : journal.blocks) {
        if (writeThrough(file, H5FD_MEM_DEFAULT, block.address, block.bytes.size(),
                         block.bytes.data()) < 0) {
            return -1;
        }
    }
    if (syncFile(file) < 0) {
        return -1;
    }
    // Cut back to the new end: the journal is done with.
    logOperation(WriteBehindDriver::Operation::Truncate, end);
    if (H5FDtruncate(file.inner, H5P_DEFAULT, false) < 0 ||
        ::ftruncate(file.fd, static_cast<off_t>(end)) != 0) {
        return fail(file, errno);
    }
    file.committedEnd = end;
    file.sequence = journal.sequence;
    file.held->clear();
    logOperation(WriteBehindDriver::Operation::Committed);
    return 0;
}

H5FD_t* open(const char* name, unsigned flags, hid_t /*access*/, haddr_t maxAddress) {
    H5FD_t* inner = H5FDopen(name, flags, innerAccess(), maxAddress);
    if (inner == nullptr) {
        return nullptr;
    }
    auto* file = new (std::nothrow) File();
    if (file == nullptr) {
        H5FDclose(inner);
        return nullptr;
    }
    file->inner = inner;
    file->writable = (flags & H5F_ACC_RDWR) != 0;
    file->buffer.reserve(WriteBehindDriver::kBufferBytes);
    void* handle = nullptr;
    if (H5FDget_vfd_handle(inner, H5P_DEFAULT, &handle) >= 0 && handle != nullptr) {
        file->fd = *static_cast<int*>(handle);
    }
    // An existing file is on disk as it is.
    file->committedEnd = H5FDget_eof(inner, H5FD_MEM_SUPER);
    std::lock_guard<std::mutex> lock(gFilesMutex);
    gFiles.push_back(file);
    return &file->base;
}

herr_t close(H5FD_t* handle) {
    File* file = fileOf(handle);
    const herr_t committed = file->writable ? commitFile(*file) : 0;
    const int error = errno;
    const herr_t closed = H5FDclose(file->inner);
    {
        std::lock_guard<std::mutex> lock(gFilesMutex);
        gFiles.erase(std::remove(gFiles.begin(), gFiles.end(), file), gFiles.end());
    }
    delete file;
    return committed < 0 ? failWith(error) : closed;
}

int compare(const H5FD_t* a, const H5FD_t* b) {
    return H5FDcmp(fileOf(a)->inner, fileOf(b)->inner);
}

// Without the metadata accumulator: each block comes with its own kind, and holding the blocks
// in memory already does what it would.
herr_t query(const H5FD_t* handle, unsigned long* flags) {
    // A default file handle is only asked for its features.
    if (handle == nullptr) {
        *flags = H5FD_FEAT_AGGREGATE_METADATA | H5FD_FEAT_DATA_SIEVE |
                 H5FD_FEAT_AGGREGATE_SMALLDATA | H5FD_FEAT_POSIX_COMPAT_HANDLE;
        return 0;
    }
    if (H5FDquery(fileOf(handle)->inner, flags) < 0) {
        return -1;
    }
    *flags &= ~static_cast<unsigned long>(H5FD_FEAT_ACCUMULATE_METADATA);
    return 0;
}

haddr_t getEoa(const H5FD_t* handle, H5FD_mem_t type) {
    return H5FDget_eoa(fileOf(handle)->inner, type);
}

herr_t setEoa(H5FD_t* handle, H5FD_mem_t type, haddr_t address) {
    return H5FDset_eoa(fileOf(handle)->inner, type, address);
}

haddr_t getEof(const H5FD_t* handle, H5FD_mem_t type) {
    const File* file = fileOf(handle);
    const haddr_t eof = H5FDget_eof(file->inner, type);
    if (eof == HADDR_UNDEF) {
        return eof;
    }
    const haddr_t buffered = file->buffer.empty() ? 0 : file->bufferAddress + file->buffer.size();
    return std::max({eof, buffered, file->held->end()});
}

herr_t getHandle(H5FD_t* handle, hid_t access, void** osHandle) {
    return H5FDget_vfd_handle(fileOf(handle)->inner, access, osHandle);
}

herr_t read(H5FD_t* handle, H5FD_mem_t type, hid_t transfer, haddr_t address, size_t size,
            void* out) {
    File* file = fileOf(handle);
    const haddr_t bufferEnd = file->bufferAddress + file->buffer.size();
    if (!file->buffer.empty() && address < bufferEnd && file->bufferAddress < address + size &&
        writeBuffer(*file) < 0) {
        return -1;
    }
    if (H5FDread(file->inner, type, transfer, address, size, out) < 0) {
        return -1;
    }
    file->held->overlay(address, static_cast<uint8_t*>(out), size);
    return 0;
}

herr_t write(H5FD_t* handle, H5FD_mem_t type, hid_t /*transfer*/, haddr_t address, size_t size,
             const void* in) {
    File* file = fileOf(handle);
    if (file->failure != 0) {
        return failWith(file->failure);
    }
    const auto* bytes = static_cast<const uint8_t*>(in);
    if (type != H5FD_MEM_DRAW || address < file->committedEnd) {
        file->held->put(address, bytes, size, type);
        return 0;
    }
    const bool follows = address == file->bufferAddress + file->buffer.size();
    if (!file->buffer.empty() &&
        (!follows || file->buffer.size() + size > WriteBehindDriver::kBufferBytes) &&
        writeBuffer(*file) < 0) {
        return -1;
    }
    if (size >= WriteBehindDriver::kBufferBytes) {
        if (writeThrough(*file, type, address, size, in) < 0) {
            return -1;
        }
        boundDirtyData(*file, address + size);
        return 0;
    }
    if (file->buffer.empty()) {
        file->bufferAddress = address;
    }
    file->buffer.insert(file->buffer.end(), bytes, bytes + size);
    return 0;
}

// Neither a flush nor HDF5's truncate reaches the disk: only a commit does.
herr_t flush(H5FD_t* handle, hid_t /*transfer*/, hbool_t /*closing*/) {
    return writeBuffer(*fileOf(handle));
}

herr_t truncate(H5FD_t* handle, hid_t /*transfer*/, hbool_t /*closing*/) {
    return writeBuffer(*fileOf(handle));
}

herr_t lock(H5FD_t* handle, hbool_t readWrite) {
    return H5FDlock(fileOf(handle)->inner, readWrite);
}

herr_t unlock(H5FD_t* handle) {
    return H5FDunlock(fileOf(handle)->inner);
}

H5FD_class_t makeClass() {
    H5FD_class_t driver{};
#if H5_VERSION_GE(1, 13, 0)
    // HDF5 refuses a table of another layout; the values below H5_VFD_RESERVED are its own.
    driver.version = H5FD_CLASS_VERSION;
    driver.value = H5_VFD_RESERVED;
#endif
    driver.name = "quarvel_write_behind";
    driver.maxaddr = static_cast<haddr_t>(INT64_MAX);
    driver.fc_degree = H5F_CLOSE_WEAK;
    driver.open = open;
    driver.close = close;
    driver.cmp = compare;
    driver.query = query;
    driver.get_eoa = getEoa;
    driver.set_eoa = setEoa;
    driver.get_eof = getEof;
    driver.get_handle = getHandle;
    driver.read = read;
    driver.write = write;
    driver.flush = flush;
    driver.truncate = truncate;
    driver.lock = lock;
    driver.unlock = unlock;
    // Free space kept apart for raw data and metadata, as the POSIX driver does.
    const H5FD_mem_t map[] = H5FD_FLMAP_DICHOTOMY;
    std::copy(std::begin(map), std::end(map), std::begin(driver.fl_map));
    return driver;
}

} // namespace

bool WriteBehindDriver::commit(hid_t id) {
    File* file = openFileOf(id);
    if (file == nullptr) {
        errno = EBADF;
        return false;
    }
    return commitFile(*file) >= 0;
}

bool WriteBehindDriver::commit(H5FD_t* file) {
    return commitFile(*fileOf(file)) >= 0;
}

uint64_t WriteBehindDriver::heldBytes(hid_t id) {
    const File* file = openFileOf(id);
    return file == nullptr ? 0 : file->held->bytes();
}

uint64_t WriteBehindDriver::pendingBytes(hid_t id) {
    const File* file = openFileOf(id);
    return file == nullptr ? 0 : file->held->bytes() + file->buffer.size();
}

void WriteBehindDriver::setOperationLog(OperationLog log) {
    std::lock_guard<std::mutex> lock(gLogMutex);
    gLog = std::move(log);
}

H5::FileAccPropList WriteBehindDriver::fileAccess() {
    static const H5FD_class_t driver = makeClass();
    static const hid_t id = H5FDregister(&driver);
    H5::FileAccPropList access;
    if (id < 0 || H5Pset_driver(access.getId(), id, nullptr) < 0) {
        throw std::runtime_error("cannot set up HDF5's file driver");
    }
    return access;
}

} // namespace quarvel
