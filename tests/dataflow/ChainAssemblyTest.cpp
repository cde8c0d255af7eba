#include "dataflow/ChainAssembly.h"

#include "Fakes.h"

#include <gtest/gtest.h>

namespace quarvel::test {
namespace {

std::shared_ptr<DataSinkOrSource> sourceOnly() {
    return std::make_shared<DataSinkOrSource>(std::make_shared<FakeSource>(), nullptr, "source");
}
std::shared_ptr<DataSinkOrSource> sinkOnly() {
    return std::make_shared<DataSinkOrSource>(nullptr, std::make_shared<FakeSink>(), "sink");
}
std::shared_ptr<DataSinkOrSource> both() {
    auto decoder = std::make_shared<FakeDecoder>();
    return std::make_shared<DataSinkOrSource>(decoder, decoder, "decoder");
}

std::string failureOf(const Chain& chain) {
    try {
        createMovers(chain);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "no failure";
}

TEST(DataSinkOrSource, AccessorsThrowForAMissingSide) {
    const auto source = sourceOnly();
    EXPECT_TRUE(source->isSource());
    EXPECT_FALSE(source->isSink());
    EXPECT_THROW(
        {
            try {
                source->getSink();
            } catch (const std::runtime_error& e) {
                EXPECT_STREQ(e.what(), "Is not a sink");
                throw;
            }
        },
        std::runtime_error);
    const DataSinkOrSource neither(nullptr, nullptr, "none");
    EXPECT_FALSE(neither.isSource());
    EXPECT_FALSE(neither.isSink());
    try {
        neither.getSource();
        FAIL() << "getSource must throw";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Is not a source");
    }
    EXPECT_EQ(neither.name(), "none");
}

TEST(ChainAssembly, RejectsMalformedChainsWithTheFirstFailingRule) {
    const std::string prefix = "Invalid configuration chain: ";
    const std::string middle =
        prefix + "elements in the middle must be both source and sink, index ";
    EXPECT_EQ(failureOf({}), prefix + "not enough elements");
    EXPECT_EQ(failureOf({sourceOnly()}), prefix + "not enough elements");
    EXPECT_EQ(failureOf({sinkOnly(), sourceOnly()}), prefix + "first element must be a source");
    EXPECT_EQ(failureOf({sourceOnly(), sourceOnly()}), prefix + "last element must be a sink");
    EXPECT_EQ(failureOf({sourceOnly(), sourceOnly(), sinkOnly()}), middle + "1");
    EXPECT_EQ(failureOf({sourceOnly(), sinkOnly(), sinkOnly(), sinkOnly()}), middle + "1");
    EXPECT_EQ(failureOf({sourceOnly(), both(), sinkOnly(), sinkOnly()}), middle + "2");
    const auto empty = std::make_shared<DataSinkOrSource>(nullptr, nullptr, "empty");
    EXPECT_EQ(failureOf({sourceOnly(), empty, sinkOnly()}), middle + "1");
}

TEST(ChainAssembly, JoinsNeighboursWithNamedMovers) {
    auto pair = createMovers({sourceOnly(), sinkOnly()});
    ASSERT_EQ(pair.size(), 1u);
    EXPECT_EQ(pair[0]->name(), "Mover 0 to 1");

    const Chain chain = {sourceOnly(), both(), sinkOnly()};
    auto movers = createMovers(chain);
    ASSERT_EQ(movers.size(), 2u);
    EXPECT_EQ(movers[0]->name(), "Mover 0 to 1");
    EXPECT_EQ(movers[1]->name(), "Mover 1 to 2");
    EXPECT_EQ(movers[0]->source(), chain[0]->source);
    EXPECT_EQ(movers[0]->sink(), chain[1]->sink);
    EXPECT_EQ(movers[1]->source(), chain[1]->source);
    EXPECT_EQ(movers[1]->sink(), chain[2]->sink);
    EXPECT_TRUE(movers[0]->hasDecoderSink());
    EXPECT_FALSE(movers[1]->hasDecoderSink());
}

TEST(ChainAssembly, SourceAndSinkAtTheEndsMayHaveTheOtherSideToo) {
    EXPECT_EQ(createMovers({both(), both()}).size(), 1u);
}

} // namespace
} // namespace quarvel::test
