#include "sinks/SinkHDF5.h"

#include "tests/support/TestSupport.h"

#include <H5Cpp.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>

namespace quarvel {
namespace {

using test::StderrCapture;
using test::TempDir;

bool fileExists(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
}

std::vector<uint8_t> littleEndianBytes(const std::vector<int32_t>& values) {
    std::vector<uint8_t> bytes;
    for (const int32_t value : values) {
        const auto u = static_cast<uint32_t>(value);
        for (int shift = 0; shift < 32; shift += 8) {
            bytes.push_back(static_cast<uint8_t>(u >> shift));
        }
    }
    return bytes;
}

// What another program sees in the file, read through the HDF5 library itself.
struct DataSetInfo {
    hsize_t size = 0;
    hsize_t maxSize = 0;
    int rank = 0;
    bool chunked = false;
    hsize_t chunk = 0;
    H5T_order_t order = H5T_ORDER_ERROR;
    H5T_sign_t sign = H5T_SGN_ERROR;
    H5T_class_t typeClass = H5T_NO_CLASS;
    size_t typeSize = 0;
    int deflateLevel = -1; // -1: no deflate filter
    std::vector<int32_t> values;
};

DataSetInfo readBack(const std::string& path) {
    DataSetInfo info;
    H5::H5File file(path, H5F_ACC_RDONLY);
    H5::DataSet dataSet = file.openDataSet("quarvel");
    H5::DataSpace space = dataSet.getSpace();
    info.rank = space.getSimpleExtentNdims();
    if (info.rank == 1) {
        space.getSimpleExtentDims(&info.size, &info.maxSize);
    }
    const H5::IntType type = dataSet.getIntType();
    info.order = type.getOrder();
    info.sign = type.getSign();
    info.typeClass = type.getClass();
    info.typeSize = type.getSize();

    const H5::DSetCreatPropList properties = dataSet.getCreatePlist();
    if (properties.getLayout() == H5D_CHUNKED) {
        info.chunked = true;
        properties.getChunk(1, &info.chunk);
    }
    for (int i = 0; i < properties.getNfilters(); ++i) {
        unsigned int flags = 0;
        size_t count = 1;
        unsigned int level = 0;
        char name[64];
        unsigned int config = 0;
        const H5Z_filter_t filter =
            properties.getFilter(i, flags, count, &level, sizeof name, name, config);
        if (filter == H5Z_FILTER_DEFLATE && count >= 1) {
            info.deflateLevel = static_cast<int>(level);
        }
    }

    info.values.resize(static_cast<size_t>(info.size));
    if (!info.values.empty()) {
        dataSet.read(info.values.data(), H5::PredType::NATIVE_INT32);
    }
    return info;
}

std::vector<std::string> datasetNames(const std::string& path) {
    H5::H5File file(path, H5F_ACC_RDONLY);
    std::vector<std::string> names;
    for (hsize_t i = 0; i < file.getNumObjs(); ++i) {
        names.push_back(file.getObjnameByIdx(i));
    }
    return names;
}

TEST(SinkHDF5Data, LittleEndianBytesAreStoredAsBigEndianInt32) {
    TempDir dir;
    const std::string path = dir.file("out.h5");
    SinkHDF5 sink(path);
    sink.open(8);
    const uint8_t bytes[] = {0x01, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(sink.write(bytes, sizeof bytes), 8u);
    sink.close();

    EXPECT_EQ(datasetNames(path), std::vector<std::string>{"quarvel"});
    const DataSetInfo info = readBack(path);
    EXPECT_EQ(info.values, (std::vector<int32_t>{1, -1}));
    EXPECT_EQ(info.typeClass, H5T_INTEGER);
    EXPECT_EQ(info.typeSize, 4u);
    EXPECT_EQ(info.order, H5T_ORDER_BE);
    EXPECT_EQ(info.sign, H5T_SGN_2);
}

TEST(SinkHDF5Data, ConsecutiveWritesFillTheDatasetInOrder) {
    TempDir dir;
    const std::string path = dir.file("out.h5");
    SinkHDF5 sink(path);
    sink.open(16);
    const auto first = littleEndianBytes({10, -20});
    const auto second = littleEndianBytes({30, 2147483647});
    EXPECT_EQ(sink.write(first.data(), 8), 8u);
    EXPECT_EQ(sink.writeOffset(), 2u);
    EXPECT_EQ(sink.write(second.data(), 8), 8u);
    EXPECT_EQ(sink.writeOffset(), 4u);
    sink.close();
    EXPECT_EQ(readBack(path).values, (std::vector<int32_t>{10, -20, 30, 2147483647}));
}

TEST(SinkHDF5Data, TrailingBytesOfAPartialValueAreIgnored) {
    TempDir dir;
    const std::string path = dir.file("out.h5");
    SinkHDF5 sink(path);
    sink.open(8);
    auto seven = littleEndianBytes({5, 0x7f7f7f7f});
    EXPECT_EQ(sink.write(seven.data(), 7), 7u);
    EXPECT_EQ(sink.writeOffset(), 1u);
    const auto next = littleEndianBytes({6});
    EXPECT_EQ(sink.write(next.data(), 4), 4u);
    sink.close();
    EXPECT_EQ(readBack(path).values, (std::vector<int32_t>{5, 6}));
}

// The mover's 128 KiB blocks span several chunks; every value must land at its own index.
// The chunk index outgrows a metadata cache this small many times over, so index nodes are
// written out and dropped while the recording goes on.
TEST(SinkHDF5Data, LargeBlocksAcrossManyChunksReadBackExactly) {
    TempDir dir;
    const std::string path = dir.file("out.h5");
    const uint32_t blockBytes = 128 * 1024;
    const uint32_t total = 40 * blockBytes + 16384;
    const size_t cacheBytes = 4096;
    std::vector<int32_t> expected(total / 4);
    for (size_t i = 0; i < expected.size(); ++i) {
        expected[i] = static_cast<int32_t>(static_cast<uint32_t>(i) * 2654435761u);
    }
    const auto bytes = littleEndianBytes(expected);

    SinkHDF5 sink(path, cacheBytes);
    EXPECT_EQ(sink.metadataCacheLimit(), 0u);
    sink.open(total);
    EXPECT_EQ(sink.metadataCacheLimit(), cacheBytes);
    ASSERT_EQ(sink.optimalWriteSize(), 16384u);
    for (uint32_t done = 0; done < total;) {
        const uint32_t len = std::min(blockBytes, total - done);
        ASSERT_EQ(sink.write(bytes.data() + done, len), len);
        done += len;
    }
    sink.close();
    EXPECT_EQ(readBack(path).values, expected);
}

struct GeometryCase {
    uint32_t totalSize;
    hsize_t values;
    hsize_t chunk;
};

class SinkHDF5Geometry : public ::testing::TestWithParam<GeometryCase> {};

TEST_P(SinkHDF5Geometry, DatasetHasFixedSizeChunksOfTheRuleAndDeflate6) {
    const GeometryCase& param = GetParam();
    TempDir dir;
    const std::string path = dir.file("out.h5");
    SinkHDF5 sink(path);
    sink.open(param.totalSize);
    EXPECT_TRUE(sink.isOpen());
    EXPECT_FALSE(sink.isGrowing());
    EXPECT_EQ(sink.getChunkSize(), param.chunk);
    EXPECT_EQ(sink.optimalWriteSize(), param.chunk * 4);
    sink.close();
    EXPECT_FALSE(sink.isOpen());

    const DataSetInfo info = readBack(path);
    EXPECT_EQ(info.rank, 1);
    EXPECT_EQ(info.size, param.values);
    EXPECT_EQ(info.maxSize, param.values);
    EXPECT_TRUE(info.chunked);
    EXPECT_EQ(info.chunk, param.chunk);
    EXPECT_EQ(info.deflateLevel, 6);
}

INSTANTIATE_TEST_SUITE_P(ChunkRule, SinkHDF5Geometry,
                         ::testing::Values(GeometryCase{1000000, 250000, 4096},
                                           GeometryCase{4096, 1024, 1024},
                                           GeometryCase{16384, 4096, 4096},
                                           GeometryCase{16380, 4095, 4095}, GeometryCase{4, 1, 1}));

TEST(SinkHDF5Open, ChunkBeforeAnyOpenIsTheZeroSizeRule) {
    TempDir dir;
    SinkHDF5 sink(dir.file("out.h5"));
    EXPECT_EQ(sink.getChunkSize(), 4097u);
    EXPECT_EQ(sink.optimalWriteSize(), 16388u);
    EXPECT_FALSE(fileExists(dir.file("out.h5")));
}

// HDF5 accepts a fixed dataset of 0 values with a chunk of 4097 values: the sink opens, growing,
// and any value written lies beyond the dataset.
TEST(SinkHDF5Open, ZeroSizeGivesAnEmptyDatasetWithTheZeroSizeChunk) {
    TempDir dir;
    const std::string path = dir.file("out.h5");
    SinkHDF5 sink(path);
    StderrCapture capture;
    ASSERT_NO_THROW(sink.open(0));
    EXPECT_TRUE(sink.isGrowing());
    EXPECT_TRUE(sink.isOpen());
    const auto bytes = littleEndianBytes({1});
    EXPECT_THROW(sink.write(bytes.data(), 4), H5::Exception);
    EXPECT_EQ(sink.writeOffset(), 0u);
    sink.close();
    const std::string log = capture.text();
    EXPECT_NE(log.find("openFileAndDataSet: dimsf[0] = 0, chunk_dim[0] = 4097"), std::string::npos)
        << log;
    EXPECT_EQ(log.find("HDF5-DIAG"), std::string::npos) << log;

    const DataSetInfo info = readBack(path);
    EXPECT_EQ(info.size, 0u);
    EXPECT_EQ(info.maxSize, 0u);
    EXPECT_EQ(info.chunk, 4097u);
    EXPECT_EQ(info.deflateLevel, 6);
}

TEST(SinkHDF5Open, SizeNotAMultipleOfFourIsRejectedWithoutCreatingAFile) {
    TempDir dir;
    const std::string path = dir.file("out.h5");
    SinkHDF5 sink(path);
    try {
        sink.open(6);
        FAIL() << "open(6) did not throw";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Invalid transfer length: not a multiple of HDF5 data type");
    }
    EXPECT_FALSE(sink.isOpen());
    EXPECT_FALSE(fileExists(path));
}

TEST(SinkHDF5Open, SecondOpenIsRefusedAndTheFirstFileStaysUsable) {
    TempDir dir;
    const std::string path = dir.file("out.h5");
    SinkHDF5 sink(path);
    sink.open(8);
    StderrCapture capture;
    try {
        sink.open(8);
        FAIL() << "second open did not throw";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "SinkHDF5 already open");
    }
    EXPECT_NE(capture.text().find("ERROR [SinkHDF5] -open: already open"), std::string::npos);
    EXPECT_TRUE(sink.isOpen());
    const auto bytes = littleEndianBytes({7, 8});
    EXPECT_EQ(sink.write(bytes.data(), 8), 8u);
    sink.close();
    EXPECT_EQ(readBack(path).values, (std::vector<int32_t>{7, 8}));
}

TEST(SinkHDF5Open, MissingDirectoryFailsInHdf5AndLeavesTheSinkClosed) {
    TempDir dir;
    SinkHDF5 sink(dir.file("no/such/dir/out.h5"));
    StderrCapture capture;
    EXPECT_THROW(sink.open(16), H5::Exception);
    EXPECT_EQ(capture.text().find("HDF5-DIAG"), std::string::npos);
    EXPECT_FALSE(sink.isOpen());
}

TEST(SinkHDF5Open, OpenReplacesAnExistingFile) {
    TempDir dir;
    const std::string path = dir.file("out.h5");
    test::writeFile(path, "not an HDF5 file");
    SinkHDF5 sink(path);
    sink.open(4);
    const auto bytes = littleEndianBytes({42});
    sink.write(bytes.data(), 4);
    sink.close();
    EXPECT_EQ(readBack(path).values, std::vector<int32_t>{42});
}

TEST(SinkHDF5Write, WriteBeforeOpenIsRefused) {
    TempDir dir;
    SinkHDF5 sink(dir.file("out.h5"));
    const auto bytes = littleEndianBytes({1});
    StderrCapture capture;
    try {
        sink.write(bytes.data(), 4);
        FAIL() << "write before open did not throw";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Cannot write to HDF5 output as it has not been open yet");
    }
    EXPECT_NE(capture.text().find("ERROR [SinkHDF5] write: sink is not open"), std::string::npos);
    EXPECT_EQ(sink.writeOffset(), 0u);
}

// The mover writes on a thread other than the one that opened the sink: HDF5's own error dump
// must stay off there too, and a failed write must not move the offset.
TEST(SinkHDF5Write, WriteBeyondTheDatasetFailsCleanlyFromAnotherThread) {
    TempDir dir;
    const std::string path = dir.file("out.h5");
    SinkHDF5 sink(path);
    sink.open(16);
    const auto head = littleEndianBytes({1, 2});
    const auto tooMuch = littleEndianBytes({9, 9, 9, 9});
    const auto tail = littleEndianBytes({3, 4});

    StderrCapture capture;
    bool threwHdf5 = false;
    std::thread mover([&] {
        sink.write(head.data(), 8);
        try {
            sink.write(tooMuch.data(), 16);
        } catch (const H5::Exception&) {
            threwHdf5 = true;
        }
    });
    mover.join();
    const std::string log = capture.text();

    EXPECT_TRUE(threwHdf5);
    EXPECT_NE(log.find("ERROR [SinkHDF5] SinkHDF5 failed to write with error "), std::string::npos)
        << log;
    EXPECT_EQ(log.find("HDF5-DIAG"), std::string::npos) << log;
    EXPECT_EQ(sink.writeOffset(), 2u);
    EXPECT_EQ(sink.write(tail.data(), 8), 8u);
    sink.close();
    EXPECT_EQ(readBack(path).values, (std::vector<int32_t>{1, 2, 3, 4}));
}

TEST(SinkHDF5Close, CloseWithoutOpenOnlyWarns) {
    TempDir dir;
    SinkHDF5 sink(dir.file("out.h5"));
    StderrCapture capture;
    EXPECT_NO_THROW(sink.close());
    const std::string log = capture.text();
    EXPECT_NE(log.find("WARNING [SinkHDF5] SinkHDF5 already closed"), std::string::npos) << log;
    EXPECT_NE(log.find("INFO [SinkHDF5] HDF5 sink closed"), std::string::npos) << log;
    EXPECT_FALSE(fileExists(dir.file("out.h5")));
}

TEST(SinkHDF5Close, AfterCloseWritesAreRefusedAndASecondCloseOnlyWarns) {
    TempDir dir;
    const std::string path = dir.file("out.h5");
    SinkHDF5 sink(path);
    sink.open(4);
    const auto bytes = littleEndianBytes({-5});
    sink.write(bytes.data(), 4);
    sink.close();
    EXPECT_THROW(sink.write(bytes.data(), 4), std::runtime_error);
    StderrCapture capture;
    EXPECT_NO_THROW(sink.close());
    EXPECT_NE(capture.text().find("SinkHDF5 already closed"), std::string::npos);
    EXPECT_EQ(readBack(path).values, std::vector<int32_t>{-5});
}

// A sink dropped without close (a run torn down early) still leaves a readable file.
TEST(SinkHDF5Close, DestroyingAnOpenSinkLeavesAReadableFile) {
    TempDir dir;
    const std::string path = dir.file("out.h5");
    {
        SinkHDF5 sink(path);
        sink.open(8);
        const auto bytes = littleEndianBytes({11, 12});
        sink.write(bytes.data(), 8);
    }
    EXPECT_EQ(readBack(path).values, (std::vector<int32_t>{11, 12}));
}

} // namespace
} // namespace quarvel
