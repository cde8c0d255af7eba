#include "decoders/DecoderLumetraDds.h"
#include "decoders/DecoderTavoADC.h"
#include "tests/decoders/DecoderTestHelpers.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

namespace quarvel::test {
namespace {

using Clock = std::chrono::steady_clock;
using Samples = std::vector<int32_t>;

// Reference encoders, written from the word formats rather than from the decoders.
std::vector<uint8_t> encodeTavo(const Samples& samples) {
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < samples.size(); ++i) {
        const auto raw = static_cast<uint16_t>(static_cast<uint32_t>(samples[i]) << 2 | (i & 3u));
        bytes.insert(bytes.end(), {static_cast<uint8_t>(raw >> 8), static_cast<uint8_t>(raw),
                                   static_cast<uint8_t>(i), 0xA5});
    }
    return bytes;
}

std::vector<uint8_t> encodeLumetra(const Samples& samples) {
    std::vector<uint8_t> bytes;
    for (const int32_t sample : samples) {
        const auto raw = static_cast<uint16_t>(sample);
        bytes.insert(bytes.end(), {static_cast<uint8_t>(raw), static_cast<uint8_t>(raw >> 8)});
    }
    return bytes;
}

struct DecoderKind {
    std::string name;
    std::function<std::shared_ptr<QueueDecoder>(size_t capacity)> make;
    size_t samplesPerWord;
    std::function<std::vector<uint8_t>(const Samples&)> encode;
    int32_t minSample;
    int32_t maxSample;
};

void PrintTo(const DecoderKind& kind, std::ostream* out) {
    *out << kind.name;
}

const DecoderKind kTavo{
    "Tavo", [](size_t capacity) { return std::make_shared<DecoderTavoADC>(capacity); },
    1,      encodeTavo,
    -8192,  8191};
const DecoderKind kLumetra{
    "Lumetra", [](size_t capacity) { return std::make_shared<DecoderLumetraDds>(capacity); },
    2,         encodeLumetra,
    -32768,    32767};

// A deterministic sequence that sweeps the decoder's whole sample range.
Samples makeSamples(const DecoderKind& kind, size_t first, size_t count) {
    const uint64_t range = static_cast<uint64_t>(kind.maxSample - kind.minSample) + 1;
    Samples samples(count);
    for (size_t i = 0; i < count; ++i) {
        samples[i] =
            kind.minSample + static_cast<int32_t>(((first + i) * uint64_t{7919} + 13) % range);
    }
    return samples;
}

// Generous bound for "does not hang"; no speed is measured with it.
constexpr auto kNoHang = std::chrono::seconds(2);

class BothDecoders : public ::testing::TestWithParam<DecoderKind> {
protected:
    const DecoderKind& kind() const { return GetParam(); }

    // Opened by both movers, as in a running chain: only then does a full queue block.
    std::shared_ptr<QueueDecoder> makeRunning(size_t capacity) {
        auto decoder = kind().make(capacity);
        decoder->open(0);
        decoder->open(0);
        return decoder;
    }

    // Writes the samples [first, first + count); count is a multiple of samplesPerWord.
    uint32_t writeSamples(QueueDecoder& decoder, size_t first, size_t count) {
        return writeBytes(decoder, kind().encode(makeSamples(kind(), first, count)));
    }

    // A write on its own thread, for cases where it is expected to block.
    std::future<uint32_t> writeAsync(const std::shared_ptr<QueueDecoder>& decoder, size_t first,
                                     size_t count) {
        return std::async(std::launch::async, [this, decoder, first, count] {
            return writeSamples(*decoder, first, count);
        });
    }

