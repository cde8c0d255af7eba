#pragma once

#include "dataflow/AbstractRecorder.h"
#include "dataflow/WholeWords.h"
#include "platform/Logger.h"

#include <cstdint>
#include <cstdio>
#include <string>

namespace quarvel {

// sysfs control directory of the character device with device number rdev,
// "/sys/dev/char/MAJ:MIN/device/control".
std::string recorderSysfsRoot(uint64_t rdev);

// The FPGA recorder: programmed and queried through text attributes in its sysfs control
// directory, read through its character device. A read takes what the device has and never
// waits; waitForMaybeData waits at most 50 ms for more. A read returns whole words only: the
// 1 to 3 bytes of a word the device has not finished wait for the next read, which completes it.
// Not thread-safe: construction, configure and open on the chain-building thread, then read,
// waitForMaybeData and close on the one mover thread.
class Recorder : public AbstractRecorder, public virtual morvik::pellum::log::Logger {
public:
    // Finds the control directory from the device node's number; throws when the path
    // cannot be examined. The device is not opened.
    explicit Recorder(const std::string& devicePath);
    // Same, with the control directory given explicitly (the path must still exist).
    Recorder(const std::string& devicePath, const std::string& sysfsRoot);
    ~Recorder() override;

    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    void open(uint32_t totalSize) override;
    void close() override;
    uint32_t optimalReadSize() override { return 4; }
    uint32_t read(uint8_t* buffer, uint32_t bufferLen) override;
    void waitForMaybeData() override;
    bool isEndOfData() override;

    void start() override;
    void abort() override;
    bool isRunning() override;
    bool failed() override;
    std::string statusText() override;
    void configure(uint32_t srcAddr, uint32_t bytesCount, uint32_t dataRate) override;

    uint32_t readFromSysfs(const std::string& entryName);
    // Logs the path and the system's reason before it throws.
    void setToSysfs(const std::string& entryName, uint32_t value);

    const std::string& sysfsRoot() const { return mSysfsRoot; }

private:
    static constexpr uint32_t kRunning = 0x01;
    static constexpr uint32_t kBusy = 0x04;
    static constexpr uint32_t kAccessError = 0x08;
    static constexpr uint32_t kOutOfRangeError = 0x10;
    static constexpr uint32_t kFailureMask = kBusy | kAccessError | kOutOfRangeError;

    static constexpr int kWaitMs = 50;

    uint32_t readAvailable(uint8_t* buffer, uint32_t bufferLen);
    uint32_t readWholeWords(uint8_t* buffer, uint32_t bufferLen);
    uint64_t statDevice() const;
    std::string controlDirectoryOfDevice() const;
    void logSysfsRoot() const;

    std::string mDevicePath;
    std::string mSysfsRoot;                // fixed at construction
    FILE* mFile = nullptr;                 // null while the device is not open
    bool mEndOfFile = false;               // the last read found the end of the device
    bool mNothingPending = false;          // the last read found no data waiting
    uint8_t mPartialWord[kWordBytes] = {}; // the start of a word the device has not finished
    uint32_t mPartialBytes = 0;
};

} // namespace quarvel
