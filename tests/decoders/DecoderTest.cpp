#include "decoders/DecoderLumetraDds.h"
#include "decoders/DecoderTavoADC.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <future>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <sys/types.h>
#include <unistd.h>

namespace quarvel::test {
namespace {

using namespace std::chrono_literals;
using Samples = std::vector<int32_t>;
using Clock = std::chrono::steady_clock;

auto refused(const char* text) {
    return testing::ThrowsMessage<std::runtime_error>(testing::StrEq(text));
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

// Opened by both movers, as in a running chain.
std::shared_ptr<QueueDecoder> makeRunning(size_t capacity) {
    auto decoder = std::make_shared<DecoderTavoADC>(capacity);
    decoder->open(0);
    decoder->open(0);
    return decoder;
}

// The scheduler's state of one of our threads: 'R' running, 'S' asleep in the kernel, ...
char stateOf(pid_t thread) {
    std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
    const std::string text{std::istreambuf_iterator<char>(stat), std::istreambuf_iterator<char>()};
    const size_t nameEnd = text.rfind(')');
    return nameEnd != std::string::npos && nameEnd + 2 < text.size() ? text[nameEnd + 2] : '?';
}

// Waits until the thread that publishes its id has gone to sleep: a writer that meets no other
// lock can only sleep in the decoder's wait for room. Polls with a deadline for any machine.
bool fallsAsleep(const std::atomic<pid_t>& thread) {
    const auto deadline = Clock::now() + 10s;
    while (Clock::now() < deadline) {
        const pid_t id = thread.load();
        if (id != 0 && stateOf(id) == 'S') {
            return true;
        }
        std::this_thread::sleep_for(100us);
    }
    return false;
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

// Lumetra words are two little-endian int16 each; Tavo's are checked on the mock chain's output.
TEST(Decoders, DecodeWholeWordsIntoWholeSamplesAndWaitOnlyWhileNoneAreBuffered) {
    const uint8_t words[] = {0x01, 0x00, 0x00, 0x80, 0xFF, 0x7F, 0xFF, 0xFF};
    DecoderLumetraDds decoder;
    auto start = Clock::now();
    decoder.waitForMaybeData();
    EXPECT_LT(Clock::now() - start, 1s) << "an idle wait is bounded";
    EXPECT_THAT([&] { decoder.write(words, 6); },
                refused("buffer_count not a multiple of four, not supported"));
    EXPECT_EQ(decoder.write(words, sizeof words), sizeof words);
    start = Clock::now();
    for (int i = 0; i < 100; ++i) { // 100 full timeouts would take two seconds
        decoder.waitForMaybeData();
    }
    EXPECT_LT(Clock::now() - start, 1s);

    int32_t out[2] = {0, 12345};
    EXPECT_EQ(decoder.read(reinterpret_cast<uint8_t*>(out), 6), 4u);
    EXPECT_EQ(Samples(out, out + 2), (Samples{1, 12345}));
    EXPECT_EQ(readSamples(decoder, 16), (Samples{-32768, 32767, -1}));
    EXPECT_EQ(decoder.outputSizeFor(0x7FFFFFFCu), 0xFFFFFFF8u);
    EXPECT_THAT([&] { decoder.outputSizeFor(0x80000004u); },
                refused("data-bytes too large for the Lumetra DDS decoder: 2147483652 bytes "
                        "decode to more than 4294967295 bytes"));
}

// Calls of many thousand samples, as the movers make them, in and out in odd sizes.
TEST(Decoders, LargeCallsKeepEverySampleInOrder) {
    constexpr size_t kWords = 20011;
    DecoderTavoADC tavo(4 * kWords);
    writeSamples(tavo, 0, kWords);
    DecoderLumetraDds lumetra(4 * kWords);
    std::vector<uint8_t> words;
    Samples expected;
    for (size_t i = 0; i < 2 * kWords; ++i) {
        const auto value = static_cast<int16_t>(i * 40503u);
        words.insert(words.end(), {uint8_t(value), uint8_t(uint16_t(value) >> 8)});
        expected.push_back(value);
    }
    lumetra.write(words.data(), static_cast<uint32_t>(words.size()));
    for (auto [decoder, want] :
         {std::pair<QueueDecoder*, Samples>{&tavo, samplesOf(0, kWords)}, {&lumetra, expected}}) {
        Samples got;
        for (Samples part; !(part = readSamples(*decoder, 5003)).empty();) {
            got.insert(got.end(), part.begin(), part.end());
        }
        EXPECT_TRUE(got == want) << got.size() << " of " << want.size() << " samples";
    }
}

// Two samples per word in a queue of odd capacity: a word's samples straddle the queue's end,
// and a call let in past the capacity (here after a close) moves queued samples that wrap.
TEST(Decoders, PairsOfSamplesSurviveTheQueueWrappingAndGrowing) {
    DecoderLumetraDds decoder(7);
    decoder.open(0);
    decoder.open(0);
    int16_t next = 1;
    Samples expected;
    const auto writeWords = [&](size_t words) {
        std::vector<uint8_t> bytes;
        for (size_t i = 0; i < 2 * words; ++i, ++next) {
            bytes.insert(bytes.end(), {uint8_t(next), uint8_t(uint16_t(next) >> 8)});
            expected.push_back(next);
        }
        decoder.write(bytes.data(), static_cast<uint32_t>(bytes.size()));
    };
    Samples got;
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
    const auto deadline = Clock::now() + 120s;
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

TEST(Decoders, FullQueueHoldsTheWriterUntilReadsHalveItOrACloseReleasesIt) {
    auto decoder = makeRunning(8);
    writeSamples(*decoder, 0, 8);
    auto pending = writeAsync(decoder, 8, 1);
    EXPECT_TRUE(blocked(pending));
    readSamples(*decoder, 3);
    EXPECT_TRUE(blocked(pending)) << "room for the call, but the queue is still over half full";
    readSamples(*decoder, 1);
    ASSERT_TRUE(finishes(pending, *decoder));
    auto larger = writeAsync(decoder, 9, 5);
    readSamples(*decoder, 1);
    EXPECT_TRUE(blocked(larger)) << "half full, but room for fewer samples than the call brings";
    readSamples(*decoder, 1);
    ASSERT_TRUE(finishes(larger, *decoder));

    auto released = writeAsync(decoder, 14, 2);
    EXPECT_TRUE(blocked(released));
    decoder->close();
    ASSERT_TRUE(finishes(released, *decoder));
    auto later = writeAsync(decoder, 16, 2);
    ASSERT_TRUE(finishes(later, *decoder)) << "a write after close must not wait";
    EXPECT_EQ(readSamples(*decoder, 100), samplesOf(6, 12));

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
    for (size_t i = 0; i < 4; ++i) {
        auto lone = writeAsync(decoder, 2 * i, 2);
        ASSERT_TRUE(finishes(lone, *decoder));
    }
    EXPECT_GE(Clock::now() - start, 3 * QueueDecoder::kLoneWriterWait);
    EXPECT_EQ(readSamples(*decoder, 6), samplesOf(0, 6));

    std::atomic<pid_t> writer{0};
    auto pending = std::async(std::launch::async, [&] {
        writer.store(::gettid());
        writeSamples(*decoder, 8, 2);
    });
    ASSERT_TRUE(fallsAsleep(writer)) << "the writer never waited"; // into its timed wait
    decoder->open(0);
    EXPECT_EQ(pending.wait_for(3 * QueueDecoder::kLoneWriterWait), std::future_status::timeout);
    EXPECT_EQ(readSamples(*decoder, 100), samplesOf(6, 2));
    ASSERT_TRUE(finishes(pending, *decoder));
    EXPECT_EQ(readSamples(*decoder, 100), samplesOf(8, 2));
}

} // namespace
} // namespace quarvel::test
