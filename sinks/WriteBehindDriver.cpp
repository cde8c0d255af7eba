#include "sinks/WriteBehindDriver.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <mutex>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <vector>

#include <fcntl.h>

namespace quarvel {

namespace {

// HDF5 fills in the leading public part after open.
struct File {
    H5FD_t base;
    H5FD_t* inner = nullptr;
    std::vector<uint8_t> buffer;
    haddr_t bufferAddress = 0;
    int failure = 0; // errno of the write that failed, for good
    int fd = -1;     // the inner driver's, for write-back; -1 when it has none
    haddr_t writeBackFrom = 0;
};
static_assert(std::is_standard_layout_v<File>, "HDF5 holds a File by its leading H5FD_t");

File* fileOf(H5FD_t* file) {
    return reinterpret_cast<File*>(file);
}
const File* fileOf(const H5FD_t* file) {
    return reinterpret_cast<const File*>(file);
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

// Asks the kernel to start writing what has reached the file, up to end, once a few MiB have
// gathered: otherwise the close's fsync would wait for the whole file, after all the work, and a
// board would fill its memory with dirty pages. Only starts the writes, and reports no errors:
// the fsyncs of checkpoints and of the close still wait for them and see their failures.
void startWriteBack(File& file, haddr_t end) {
    constexpr haddr_t kPage = 4096;
    const haddr_t to = end / kPage * kPage; // a partial last page will be written again
    if (file.fd < 0 || to < file.writeBackFrom + WriteBehindDriver::kWriteBackBytes) {
        return;
    }
    ::sync_file_range(file.fd, static_cast<off_t>(file.writeBackFrom),
                      static_cast<off_t>(to - file.writeBackFrom), SYNC_FILE_RANGE_WRITE);
    file.writeBackFrom = to;
}

herr_t writeBuffer(File& file) {
    if (file.failure != 0) {
        return failWith(file.failure);
    }
    if (file.buffer.empty()) {
        return 0;
    }
    errno = 0;
    if (H5FDwrite(file.inner, H5FD_MEM_DRAW, H5P_DEFAULT, file.bufferAddress, file.buffer.size(),
                  file.buffer.data()) < 0) {
        file.failure = errno != 0 ? errno : EIO;
        return failWith(file.failure);
    }
    startWriteBack(file, file.bufferAddress + file.buffer.size());
    file.buffer.clear();
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
    file->buffer.reserve(WriteBehindDriver::kBufferBytes);
    void* handle = nullptr;
    if (H5FDget_vfd_handle(inner, H5P_DEFAULT, &handle) >= 0 && handle != nullptr) {
        file->fd = *static_cast<int*>(handle);
    }
    return &file->base;
}

herr_t close(H5FD_t* handle) {
    File* file = fileOf(handle);
    const herr_t written = writeBuffer(*file);
    const int error = errno;
    const herr_t closed = H5FDclose(file->inner);
    delete file;
    return written < 0 ? failWith(error) : closed;
}

int compare(const H5FD_t* a, const H5FD_t* b) {
    return H5FDcmp(fileOf(a)->inner, fileOf(b)->inner);
}

herr_t query(const H5FD_t* handle, unsigned long* flags) {
    // A default file handle is only asked for its features.
    if (handle == nullptr) {
        *flags = H5FD_FEAT_AGGREGATE_METADATA | H5FD_FEAT_ACCUMULATE_METADATA |
                 H5FD_FEAT_DATA_SIEVE | H5FD_FEAT_AGGREGATE_SMALLDATA |
                 H5FD_FEAT_POSIX_COMPAT_HANDLE;
        return 0;
    }
    return H5FDquery(fileOf(handle)->inner, flags) < 0 ? -1 : 0;
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
    const haddr_t buffered = file->bufferAddress + file->buffer.size();
    return file->buffer.empty() || eof == HADDR_UNDEF || eof >= buffered ? eof : buffered;
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
    return H5FDread(file->inner, type, transfer, address, size, out);
}

herr_t write(H5FD_t* handle, H5FD_mem_t type, hid_t transfer, haddr_t address, size_t size,
             const void* in) {
    File* file = fileOf(handle);
    if (file->failure != 0) {
        return failWith(file->failure);
    }
    const auto* bytes = static_cast<const uint8_t*>(in);
    if (type == H5FD_MEM_DRAW && size < WriteBehindDriver::kBufferBytes) {
        const bool follows = address == file->bufferAddress + file->buffer.size();
        if (!file->buffer.empty() &&
            (!follows || file->buffer.size() + size > WriteBehindDriver::kBufferBytes) &&
            writeBuffer(*file) < 0) {
            return -1;
        }
        if (file->buffer.empty()) {
            file->bufferAddress = address;
        }
        file->buffer.insert(file->buffer.end(), bytes, bytes + size);
        return 0;
    }
    if (writeBuffer(*file) < 0) {
        return -1;
    }
    errno = 0;
    if (H5FDwrite(file->inner, type, transfer, address, size, in) < 0) {
        // Metadata that did not reach the file would leave it pointing at the wrong places.
        file->failure = errno != 0 ? errno : EIO;
        return failWith(file->failure);
    }
    return 0;
}

herr_t flush(H5FD_t* handle, hid_t transfer, hbool_t closing) {
    File* file = fileOf(handle);
    if (writeBuffer(*file) < 0) {
        return -1;
    }
    return H5FDflush(file->inner, transfer, closing);
}

herr_t truncate(H5FD_t* handle, hid_t transfer, hbool_t closing) {
    File* file = fileOf(handle);
    if (writeBuffer(*file) < 0) {
        return -1;
    }
    return H5FDtruncate(file->inner, transfer, closing);
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
