// A recording's file as a crash at any moment leaves it, rebuilt from the driver's own log of
// what it did: after every operation (the process killed), and at random points with the last
// sync durable and each later page kept or lost (the power cut). Every such file must, after
// recovery, open with HDF5, hold the right values up to its "recorded_values", and claim at
// least what the last checkpoint synced before the cut claimed.
// Prints its seed; QUARVEL_TEST_SEED=N makes the same random choices again.

#include "sinks/Journal.h"
#include "sinks/Recovery.h"
#include "sinks/SinkHDF5.h"
#include "sinks/WriteBehindDriver.h"
#include "tests/support/Recording.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>
#include <hdf5.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace quarvel {
namespace {

using Op = WriteBehindDriver::Operation;

// Sanitized builds take some three times as long, emulated ones far longer: a shorter run.
constexpr bool kEmulated = sizeof(QUARVEL_LAUNCHER) > 1;
constexpr bool kSlow = sizeof(QUARVEL_SANITIZE) > 1 || kEmulated;
// Under the emulator every HDF5 read is some twenty times slower: a smaller run that still
// crosses many commits.
constexpr uint32_t kRunBytes = (kEmulated ? 4u : kSlow ? 16u : 64u) << 20;
constexpr int kPowerCuts = kEmulated ? 40 : kSlow ? 100 : 300;
constexpr uint32_t kPiece = kRunBytes / 512;
constexpr int kPacedCheckpoints = 24;
constexpr std::chrono::milliseconds kCheckpointPeriod{40};
constexpr size_t kPage = 4096;

// Slowly varying with a little noise: the file is a few MiB, written in many pieces.
int32_t valueAt(uint32_t index) {
    return static_cast<int32_t>(index / 1000 + (index * 2654435761u >> 29));
}

void replay(std::string& image, const Op& op) {
    if (op.kind == Op::Write) {
        const auto at = static_cast<size_t>(op.offset); // the file is in memory
        image.resize(std::max(image.size(), at + op.data.size()));
        std::memcpy(&image[at], op.data.data(), op.data.size());
    } else if (op.kind == Op::Truncate) {
        image.resize(static_cast<size_t>(op.offset));
    }
}

// What another program finds: "recorded_values", when the file opens and holds exactly the
// recording's values up to there.
std::optional<uint64_t> readRecording(const std::string& path, const std::vector<int32_t>& values) {
    const test::Recording r = test::readRecording(path);
    const bool good = r.opened && r.attributes.count("recorded_values") > 0 &&
                      r.length == values.size() && r.values.size() == r.recorded() &&
                      std::equal(r.values.begin(), r.values.end(), values.begin());
    return good ? std::optional<uint64_t>(r.recorded()) : std::nullopt;
}

struct Tally {
    int states = 0;
    int goodUnrecovered = 0;
    int bad = 0;
};

// Checks crash states one after another in a file of its own.
class Checker {
public:
    explicit Checker(const std::vector<int32_t>& values) : mValues(values) {}

    // Reading the values takes nearly all the time, and many states recover to the same file:
    // each content is read once.
    std::optional<uint64_t> read(const std::string& content) {
        const auto [at, added] = mRead.try_emplace(std::hash<std::string>{}(content));
        if (added) {
            test::writeFile(mPath, content);
            at->second = readRecording(mPath, mValues);
        }
        return at->second;
    }

