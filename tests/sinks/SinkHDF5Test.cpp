#include "sinks/SinkHDF5.h"
#include "tests/support/Recording.h"
#include "tests/support/TestSupport.h"

#include <H5Cpp.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
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

// The dataset as another program reads it.
std::vector<int32_t> storedValues(const std::string& path) {
    return test::readRecording(path).values;
}

// Samples arrive in host order, little-endian on every target.
const uint8_t* bytesOf(const std::vector<int32_t>& values) {
    return reinterpret_cast<const uint8_t*>(values.data());
}

// Totals around chunk boundaries, written in pieces that split values and chunks, read back
// through HDF5's own inflate, whatever the number of compressing workers; chunks of noise, which
// deflate cannot shrink, are stored raw. The dataset has a fixed size, and chunks of 4096 values
// deflated at level 6. Regression: HDF5's default metadata cache grew with the file; the chunk
// index outgrows this tiny one many times over.
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
            const H5::DataSet dataSet =
                H5::H5File(dir.file("out.h5"), H5F_ACC_RDONLY).openDataSet("quarvel");
            hsize_t size = 0, maxSize = 0, chunk = 0;
            dataSet.getSpace().getSimpleExtentDims(&size, &maxSize);
            EXPECT_EQ(maxSize, total / 4);
            const H5::DSetCreatPropList properties = dataSet.getCreatePlist();
            properties.getChunk(1, &chunk);
            EXPECT_TRUE(total < 16384 || chunk == 4096) << chunk;
            unsigned flags = 0, level = 0, config = 0;
            size_t count = 1; // throws without deflate
            properties.getFilterById(H5Z_FILTER_DEFLATE, flags, count, &level, 0, nullptr, config);
            EXPECT_EQ(level, 6u);
        }
    }
    EXPECT_FALSE(SinkHDF5::hasAbandonedFiles()) << "every file closed";
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

// A recording that holds every value is complete, whatever the run said; otherwise the run's
// first word counts, and a failed one says why.
TEST(SinkHDF5, EndsAsTheRunsFirstWordSaysUnlessItHoldsEveryValue) {
    using Told = RunOutcome;
    const struct {
        uint32_t written;
        Told first, then;
        std::string ending;
    } cases[] = {{32, Told::Failed, Told::Failed, "complete "},
                 {16, Told::Failed, Told::Stopped, "failed the decoder broke"},
                 {16, Told::Stopped, Told::Failed, "stopped "}};
    const std::vector<int32_t> values(8, 5);
    for (const auto& c : cases) {
        TempDir dir;
        SinkHDF5 sink(dir.file("out.h5"));
        sink.open(32);
        sink.write(bytesOf(values), c.written);
        sink.runEnding(c.first, "the decoder broke");
        sink.runEnding(c.then, "too late");
        sink.close();
        auto attributes = test::readRecording(dir.file("out.h5")).attributes;
        EXPECT_EQ(attributes["state"] + " " + attributes["failure"], c.ending);
    }
}

} // namespace
} // namespace quarvel
