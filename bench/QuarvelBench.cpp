// Times the parts of a mock recording one at a time, so that the slowest stage of quarvel shows.
// Driven by bench/run; each mode prints one line of key=value pairs on standard output.
//
//   quarvel_bench info                     library versions
//   quarvel_bench zlib BYTES               deflate level 6 of the big-endian samples, 16 KiB
//                                          at a time, one reused zlib stream
//   quarvel_bench zlib-compress2 BYTES     the same with compress2 per chunk, as HDF5's deflate
//                                          filter calls it; on the main thread with glibc's
//                                          default thresholds this shows the allocator's cost
//   quarvel_bench source-decoder BYTES     MockRecorder -> DecoderTavoADC -> a discarding sink,
//                                          through two DataMovers as in the mock chain
//   quarvel_bench sink BYTES FILE          SinkHDF5 fed 128 KiB buffers of decoded samples
//
// The mock samples repeat every 65536 words (they depend on the low 16 bits of the counter only),
// so one precomputed period holds exactly the data of any recording.

#include "dataflow/AbstractDataSink.h"
#include "dataflow/DataMover.h"
#include "decoders/DecoderTavoADC.h"
#include "sinks/SinkHDF5.h"
#include "sources/MockRecorder.h"

#include <H5public.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kPeriodWords = 65536;
constexpr uint32_t kChunkBytes = 16384;
// How often the main thread looks whether the movers have finished: fine enough for the
// timings, coarse enough not to take CPU time from the movers.
constexpr std::chrono::milliseconds kPollPeriod{1};

// Written independently of DecoderTavoADC, so that the decoder's output can be checked against it.
int32_t mockSample(uint32_t counter) {
    const auto bigEndian =
        static_cast<uint16_t>(((counter & 0xFFu) << 8) | ((counter >> 8) & 0xFFu));
    return static_cast<int16_t>(bigEndian) >> 2;
}

// One period of samples as the sink receives them: int32 in host (little-endian) order.
std::vector<int32_t> hostPeriod() {
    std::vector<int32_t> samples(kPeriodWords);
    for (uint32_t k = 0; k < kPeriodWords; ++k) {
        samples[k] = mockSample(k);
    }
    return samples;
}

// The same period as the file stores it: big-endian int32.
std::vector<uint8_t> bigEndianPeriod() {
    std::vector<uint8_t> bytes(kPeriodWords * 4);
    for (uint32_t k = 0; k < kPeriodWords; ++k) {
        const auto value = static_cast<uint32_t>(mockSample(k));
        bytes[4 * k] = static_cast<uint8_t>(value >> 24);
        bytes[4 * k + 1] = static_cast<uint8_t>(value >> 16);
        bytes[4 * k + 2] = static_cast<uint8_t>(value >> 8);
        bytes[4 * k + 3] = static_cast<uint8_t>(value);
    }
    return bytes;
}

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

uint32_t parseBytes(const char* text) {
    char* end = nullptr;
    const unsigned long long value = std::strtoull(text, &end, 10);
    if (end == text || *end != '\0' || value == 0 || value > 0xFFFFFFFCull || value % 4 != 0) {
        throw std::invalid_argument(std::string("byte count must be a positive multiple of 4 "
                                                "below 4 GiB: ") +
                                    text);
    }
    return static_cast<uint32_t>(value);
}

// Compresses as HDF5's deflate filter does (compress2: a zlib stream of level 6 per chunk), with
// the stream reused through deflateReset: the same output without a malloc and free of the
// stream's 256 KiB state per chunk, so the figure is zlib's own work only.
int runZlib(uint32_t bytes, bool reuseStream) {
    const std::vector<uint8_t> period = bigEndianPeriod();
    std::vector<uint8_t> out(compressBound(kChunkBytes));
    z_stream stream{};
    if (reuseStream && deflateInit(&stream, 6) != Z_OK) {
        throw std::runtime_error("deflateInit failed");
    }
    unsigned long long compressed = 0;
    const auto start = Clock::now();
    for (uint64_t offset = 0; offset < bytes; offset += kChunkBytes) {
        const auto length = static_cast<uInt>(std::min<uint64_t>(kChunkBytes, bytes - offset));
        // The period holds whole chunks, so a chunk never wraps around its end.
        const uint8_t* chunk = period.data() + offset % period.size();
        uLongf outLength = static_cast<uLongf>(out.size());
        if (reuseStream) {
            deflateReset(&stream);
            stream.next_in = const_cast<Bytef*>(chunk); // zlib 1.2 takes a non-const pointer
            stream.avail_in = length;
            stream.next_out = out.data();
            stream.avail_out = static_cast<uInt>(out.size());
            if (deflate(&stream, Z_FINISH) != Z_STREAM_END) {
                throw std::runtime_error("deflate did not finish a chunk");
            }
            outLength = stream.total_out;
        } else if (compress2(out.data(), &outLength, chunk, length, 6) != Z_OK) {
            throw std::runtime_error("compress2 failed");
        }
        compressed += outLength;
    }
    const double seconds = secondsSince(start);
    if (reuseStream) {
        deflateEnd(&stream);
    }
    std::printf("seconds=%.6f bytes=%u compressed=%llu\n", seconds, bytes, compressed);
    return 0;
}

