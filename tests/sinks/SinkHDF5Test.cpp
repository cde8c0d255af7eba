#include "sinks/SinkHDF5.h"
#include "tests/support/TestSupport.h"

#include <H5Cpp.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
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

// The dataset as another program reads it, through HDF5 itself.
std::vector<int32_t> storedValues(const std::string& path) {
    const H5::DataSet dataSet = H5::H5File(path, H5F_ACC_RDONLY).openDataSet("quarvel");
    std::vector<int32_t> values(static_cast<size_t>(dataSet.getSpace().getSimpleExtentNpoints()));
    dataSet.read(values.data(), H5::PredType::NATIVE_INT32);
    return values;
}

// Samples arrive in host order, little-endian on every target.
const uint8_t* bytesOf(const std::vector<int32_t>& values) {
    return reinterpret_cast<const uint8_t*>(values.data());
}

// Dropped without close, as in a run torn down early, the sink still leaves a whole file.
TEST(SinkHDF5, ReplacesAnOlderFileAndKeepsWholeValuesWithoutClose) {
    TempDir dir;
    const std::string path = dir.file("out.h5");
    test::writeFile(path, "an older file");
    {
        SinkHDF5 sink(path);
        sink.open(12);
        const uint8_t bytes[] = {1, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 5, 0, 0, 0, 0xEE, 0xEE, 0xEE};
        EXPECT_EQ(sink.write(bytes, 8), 8u);
        EXPECT_EQ(sink.write(bytes + 8, 7), 7u); // the partial value is dropped
    }
    EXPECT_EQ(storedValues(path), (std::vector<int32_t>{1, -1, 5}));
}

// Without a byte count: an empty dataset in chunks of 4097 values.
TEST(SinkHDF5, DataSetIsBigEndianInt32DeflatedInChunksThatFollowTheTotalSize) {
    for (const auto& [total, chunk] :
         {std::pair{1000000u, 4096u}, std::pair{4096u, 1024u}, std::pair{0u, 4097u}}) {
        SCOPED_TRACE(total);
        TempDir dir;
        SinkHDF5 sink(dir.file("out.h5"));
        sink.open(total);
        const std::vector<uint8_t> zeros(total);
        EXPECT_EQ(sink.write(zeros.data(), total), total);
        sink.close();

        const H5::DataSet dataSet =
            H5::H5File(dir.file("out.h5"), H5F_ACC_RDONLY).openDataSet("quarvel");
        EXPECT_TRUE(dataSet.getIntType() == H5::PredType::STD_I32BE);
        const H5::DataSpace space = dataSet.getSpace();
        ASSERT_EQ(space.getSimpleExtentNdims(), 1);
        hsize_t size = 0, maxSize = 0, stored = 0;
        space.getSimpleExtentDims(&size, &maxSize);
        EXPECT_EQ(size, total / 4);
        EXPECT_EQ(maxSize, total / 4);
        const H5::DSetCreatPropList properties = dataSet.getCreatePlist();
        properties.getChunk(1, &stored);
        EXPECT_EQ(stored, chunk);
        unsigned flags = 0, level = 0, config = 0;
        size_t count = 1; // throws without deflate
        properties.getFilterById(H5Z_FILTER_DEFLATE, flags, count, &level, 0, nullptr, config);
        EXPECT_EQ(level, 6u);
    }
}

// Regression: a second open must leave the first file usable.
TEST(SinkHDF5, MisuseIsRefusedAndTheOpenFileStaysUsable) {
    TempDir dir;
    const std::string path = dir.file("out.h5");
    SinkHDF5 sink(path);
    const std::vector<int32_t> values{1, 2, 9, 9, 9, 9, 3, 4};
    StderrCapture capture;
    EXPECT_THAT([&] { sink.open(6); },
                ThrowsMessage<std::runtime_error>(
                    StrEq("Invalid transfer length: not a multiple of HDF5 data type")));
    EXPECT_NE(::access(path.c_str(), F_OK), 0) << "open(6) created the file";
    EXPECT_THAT([&] { sink.write(bytesOf(values), 4); },
                ThrowsMessage<std::runtime_error>(
                    StrEq("Cannot write to HDF5 output as it has not been open yet")));

    sink.open(16);
    EXPECT_THAT([&] { sink.open(16); },
                ThrowsMessage<std::runtime_error>(StrEq("SinkHDF5 already open")));
    // Regression: the mover's own thread must not dump HDF5's error stack either.
    std::thread mover([&] {
        EXPECT_EQ(sink.write(bytesOf(values), 8), 8u);
        EXPECT_THROW(sink.write(bytesOf(values) + 8, 16), H5::Exception) << "beyond the dataset";
    });
    mover.join();
    EXPECT_EQ(sink.write(bytesOf(values) + 24, 8), 8u);
    sink.close();

    const std::string log = capture.text();
    EXPECT_THAT(log, HasSubstr("ERROR [SinkHDF5] write: sink is not open"));
    EXPECT_THAT(log, HasSubstr("ERROR [SinkHDF5] -open: already open"));
    EXPECT_THAT(log, HasSubstr("ERROR [SinkHDF5] SinkHDF5 failed to write with error "));
    EXPECT_THAT(log, Not(HasSubstr("HDF5-DIAG")));
    EXPECT_EQ(storedValues(path), (std::vector<int32_t>{1, 2, 3, 4}));
}

