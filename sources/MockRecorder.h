#pragma once

#include "dataflow/AbstractRecorder.h"

#include <cstdint>
#include <string>

namespace quarvel {

// Simulated recorder: delivers the configured number of bytes as the 32-bit counter values
// 0, 1, 2, ... in host byte order. Touches no device and logs nothing.
class MockRecorder : public AbstractRecorder {
public:
    MockRecorder() = default;

    void open(uint32_t /*totalSize*/) override {}
    void close() override {}
    uint32_t optimalReadSize() override { return 4; }
    uint32_t read(uint8_t* buffer, uint32_t bufferLen) override;
    void waitForMaybeData() override {}
    bool isEndOfData() override { return false; }

    void start() override { mNextValue = 0; }
    void abort() override { mNextValue = 0; }
    bool isRunning() override { return uint64_t{mNextValue} < mBytesCount / 4; }
    bool failed() override { return false; }
    std::string statusText() override { return "nothing"; }
    void configure(uint32_t srcAddr, uint32_t bytesCount, uint32_t dataRate) override;

private:
    uint32_t mNextValue = 0; // words produced since construction or the last start/abort
    uint64_t mBytesCount = 0;
};

} // namespace quarvel
