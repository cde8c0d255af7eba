#include "sources/Recorder.h"

#include "platform/Sleep.h"
#include "platform/Waiting.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <exception>
#include <fstream>
#include <memory>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

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
    : morvik::pellum::log::Logger(makeLogger("Recoder")), mDevicePath(devicePath),
      mSysfsRoot(controlDirectoryOfDevice()) {
    logSysfsRoot();
}

Recorder::Recorder(const std::string& devicePath, const std::string& sysfsRoot)
    : morvik::pellum::log::Logger(makeLogger("Recoder")), mDevicePath(devicePath),
      mSysfsRoot(sysfsRoot) {
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
    if (mPartialBytes > 0) {
        // They cannot be a value; the file counts whole values only.
        pellumDoLog(Severity::Warning,
                    "%u bytes of an unfinished word from the recorder device were not stored", {},
                    mPartialBytes);
        mPartialBytes = 0;
    }
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
        const uint32_t n = readWholeWords(buffer, bufferLen);
        pellumDoLog(Severity::Debug, "-read: %u", {}, n);
        return n;
    } catch (const std::exception& e) {
        pellumDoLog(Severity::Error, "-read: throws %s", {}, e.what());
        throw;
    }
}

// A device hands over pieces of any size (a pipe, a slow producer, a driver's partial read);
// the unfinished word's bytes go in front of the next read's.
uint32_t Recorder::readWholeWords(uint8_t* buffer, uint32_t bufferLen) {
    const uint32_t room = wholeWordBytes(bufferLen);
    if (room == 0) {
        return 0;
    }
    std::memcpy(buffer, mPartialWord, mPartialBytes);
    const uint32_t got =
        mPartialBytes + readAvailable(buffer + mPartialBytes, room - mPartialBytes);
    const uint32_t whole = wholeWordBytes(got);
    mPartialBytes = got - whole;
    std::memcpy(mPartialWord, buffer + whole, mPartialBytes);
    return whole;
}

// One read(2) of what the device has now, never a wait: a device that stalls must not keep
// the mover (which may also be the file's writer) from seeing a stop.
uint32_t Recorder::readAvailable(uint8_t* buffer, uint32_t bufferLen) {
    const int fd = ::fileno(mFile);
    pollfd ready{fd, POLLIN, 0};
    mNothingPending = false;
    if (::poll(&ready, 1, 0) == 0) {
        mNothingPending = true;
        return 0;
    }
    const ssize_t n = ::read(fd, buffer, bufferLen);
    if (n > 0) {
        mEndOfFile = false;
        return static_cast<uint32_t>(n);
    }
    if (n == 0) {
        // Every later read tries again: a FIFO's writer may come back.
        mEndOfFile = true;
        pellumDoLog(Severity::Info, "Reached end of file on recorder device", {});
        return 0;
    }
    const int error = errno;
    if (error == EAGAIN || error == EWOULDBLOCK || error == EINTR) {
        return 0;
    }
    // 1 is the error indicator, as the C stream would report it.
    pellumDoLog(Severity::Error, "Got error %d while reading on recorder device", {}, 1);
    // The same text each time, so that the logger holds back the repeats of a failing device.
    pellumDoLog(Severity::Error, "reading %s failed: %s", {}, mDevicePath.c_str(),
                std::strerror(error));
    return 0;
}

void Recorder::waitForMaybeData() {
    if (mFile != nullptr && mNothingPending) {
        // Wakes as soon as the device has data; a signal only ends the wait early.
        pollfd ready{::fileno(mFile), POLLIN, 0};
        ::poll(&ready, 1, kWaitMs);
        return;
    }
    // At end of file or after an error poll would return at once: wait the full period.
    sleepFor(std::chrono::milliseconds(kWaitMs));
}

bool Recorder::isEndOfData() {
    return mFile != nullptr && mEndOfFile;
}

void Recorder::start() {
    pellumDoLog(Severity::Info, "+start", {});
    // Non-blocking: opening a FIFO without writer returns at once, and a read takes what is
    // there without waiting for more.
    const int fd = ::open(mDevicePath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    FILE* file = fd < 0 ? nullptr : ::fdopen(fd, "rb");
    if (file == nullptr) {
        const int error = errno;
        if (fd >= 0) {
            ::close(fd);
        }
        pellumDoLog(Severity::Error, "~start: cannot open %s: %s", {}, mDevicePath.c_str(),
                    std::strerror(error));
        throw std::runtime_error("Failed to open the recorder device for reading");
    }
    // The stream only holds the descriptor; reads bypass it, so it must buffer nothing.
    std::setbuf(file, nullptr);
    // A second start replaces a stream that is still open, once the new one is open: no
    // stream leaks, and a failed start keeps the old stream.
    if (mFile != nullptr) {
        pellumDoLog(Severity::Warning, "~start: device was already open, reopened it", {});
        close();
    }
    mFile = file;
    mEndOfFile = false;
    mNothingPending = false;
    mPartialBytes = 0;
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
    const std::string path = mSysfsRoot + "/" + entryName;
    // O_CREAT as the stream did before: a stand-in control directory starts empty. O_NONBLOCK:
    // an attribute that is no attribute (a FIFO) must not hold the run, or its stop, in open.
    const WaitingFor waiting(Waiting::Sysfs, path);
    const int fd =
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK, 0666);
    if (fd < 0) {
        pellumDoLog(Severity::Error, "cannot open sysfs entry %s: %s", {}, path.c_str(),
                    std::strerror(errno));
        throw std::runtime_error("Could not open sysfs entry");
    }
    // No line end: the attribute takes the bare number. A driver refuses a value by failing
    // the write, which a stream would only remember in its state.
    const std::string text = std::to_string(value);
    int error = 0;
    for (size_t done = 0; done < text.size() && error == 0;) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n == 0) {
            error = EIO; // nothing taken and no reason given: retrying would spin
        } else if (errno != EINTR) {
            error = errno;
        }
    }
    // Some file systems report a failed write only at close.
    if (::close(fd) != 0 && error == 0) {
        error = errno;
    }
    if (error != 0) {
        pellumDoLog(Severity::Error, "cannot write sysfs entry %s: %s", {}, path.c_str(),
                    std::strerror(error));
        throw std::runtime_error("Could not write sysfs entry");
    }
}

} // namespace quarvel
