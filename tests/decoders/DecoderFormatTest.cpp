#include "decoders/DecoderLumetraDds.h"
#include "decoders/DecoderTavoADC.h"
#include "tests/decoders/DecoderTestHelpers.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace quarvel::test {
namespace {

using Samples = std::vector<int32_t>;

TEST(DecoderTavoADC, MockCounterWordsDecodeToTheirFirstTwoBytes) {
    DecoderTavoADC decoder;
    // 0, 1, 2, 255, 256 as little-endian 32-bit words.
    const std::vector<uint8_t> words = {0, 0, 0,   0, 1, 0, 0, 0, 2, 0,
                                        0, 0, 255, 0, 0, 0, 0, 1, 0, 0};
    EXPECT_EQ(writeBytes(decoder, words), 20u);
    EXPECT_EQ(readSamples(decoder, 10), (Samples{0, 64, 128, -64, 0}));
}

TEST(DecoderTavoADC, IgnoresTheLastTwoBytesOfEachWord) {
    DecoderTavoADC decoder;
    EXPECT_EQ(writeBytes(decoder, {0x01, 0x00, 0xAA, 0xBB, 0x80, 0x00, 0xCC, 0xDD}), 8u);
    EXPECT_EQ(readSamples(decoder, 10), (Samples{64, -8192}));
}

TEST(DecoderTavoADC, CoversTheFourteenBitRangeAndRoundsTowardsMinusInfinity) {
    DecoderTavoADC decoder;
    writeBytes(decoder, {0x00, 0x00, 0, 0, 0x7F, 0xFF, 0, 0, 0x80, 0x00, 0, 0, 0x80, 0x03, 0, 0,
                         0xFF, 0xFC, 0, 0, 0xFF, 0xFF, 0, 0, 0xFF, 0xFB, 0, 0});
    // 0xFFFB is -5: -5 / 4 truncated would be -1, the shift gives -2.
    EXPECT_EQ(readSamples(decoder, 10), (Samples{0, 8191, -8192, -8192, -1, -1, -2}));
}

TEST(DecoderTavoADC, OutputSizeEqualsInputSize) {
    DecoderTavoADC decoder;
    EXPECT_EQ(decoder.outputSizeFor(4096), 4096u);
    EXPECT_EQ(decoder.outputSizeFor(0xFFFFFFFCu), 0xFFFFFFFCu);
}

TEST(DecoderLumetraDds, DecodesLittleEndianSixteenBitPairsInOrder) {
    DecoderLumetraDds decoder;
    EXPECT_EQ(writeBytes(decoder, {0x01, 0x00, 0xFF, 0xFF, 0x00, 0x80, 0xFE, 0x7F}), 8u);
    Samples got;
    for (int i = 0; i < 4; ++i) {
        const Samples one = readSamples(decoder, 1);
        ASSERT_EQ(one.size(), 1u);
        got.push_back(one[0]);
    }
    EXPECT_EQ(got, (Samples{1, -1, -32768, 32766}));
    EXPECT_TRUE(readSamples(decoder, 1).empty());
}

TEST(DecoderLumetraDds, FourInputBytesMakeEightOutputBytes) {
    DecoderLumetraDds decoder;
    writeBytes(decoder, {0xFF, 0x7F, 0x02, 0x00});
    uint8_t out[16] = {};
    EXPECT_EQ(decoder.read(out, sizeof out), 8u);
}

TEST(DecoderLumetraDds, OutputSizeIsTwiceTheInputWhileItFitsThirtyTwoBits) {
    DecoderLumetraDds decoder;
    EXPECT_EQ(decoder.outputSizeFor(0), 0u);
    EXPECT_EQ(decoder.outputSizeFor(4096), 8192u);
    EXPECT_EQ(decoder.outputSizeFor(0x7FFFFFFCu), 0xFFFFFFF8u);
}

TEST(DecoderLumetraDds, RefusesAnInputWhoseOutputSizeOverflows) {
    DecoderLumetraDds decoder;
    EXPECT_THROW(decoder.outputSizeFor(0x80000000u), std::runtime_error);
    try {
        decoder.outputSizeFor(2147483652u);
        FAIL() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "data-bytes too large for the Lumetra DDS decoder: 2147483652 "
                               "bytes decode to more than 4294967295 bytes");
    }
}

} // namespace
} // namespace quarvel::test
