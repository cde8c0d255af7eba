#include "sources/Recorder.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <exception>
#include <fstream>
#include <memory>
#include <stdexcept>

#include <sys/stat.h>

namespace quarvel {

using morvik::pellum::log::Severity;

std::string recorderSysfsRoot(uint64_t rdev) {
    // The C library's major()/minor() split, kept in 32 bits so that the result is the same
    // wherever long or dev_t differ in width.
    const uint32_t major =
        (static_cast<uint32_t>(rdev >> 8) & 0xFFFu) | (static_cast<uint32_t>(rdev >> 32) & ~0xFFFu);
    const uint32_t minor =
        (static_cast<uint32_t>(rdev) & 0xFFu) | (static_cast<uint32_t>(rdev >> 12) & ~0xFFu);
    return "/sys/dev/char/" + std::to_string(major) + ":" + std::to_string(minor) +
           "/device/control";
}

Recorder::Recorder(const std::string& devicePath)
    : morvik::pellum::log::Logger("Recoder", std::string(),
                                  std::make_shared<morvik::pellum::log::LoggerImpl>()),
      mDevicePath(devicePath), mSysfsRoot(controlDirectoryOfDevice()) {
    logSysfsRoot();
}

Recorder::Recorder(const std::string& devicePath, const std::string& sysfsRoot)
    : morvik::pellum::log::Logger("Recoder", std::string(),
                                  std::make_shared<morvik::pellum::log::LoggerImpl>()),
      mDevicePath(devicePath), mSysfsRoot(sysfsRoot) {
    statDevice();
    logSysfsRoot();
}

Recorder::~Recorder() {
    close();
}

uint64_t Recorder::statDevice() const {
    struct stat info {};
    if (::stat(mDevicePath.c_str(), &info) != 0) {
        pellumDoLog(Severity::Error, "::stat on recorder cdev failed with %d", {}, errno);
        throw std::runtime_error("Failed to get stat from cdev, file exist?");
    }
    return static_cast<uint64_t>(info.st_rdev);
}

std::string Recorder::controlDirectoryOfDevice() const {
    return recorderSysfsRoot(statDevice());
}

void Recorder::logSysfsRoot() const {
    pellumDoLog(Severity::Info, "Got recorder sysfsroot = %s", {}, mSysfsRoot.c_str());
}

void Recorder::open(uint32_t /*totalSize*/) {
    start();
}

void Recorder::close() {
    if (mFile != nullptr) {
        std::fclose(mFile);
        mFile = nullptr;
    }
}

uint32_t Recorder::read(uint8_t* buffer, uint32_t bufferLen) {
    try {
        pellumDoLog(Severity::Debug, "+read(bufferLen = %u)", {}, bufferLen);
        if (mFile == nullptr) {
            throw std::runtime_error("The recorder device is not open");
        }
        // One fread only: on an unbuffered stream the C library keeps reading the device until
        // the request is filled, the end of file or an error.
        const auto n = static_cast<uint32_t>(std::fread(buffer, 1, bufferLen, mFile));
        if (n != bufferLen) {
            if (std::feof(mFile)) {
                pellumDoLog(Severity::Info, "Reached end of file on recorder device", {});
            } else {
                pellumDoLog(Severity::Error, "Got error %d while reading on recorder device", {},
                            std::ferror(mFile));
            }
        }
        pellumDoLog(Severity::Debug, "-read: %u", {}, n);
        return n;
    } catch (const std::exception& e) {
        pellumDoLog(Severity::Error, "-read: throws %s", {}, e.what());
        throw;
    }
}

void Recorder::waitForMaybeData() {
    timespec wait{0, 50000000};
    timespec remaining{};
    while (::nanosleep(&wait, &remaining) != 0 && errno == EINTR) {
        wait = remaining;
    }
}

bool Recorder::isEndOfData() {
    return mFile != nullptr && std::feof(mFile) != 0;
}

void Recorder::start() {
    pellumDoLog(Severity::Info, "+start", {});
    FILE* file = std::fopen(mDevicePath.c_str(), "rb");
    if (file == nullptr) {
        const int error = errno;
        pellumDoLog(Severity::Error, "~start: cannot open %s: %s", {}, mDevicePath.c_str(),
                    std::strerror(error));
        throw std::runtime_error("Failed to open the recorder device for reading");
    }
    // Unbuffered: bytes go straight into the caller's buffer and nothing is read ahead.
    std::setbuf(file, nullptr);
    // A second start replaces a stream that is still open, once the new one is open: no
    // stream leaks, the old end-of-file and error indicators go, and a failed start keeps
    // the old stream.
    if (mFile != nullptr) {
        pellumDoLog(Severity::Warning, "~start: device was already open, reopened it", {});
        close();
    }
    mFile = file;
}

void Recorder::abort() {
    pellumDoLog(Severity::Warning, "abort", {});
}

bool Recorder::isRunning() {
    const int result = (readFromSysfs("status") & kRunning) != 0 ? 1 : 0;
    pellumDoLog(Severity::Debug, "-isRunning(): %d", {}, result);
    return result != 0;
}

bool Recorder::failed() {
    const int result = (readFromSysfs("status") & kFailureMask) != 0 ? 1 : 0;
    pellumDoLog(Severity::Debug, "-failed(): %d", {}, result);
    return result != 0;
}

std::string Recorder::statusText() {
    const uint32_t status = readFromSysfs("status");
    if (status & kBusy) {
        return "BUSY";
    }
    if (status & kAccessError) {
        return "ACCESS ERROR";
    }
    if (status & kOutOfRangeError) {
        return "OUT OF RANGE ERROR";
    }
    return std::string();
}

void Recorder::configure(uint32_t srcAddr, uint32_t bytesCount, uint32_t dataRate) {
    setToSysfs("srcmemaddr", srcAddr);
    setToSysfs("datacount", bytesCount);
    setToSysfs("datarate", dataRate);
}

uint32_t Recorder::readFromSysfs(const std::string& entryName) {
    pellumDoLog(Severity::Debug, "+readFromSysfs(entryName=%s)", {}, entryName.c_str());
    std::string token;
    {
        // A file that cannot be opened leaves the token empty, which the conversion rejects.
        std::ifstream in(mSysfsRoot + "/" + entryName);
        in >> token;
    }
    const unsigned long parsed = std::stoul(token, nullptr, 0);
    // Where long is 64 bits stoul accepts more than an attribute can hold; report it as
    // stoul does on the 32-bit target. (Two shifts: one by 32 is undefined for a 32-bit long.)
    if (((parsed >> 16) >> 16) != 0) {
        throw std::out_of_range("stoul");
    }
    const auto value = static_cast<uint32_t>(parsed);
    pellumDoLog(Severity::Debug, "-readFromSysfs(entryname=%s) returns 0x%08x", {},
                entryName.c_str(), value);
    return value;
}

void Recorder::setToSysfs(const std::string& entryName, uint32_t value) {
    pellumDoLog(Severity::Debug, "+setToSysfs(entryName=%s, value = 0x%08x)", {}, entryName.c_str(),
                value);
    std::ofstream out(mSysfsRoot + "/" + entryName, std::ios::out | std::ios::trunc);
    if (!out.is_open()) {
        throw std::runtime_error("Could not open sysfs entry");
    }
    // No line end: the attribute takes the bare number.
    out << value;
}

} // namespace quarvel
