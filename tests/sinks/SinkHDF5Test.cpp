#include "sinks/SinkHDF5.h"
#include "tests/support/Recording.h"
#include "tests/support/TestSupport.h"

#include <H5Cpp.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
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

// The dataset as another program reads it.
std::vector<int32_t> storedValues(const std::string& path) {
    return test::readRecording(path).values;
}

// Samples arrive in host order, little-endian on every target.
const uint8_t* bytesOf(const std::vector<int32_t>& values) {
    return reinterpret_cast<const uint8_t*>(values.data());
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
    EXPECT_THAT(capture.text(), Not(HasSubstr("HDF5-DIAG")));
    EXPECT_EQ(storedValues(path), (std::vector<int32_t>{1, 2, 3, 4}));
}

// Totals around chunk boundaries, written in pieces that split values and chunks, read back
// through HDF5's own inflate, whatever the number of compressing workers; chunks of noise, which
// deflate cannot shrink, are stored raw. Regression: HDF5's default metadata cache grew with the
// file; the chunk index outgrows this tiny one many times over.
TEST(SinkHDF5, ValuesSurviveAnyWriteLengthAndChunkBoundary) {
    for (const unsigned workers : {1u, 3u, 0u}) {
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

// How a run ended reaches the file.
TEST(SinkHDF5, TheFileSaysHowTheRecordingEnded) {
    const std::vector<int32_t> values{7, 8, 9, 10};
    struct Case {
        const char* told; // nullptr: nothing told
        uint32_t written;
        const char* state;
        const char* failure;
    } cases[] = {{nullptr, 16, "complete", ""},
                 {"failed", 16, "complete", ""}, // every value is there all the same
                 {nullptr, 8, "stopped", ""},
                 {"stopped", 8, "stopped", ""},
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
        auto recording = test::readRecording(path);
        EXPECT_EQ(recording.attributes["state"], c.state);
        EXPECT_EQ(recording.recorded(), c.written / 4);
        EXPECT_EQ(recording.attributes["failure"], c.failure);
        EXPECT_NE(::access(SinkHDF5::temporaryName(path).c_str(), F_OK), 0);
    }
    EXPECT_FALSE(SinkHDF5::hasAbandonedFiles()) << "every file closed";
}

} // namespace
} // namespace quarvel
