#include "sources/MockRecorder.h"

#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

// The mock recorder touches no file, so these tests need no temporary directory.

namespace quarvel {
namespace {

std::vector<uint32_t> wordsOf(const std::vector<uint8_t>& bytes, uint32_t count) {
    std::vector<uint32_t> words(count / 4);
    std::memcpy(words.data(), bytes.data(), count);
    return words;
}

template <typename F> std::string errorOf(F&& call) {
    try {
        call();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "no exception";
}

TEST(MockRecorderTransfer, DeliversConfiguredCounterWordsThenNothing) {
    MockRecorder recorder;
    recorder.configure(0, 16, 0);
    std::vector<uint8_t> buffer(8);

    ASSERT_EQ(recorder.read(buffer.data(), 8), 8u);
    EXPECT_EQ(wordsOf(buffer, 8), (std::vector<uint32_t>{0, 1}));
    EXPECT_TRUE(recorder.isRunning());

    ASSERT_EQ(recorder.read(buffer.data(), 8), 8u);
    EXPECT_EQ(wordsOf(buffer, 8), (std::vector<uint32_t>{2, 3}));
    EXPECT_FALSE(recorder.isRunning());

    std::fill(buffer.begin(), buffer.end(), 0xAA);
    EXPECT_EQ(recorder.read(buffer.data(), 8), 0u);
    EXPECT_EQ(buffer, std::vector<uint8_t>(8, 0xAA));
    EXPECT_FALSE(recorder.isEndOfData());
}

TEST(MockRecorderTransfer, BytesAreCounterWordsInHostOrder) {
    const uint32_t one = 1;
    uint8_t first = 0;
    std::memcpy(&first, &one, 1);
    if (first != 1) {
        GTEST_SKIP() << "host is not little-endian";
    }
    MockRecorder recorder;
    recorder.configure(0, 4 * 258, 0);
    std::vector<uint8_t> buffer(4 * 258);
    ASSERT_EQ(recorder.read(buffer.data(), 4 * 258), 4u * 258);
    const std::vector<uint8_t> head(buffer.begin(), buffer.begin() + 12);
    EXPECT_EQ(head, (std::vector<uint8_t>{0, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0}));
    const std::vector<uint8_t> word257(buffer.begin() + 4 * 257, buffer.end());
    EXPECT_EQ(word257, (std::vector<uint8_t>{0x01, 0x01, 0, 0}));
}

TEST(MockRecorderTransfer, LongTransferIsOneUnbrokenSequenceAtAnyAlignment) {
    const uint32_t total = 1u << 20;
    const uint32_t chunk = 96 * 1024; // not a divisor of total: the last read is short
    MockRecorder recorder;
    recorder.configure(0x1000, total, 7);
    std::vector<uint8_t> storage(chunk + 1);
    uint8_t* unaligned = storage.data() + 1;

    uint32_t expected = 0;
    uint32_t received = 0;
    while (uint32_t n = recorder.read(unaligned, chunk)) {
        ASSERT_EQ(n % 4, 0u);
        ASSERT_LE(n, chunk);
        for (uint32_t i = 0; i < n; i += 4) {
            uint32_t word = 0;
            std::memcpy(&word, unaligned + i, 4);
            ASSERT_EQ(word, expected) << "at byte " << received + i;
            ++expected;
        }
        received += n;
    }
    EXPECT_EQ(received, total);
    EXPECT_FALSE(recorder.isRunning());
}

TEST(MockRecorderTransfer, UnconfiguredRecorderProducesNothing) {
    MockRecorder recorder;
    std::vector<uint8_t> buffer(16, 0xAA);
    EXPECT_FALSE(recorder.isRunning());
    EXPECT_EQ(recorder.read(buffer.data(), 16), 0u);
    EXPECT_EQ(buffer, std::vector<uint8_t>(16, 0xAA));
}

TEST(MockRecorderTransfer, LoweringTheCountBelowWhatWasProducedEndsTheTransfer) {
    MockRecorder recorder;
    recorder.configure(0, 32, 0);
    std::vector<uint8_t> buffer(16);
    ASSERT_EQ(recorder.read(buffer.data(), 16), 16u);
    recorder.configure(0, 8, 0);
    EXPECT_FALSE(recorder.isRunning());
    EXPECT_EQ(recorder.read(buffer.data(), 16), 0u);
}

TEST(MockRecorderRestart, StartAndAbortRestartTheCounterButOpenDoesNot) {
    MockRecorder recorder;
    recorder.configure(0, 64, 0);
    std::vector<uint8_t> buffer(8);

    ASSERT_EQ(recorder.read(buffer.data(), 8), 8u);
    recorder.open(64);
    recorder.close();
    ASSERT_EQ(recorder.read(buffer.data(), 8), 8u);
    EXPECT_EQ(wordsOf(buffer, 8), (std::vector<uint32_t>{2, 3}));

    recorder.start();
    ASSERT_EQ(recorder.read(buffer.data(), 8), 8u);
    EXPECT_EQ(wordsOf(buffer, 8), (std::vector<uint32_t>{0, 1}));

    recorder.abort();
    ASSERT_EQ(recorder.read(buffer.data(), 8), 8u);
    EXPECT_EQ(wordsOf(buffer, 8), (std::vector<uint32_t>{0, 1}));
}

TEST(MockRecorderErrors, ReadLengthNotMultipleOfFourThrowsAndProducesNothing) {
    MockRecorder recorder;
    recorder.configure(0, 16, 0);
    std::vector<uint8_t> buffer(8, 0xAA);
    EXPECT_EQ(errorOf([&] { recorder.read(buffer.data(), 6); }),
              "MockRecorder::read requires a bufferLen multiple of 4");
    EXPECT_EQ(buffer, std::vector<uint8_t>(8, 0xAA));
    ASSERT_EQ(recorder.read(buffer.data(), 8), 8u);
    EXPECT_EQ(wordsOf(buffer, 8), (std::vector<uint32_t>{0, 1}));
}

TEST(MockRecorderErrors, CountNotMultipleOfFourThrowsButIsStored) {
    MockRecorder recorder;
    EXPECT_EQ(errorOf([&] { recorder.configure(0, 10, 0); }), "bytesCount must be a multiple of 4");
    // 10 bytes hold two whole words.
    EXPECT_TRUE(recorder.isRunning());
    std::vector<uint8_t> buffer(16);
    EXPECT_EQ(recorder.read(buffer.data(), 16), 8u);
    EXPECT_EQ(wordsOf(buffer, 8), (std::vector<uint32_t>{0, 1}));
    EXPECT_FALSE(recorder.isRunning());
}

TEST(MockRecorderStatus, NeverFailsInAnyState) {
    MockRecorder recorder;
    std::vector<uint8_t> buffer(8);
    auto check = [&](const char* state) {
        EXPECT_FALSE(recorder.failed()) << state;
        EXPECT_EQ(recorder.statusText(), "nothing") << state;
    };
    check("new");
    recorder.configure(0, 8, 0);
    check("configured");
    recorder.read(buffer.data(), 8);
    check("finished");
    EXPECT_EQ(errorOf([&] { recorder.configure(0, 3, 0); }), "bytesCount must be a multiple of 4");
    check("rejected count");
    EXPECT_EQ(recorder.optimalReadSize(), 4u);
}

} // namespace
} // namespace quarvel