    // Waits for a pending write. If it hangs, closes the decoder and drains the queue so
    // that the test fails instead of hanging itself.
    static bool finishes(std::future<uint32_t>& pending, QueueDecoder& decoder) {
        if (pending.wait_for(kNoHang) == std::future_status::ready) {
            return true;
        }
        decoder.close();
        do {
            readSamples(decoder, 4096);
        } while (pending.wait_for(std::chrono::milliseconds(10)) != std::future_status::ready);
        return false;
    }
};

TEST_P(BothDecoders, WriteOfPartialWordThrowsAndBuffersNothing) {
    auto decoder = makeRunning(64);
    writeSamples(*decoder, 0, kind().samplesPerWord);
    StderrCapture log(5);
    const uint8_t bytes[6] = {1, 2, 3, 4, 5, 6};
    try {
        decoder->write(bytes, sizeof bytes);
        FAIL() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "buffer_count not a multiple of four, not supported");
    }
    EXPECT_NE(log.text().find("FATAL [DecoderInt32LEToCutInt16LE] buffer_count % 4 != 0: not "
                              "supported\n"),
              std::string::npos);
    EXPECT_EQ(readSamples(*decoder, 100), makeSamples(kind(), 0, kind().samplesPerWord));
}

TEST_P(BothDecoders, ReadHandsOutWholeSamplesOnlyAndLeavesTheRest) {
    auto decoder = makeRunning(64);
    writeSamples(*decoder, 0, 4);
    const Samples expected = makeSamples(kind(), 0, 4);
    EXPECT_EQ(readSamples(*decoder, 1), Samples{expected[0]});
    ASSERT_EQ(decoder->bufferedSamples(), 3u);

    uint8_t out[8];
    std::memset(out, 0xEE, sizeof out);
    EXPECT_EQ(decoder->read(out, 8), 8u);
    int32_t two[2];
    std::memcpy(two, out, sizeof two);
    EXPECT_EQ(two[0], expected[1]);
    EXPECT_EQ(two[1], expected[2]);
    EXPECT_EQ(decoder->bufferedSamples(), 1u);

    std::memset(out, 0xEE, sizeof out);
    EXPECT_EQ(decoder->read(out, 6), 4u);
    int32_t last = 0;
    std::memcpy(&last, out, sizeof last);
    EXPECT_EQ(last, expected[3]);
    EXPECT_EQ(out[4], 0xEE);
    EXPECT_EQ(out[5], 0xEE);

    EXPECT_EQ(decoder->read(out, 8), 0u);
    EXPECT_FALSE(decoder->isEndOfData());
}

TEST_P(BothDecoders, ReadOfZeroBytesLogsAndTakesNothing) {
    auto decoder = makeRunning(64);
    writeSamples(*decoder, 0, 2);
    StderrCapture log(5);
    uint8_t out[4] = {};
    EXPECT_EQ(decoder->read(out, 0), 0u);
    EXPECT_NE(log.text().find("ERROR [DecoderInt32LEToCutInt16LE] Reading 0 bytes\n"),
              std::string::npos);
    EXPECT_EQ(decoder->bufferedSamples(), 2u);
}

TEST_P(BothDecoders, WriteOfZeroBytesBuffersNothing) {
    auto decoder = makeRunning(4);
    EXPECT_EQ(decoder->write(nullptr, 0), 0u);
    EXPECT_EQ(decoder->bufferedSamples(), 0u);
}

