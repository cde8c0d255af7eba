#include "decoders/DecoderLumetraDds.h"
#include "decoders/DecoderTavoADC.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

namespace quarvel::test {
namespace {

using Bytes = std::vector<uint8_t>;
using Samples = std::vector<int32_t>;
using Clock = std::chrono::steady_clock;

uint32_t writeBytes(QueueDecoder& decoder, const Bytes& bytes) {
    return decoder.write(bytes.data(), static_cast<uint32_t>(bytes.size()));
}

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

// Encodes the samples as Tavo words, from the word format rather than from the decoder.
uint32_t writeSamples(QueueDecoder& decoder, size_t first, size_t count) {
    Bytes bytes;
    for (const int32_t sample : samplesOf(first, count)) {
        // Low bits set: the shift must round negative samples towards minus infinity.
        const auto raw = static_cast<uint16_t>(static_cast<uint32_t>(sample) << 2 | 3u);
        bytes.insert(bytes.end(), {uint8_t(raw >> 8), uint8_t(raw), 0xA5, 0x5A});
    }
    return writeBytes(decoder, bytes);
}

std::future<uint32_t> writeAsync(std::shared_ptr<QueueDecoder> decoder, size_t first,
                                 size_t count) {
    return std::async(std::launch::async, [=] { return writeSamples(*decoder, first, count); });
}

// Opened by both movers, as in a running chain.
std::shared_ptr<QueueDecoder> makeRunning(size_t capacity) {
    auto decoder = std::make_shared<DecoderTavoADC>(capacity);
    decoder->open(0);
    decoder->open(0);
    return decoder;
}

bool blocked(std::future<uint32_t>& pending) {
    return pending.wait_for(std::chrono::milliseconds(50)) == std::future_status::timeout;
}

// A hung write fails the test instead of hanging it: close and drain until it returns.
bool finishes(std::future<uint32_t>& pending, QueueDecoder& decoder) {
    if (pending.wait_for(std::chrono::seconds(2)) == std::future_status::ready) {
        return true;
    }
    decoder.close();
    while (blocked(pending)) {
        readSamples(decoder, 4096);
    }
    return false;
}

TEST(Decoders, DecodeTheirWordFormatsAndSizeTheirOutput) {
    const std::pair<Bytes, Samples> cases[] = {
        {{0x01, 0x00, 0xAA, 0xBB, 0x80, 0x00, 0xCC, 0xDD}, {64, -8192}},
        // The mock recorder's counter words 0, 1, 2, 255, 256, little-endian.
        {{0, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 255, 0, 0, 0, 0, 1, 0, 0}, {0, 64, 128, -64, 0}},
        {{0x7F, 0xFF, 0, 0, 0xFF, 0xFF, 0, 0, 0xFF, 0xFB, 0, 0}, {8191, -1, -2}},
    };
    for (const auto& [bytes, samples] : cases) { // Tavo: the top 14 bits of the first two bytes
        DecoderTavoADC decoder;
        EXPECT_EQ(writeBytes(decoder, bytes), bytes.size());
        EXPECT_EQ(readSamples(decoder, 16), samples);
    }
    EXPECT_EQ(DecoderTavoADC().outputSizeFor(4096), 4096u);

    // Lumetra: two little-endian signed 16-bit samples per word.
    DecoderLumetraDds lumetra;
    EXPECT_EQ(writeBytes(lumetra, {0x01, 0x00, 0xFF, 0xFF, 0x00, 0x80, 0xFE, 0x7F}), 8u);
    EXPECT_EQ(readSamples(lumetra, 16), (Samples{1, -1, -32768, 32766}));
    EXPECT_EQ(lumetra.outputSizeFor(4096), 8192u);
    EXPECT_EQ(lumetra.outputSizeFor(0x7FFFFFFCu), 0xFFFFFFF8u);
    try {
        lumetra.outputSizeFor(0x80000004u);
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "data-bytes too large for the Lumetra DDS decoder: 2147483652 "
                               "bytes decode to more than 4294967295 bytes");
    }
}

TEST(Decoders, ReadsHandOutWholeSamplesAndWaitingEndsWhileAnyAreBuffered) {
    auto decoder = makeRunning(64);
    auto start = Clock::now();
    decoder->waitForMaybeData();
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(1)) << "an idle wait is bounded";
    writeSamples(*decoder, 0, 3);
    start = Clock::now();
    for (int i = 0; i < 100; ++i) { // 100 full timeouts would take two seconds
        decoder->waitForMaybeData();
    }
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(1));

    const uint8_t partial[6] = {};
    try {
        decoder->write(partial, sizeof partial);
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "buffer_count not a multiple of four, not supported");
    }
    int32_t out[2] = {0, 12345};
    EXPECT_EQ(decoder->read(reinterpret_cast<uint8_t*>(out), 6), 4u);
    EXPECT_EQ(Samples(out, out + 2), (Samples{samplesOf(0, 1)[0], 12345}));
    EXPECT_EQ(decoder->read(reinterpret_cast<uint8_t*>(out), 8), 8u);
    EXPECT_EQ(Samples(out, out + 2), samplesOf(1, 2));
    EXPECT_EQ(decoder->read(reinterpret_cast<uint8_t*>(out), 8), 0u)
        << "the partial write added nothing";
}

