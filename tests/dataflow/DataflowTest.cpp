#include "dataflow/ChainAssembly.h"
#include "decoders/DecoderTavoADC.h"

#include <gtest/gtest.h>

namespace quarvel::test {
namespace {

// The first element only gives, the last only takes, those between do both; each mover joins
// one element's source to the next one's sink.
TEST(ChainAssembly, RefusesChainsThatCannotCarryDataAndJoinsNeighbours) {
    const auto decoder = std::make_shared<DecoderTavoADC>();
    const auto src = std::make_shared<DataSinkOrSource>(decoder, nullptr, "source");
    const auto snk = std::make_shared<DataSinkOrSource>(nullptr, decoder, "sink");
    const auto both = std::make_shared<DataSinkOrSource>(decoder, decoder, "both");
    const auto none = std::make_shared<DataSinkOrSource>(nullptr, nullptr, "none");
    const std::vector<Chain> invalid = {{},
                                        {src},
                                        {snk, src},
                                        {src, src},
                                        {src, src, snk},
                                        {src, snk, snk},
                                        {src, both, none, snk}};
    for (const Chain& chain : invalid) {
        EXPECT_THROW(createMovers(chain), std::runtime_error) << chain.size() << " elements";
    }
    const auto movers = createMovers({src, both, snk});
    ASSERT_EQ(movers.size(), 2u);
    EXPECT_TRUE(movers[0]->source() == decoder && movers[1]->sink() == decoder);
    EXPECT_EQ(createMovers({both, both}).size(), 1u); // the unused sides of the ends do no harm
}

} // namespace
} // namespace quarvel::test
