#pragma once

#include "dataflow/AbstractDataSink.h"
#include "dataflow/AbstractDataSource.h"
#include "dataflow/AbstractDecoder.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace quarvel::test {

// A source of `available` bytes with the pattern byte i = i % 251. Worker-thread state is
// only inspected once the mover has finished (its atomics order it).
class FakeSource : public AbstractDataSource {
public:
    explicit FakeSource(uint32_t available = 0) : mAvailable(available) {}

    void open(uint32_t) override { ++opens; }
    void close() override {
        ++closes;
        if (throwOnClose) {
            throw std::runtime_error("source close failed");
        }
    }
    uint32_t optimalReadSize() override { return readSize; }
    uint32_t read(uint8_t* buffer, uint32_t len) override {
        requests.push_back(len);
        if (emptyReadsLeft > 0) {
            --emptyReadsLeft;
            return 0;
        }
        if (failAtRead && requests.size() == failAtRead) {
            if (throwNonStd) {
                throw 7;
            }
            throw std::runtime_error("device exploded");
        }
        const uint32_t n = std::min(len, mAvailable - mProduced);
        for (uint32_t i = 0; i < n; ++i) {
            buffer[i] = static_cast<uint8_t>((mProduced + i) % 251);
        }
        mProduced += n;
        return n;
    }
    void waitForMaybeData() override {
        ++waits;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    bool isEndOfData() override { return mProduced == mAvailable; }

    uint32_t readSize = 4;
    unsigned emptyReadsLeft = 0;
    size_t failAtRead = 0;
    bool throwNonStd = false;
    bool throwOnClose = false;
    std::vector<uint32_t> requests;
    std::atomic<int> opens{0};
    std::atomic<int> closes{0};
    std::atomic<int> waits{0};

private:
    uint32_t mAvailable;
    uint32_t mProduced = 0;
};

class FakeSink : public AbstractDataSink {
public:
    uint32_t optimalWriteSize() override { return writeSize; }
    void open(uint32_t) override { ++opens; }
    void close() override {
        ++closes;
        if (throwOnClose) {
            throw std::runtime_error("disk full while flushing");
        }
    }
    uint32_t write(const uint8_t* buffer, uint32_t len) override {
        if (refuse) {
            return 0;
        }
        const uint32_t n = std::min(len, maxPerWrite);
        data.insert(data.end(), buffer, buffer + n);
        writes.push_back(n);
        return n;
    }

    uint32_t writeSize = 4;
    uint32_t maxPerWrite = UINT32_MAX;
    bool refuse = false;
    bool throwOnClose = false;
    std::vector<uint8_t> data;
    std::vector<uint32_t> writes;
    std::atomic<int> opens{0};
    std::atomic<int> closes{0};
};

class FakeDecoder : public AbstractDecoder {
public:
    void open(uint32_t) override {}
    void close() override {}
    uint32_t optimalReadSize() override { return 4; }
    uint32_t read(uint8_t*, uint32_t) override { return 0; }
    void waitForMaybeData() override {}
    bool isEndOfData() override { return false; }
    uint32_t outputSizeFor(uint32_t inputSize) override { return inputSize; }
    uint32_t optimalWriteSize() override { return 4; }
    uint32_t write(const uint8_t*, uint32_t len) override { return len; }
};

inline std::vector<uint8_t> pattern(uint32_t n) {
    std::vector<uint8_t> bytes(n);
    for (uint32_t i = 0; i < n; ++i) {
        bytes[i] = static_cast<uint8_t>(i % 251);
    }
    return bytes;
}

template <class Predicate> bool waitUntil(Predicate done, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace quarvel::test
