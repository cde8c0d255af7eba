#include "sources/MockRecorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <vector>

namespace quarvel {
namespace {

using ::testing::StrEq;
using ::testing::ThrowsMessage;

// The words of buffer as the host reads them, so a byte-order mistake shows as a wrong value.
std::vector<uint32_t> wordsOf(const std::vector<uint8_t>& buffer) {
    std::vector<uint32_t> words(buffer.size() / 4);
    std::memcpy(words.data(), buffer.data(), words.size() * 4);
    return words;
}

TEST(MockRecorder, DeliversTheConfiguredWordsUntilStartOrAbortRestartsThem) {
    MockRecorder recorder;
    std::vector<uint8_t> buffer(8);
    EXPECT_FALSE(recorder.isRunning());
    EXPECT_EQ(recorder.read(buffer.data(), 8), 0u) << "unconfigured";

    recorder.configure(0, 16, 0);
    ASSERT_EQ(recorder.read(buffer.data(), 8), 8u);
    EXPECT_EQ(wordsOf(buffer), (std::vector<uint32_t>{0, 1}));
    EXPECT_TRUE(recorder.isRunning());
    ASSERT_EQ(recorder.read(buffer.data(), 8), 8u);
    EXPECT_EQ(wordsOf(buffer), (std::vector<uint32_t>{2, 3}));
    EXPECT_FALSE(recorder.isRunning());
    recorder.open(16);
    EXPECT_EQ(recorder.read(buffer.data(), 8), 0u) << "open restarted the counter";

    for (const auto restart : {&MockRecorder::start, &MockRecorder::abort}) {
        (recorder.*restart)();
        ASSERT_EQ(recorder.read(buffer.data(), 8), 8u);
        EXPECT_EQ(wordsOf(buffer), (std::vector<uint32_t>{0, 1}));
    }
}

TEST(MockRecorder, LongTransferIsOneUnbrokenSequenceAtAnyAlignment) {
    const uint32_t total = 1u << 20, chunk = 96 * 1024; // the last read is short
    MockRecorder recorder;
    recorder.configure(0x1000, total, 7);
    std::vector<uint8_t> storage(chunk + 1);
    uint32_t expected = 0;
    while (const uint32_t n = recorder.read(storage.data() + 1, chunk)) {
        for (uint32_t i = 0; i < n; i += 4, ++expected) {
            uint32_t word = 0;
            std::memcpy(&word, storage.data() + 1 + i, 4);
            ASSERT_EQ(word, expected);
        }
    }
    EXPECT_EQ(expected, total / 4);
}

TEST(MockRecorder, LengthsNotMultipleOfFourAreRefused) {
    MockRecorder recorder;
    EXPECT_THAT([&] { recorder.configure(0, 10, 0); },
                ThrowsMessage<std::runtime_error>(StrEq("bytesCount must be a multiple of 4")));
    std::vector<uint8_t> buffer(16, 0xAA);
    EXPECT_THAT([&] { recorder.read(buffer.data(), 6); },
                ThrowsMessage<std::runtime_error>(
                    StrEq("MockRecorder::read requires a bufferLen multiple of 4")));
    // Nothing was produced, and the refused count still holds two whole words.
    EXPECT_EQ(recorder.read(buffer.data(), 16), 8u);
    EXPECT_EQ(wordsOf(buffer), (std::vector<uint32_t>{0, 1, 0xAAAAAAAA, 0xAAAAAAAA}));
    EXPECT_FALSE(recorder.isRunning());
}

} // namespace
} // namespace quarvel