    // A state that recovery calls a recording must be one; once a commit is synced, every
    // state must be a recording that goes at least as far as that commit claimed.
    void check(const std::string& state, std::optional<uint64_t> claim, Tally& tally,
               const std::string& what) {
        ++tally.states;
        const std::optional<uint64_t> raw = read(state);
        tally.goodUnrecovered += raw && claim && *raw >= *claim;
        test::writeFile(mPath, state);
        const Recovery recovery = recoverRecording(mPath);
        const bool recording = recovery.outcome == Recovery::Outcome::Repaired ||
                               recovery.outcome == Recovery::Outcome::NothingToDo;
        const std::optional<uint64_t> recovered = read(test::readFile(mPath));
        const bool good = recording ? recovered && *recovered == recovery.recordedValues &&
                                          *recovered >= claim.value_or(0)
                                    : !claim;
        if (!good && ++tally.bad <= 3) {
            ADD_FAILURE() << what << ", " << state.size() << " bytes: recovery "
                          << static_cast<int>(recovery.outcome) << " (" << recovery.reason << "), "
                          << recovery.recordedValues << " values; HDF5 reads "
                          << (recovered ? std::to_string(*recovered) : "no good recording")
                          << "; the last synced commit claimed " << claim.value_or(0);
        }
    }

private:
    const std::vector<int32_t>& mValues;
    test::TempDir mDir;
    const std::string mPath = mDir.file("state.h5");
    std::unordered_map<size_t, std::optional<uint64_t>> mRead;
};

TEST(Crash, EveryProcessCrashAndRandomPowerCutsLeaveARecordingThatRecovers) {
    const uint64_t seed = test::testSeed();
    SCOPED_TRACE("QUARVEL_TEST_SEED=" + std::to_string(seed));
    H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);

    std::vector<int32_t> values(kRunBytes / 4);
    for (uint32_t i = 0; i < values.size(); ++i) {
        values[i] = valueAt(i);
    }
    std::vector<Op> log;
    test::TempDir dir;
    {
        WriteBehindDriver::setOperationLog([&](const Op& op) { log.push_back(op); });
        const test::Finally stopLogging{[] { WriteBehindDriver::setOperationLog({}); }};
        SinkHDF5 sink(dir.file("run.h5"), SinkHDF5::kDefaultMetadataCacheBytes, 2,
                      kCheckpointPeriod);
        sink.open(kRunBytes);
        const auto* bytes = reinterpret_cast<const uint8_t*>(values.data());
        for (uint32_t piece = 1; piece <= kRunBytes / kPiece; ++piece) {
            sink.write(bytes + (piece - 1) * kPiece, kPiece);
            // A checkpoint at the next write, however fast the machine.
            if (piece % (kRunBytes / kPiece / kPacedCheckpoints) == 0) {
                std::this_thread::sleep_for(kCheckpointPeriod);
            }
        }
        sink.close();
    }

    // What each commit claims, read from the file right after it (its first close, with the
    // file still empty, claims nothing). The claim holds from the commit's last sync on: its
    // journal is then complete, or applied.
    Checker checker(values);
    std::vector<std::pair<size_t, uint64_t>> commits; // operations up to that sync, claim
    std::string image;
    size_t synced = 0;
    size_t dataWrites = 0;
    bool committing = false;
    for (size_t i = 0; i < log.size(); ++i) {
        replay(image, log[i]);
        synced = log[i].kind == Op::Sync ? i + 1 : synced;
        // Data goes out between a commit's end and the next one's first sync.
        dataWrites += log[i].kind == Op::Write && !committing;
        committing = log[i].kind != Op::Committed && (committing || log[i].kind == Op::Sync);
        if (log[i].kind == Op::Committed && !image.empty()) {
            const std::optional<uint64_t> claim = checker.read(image);
            EXPECT_TRUE(claim) << "right after commit " << commits.size();
            EXPECT_GE(claim.value_or(0), commits.empty() ? 0 : commits.back().second);
            commits.emplace_back(synced, claim.value_or(0));
        }
    }
    ASSERT_TRUE(image == test::readFile(dir.file("run.h5"))) << "the log is all the driver did";
    ASSERT_GE(commits.size(), 20u);
    EXPECT_EQ(commits.back().second, values.size());
    EXPECT_GT(commits[commits.size() / 2].second, 0u) << "claims grow with the recording";
    EXPECT_LT(commits[commits.size() / 2].second, values.size());
    EXPECT_GE(dataWrites, 1u * kPacedCheckpoints) << "at least one between two pauses";
    const auto claimAfter = [&](size_t durable) {
        std::optional<uint64_t> claim;
        for (const auto& [syncedBy, claimed] : commits) {
            claim = syncedBy <= durable ? std::optional<uint64_t>(claimed) : claim;
        }
        return claim;
    };

