#include "dataflow/DataMover.h"

#include "Fakes.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <sstream>

namespace quarvel::test {
namespace {

using namespace std::chrono_literals;

struct Rig {
    explicit Rig(uint32_t available)
        : source(std::make_shared<FakeSource>(available)), sink(std::make_shared<FakeSink>()),
          mover(std::make_shared<DataMover>(source, sink, "Mover 0 to 1")) {}

    void runToEnd(uint32_t size) {
        mover->start(size);
        ASSERT_TRUE(waitUntil([&] { return mover->isFinished(); }, 10s)) << "mover hangs";
    }

    std::shared_ptr<FakeSource> source;
    std::shared_ptr<FakeSink> sink;
    std::shared_ptr<DataMover> mover;
};

TEST(DataMoverTransfer, ZeroBytesOpensAndClosesBothSidesWithoutReading) {
    Rig rig(0);
    rig.runToEnd(0);
    EXPECT_FALSE(rig.mover->failed());
    EXPECT_EQ(rig.source->opens, 1);
    EXPECT_EQ(rig.sink->opens, 1);
    EXPECT_EQ(rig.source->closes, 1);
    EXPECT_EQ(rig.sink->closes, 1);
    EXPECT_TRUE(rig.source->requests.empty());
}

TEST(DataMoverTransfer, SizeNotMultipleOfFourIsRefusedBeforeOpening) {
    Rig rig(8);
    try {
        rig.mover->start(6);
        FAIL() << "start(6) must throw";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Size must be a multiple of 4 bytes");
    }
    EXPECT_EQ(rig.source->opens, 0);
    EXPECT_EQ(rig.sink->opens, 0);
}

TEST(DataMoverTransfer, ReadsInBuffersOf128KiBAndDeliversEveryByteInOrder) {
    Rig rig(300000);
    rig.runToEnd(300000);
    EXPECT_FALSE(rig.mover->failed());
    EXPECT_EQ(rig.source->requests, (std::vector<uint32_t>{131072, 131072, 37856}));
    EXPECT_EQ(rig.sink->data, pattern(300000));
    EXPECT_EQ(rig.mover->bytesTransferred(), 300000u);
}

TEST(DataMoverTransfer, SmallTransferIsOneRequestOfItsSize) {
    Rig rig(4096);
    rig.runToEnd(4096);
    EXPECT_EQ(rig.source->requests, (std::vector<uint32_t>{4096}));
}

TEST(DataMoverTransfer, EmptyReadWaitsAndRepeatsTheSameRequest) {
    Rig rig(8192);
    rig.source->emptyReadsLeft = 2;
    rig.runToEnd(8192);
    EXPECT_FALSE(rig.mover->failed());
    EXPECT_EQ(rig.source->waits, 2);
    EXPECT_EQ(rig.source->requests, (std::vector<uint32_t>{8192, 8192, 8192}));
    EXPECT_EQ(rig.sink->data, pattern(8192));
}

TEST(DataMoverTransfer, SinkTakingPartOfABufferGetsTheRestInOrder) {
    Rig rig(10000);
    rig.sink->maxPerWrite = 3000;
    rig.runToEnd(10000);
    EXPECT_FALSE(rig.mover->failed());
    EXPECT_EQ(rig.sink->writes, (std::vector<uint32_t>{3000, 3000, 3000, 1000}));
    EXPECT_EQ(rig.sink->data, pattern(10000));
}

TEST(DataMoverTransfer, ReadSizeThatDoesNotDivide128KiBRoundsDown) {
    Rig rig(300000);
    rig.source->readSize = 12;
    rig.runToEnd(300000);
    ASSERT_FALSE(rig.source->requests.empty());
    EXPECT_EQ(rig.source->requests.front(), 131064u);
    EXPECT_EQ(rig.sink->data, pattern(300000));
}

TEST(DataMoverTransfer, ReadSizeAbove128KiBStillReadsWholeUnits) {
    Rig rig(400000);
    rig.source->readSize = 200000;
    rig.runToEnd(400000);
    EXPECT_EQ(rig.source->requests, (std::vector<uint32_t>{200000, 200000}));
}

TEST(DataMoverTransfer, RateOfATransferUnderAMillisecondIsFinite) {
    Rig rig(4);
    rig.runToEnd(4);
    EXPECT_GT(rig.mover->transferRate(), 0u);
    EXPECT_LE(rig.mover->transferRate(), 4000u);
}

TEST(DataMoverTransfer, DecoderSinkIsRecognised) {
    auto decoder = std::make_shared<FakeDecoder>();
    DataMover toDecoder(std::make_shared<FakeSource>(), decoder, "Mover 0 to 1");
    DataMover fromDecoder(decoder, std::make_shared<FakeSink>(), "Mover 1 to 2");
    EXPECT_TRUE(toDecoder.hasDecoderSink());
    EXPECT_EQ(toDecoder.decoderSink().get(), decoder.get());
    EXPECT_FALSE(fromDecoder.hasDecoderSink());
    EXPECT_EQ(fromDecoder.decoderSink(), nullptr);
}

TEST(DataMoverFailure, SinkWritingNothingFailsAndClosesBothSides) {
    Rig rig(4096);
    rig.sink->refuse = true;
    rig.runToEnd(4096);
    EXPECT_TRUE(rig.mover->failed());
    EXPECT_EQ(rig.mover->errorText(), "wrote nothing");
    EXPECT_EQ(rig.source->closes, 1);
    EXPECT_EQ(rig.sink->closes, 1);
}

TEST(DataMoverFailure, StdExceptionGivesItsTextOtherExceptionsGiveUnknown) {
    for (bool nonStd : {false, true}) {
        Rig rig(300000);
        rig.source->failAtRead = 2;
        rig.source->throwNonStd = nonStd;
        StderrCapture log(1);
        rig.runToEnd(300000);
        const std::string text = log.text();
        EXPECT_TRUE(rig.mover->failed());
        EXPECT_EQ(rig.mover->errorText(), nonStd ? "unknown" : "device exploded");
        EXPECT_NE(text.find(nonStd ? "DataMover (name = Mover 0 to 1) thread failes with unknown "
                                     "exception"
                                   : "DataMover (name = Mover 0 to 1) thread fails with exception "
                                     "device exploded"),
                  std::string::npos)
            << text;
        EXPECT_EQ(rig.source->closes, 1);
        EXPECT_EQ(rig.sink->closes, 1);
        EXPECT_EQ(rig.sink->data.size(), 131072u);
    }
}

// Regression: an exception from close() at the end of the thread used to end the process.
TEST(DataMoverFailure, CloseThatThrowsIsRecordedAsFailure) {
    Rig rig(4096);
    rig.sink->throwOnClose = true;
    rig.runToEnd(4096);
    EXPECT_TRUE(rig.mover->failed());
    EXPECT_EQ(rig.mover->errorText(), "disk full while flushing");
    EXPECT_EQ(rig.sink->data, pattern(4096));
}

TEST(DataMoverFailure, FirstFailureWinsOverALaterCloseFailure) {
    Rig rig(4096);
    rig.sink->refuse = true;
    rig.source->throwOnClose = true;
    rig.runToEnd(4096);
    EXPECT_EQ(rig.mover->errorText(), "wrote nothing");
    EXPECT_EQ(rig.sink->closes, 1);
}

TEST(DataMoverAbort, NeverStartedMoverIsFailedAndFinished) {
    Rig rig(0);
    StderrCapture log(2);
    rig.mover->abort();
    EXPECT_NE(log.text().find("abort data mover Mover 0 to 1"), std::string::npos);
    EXPECT_TRUE(rig.mover->failed());
    EXPECT_TRUE(rig.mover->isFinished());
    EXPECT_EQ(rig.mover->errorText(), "transfer aborted");
    EXPECT_EQ(rig.source->opens, 0);
}

TEST(DataMoverAbort, DuringATransferStopsTheThreadPromptly) {
    Rig rig(0); // never delivers: the worker keeps polling
    rig.mover->start(4096);
    std::this_thread::sleep_for(20ms);
    EXPECT_FALSE(rig.mover->isFinished());
    const auto before = std::chrono::steady_clock::now();
    rig.mover->abort();
    EXPECT_LT(std::chrono::steady_clock::now() - before, 2s);
    EXPECT_TRUE(rig.mover->failed());
    EXPECT_EQ(rig.mover->errorText(), "transfer aborted");
    EXPECT_EQ(rig.source->closes, 1);
    EXPECT_EQ(rig.sink->closes, 1);
}

TEST(DataMoverAbort, AfterASuccessfulEndMarksFailedWithoutClosingAgain) {
    Rig rig(4096);
    rig.runToEnd(4096);
    EXPECT_FALSE(rig.mover->failed());
    rig.mover->abort();
    EXPECT_TRUE(rig.mover->failed());
    EXPECT_EQ(rig.mover->errorText(), "transfer aborted");
    EXPECT_EQ(rig.source->closes, 1);
    EXPECT_EQ(rig.sink->closes, 1);
}

TEST(DataMoverAbort, SecondStartThrowsUntilAbortedThenRunsAgain) {
    Rig rig(8192);
    rig.runToEnd(4096);
    try {
        rig.mover->start(4096);
        FAIL() << "second start must throw";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "DataMover is already running");
    }
    rig.mover->abort();
    rig.runToEnd(4096);
    EXPECT_FALSE(rig.mover->failed());
    EXPECT_EQ(rig.mover->errorText(), "");
    EXPECT_EQ(rig.sink->data, pattern(8192));
}

TEST(DataMoverAbort, DestructionAbortsARunningTransfer) {
    auto source = std::make_shared<FakeSource>(0);
    auto sink = std::make_shared<FakeSink>();
    {
        DataMover mover(source, sink, "Mover 0 to 1");
        mover.start(4096);
    }
    EXPECT_EQ(source->closes, 1);
    EXPECT_EQ(sink->closes, 1);
}

TEST(DataMoverProgress, ByteCountsUseThreeDigitsAndBinaryUnits) {
    EXPECT_EQ(formatByteCount(0), "0 B");
    EXPECT_EQ(formatByteCount(131072), "128 KB");
    EXPECT_EQ(formatByteCount(1536), "1.5 KB");
    EXPECT_EQ(formatByteCount(1023), "1.02e+03 B");
    EXPECT_EQ(formatByteCount(1024), "1.02e+03 B");
    EXPECT_EQ(formatByteCount(1000), "1e+03 B");
    EXPECT_EQ(formatByteCount(1025), "1 KB");
    EXPECT_EQ(formatByteCount(3u << 20), "3 MB");
    EXPECT_EQ(formatByteCount(4294967295u), "4 GB");
}

TEST(DataMoverProgress, SegmentHasTheFixedLayout) {
    std::ostringstream out;
    writeProgress(out, 65536, 131072, 512);
    EXPECT_EQ(out.str(), "64 KB / 128 KB     50%     @ 512 B/s" + std::string(37, ' '));
    std::ostringstream none;
    writeProgress(none, 0, 0, 1000);
    EXPECT_EQ(none.str(), "0 B / 0 B     0%     @ 1e+03 B/s" + std::string(37, ' '));
}

TEST(DataMoverProgress, MoverReportsItsCounters) {
    Rig rig(131072);
    rig.runToEnd(131072);
    std::ostringstream out;
    rig.mover->printProgress(out);
    EXPECT_EQ(out.str().rfind("128 KB / 128 KB     100%     @ ", 0), 0u) << out.str();
}

} // namespace
} // namespace quarvel::test