// Totals around chunk boundaries, written in pieces that split values and chunks, read back
// through HDF5's own inflate; with one worker and with one per CPU. Regression: HDF5's default
// metadata cache grew with the file; the chunk index outgrows this tiny one many times over.
TEST(SinkHDF5, ValuesSurviveAnyWriteLengthAndChunkBoundary) {
    for (const unsigned workers : {1u, 0u}) {
        for (const uint32_t total :
             {0u, 4u, 16380u, 16384u, 16388u, 300000u, (1u << 20) + 4, (5u << 20) + 16384}) {
            SCOPED_TRACE(std::to_string(workers) + " workers, " + std::to_string(total));
            std::vector<int32_t> expected(total / 4);
            for (size_t i = 0; i < expected.size(); ++i) {
                // Every seventh chunk noise, which deflate cannot shrink.
                expected[i] = (i / 4096) % 7 == 3 ? static_cast<int32_t>(i * 2654435761u)
                                                  : static_cast<int32_t>(i / 3) - 1000;
            }
            TempDir dir;
            SinkHDF5 sink(dir.file("out.h5"), 4096, workers);
            sink.open(total);
            ASSERT_EQ(sink.metadataCacheLimit(), 4096u);
            const uint8_t* bytes = bytesOf(expected);
            for (uint32_t done = 0, i = 0; done < total; ++i) {
                const uint32_t piece = std::min<uint32_t>(4 * (1 + i * 977 % 9000), total - done);
                ASSERT_EQ(sink.write(bytes + done, piece), piece);
                done += piece;
            }
            sink.close();
            EXPECT_EQ(storedValues(dir.file("out.h5")), expected);
        }
    }
}

// A chunk that deflate cannot shrink is stored raw, marked so in its filter mask.
TEST(SinkHDF5, IncompressibleChunksAreStoredRawAndMarked) {
    TempDir dir;
    std::vector<int32_t> values(2 * 4096);
    for (size_t i = 0; i < values.size(); ++i) {
        values[i] = i < 4096 ? static_cast<int32_t>(i * 2654435761u) : 5;
    }
    SinkHDF5 sink(dir.file("out.h5"));
    sink.open(static_cast<uint32_t>(values.size() * 4));
    sink.write(bytesOf(values), static_cast<uint32_t>(values.size() * 4));
    sink.close();
    EXPECT_EQ(storedValues(dir.file("out.h5")), values);

    const H5::DataSet dataSet =
        H5::H5File(dir.file("out.h5"), H5F_ACC_RDONLY).openDataSet("quarvel");
    const H5::DataSpace space = dataSet.getSpace();
    for (const auto& [index, mask] : {std::pair{0u, 1u}, std::pair{1u, 0u}}) {
        hsize_t offset = 0, size = 0;
        unsigned filterMask = 99;
        haddr_t address = 0;
        ASSERT_GE(H5Dget_chunk_info(dataSet.getId(), space.getId(), index, &offset, &filterMask,
                                    &address, &size),
                  0);
        EXPECT_EQ(filterMask, mask) << "chunk " << index;
        EXPECT_EQ(size == 16384, mask == 1u) << "chunk " << index;
    }
}

// Whether HDF5 prints its error stack on this thread: a setting of each thread.
bool hdf5PrintsErrors() {
    H5E_auto2_t print = nullptr;
    void* data = nullptr;
    return H5Eget_auto2(H5E_DEFAULT, &print, &data) >= 0 && print != nullptr;
}