    // The process killed after any system call: all it wrote is in the file.
    Tally process, power;
    image.clear();
    checker.check(image, std::nullopt, process, "crash before any operation");
    for (size_t cut = 1; cut <= log.size(); ++cut) {
        if (log[cut - 1].kind != Op::Committed) {
            replay(image, log[cut - 1]);
            checker.check(image, claimAfter(cut), process,
                          "crash after operation " + std::to_string(cut));
        }
    }

    // Power lost: the disk keeps everything up to the last sync before the cut; of what came
    // after it, each page, and the file's size, as written or as before.
    std::mt19937_64 random(seed);
    std::vector<size_t> cuts(kPowerCuts);
    for (size_t& cut : cuts) {
        cut = std::uniform_int_distribution<size_t>(1, log.size())(random);
    }
    std::sort(cuts.begin(), cuts.end());
    std::string durable, written;
    size_t durableOps = 0, writtenOps = 0;
    int torn = 0;
    for (const size_t cut : cuts) {
        for (; writtenOps < cut; ++writtenOps) {
            replay(written, log[writtenOps]);
        }
        for (synced = cut; synced > 0 && log[synced - 1].kind != Op::Sync; --synced) {
        }
        for (; durableOps < synced; ++durableOps) {
            replay(durable, log[durableOps]);
        }
        std::string state(random() % 2 ? written.size() : durable.size(), '\0');
        for (size_t at = 0; at < state.size(); at += kPage) {
            const std::string& from = random() % 2 ? written : durable;
            if (at < from.size()) {
                const size_t n = std::min({kPage, state.size() - at, from.size() - at});
                state.replace(at, n, from, at, n);
            }
        }
        torn += state != durable && state != written;
        checker.check(state, claimAfter(synced), power,
                      "power cut after operation " + std::to_string(cut) + ", synced " +
                          std::to_string(synced));
    }

    std::printf("%zu operations, %zu data writes, %zu commits; good without recovery: %d of %d "
                "process crashes, %d of %d power cuts (%d torn)\n",
                log.size(), dataWrites, commits.size(), process.goodUnrecovered, process.states,
                power.goodUnrecovered, power.states, torn);
    RecordProperty("process_crashes_good_without_recovery", process.goodUnrecovered);
    RecordProperty("power_cuts_good_without_recovery", power.goodUnrecovered);
    EXPECT_EQ(process.bad, 0);
    EXPECT_EQ(power.bad, 0);
}

// A torn trailer tells nowhere to cut the file: it is left alone. A complete journal whose
// outcome HDF5 cannot read (it breaks the signature): recovery refuses it and puts the file back
// byte for byte, journal and all.
TEST(Crash, RecoveryLeavesAFileItCannotHelpAsItWas) {
    test::TempDir dir;
    const std::string path = dir.file("run.h5");
    {
        const std::vector<int32_t> values(1024, 7);
        SinkHDF5 sink(path);
        sink.open(4096);
        sink.write(reinterpret_cast<const uint8_t*>(values.data()), 4096);
        sink.close();
    }
    const std::string torn = test::readFile(path) + "QVJTRAIL" + std::string(32, '\0');
    test::writeFile(path, torn);
    EXPECT_EQ(recoverRecording(path).outcome, Recovery::Outcome::NothingToDo);
    EXPECT_TRUE(test::readFile(path) == torn);

    std::string image = test::readFile(path);
    const Journal journal{
        1, image.size(), {{0, std::vector<uint8_t>(8)}, {image.size() - 100, {100, 1}}}};
    const std::vector<uint8_t> tail = encodeJournal(journal, image.size());
    image.append(tail.begin(), tail.end());
    test::writeFile(path, image);
    const Recovery recovery = recoverRecording(path);
    EXPECT_EQ(recovery.outcome, Recovery::Outcome::CannotRepair);
    EXPECT_EQ(recovery.reason, "HDF5 cannot read it");
    EXPECT_TRUE(recovery.leftAsItWas);
    EXPECT_TRUE(test::readFile(path) == image);
}

} // namespace
} // namespace quarvel
