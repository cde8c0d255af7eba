// Every word the device hands over reaches the file, however the device cuts it up: a FIFO fed
// with random bytes in random pieces, most of them not whole words, with random pauses and
// writers that go away and come back; each file is compared value by value with a decoding of
// the test's own. Root only (the control directory lies in a mount namespace of the test).
// Each test prints its first seed; QUARVEL_TEST_SEED=N runs the seeds from N on again.

#include "tests/app/Harness.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <random>

namespace quarvel::test {
namespace {

using namespace std::chrono_literals;

// Writes random bytes into a FIFO as a slow producer, a pipe from another program or a driver's
// partial reads would: pieces of 1 byte to 64 KiB, short pauses, now and then a new writer.
// Hands over total bytes, or what the reader takes until it is gone; keeps them in handed.
class Feeder {
public:
    Feeder(std::string fifo, uint64_t seed) : mFifo(std::move(fifo)), mRandom(seed) {}

    void feed(size_t total, const std::atomic<bool>& readerGone) {
        int fd = openWriter(readerGone);
        std::uniform_int_distribution<int> percent(0, 99);
        while (fd >= 0 && handed.size() < total) {
            const int kind = percent(mRandom);
            const size_t most = kind < 40 ? 8 : kind < 70 ? 4096 : 65536;
            std::string piece(std::min(total - handed.size(),
                                       std::uniform_int_distribution<size_t>(1, most)(mRandom)),
                              '\0');
            for (char& c : piece) {
                c = static_cast<char>(mRandom());
            }
            const ssize_t n = ::write(fd, piece.data(), piece.size());
            if (n <= 0) {
                break; // the reader is gone
            }
            handed.append(piece, 0, static_cast<size_t>(n));
            if (percent(mRandom) < 25) {
                std::this_thread::sleep_for(std::chrono::microseconds(percent(mRandom) * 20));
            }
            if (percent(mRandom) < 2) {
                ::close(fd); // the reader meets the end of the FIFO, then a new writer
                std::this_thread::sleep_for(std::chrono::microseconds(percent(mRandom) * 50));
                fd = openWriter(readerGone);
            }
        }
        if (fd >= 0) {
            ::close(fd);
        }
    }

    std::string handed;

private:
    // The reader appears within the time the program takes to start.
    int openWriter(const std::atomic<bool>& readerGone) const {
        while (!readerGone.load()) {
            const int fd = ::open(mFifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            if (fd >= 0) {
                ::fcntl(fd, F_SETFL, 0); // blocking writes from now on
                return fd;
            }
            std::this_thread::sleep_for(1ms);
        }
        return -1;
    }

    std::string mFifo;
    std::mt19937_64 mRandom;
};

struct Fed {
    Finished finished;
    std::string handed;
    Recording recording;
};

// One run of the scheme on a FIFO fed with total bytes; stopAfter > 0 sends SIGTERM that long
// after the program has created its file.
Fed record(const std::string& conf, uint64_t seed, size_t total, size_t dataBytes,
           std::chrono::milliseconds stopAfter) {
    TempDir dir;
    const std::string fifo = dir.file("fifo"), file = dir.file("rec.h5");
    EXPECT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    Program program({{"--conf=" + conf, "--rec-dev=" + fifo, "--file=" + file,
                      "--data-bytes=" + std::to_string(dataBytes)}});
    std::atomic<bool> gone{false};
    Feeder feeder(fifo, seed);
    std::thread writer([&] { feeder.feed(total, gone); });
    if (stopAfter > 0ms) {
        EXPECT_TRUE(eventually(
            [&] { return !program.running() || access((file + ".part").c_str(), F_OK) == 0; }));
        std::this_thread::sleep_for(stopAfter);
        kill(program.pid(), SIGTERM);
    }
    Fed fed{program.wait(), {}, {}};
    gone.store(true);
    writer.join();
    fed.handed = std::move(feeder.handed);
    fed.recording = readRecording(file);
    return fed;
}

class EveryWord : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override {
        const std::string why = privateControlDirectory();
        if (!why.empty()) {
            GTEST_SKIP() << why;
        }
        signal(SIGPIPE, SIG_IGN); // a writer whose reader has gone gets EPIPE
        seed = testSeed();
    }
    uint64_t seed = 0;
};

TEST_P(EveryWord, ReachesTheFileWhateverPiecesTheDeviceHandsOver) {
    const std::string conf = GetParam();
    for (uint64_t run = seed; run < seed + 3; ++run) {
        SCOPED_TRACE("QUARVEL_TEST_SEED=" + std::to_string(run));
        std::mt19937_64 random(run);
        const size_t total = std::uniform_int_distribution<size_t>(1, 1 << 19)(random) * 4;
        const Fed fed = record(conf, run, total, total, 0ms);
        EXPECT_EQ(fed.finished.exitCode, 0) << fed.finished.err;
        ASSERT_TRUE(fed.recording.opened);
        EXPECT_EQ(fed.recording.attributes.at("state"), "complete");
        const std::vector<int32_t> expected = decoded(conf, fed.handed);
        EXPECT_EQ(fed.handed.size(), total);
        EXPECT_EQ(fed.recording.recorded(), expected.size());
        EXPECT_TRUE(fed.recording.values == expected) << "the file differs from the device's words";
    }
}

// A stop at a random moment keeps every whole word read: at most what the FIFO still held, one
// pipe buffer, and an unfinished word are missing.
TEST_P(EveryWord, StoppedRunKeepsEveryWordItRead) {
    const std::string conf = GetParam();
    for (uint64_t run = seed; run < seed + 3; ++run) {
        SCOPED_TRACE("QUARVEL_TEST_SEED=" + std::to_string(run));
        std::mt19937_64 random(run);
        const auto stopAfter =
            std::chrono::milliseconds(std::uniform_int_distribution<int>(20, 400)(random));
        const Fed fed = record(conf, run, size_t{1} << 30, 1u << 30, stopAfter);
        EXPECT_EQ(fed.finished.exitCode, 1) << fed.finished.err;
        // A run stopped before it stored anything leaves no file.
        const uint64_t recorded = fed.recording.opened ? fed.recording.recorded() : 0;
        if (fed.recording.opened) {
            EXPECT_EQ(fed.recording.attributes.at("state"), "stopped");
            std::vector<int32_t> expected = decoded(conf, fed.handed);
            ASSERT_LE(recorded, expected.size());
            expected.resize(static_cast<size_t>(recorded));
            EXPECT_TRUE(fed.recording.values == expected)
                << "the file differs from the device's words";
        }
        const size_t bytesPerValue = conf == "lumetra" ? 2 : 4, pipeBuffer = 65536;
        EXPECT_LE(fed.handed.size(), recorded * bytesPerValue + pipeBuffer + 3)
            << "more than the FIFO could hold was lost";
    }
}

INSTANTIATE_TEST_SUITE_P(Schemes, EveryWord, ::testing::Values("int32", "tavoadc", "lumetra"),
                         [](const auto& scheme) { return scheme.param; });

} // namespace
} // namespace quarvel::test