// Regression: the sink turned HDF5's printing off for good on every thread that called it. It
// is off only during the sink's own calls, on whichever thread makes them.
TEST(SinkHDF5, Hdf5IsQuietDuringTheSinksCallsOnEveryThreadAndPrintsAgainAfter) {
    TempDir dir;
    const std::vector<int32_t> values{1, 2, 3, 4};
    std::string log;
    {
        StderrCapture capture(2);
        // A metadata cache that HDF5 refuses: its failure is logged by the sink, the stack is not.
        SinkHDF5 sink(dir.file("out.h5"), 16);
        std::thread job([&] {
            sink.open(16);
            EXPECT_TRUE(hdf5PrintsErrors()) << "the job's thread";
        });
        job.join();
        std::thread mover([&] {
            EXPECT_EQ(sink.write(bytesOf(values), 16), 16u);
            sink.close();
            EXPECT_TRUE(hdf5PrintsErrors()) << "the mover's thread";
        });
        mover.join();
        log = capture.text();
    }
    EXPECT_THAT(log, HasSubstr("WARNING [SinkHDF5] could not limit HDF5's metadata cache"));
    EXPECT_THAT(log, Not(HasSubstr("HDF5-DIAG")));
    EXPECT_EQ(storedValues(dir.file("out.h5")), values);

    StderrCapture capture;
    EXPECT_LT(H5Fopen(dir.file("missing.h5").c_str(), H5F_ACC_RDONLY, H5P_DEFAULT), 0);
    EXPECT_THAT(capture.text(), HasSubstr("HDF5-DIAG")) << "printing is back on this thread";
}

std::string stateOf(const std::string& path, uint64_t& recorded, std::string& failure) {
    const H5::DataSet dataSet = H5::H5File(path, H5F_ACC_RDONLY).openDataSet("quarvel");
    dataSet.openAttribute("recorded_values").read(H5::PredType::NATIVE_UINT64, &recorded);
    const auto text = [&](const char* name) {
        const H5::Attribute attribute = dataSet.openAttribute(name);
        std::string value;
        attribute.read(attribute.getStrType(), value);
        return value.substr(0, value.find('\0'));
    };
    failure = dataSet.attrExists("failure") ? text("failure") : "(none)";
    return text("state");
}

// How a run ended reaches the file; a recording of nothing leaves the file name alone.
TEST(SinkHDF5, TheFileSaysHowTheRecordingEnded) {
    const std::vector<int32_t> values{7, 8, 9, 10};
    struct Case {
        const char* told; // nullptr: nothing told
        uint32_t written;
        const char* state;
        const char* failure;
    } cases[] = {{nullptr, 16, "complete", "(none)"},
                 {"failed", 16, "complete", "(none)"}, // every value is there all the same
                 {nullptr, 8, "stopped", "(none)"},
                 {"stopped", 8, "stopped", "(none)"},
                 {"failed", 8, "failed", "Mover 0 to 1: the decoder choked"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.told ? c.told : "-") + " " + std::to_string(c.written));
        TempDir dir;
        const std::string path = dir.file("out.h5");
        SinkHDF5 sink(path);
        sink.open(16);
        ASSERT_EQ(sink.write(bytesOf(values), c.written), c.written);
        if (c.told) {
            sink.runEnding(std::string(c.told) == "failed" ? RunOutcome::Failed
                                                           : RunOutcome::Stopped,
                           "Mover 0 to 1: the decoder choked");
        }
        sink.close();
        uint64_t recorded = 0;
        std::string failure;
        EXPECT_EQ(stateOf(path, recorded, failure), c.state);
        EXPECT_EQ(recorded, c.written / 4);
        EXPECT_EQ(failure, c.failure);
        EXPECT_NE(::access(SinkHDF5::temporaryName(path).c_str(), F_OK), 0);
    }

    TempDir dir;
    const std::string path = dir.file("out.h5");
    test::writeFile(path, "an older file");
    {
        SinkHDF5 sink(path);
        sink.open(16);
        sink.runEnding(RunOutcome::Failed, "nothing came");
        sink.close();
    }
    EXPECT_EQ(test::readFile(path), "an older file");
    EXPECT_NE(::access(SinkHDF5::temporaryName(path).c_str(), F_OK), 0);
}

// Regression: a checkpoint while a chunk was half filled sent its batch to the workers and went
// on filling a fresh buffer, losing the half already there.
TEST(SinkHDF5, CheckpointsInTheMiddleOfAChunkKeepEveryValue) {
    TempDir dir;
    const std::string path = dir.file("out.h5");
    std::vector<int32_t> values(3 * 4096 + 77);
    for (size_t i = 0; i < values.size(); ++i) {
        values[i] = static_cast<int32_t>(i * 2654435761u);
    }
    {
        SinkHDF5 sink(path, SinkHDF5::kDefaultMetadataCacheBytes, 1, std::chrono::milliseconds(0));
        sink.open(static_cast<uint32_t>(values.size() * 4));
        for (size_t at = 0; at < values.size() * 4; at += 6000) {
            const auto len = static_cast<uint32_t>(std::min<size_t>(6000, values.size() * 4 - at));
            ASSERT_EQ(sink.write(bytesOf(values) + at, len), len);
            sink.idle(); // a checkpoint each time
        }
        sink.close();
    }
    EXPECT_TRUE(storedValues(path) == values);
}

} // namespace
} // namespace quarvel
