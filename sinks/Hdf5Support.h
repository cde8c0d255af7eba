#pragma once

// Small helpers around HDF5 for the sink: its errors as our messages, its metadata cache, and
// files whose close failed.

#include <H5Cpp.h>

#include <cstddef>
#include <memory>
#include <string>

namespace quarvel {

// Our log line carries HDF5's detail; its own error-stack dump would only flood the terminal.
// Debian builds the HDF5 C library thread-safe, which keeps that setting per thread, and the
// sink is called from two threads: each call turns it off for its thread while it lasts, and
// puts back what the thread had, so that the rest of the process still sees HDF5's errors.
class QuietHdf5Errors {
public:
    QuietHdf5Errors() noexcept;
    ~QuietHdf5Errors();
    QuietHdf5Errors(const QuietHdf5Errors&) = delete;
    QuietHdf5Errors& operator=(const QuietHdf5Errors&) = delete;

private:
    H5E_auto2_t mPrint = nullptr;
    void* mData = nullptr;
    bool mSaved = false;
};

const char* detailOf(const H5::Exception& error);
// The system's reason when HDF5 failed in a system call, else what HDF5 says.
std::string reasonOf(const H5::Exception& error, int systemError);

// The open file's metadata cache: its size limit (0 when it cannot be had), and a fixed size
// instead of HDF5's default one, which grows with the file.
size_t metadataCacheLimit(hid_t file);
bool limitMetadataCache(hid_t file, size_t bytes);

// HDF5 1.10 frees a file whose close failed while flushing but keeps its identifier, so any
// later close (the wrapper's destructor) touches freed memory. Such a wrapper is parked, still
// reachable, for the rest of the process instead of being destroyed.
void abandonFailedFile(std::unique_ptr<H5::H5File> file);
bool hasAbandonedHdf5Files();

} // namespace quarvel
