#include "sinks/SinkHDF5.h"
#include "tests/support/TestSupport.h"

#include <H5Cpp.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <unistd.h>

namespace quarvel {
namespace {

using test::StderrCapture;
using test::TempDir;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

std::vector<uint8_t> littleEndianBytes(const std::vector<int32_t>& values) {
    std::vector<uint8_t> bytes;
    for (const int32_t value : values) {
        for (int shift = 0; shift < 32; shift += 8) {
            bytes.push_back(static_cast<uint8_t>(static_cast<uint32_t>(value) >> shift));
        }
    }
    return bytes;
}

// The dataset as another program reads it, through HDF5 itself.
std::vector<int32_t> storedValues(const std::string& path) {
    const H5::DataSet dataSet = H5::H5File(path, H5F_ACC_RDONLY).openDataSet("quarvel");
    std::vector<int32_t> values(static_cast<size_t>(dataSet.getSpace().getSimpleExtentNpoints()));
    dataSet.read(values.data(), H5::PredType::NATIVE_INT32);
    return values;
}

// The sink is dropped without close, as in a run torn down early: the file must still be whole.
TEST(SinkHDF5, LittleEndianBytesAreStoredAsBigEndianInt32) {
    TempDir dir;
    const std::string path = dir.file("out.h5");
    test::writeFile(path, "an older file"); // replaced
    {
        SinkHDF5 sink(path);
        sink.open(12);
        const uint8_t bytes[] = {1, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 5, 0, 0, 0, 0xEE, 0xEE, 0xEE};
        EXPECT_EQ(sink.write(bytes, 8), 8u);
        EXPECT_EQ(sink.write(bytes + 8, 7), 7u); // the partial value is dropped
    }
    EXPECT_EQ(storedValues(path), (std::vector<int32_t>{1, -1, 5}));
    H5::H5File file(path, H5F_ACC_RDONLY);
    const H5::IntType type = file.openDataSet("quarvel").getIntType();
    EXPECT_EQ(type.getClass(), H5T_INTEGER);
    EXPECT_EQ(type.getOrder(), H5T_ORDER_BE);
    EXPECT_EQ(type.getSign(), H5T_SGN_2);
}

TEST(SinkHDF5, ChunksFollowTheTotalSizeAndAreDeflated) {
    for (const auto& [total, chunk, growing] :
         {std::tuple{1000000u, 4096u, false}, std::tuple{4096u, 1024u, false},
          std::tuple{0u, 4097u, true}}) {
        SCOPED_TRACE(total);
        TempDir dir;
        SinkHDF5 sink(dir.file("out.h5"));
        sink.open(total);
        EXPECT_EQ(sink.optimalWriteSize(), chunk * 4);
        EXPECT_EQ(sink.isGrowing(), growing);
        sink.close();

        H5::H5File file(dir.file("out.h5"), H5F_ACC_RDONLY);
        const H5::DataSet dataSet = file.openDataSet("quarvel");
        const H5::DataSpace space = dataSet.getSpace();
        ASSERT_EQ(space.getSimpleExtentNdims(), 1);
        hsize_t size = 0, maxSize = 0, stored = 0;
        space.getSimpleExtentDims(&size, &maxSize);
        EXPECT_EQ(size, total / 4);
        EXPECT_EQ(maxSize, total / 4);
        const H5::DSetCreatPropList properties = dataSet.getCreatePlist();
        properties.getChunk(1, &stored);
        EXPECT_EQ(stored, chunk);
        unsigned flags = 0, level = 0;
        size_t count = 1;
        H5Pget_filter_by_id2(properties.getId(), H5Z_FILTER_DEFLATE, &flags, &count, &level, 0,
                             nullptr, nullptr);
        EXPECT_EQ(level, 6u) << "no deflate, or not level 6";
    }
}

// Regression: HDF5's default metadata cache grew with the file. The mover's 128 KiB blocks
// span many chunks, and the chunk index outgrows this small cache many times over.
TEST(SinkHDF5, LargeBlocksReadBackExactlyThroughASmallMetadataCache) {
    TempDir dir;
    const std::string path = dir.file("out.h5");
    const uint32_t blockBytes = 128 * 1024, total = 40 * blockBytes + 16384;
    std::vector<int32_t> expected(total / 4);
    for (size_t i = 0; i < expected.size(); ++i) {
        expected[i] = static_cast<int32_t>(static_cast<uint32_t>(i) * 2654435761u);
    }
    const auto bytes = littleEndianBytes(expected);

    SinkHDF5 sink(path, 4096);
    sink.open(total);
    EXPECT_EQ(sink.metadataCacheLimit(), 4096u);
    for (uint32_t done = 0; done < total;) {
        const uint32_t len = std::min(blockBytes, total - done);
        ASSERT_EQ(sink.write(bytes.data() + done, len), len);
        done += len;
    }
    sink.close();
    EXPECT_EQ(storedValues(path), expected);
}

TEST(SinkHDF5, MisuseIsRefusedAndTheOpenFileStaysUsable) {
    TempDir dir;
    const std::string path = dir.file("out.h5");
    SinkHDF5 sink(path);
    const auto bytes = littleEndianBytes({1, 2, 9, 9, 9, 9, 3, 4});
    StderrCapture capture;
    EXPECT_THAT([&] { sink.open(6); },
                ThrowsMessage<std::runtime_error>(
                    StrEq("Invalid transfer length: not a multiple of HDF5 data type")));
    EXPECT_NE(::access(path.c_str(), F_OK), 0) << "open(6) created the file";
    EXPECT_THAT([&] { sink.write(bytes.data(), 4); },
                ThrowsMessage<std::runtime_error>(
                    StrEq("Cannot write to HDF5 output as it has not been open yet")));

    sink.open(16);
    EXPECT_THAT([&] { sink.open(16); },
                ThrowsMessage<std::runtime_error>(StrEq("SinkHDF5 already open")));
    // The mover writes from a thread of its own, where HDF5's error dump must be off too.
    std::thread mover([&] {
        EXPECT_EQ(sink.write(bytes.data(), 8), 8u);
        EXPECT_THROW(sink.write(bytes.data() + 8, 16), H5::Exception) << "beyond the dataset";
    });
    mover.join();
    EXPECT_EQ(sink.write(bytes.data() + 24, 8), 8u);
    sink.close();

    const std::string log = capture.text();
    EXPECT_THAT(log, HasSubstr("ERROR [SinkHDF5] write: sink is not open"));
    EXPECT_THAT(log, HasSubstr("ERROR [SinkHDF5] -open: already open"));
    EXPECT_THAT(log, HasSubstr("ERROR [SinkHDF5] SinkHDF5 failed to write with error "));
    EXPECT_THAT(log, Not(HasSubstr("HDF5-DIAG")));
    EXPECT_EQ(storedValues(path), (std::vector<int32_t>{1, 2, 3, 4}));
}

} // namespace
} // namespace quarvel