TEST_P(BothDecoders, TracesQueueSizesAtDebugSeverity) {
    auto decoder = makeRunning(64);
    StderrCapture log(5);
    writeSamples(*decoder, 0, 2 * kind().samplesPerWord);
    readSamples(*decoder, 1);
    decoder->waitForMaybeData();
    const std::string text = log.text();
    const std::string prefix = "DEBUG [DecoderInt32LEToCutInt16LE] ";
    const size_t written = 2 * kind().samplesPerWord;
    EXPECT_NE(text.find(prefix + "-write: mBuffer.size() = " + std::to_string(written) + "\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find(prefix + "-read, read 1 elements, mBuffer.size() = " +
                        std::to_string(written - 1) + "\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find(prefix + "+waitForMaybeData\n"), std::string::npos) << text;
    EXPECT_NE(text.find(prefix + "-waitForMaybeData\n"), std::string::npos) << text;
}

TEST_P(BothDecoders, StreamsMillionsOfSamplesInOrderWithinItsCapacity) {
    constexpr size_t kCapacity = 1024;
    constexpr size_t kTotal = 2 * 1024 * 1024;
    auto decoder = makeRunning(kCapacity);
    const size_t perWord = kind().samplesPerWord;

    std::thread writer([&] {
        size_t sent = 0;
        uint32_t step = 1;
        while (sent < kTotal) {
            // Varying call sizes, from one word up to the whole capacity.
            step = step * 1103515245u + 12345u;
            size_t count = (1 + (step >> 8) % (kCapacity / perWord)) * perWord;
            count = std::min(count, kTotal - sent);
            writeSamples(*decoder, sent, count);
            sent += count;
        }
        decoder->close();
    });

    Samples received;
    received.reserve(kTotal);
    std::vector<uint8_t> buffer(4 * 4096);
    uint32_t step = 7;
    const auto deadline = Clock::now() + std::chrono::seconds(120);
    while (received.size() < kTotal && Clock::now() < deadline) {
        step = step * 1103515245u + 12345u;
        const uint32_t request = 4 * (1 + (step >> 8) % 4096);
        const uint32_t got = decoder->read(buffer.data(), request);
        if (got % 4 != 0 || got > request) {
            ADD_FAILURE() << "read returned " << got << " for a request of " << request;
            break;
        }
        if (got == 0) {
            decoder->waitForMaybeData();
            continue;
        }
        const size_t before = received.size();
        received.resize(before + got / 4);
        std::memcpy(received.data() + before, buffer.data(), got);
    }
    decoder->close(); // frees the writer if the reader gave up early
    writer.join();

    ASSERT_EQ(received.size(), kTotal);
    const Samples expected = makeSamples(kind(), 0, kTotal);
    for (size_t i = 0; i < kTotal; ++i) {
        ASSERT_EQ(received[i], expected[i]) << "sample " << i;
    }
    EXPECT_LE(decoder->peakBufferedSamples(), kCapacity);
    EXPECT_GT(decoder->peakBufferedSamples(), 0u);
    EXPECT_EQ(decoder->bufferedSamples(), 0u);
}

TEST_P(BothDecoders, FullQueueBlocksTheWriterUntilAReadMakesRoom) {
    const size_t perWord = kind().samplesPerWord;
    const size_t capacity = 4 * perWord;
    auto decoder = makeRunning(capacity);
    writeSamples(*decoder, 0, capacity);

    auto pending = writeAsync(decoder, capacity, perWord);
    EXPECT_EQ(pending.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    EXPECT_EQ(decoder->bufferedSamples(), capacity);

    // Room for fewer samples than the call brings is not enough.
    if (perWord > 1) {
        readSamples(*decoder, perWord - 1);
        EXPECT_EQ(pending.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
        readSamples(*decoder, 1);
    } else {
        readSamples(*decoder, perWord);
    }
    ASSERT_TRUE(finishes(pending, *decoder));
    EXPECT_EQ(pending.get(), 4u);
    EXPECT_EQ(readSamples(*decoder, 100), makeSamples(kind(), perWord, capacity));
    EXPECT_LE(decoder->peakBufferedSamples(), capacity);
}

TEST_P(BothDecoders, CloseReleasesAWriterBlockedOnAFullQueue) {
    const size_t perWord = kind().samplesPerWord;
    auto decoder = makeRunning(2 * perWord);
    writeSamples(*decoder, 0, 2 * perWord);

    auto pending = writeAsync(decoder, 2 * perWord, perWord);
    EXPECT_EQ(pending.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    decoder->close();
    ASSERT_TRUE(finishes(pending, *decoder));
    EXPECT_EQ(pending.get(), 4u);

    // Once closed, nobody may be left waiting for room: later writes go through too.
    auto later = writeAsync(decoder, 3 * perWord, perWord);
    ASSERT_TRUE(finishes(later, *decoder));
    EXPECT_EQ(readSamples(*decoder, 100), makeSamples(kind(), 0, 4 * perWord));
}

TEST_P(BothDecoders, CallLargerThanTheCapacityGoesInWhenTheQueueIsEmpty) {
    const size_t perWord = kind().samplesPerWord;
    auto decoder = makeRunning(2 * perWord);
    auto pending = writeAsync(decoder, 0, 16 * perWord);
    ASSERT_TRUE(finishes(pending, *decoder));
    EXPECT_EQ(readSamples(*decoder, 100), makeSamples(kind(), 0, 16 * perWord));
}

// Guards against a hang at abort: when the mover behind a decoder fails to start, nothing
// ever reads, and the mover in front must still be able to finish each write, if late.
TEST_P(BothDecoders, BeforeTheReaderHasOpenedAFullQueueHoldsAWriterOnlyBriefly) {
    const size_t perWord = kind().samplesPerWord;
    auto decoder = kind().make(2 * perWord);
    decoder->open(0);
    const auto start = Clock::now();
    auto pending = std::async(std::launch::async, [this, decoder, perWord] {
        for (size_t i = 0; i < 4; ++i) {
            writeSamples(*decoder, i * 2 * perWord, 2 * perWord);
        }
        return uint32_t{0};
    });
    ASSERT_TRUE(finishes(pending, *decoder));
    EXPECT_GE(Clock::now() - start, 3 * QueueDecoder::kLoneWriterWait);
    EXPECT_EQ(decoder->bufferedSamples(), 8 * perWord);
}

// The queue is bounded from the first write on: a writer that is waiting when the reader
// opens goes on waiting for room instead of appending at its timeout.
TEST_P(BothDecoders, WriterWaitingWhenTheReaderOpensWaitsForRoom) {
    const size_t perWord = kind().samplesPerWord;
    auto decoder = kind().make(2 * perWord);
    decoder->open(0);
    writeSamples(*decoder, 0, 2 * perWord);
    auto pending = writeAsync(decoder, 2 * perWord, 2 * perWord);
    decoder->open(0);
    EXPECT_EQ(pending.wait_for(3 * QueueDecoder::kLoneWriterWait), std::future_status::timeout);
    EXPECT_EQ(decoder->bufferedSamples(), 2 * perWord);

    EXPECT_EQ(readSamples(*decoder, 2 * perWord), makeSamples(kind(), 0, 2 * perWord));
    ASSERT_TRUE(finishes(pending, *decoder));
    EXPECT_EQ(readSamples(*decoder, 100), makeSamples(kind(), 2 * perWord, 2 * perWord));
    EXPECT_EQ(decoder->peakBufferedSamples(), 2 * perWord);
}

TEST_P(BothDecoders, IdleWaitForMaybeDataReturnsWithinItsBound) {
    auto decoder = makeRunning(64);
    const auto start = Clock::now();
    decoder->waitForMaybeData();
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(1));
}

TEST_P(BothDecoders, WaitForMaybeDataAfterCloseStillWaitsForItsTimeout) {
    auto decoder = makeRunning(64);
    decoder->close();
    // A wait that returned at once after a close would make the mover behind spin.
    const auto start = Clock::now();
    for (int i = 0; i < 3; ++i) {
        decoder->waitForMaybeData();
    }
    const auto elapsed = Clock::now() - start;
    EXPECT_GE(elapsed, 3 * QueueDecoder::kWaitTimeout);
    EXPECT_LT(elapsed, std::chrono::seconds(3));
}

TEST_P(BothDecoders, WaitForMaybeDataReturnsAtOnceWhileSamplesAreBuffered) {
    auto decoder = makeRunning(64);
    writeSamples(*decoder, 0, kind().samplesPerWord);
    // 100 waits of the full timeout would take two seconds.
    const auto start = Clock::now();
    for (int i = 0; i < 100; ++i) {
        decoder->waitForMaybeData();
    }
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(1));
}

TEST_P(BothDecoders, RefusesAZeroCapacity) {
    EXPECT_THROW(kind().make(0), std::invalid_argument);
}

INSTANTIATE_TEST_SUITE_P(Decoders, BothDecoders, ::testing::Values(kTavo, kLumetra),
                         [](const ::testing::TestParamInfo<DecoderKind>& param) {
                             return param.param.name;
                         });

} // namespace
} // namespace quarvel::test