// The far end of the source-decoder stage: takes everything and checks it against the
// expected samples (a memcmp, cheap next to decoding).
class CheckingSink final : public quarvel::AbstractDataSink {
public:
    uint32_t optimalWriteSize() override { return kChunkBytes; } // what SinkHDF5 announces
    void open(uint32_t /*totalSize*/) override {}
    void close() override {}
    uint32_t write(const uint8_t* buffer, uint32_t len) override {
        uint32_t done = 0;
        while (done < len) {
            const uint32_t inPeriod = mOffset % kPeriodBytes;
            const uint32_t part = std::min(len - done, kPeriodBytes - inPeriod);
            const auto* expected = reinterpret_cast<const uint8_t*>(mExpected.data()) + inPeriod;
            if (std::memcmp(buffer + done, expected, part) != 0) {
                mMismatch.store(true);
            }
            done += part;
            mOffset += part;
        }
        return len;
    }
    bool mismatch() const { return mMismatch.load(); }

private:
    static constexpr uint32_t kPeriodBytes = kPeriodWords * 4;
    const std::vector<int32_t> mExpected = hostPeriod();
    uint32_t mOffset = 0;
    std::atomic<bool> mMismatch{false};
};

void waitForMovers(quarvel::DataMover& first, quarvel::DataMover& second) {
    while (!(first.isFinished() && second.isFinished())) {
        if (first.failed() || second.failed()) {
            break;
        }
        std::this_thread::sleep_for(kPollPeriod);
    }
    for (auto* mover : {&first, &second}) {
        if (mover->failed()) {
            throw std::runtime_error("data mover " + mover->name() +
                                     " failed: " + mover->errorText());
        }
    }
}

int runSourceDecoder(uint32_t bytes) {
    auto recorder = std::make_shared<quarvel::MockRecorder>();
    auto decoder = std::make_shared<quarvel::DecoderTavoADC>();
    auto sink = std::make_shared<CheckingSink>();
    recorder->configure(0, bytes, 0);
    quarvel::DataMover toDecoder(recorder, decoder, "0");
    quarvel::DataMover fromDecoder(decoder, sink, "1");

    const auto start = Clock::now();
    // The order of the transfer run: the first mover is started first.
    recorder->start();
    toDecoder.start(bytes);
    fromDecoder.start(decoder->outputSizeFor(bytes));
    waitForMovers(toDecoder, fromDecoder);
    const double seconds = secondsSince(start);

    if (sink->mismatch()) {
        throw std::runtime_error("decoded samples differ from the expected ones");
    }
    std::printf("seconds=%.6f bytes=%u peak_queue_samples=%zu\n", seconds, bytes,
                decoder->peakBufferedSamples());
    return 0;
}

// Hands out the decoded samples of a recording, already decoded: a copy out of one period.
class DecodedSource final : public quarvel::AbstractDataSource {
public:
    void open(uint32_t totalSize) override {
        mRemaining = totalSize;
        mOffset = 0;
    }
    void close() override {}
    uint32_t optimalReadSize() override { return 4; }
    uint32_t read(uint8_t* buffer, uint32_t bufferLen) override {
        const uint32_t length = std::min(bufferLen, mRemaining);
        uint32_t done = 0;
        while (done < length) {
            const uint32_t part = std::min(length - done, kPeriodBytes - mOffset);
            std::memcpy(buffer + done, mSamples.data() + mOffset, part);
            done += part;
            mOffset = (mOffset + part) % kPeriodBytes;
        }
        mRemaining -= length;
        return length;
    }
    void waitForMaybeData() override {}
    bool isEndOfData() override { return mRemaining == 0; }

private:
    static constexpr uint32_t kPeriodBytes = kPeriodWords * 4;
    const std::vector<int32_t> mPeriod = hostPeriod();
    const std::vector<uint8_t> mSamples{reinterpret_cast<const uint8_t*>(mPeriod.data()),
                                        reinterpret_cast<const uint8_t*>(mPeriod.data()) +
                                            kPeriodBytes};
    uint32_t mRemaining = 0;
    uint32_t mOffset = 0;
};

// The sink behind a DataMover as in quarvel: opened on this thread, written and closed on the
// mover's.
int runSink(uint32_t bytes, const std::string& file) {
    quarvel::keepFreedMemoryForChunks(); // as quarvel's main does
    auto source = std::make_shared<DecodedSource>();
    auto sink = std::make_shared<quarvel::SinkHDF5>(file);
    quarvel::DataMover toFile(source, sink, "1");

    const auto start = Clock::now();
    toFile.start(bytes);
    while (!toFile.isFinished()) {
        std::this_thread::sleep_for(kPollPeriod);
    }
    const double seconds = secondsSince(start);
    if (toFile.failed()) {
        throw std::runtime_error("data mover failed: " + toFile.errorText());
    }
    std::printf("seconds=%.6f bytes=%u\n", seconds, bytes);
    return 0;
}

int runInfo() {
    unsigned major = 0;
    unsigned minor = 0;
    unsigned release = 0;
    H5get_libversion(&major, &minor, &release);
    std::printf("zlib=%s hdf5=%u.%u.%u compiler=%s\n", zlibVersion(), major, minor, release,
                __VERSION__);
    return 0;
}

int usage() {
    std::fprintf(stderr, "usage: quarvel_bench info | zlib BYTES | zlib-compress2 BYTES | "
                         "source-decoder BYTES | sink BYTES FILE\n");
    return 1;
}

} // namespace

int main(int argc, char** argv) {
    try {
        const std::string mode = argc > 1 ? argv[1] : "";
        if (mode == "info" && argc == 2) {
            return runInfo();
        }
        if (mode == "zlib" && argc == 3) {
            return runZlib(parseBytes(argv[2]), true);
        }
        if (mode == "zlib-compress2" && argc == 3) {
            return runZlib(parseBytes(argv[2]), false);
        }
        if (mode == "source-decoder" && argc == 3) {
            return runSourceDecoder(parseBytes(argv[2]));
        }
        if (mode == "sink" && argc == 4) {
            return runSink(parseBytes(argv[2]), argv[3]);
        }
        return usage();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "quarvel_bench: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "quarvel_bench: HDF5 failed (can the file be created?)\n");
    }
    return 2;
}