TEST(Decoders, StreamsMillionsOfSamplesInOrderWithinASmallCapacity) {
    constexpr size_t kCapacity = 1024;
    constexpr size_t kTotal = 2 * 1024 * 1024;
    auto decoder = makeRunning(kCapacity);
    std::thread writer([&] {
        uint32_t step = 1;
        for (size_t sent = 0; sent < kTotal;) {
            step = step * 1103515245u + 12345u; // call sizes from one word to the capacity
            const size_t count = std::min<size_t>(1 + (step >> 8) % kCapacity, kTotal - sent);
            writeSamples(*decoder, sent, count);
            sent += count;
        }
    });
    Samples received;
    const auto deadline = Clock::now() + std::chrono::seconds(120);
    while (received.size() < kTotal && Clock::now() < deadline) {
        const Samples got = readSamples(*decoder, 1 + received.size() % 4096);
        if (got.empty()) {
            decoder->waitForMaybeData();
        }
        received.insert(received.end(), got.begin(), got.end());
    }
    decoder->close(); // frees the writer if the reader gave up
    writer.join();
    EXPECT_TRUE(received == samplesOf(0, kTotal)) << received.size() << " received";
    EXPECT_LE(decoder->peakBufferedSamples(), kCapacity);
}

TEST(Decoders, FullQueueHoldsTheWriterUntilAReadMakesRoomOrACloseReleasesIt) {
    auto decoder = makeRunning(4);
    writeSamples(*decoder, 0, 4);
    auto pending = writeAsync(decoder, 4, 2);
    EXPECT_TRUE(blocked(pending));
    readSamples(*decoder, 1);
    EXPECT_TRUE(blocked(pending)) << "room for fewer samples than the call brings";
    readSamples(*decoder, 1);
    ASSERT_TRUE(finishes(pending, *decoder));

    auto released = writeAsync(decoder, 6, 2);
    EXPECT_TRUE(blocked(released));
    decoder->close();
    ASSERT_TRUE(finishes(released, *decoder));
    auto later = writeAsync(decoder, 8, 2);
    ASSERT_TRUE(finishes(later, *decoder)) << "a write after close must not wait";
    EXPECT_EQ(readSamples(*decoder, 100), samplesOf(2, 8));

    auto small = makeRunning(1);
    auto large = writeAsync(small, 0, 8);
    EXPECT_TRUE(finishes(large, *small)) << "a call larger than the capacity must not deadlock";
}

// Regression: the queue grew without bound until the reader opened. Until then a full queue
// holds a writer only briefly, as a mover behind that failed to start would never make room.
TEST(Decoders, BeforeTheReaderOpensAWriterWaitsBrieflyAndOnceItOpensForRoom) {
    auto decoder = std::make_shared<DecoderTavoADC>(2);
    decoder->open(0);
    const auto start = Clock::now();
    auto lone = std::async(std::launch::async, [&] {
        for (size_t i = 0; i < 4; ++i) {
            writeSamples(*decoder, 2 * i, 2);
        }
        return uint32_t{0};
    });
    ASSERT_TRUE(finishes(lone, *decoder));
    EXPECT_GE(Clock::now() - start, 3 * QueueDecoder::kLoneWriterWait);
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
