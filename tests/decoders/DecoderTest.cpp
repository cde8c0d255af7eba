// The decoders' queue between two movers, in the states that the program's runs do not reach.

#include "decoders/DecoderLumetraDds.h"
#include "decoders/DecoderTavoADC.h"

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <thread>
#include <vector>

namespace quarvel::test {
namespace {

using namespace std::chrono_literals;
using Samples = std::vector<int32_t>;

Samples readSamples(QueueDecoder& decoder, size_t maxSamples) {
    Samples samples(maxSamples);
    const uint32_t got = decoder.read(reinterpret_cast<uint8_t*>(samples.data()),
                                      static_cast<uint32_t>(maxSamples * 4));
    samples.resize(got / 4);
    return samples;
}

// Samples [first, first + count) of a sequence that sweeps the 14-bit range.
Samples samplesOf(size_t first, size_t count) {
    Samples samples;
    for (uint64_t i = first; i < first + count; ++i) {
        samples.push_back(static_cast<int32_t>((i * 7919 + 13) % 16384) - 8192);
    }
    return samples;
}

// As Tavo words with the low bits set: the shift must round negative samples down.
void writeSamples(QueueDecoder& decoder, size_t first, size_t count) {
    std::vector<uint8_t> bytes;
    for (const int32_t sample : samplesOf(first, count)) {
        const auto raw = static_cast<uint16_t>(static_cast<uint32_t>(sample) << 2 | 3u);
        bytes.insert(bytes.end(), {uint8_t(raw >> 8), uint8_t(raw), 0xA5, 0x5A});
    }
    decoder.write(bytes.data(), static_cast<uint32_t>(bytes.size()));
}

std::future<void> writeAsync(std::shared_ptr<QueueDecoder> decoder, size_t first, size_t count) {
    return std::async(std::launch::async, [=] { writeSamples(*decoder, first, count); });
}

bool blocked(std::future<void>& pending) {
    return pending.wait_for(50ms) == std::future_status::timeout;
}

// A hung write fails the test instead of hanging it: close and drain until it returns.
bool finishes(std::future<void>& pending, QueueDecoder& decoder) {
    const bool inTime = pending.wait_for(2s) == std::future_status::ready;
    while (blocked(pending)) {
        decoder.close();
        readSamples(decoder, 4096);
    }
    return inTime;
}

// Two samples per word in a queue of odd capacity: a word's samples straddle the queue's end,
// and a call let in past the capacity (here after a close) moves queued samples that wrap.
TEST(Decoders, PairsOfSamplesSurviveTheQueueWrappingAndGrowing) {
    DecoderLumetraDds decoder(7);
    decoder.open(0);
    decoder.open(0);
    int16_t next = 1;
    Samples expected, got;
    const auto writeWords = [&](size_t words) {
        std::vector<uint8_t> bytes;
        for (size_t i = 0; i < 2 * words; ++i, ++next) {
            bytes.insert(bytes.end(), {uint8_t(next), uint8_t(uint16_t(next) >> 8)});
            expected.push_back(next);
        }
        decoder.write(bytes.data(), static_cast<uint32_t>(bytes.size()));
    };
    const auto take = [&](size_t samples) {
        const Samples part = readSamples(decoder, samples);
        got.insert(got.end(), part.begin(), part.end());
    };
    writeWords(3);
    take(5);
    writeWords(2); // one sample left at the end of the queue, then it wraps
    decoder.close();
    writeWords(5);
    take(100);
    writeWords(1); // into a queue that gave its grown ring back
    take(100);
    EXPECT_EQ(got, expected);
}

// Regression: the queue grew without bound until the reader opened. Until then a full queue
// holds a writer only briefly, as a mover behind that failed to start would never make room.
TEST(Decoders, BeforeTheReaderOpensAWriterWaitsBrieflyAndOnceItOpensForRoom) {
    auto decoder = std::make_shared<DecoderTavoADC>(2);
    decoder->open(0);
    const auto start = std::chrono::steady_clock::now();
    for (size_t i = 0; i < 4; ++i) {
        auto lone = writeAsync(decoder, 2 * i, 2);
        ASSERT_TRUE(finishes(lone, *decoder));
    }
    EXPECT_GE(std::chrono::steady_clock::now() - start, 3 * QueueDecoder::kLoneWriterWait);
    EXPECT_EQ(readSamples(*decoder, 6), samplesOf(0, 6));

    auto pending = writeAsync(decoder, 8, 2);
    std::this_thread::sleep_for(QueueDecoder::kLoneWriterWait / 5); // into its timed wait
    decoder->open(0);
    EXPECT_EQ(pending.wait_for(3 * QueueDecoder::kLoneWriterWait), std::future_status::timeout);
    EXPECT_EQ(readSamples(*decoder, 100), samplesOf(6, 2));
    ASSERT_TRUE(finishes(pending, *decoder));
    EXPECT_EQ(readSamples(*decoder, 100), samplesOf(8, 2));
}

} // namespace
} // namespace quarvel::test
