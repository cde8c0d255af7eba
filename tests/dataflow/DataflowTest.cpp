#include "dataflow/ChainAssembly.h"
#include "dataflow/DataMover.h"

#include "tests/support/TestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <sstream>
#include <thread>

namespace quarvel::test {
namespace {

using namespace std::chrono_literals;

auto refused(const std::string& text) {
    return testing::ThrowsMessage<std::runtime_error>(text);
}

// A decoder, so that one fake serves as source, sink or both. It delivers and expects the endless
// stream whose byte i is i % 251. Open and close are noted in a log shared with the other side of
// the mover; the worker writes there only before it announces its end.
struct FakeElement : AbstractDecoder {
    FakeElement(std::string& callLog, std::string elementName)
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
        if (failure) {
            std::rethrow_exception(failure);
        }
        if (emptyReads > 0) {
            --emptyReads;
            return 0;
        }
        for (uint32_t i = 0; i < len; ++i, ++produced) {
            buffer[i] = static_cast<uint8_t>(produced % 251);
        }
        return len;
    }
    void waitForMaybeData() override {
        ++waits;
        std::this_thread::sleep_for(1ms);
    }
    bool isEndOfData() override { return false; }
    uint32_t outputSizeFor(uint32_t size) override { return size; }
    uint32_t optimalWriteSize() override { return 4; }
    uint32_t write(const uint8_t* buffer, uint32_t len) override {
        const uint32_t n = std::min(len, maxPerWrite);
        for (uint32_t i = 0; i < n; ++i, ++received) {
            misplaced += buffer[i] != received % 251 ? 1 : 0;
        }
        return n;
    }

    std::string& calls;
    std::string name;
    uint32_t readSize = 4, emptyReads = 0, waits = 0, maxPerWrite = UINT32_MAX;
    uint32_t produced = 0, received = 0, misplaced = 0;
    std::exception_ptr failure;
    bool throwOnClose = false;
    std::vector<uint32_t> requests;
};

const std::string kOneCycle = "sink.open source.open source.close sink.close ";

struct Rig {
    void runToEnd(uint32_t size) {
        mover->start(size);
        for (int ms = 0; ms < 10000 && !mover->isFinished(); ++ms) {
            std::this_thread::sleep_for(1ms);
        }
        ASSERT_TRUE(mover->isFinished()) << "mover hangs";
    }
    void expectAborted(const std::string& expectedCalls) {
        EXPECT_TRUE(mover->failed());
        EXPECT_TRUE(mover->isFinished());
        EXPECT_EQ(mover->errorText(), "transfer aborted");
        EXPECT_EQ(calls, expectedCalls);
    }

    std::string calls;
    std::shared_ptr<FakeElement> source = std::make_shared<FakeElement>(calls, "source");
    std::shared_ptr<FakeElement> sink = std::make_shared<FakeElement>(calls, "sink");
    std::shared_ptr<DataMover> mover = std::make_shared<DataMover>(source, sink, "Mover 0 to 1");
};

// Both sides are opened and closed even for 0 bytes; then nothing is read.
TEST(DataMover, ReadsInBuffersOfAtMost128KiBAndDeliversEveryByteInOrder) {
    const struct {
        uint32_t size, readSize, emptyReads, maxPerWrite;
        std::vector<uint32_t> requests;
    } cases[] = {
        {0, 4, 0, UINT32_MAX, {}},
        {300000, 4, 0, UINT32_MAX, {131072, 131072, 37856}},
        {4, 4, 0, UINT32_MAX, {4}},                           // under 1 ms: the rate stays finite
        {300000, 12, 0, UINT32_MAX, {131064, 131064, 37872}}, // whole reads below 128 KiB
        {8192, 4, 2, UINT32_MAX, {8192, 8192, 8192}},         // nothing yet: wait, ask again
        {10000, 4, 0, 3000, {10000}},                         // the sink takes part at a time
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.size) + " by " + std::to_string(c.readSize));
        Rig rig;
        rig.source->readSize = c.readSize;
        rig.source->emptyReads = c.emptyReads;
        rig.sink->maxPerWrite = c.maxPerWrite;
        rig.runToEnd(c.size);
        EXPECT_FALSE(rig.mover->failed()) << rig.mover->errorText();
        EXPECT_EQ(rig.calls, kOneCycle);
        EXPECT_EQ(rig.source->requests, c.requests);
        EXPECT_EQ(rig.source->waits, c.emptyReads);
        EXPECT_EQ(rig.sink->received, c.size);
        EXPECT_EQ(rig.sink->misplaced, 0u);
        EXPECT_EQ(rig.mover->transferRate() > 0, c.size > 0);
        EXPECT_LE(uint64_t{rig.mover->transferRate()}, uint64_t{c.size} * 1000);
    }
}

