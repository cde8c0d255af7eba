#include "dataflow/ChainAssembly.h"
#include "dataflow/DataMover.h"

#include "tests/support/TestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

namespace quarvel::test {
namespace {

using namespace std::chrono_literals;

// Source, sink or both: delivers and expects the stream whose byte i is i % 251. Open and close
// go to a log shared with the mover's other side.
struct Fake : AbstractDataSource, AbstractDataSink {
    Fake(std::string& callLog, std::string elementName)
        : calls(callLog), name(std::move(elementName)) {}
    void open(uint32_t) override { calls += name + ".open "; }
    void close() override {
        calls += name + ".close ";
        if (throwOnClose) {
            throw std::runtime_error(name + " close failed");
        }
    }
    uint32_t optimalReadSize() override { return readSize; }
    uint32_t read(uint8_t* buffer, uint32_t len) override {
        requests.push_back(len);
        if (!failure.empty()) {
            throw std::runtime_error(failure);
        }
        if (requests.size() <= emptyReads) {
            return 0;
        }
        for (uint32_t i = 0; i < len; ++i, ++produced) {
            buffer[i] = static_cast<uint8_t>(produced % 251);
        }
        return len;
    }
    void waitForMaybeData() override {
        waits.fetch_add(1);
        std::this_thread::sleep_for(1ms);
    }
    bool isEndOfData() override { return false; }
    uint32_t optimalWriteSize() override { return 4; }
    uint32_t write(const uint8_t* buffer, uint32_t len) override {
        const uint32_t n = std::min(len, maxPerWrite);
        for (uint32_t i = 0; i < n; ++i, ++received) {
            misplaced += buffer[i] != received % 251 ? 1u : 0u;
        }
        return n;
    }

    std::string& calls;
    std::string name, failure;
    uint32_t readSize = 4, maxPerWrite = UINT32_MAX;
    std::atomic<uint32_t> waits{0}; // read while the worker runs
    uint32_t emptyReads = 0;        // the first reads find nothing
    uint32_t produced = 0, received = 0, misplaced = 0;
    bool throwOnClose = false;
    std::vector<uint32_t> requests;
};

const std::string kOneCycle = "sink.open source.open source.close sink.close ";

struct Rig {
    void runToEnd(uint32_t size) {
        mover->start(size);
        ASSERT_TRUE(eventually([this] { return mover->isFinished(); })) << "mover hangs";
    }

    std::string calls;
    std::shared_ptr<Fake> source = std::make_shared<Fake>(calls, "source");
    std::shared_ptr<Fake> sink = std::make_shared<Fake>(calls, "sink");
    std::shared_ptr<DataMover> mover = std::make_shared<DataMover>(source, sink, "Mover 0 to 1");
};

// Both sides are opened and closed, even for 0 bytes or after a failure, whose first keeps its
// text. A close that throws once ended the process.
TEST(DataMover, MovesEveryByteInBuffersOfAtMost128KiBOrRecordsTheFirstFailure) {
    const struct {
        uint32_t size, readSize, emptyReads, maxPerWrite;
        std::vector<uint32_t> requests;
        uint32_t received;
        std::string error{}, readFailure{};
        bool closeThrows = false;
    } cases[] = {
        {0, 4, 0, UINT32_MAX, {}, 0},
        {300000, 4, 0, UINT32_MAX, {131072, 131072, 37856}, 300000},
        {4, 4, 0, UINT32_MAX, {4}, 4},                                // under 1 ms: a finite rate
        {300000, 12, 0, UINT32_MAX, {131064, 131064, 37872}, 300000}, // whole reads below 128 KiB
        {8192, 4, 2, UINT32_MAX, {8192, 8192, 8192}, 8192},           // nothing yet: wait, retry
        {10000, 4, 0, 3000, {10000}, 10000},                          // the sink takes a part
        {4096, 4, 0, 0, {4096}, 0, "wrote nothing", "", true},
        {4096, 4, 0, UINT32_MAX, {4096}, 0, "bad", "bad"},
        {4096, 4, 0, UINT32_MAX, {4096}, 4096, "source close failed", "", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.size) + " by " + std::to_string(c.readSize) + c.error);
        Rig rig;
        rig.source->readSize = c.readSize;
        rig.source->emptyReads = c.emptyReads;
        rig.source->failure = c.readFailure;
        rig.source->throwOnClose = c.closeThrows;
        rig.sink->maxPerWrite = c.maxPerWrite;
        StderrCapture quiet(1);
        rig.runToEnd(c.size);
        EXPECT_EQ(rig.mover->failed(), !c.error.empty());
        EXPECT_EQ(rig.mover->errorText(), c.error);
        EXPECT_EQ(rig.calls, kOneCycle);
        EXPECT_EQ(rig.source->requests, c.requests);
        EXPECT_EQ(rig.source->waits.load(), c.emptyReads);
        EXPECT_EQ(rig.sink->received, c.received);
        EXPECT_EQ(rig.sink->misplaced, 0u);
        EXPECT_EQ(rig.mover->transferRate() > 0, c.received > 0);
        EXPECT_LE(uint64_t{rig.mover->transferRate()}, uint64_t{c.received} * 1000);
    }
}

// The transfer run sleeps on this instead of looking again and again.
TEST(DataMover, AMoverThatEndsWakesTheRunWaitingForIt) {
    Rig rig;
    rig.source->emptyReads = 20; // the end comes a while after the wait starts
    const uint64_t seen = moverEndings();
    const auto start = std::chrono::steady_clock::now();
    rig.mover->start(4096);
    waitForMoverEnding(seen, 20s);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s) << "woken by the timeout";
    EXPECT_TRUE(rig.mover->isFinished());
    EXPECT_EQ(moverEndings(), seen + 1);
}

// The first element only gives, the last only takes, those between do both; each mover joins
// one element's source to the next one's sink.
TEST(ChainAssembly, RefusesChainsThatCannotCarryDataAndJoinsNeighbours) {
    Rig rig;
    const auto src = std::make_shared<DataSinkOrSource>(rig.source, nullptr, "source");
    const auto snk = std::make_shared<DataSinkOrSource>(nullptr, rig.sink, "sink");
    const auto both = std::make_shared<DataSinkOrSource>(rig.source, rig.sink, "both");
    const auto none = std::make_shared<DataSinkOrSource>(nullptr, nullptr, "none");
    for (const Chain& invalid : std::vector<Chain>{{},
                                                   {src},
                                                   {snk, src},
                                                   {src, src},
                                                   {src, src, snk},
                                                   {src, snk, snk},
                                                   {src, both, none, snk}}) {
        EXPECT_THROW(createMovers(invalid), std::runtime_error) << invalid.size() << " elements";
    }
    const auto movers = createMovers({src, both, snk});
    ASSERT_EQ(movers.size(), 2u);
    EXPECT_TRUE(movers[0]->source() == rig.source && movers[0]->sink() == rig.sink);
    EXPECT_EQ(createMovers({both, both}).size(), 1u); // the unused sides of the ends do no harm
}

} // namespace
} // namespace quarvel::test