// The first failure keeps its text. A close that throws once ended the process.
TEST(DataMover, FailureIsRecordedWithItsTextAndBothSidesAreClosed) {
    const struct {
        uint32_t maxPerWrite;
        std::exception_ptr readFailure;
        bool closeThrows;
        const char* text;
    } cases[] = {
        {0, nullptr, true, "wrote nothing"},
        {UINT32_MAX, std::make_exception_ptr(std::runtime_error("bad")), false, "bad"},
        {UINT32_MAX, std::make_exception_ptr(7), false, "unknown"},
        {UINT32_MAX, nullptr, true, "source close failed"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        Rig rig;
        rig.sink->maxPerWrite = c.maxPerWrite;
        rig.source->failure = c.readFailure;
        rig.source->throwOnClose = c.closeThrows;
        StderrCapture quiet(1);
        rig.runToEnd(4096);
        EXPECT_TRUE(rig.mover->failed());
        EXPECT_EQ(rig.mover->errorText(), c.text);
        EXPECT_EQ(rig.calls, kOneCycle);
    }
}

TEST(DataMover, AbortInAnyStateLeavesTheMoverFailedAndFinished) {
    Rig idle;
    EXPECT_THAT([&] { idle.mover->start(6); }, refused("Size must be a multiple of 4 bytes"));
    StderrCapture log(2);
    idle.mover->abort();
    EXPECT_NE(log.text().find("] abort data mover Mover 0 to 1\n"), std::string::npos);
    idle.expectAborted("");

    Rig waiting;
    waiting.source->emptyReads = UINT32_MAX; // the worker keeps waiting
    waiting.mover->start(4096);
    std::this_thread::sleep_for(20ms);
    EXPECT_FALSE(waiting.mover->isFinished());
    const auto before = std::chrono::steady_clock::now();
    waiting.mover->abort();
    EXPECT_LT(std::chrono::steady_clock::now() - before, 2s);
    waiting.expectAborted(kOneCycle);

    // An ended mover keeps its thread until aborted, and may run again after that.
    Rig ended;
    ended.runToEnd(4096);
    EXPECT_THAT([&] { ended.mover->start(4096); }, refused("DataMover is already running"));
    ended.mover->abort();
    ended.expectAborted(kOneCycle);
    ended.runToEnd(4096);
    EXPECT_FALSE(ended.mover->failed());
    EXPECT_EQ(ended.sink->received, 8192u);
}

TEST(DataMover, ProgressSegmentAndByteCounts) {
    std::ostringstream out;
    writeProgress(out, 65536, 131072, 512);
    writeProgress(out, 0, 0, 1000);
    const std::string blanks(37, ' ');
    EXPECT_EQ(out.str(), "64 KB / 128 KB     50%     @ 512 B/s" + blanks +
                             "0 B / 0 B     0%     @ 1e+03 B/s" + blanks);
    const std::pair<uint32_t, const char*> counts[] = {{131072, "128 KB"},   {1536, "1.5 KB"},
                                                       {1023, "1.02e+03 B"}, {1024, "1.02e+03 B"},
                                                       {3u << 20, "3 MB"},   {4294967295u, "4 GB"}};
    for (const auto& [value, text] : counts) {
        EXPECT_EQ(formatByteCount(value), text);
    }
}

TEST(ChainAssembly, ValidatesTheChainAndJoinsNeighboursWithNamedMovers) {
    std::string calls;
    const auto element = [&](bool isSource, bool isSink) {
        auto fake = std::make_shared<FakeElement>(calls, "element");
        return std::make_shared<DataSinkOrSource>(isSource ? fake : nullptr,
                                                  isSink ? fake : nullptr, "element");
    };
    const auto src = element(true, false), snk = element(false, true);
    const auto both = element(true, true), none = element(false, false);
    const std::string prefix = "Invalid configuration chain: ";
    const std::string middle =
        prefix + "elements in the middle must be both source and sink, index ";
    const std::pair<Chain, std::string> invalid[] = {
        {{}, prefix + "not enough elements"},
        {{src}, prefix + "not enough elements"},
        {{snk, src}, prefix + "first element must be a source"},
        {{src, src}, prefix + "last element must be a sink"},
        {{src, src, snk}, middle + "1"},
        {{src, snk, snk, snk}, middle + "1"},
        {{src, both, none, snk}, middle + "2"},
    };
    for (const auto& [chain, text] : invalid) {
        SCOPED_TRACE(chain.size());
        EXPECT_THAT([&] { createMovers(chain); }, refused(text));
    }
    EXPECT_THAT([&] { src->getSink(); }, refused("Is not a sink"));
    EXPECT_THAT([&] { snk->getSource(); }, refused("Is not a source"));

    const Chain chain = {src, both, snk};
    const auto movers = createMovers(chain);
    ASSERT_EQ(movers.size(), 2u);
    EXPECT_EQ(movers[0]->name(), "Mover 0 to 1");
    EXPECT_EQ(movers[1]->name(), "Mover 1 to 2");
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(movers[i]->source(), chain[i]->source);
        EXPECT_EQ(movers[i]->sink(), chain[i + 1]->sink);
    }
    EXPECT_EQ(createMovers({both, both}).size(), 1u); // the unused sides of the ends do no harm
}

} // namespace
} // namespace quarvel::test
