#include "configurations/Configurations.h"
#include "configurations/Schemes.h"

#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <sstream>
#include <streambuf>

namespace quarvel::test {
namespace {

// A scheme that only has a name and a description.
class NamedConfiguration : public ConfigurationBase {
public:
    NamedConfiguration(std::string name, std::string description)
        : ConfigurationBase(std::move(name), std::move(description)) {}
    Chain buildChain(const std::shared_ptr<CommandLineOptions>&) const override { return {}; }
};

// Counts flushes, to see that every listed line is flushed on its own.
class CountingBuffer : public std::stringbuf {
public:
    int syncs = 0;
    std::vector<std::string> textAtSync;

protected:
    int sync() override {
        ++syncs;
        textAtSync.push_back(str());
        return std::stringbuf::sync();
    }
};

const std::string kListing = "int32\tDecode 32 bits signed integer, into HDF5\n"
                             "lumetra\tDecode data from Lumetra ADC (Signal or Lock)\n"
                             "mock\tMock data recorder, HDF5 sink\n"
                             "tavoadc\tDecode data from Tavo ADC (Signal or Lock)\n";

TEST(Registry, EachNameFindsItsOwnSchemeClass) {
    const ConfigurationMap registry = createConfigurations();
    ASSERT_EQ(registry.size(), 4u) << "two schemes share a name, one of them is lost";
    const auto mock = getConfiguration(registry, "mock");
    EXPECT_NE(dynamic_cast<ConfigurationMock*>(mock.get()), nullptr);
    const auto int32 = getConfiguration(registry, "int32");
    EXPECT_NE(dynamic_cast<ConfigurationInt32*>(int32.get()), nullptr);
    const auto tavo = getConfiguration(registry, "tavoadc");
    EXPECT_NE(dynamic_cast<ConfigurationTavoADC*>(tavo.get()), nullptr);
    const auto lumetra = getConfiguration(registry, "lumetra");
    EXPECT_NE(dynamic_cast<ConfigurationLumetra*>(lumetra.get()), nullptr);
    for (const auto& entry : registry) {
        EXPECT_EQ(entry.second->getName(), entry.first);
    }
}

TEST(Registry, LookupIsExactAndCaseSensitive) {
    const ConfigurationMap registry = createConfigurations();
    for (const std::string name :
         {"MOCK", "Mock", " mock", "mock ", "", "int", "int32x", "tavo adc", "TavoADC", "mock\n"}) {
        try {
            getConfiguration(registry, name);
            ADD_FAILURE() << "'" << name << "' was found";
        } catch (const std::out_of_range& e) {
            EXPECT_STREQ(e.what(), "map::at") << "'" << name << "'";
        }
    }
    EXPECT_EQ(registry.size(), 4u) << "a failed lookup must not add an entry";
}

TEST(Registry, LookupsShareTheRegisteredObject) {
    const ConfigurationMap registry = createConfigurations();
    const long before = registry.at("tavoadc").use_count();
    const auto first = getConfiguration(registry, "tavoadc");
    EXPECT_EQ(registry.at("tavoadc").use_count(), before + 1);
    const auto second = getConfiguration(registry, "tavoadc");
    EXPECT_EQ(registry.at("tavoadc").use_count(), before + 2);
    EXPECT_EQ(first.get(), second.get());
    EXPECT_EQ(first.get(), registry.at("tavoadc").get());
}

TEST(Registry, EachCallBuildsItsOwnSchemes) {
    const ConfigurationMap a = createConfigurations();
    const ConfigurationMap b = createConfigurations();
    EXPECT_NE(a.at("mock").get(), b.at("mock").get());
    EXPECT_EQ(a.at("mock").use_count(), 1) << "the registry is the only owner";
}

TEST(RegistryListing, ListsNameTabDescriptionInByteOrderOfNames) {
    const ConfigurationMap registry = createConfigurations();
    std::ostringstream out;
    out << registry << "after";
    EXPECT_EQ(out.str(), kListing + "after");
}

TEST(RegistryListing, EveryLineIsFlushedAsItIsWritten) {
    const ConfigurationMap registry = createConfigurations();
    CountingBuffer buffer;
    std::ostream out(&buffer);
    out << registry;
    ASSERT_EQ(buffer.syncs, 4);
    EXPECT_EQ(buffer.textAtSync[0], "int32\tDecode 32 bits signed integer, into HDF5\n");
    EXPECT_EQ(buffer.textAtSync[3], kListing);
}

TEST(RegistryListing, EmptyRegistryListsNothing) {
    CountingBuffer buffer;
    std::ostream out(&buffer);
    std::ostream& returned = out << ConfigurationMap{};
    EXPECT_EQ(&returned, &out);
    EXPECT_EQ(buffer.str(), "");
    EXPECT_EQ(buffer.syncs, 0);
}

// Keys compare as unsigned bytes: upper case before lower case, a prefix before its
// extensions, and bytes above 0x7F last.
TEST(RegistryListing, OrderIsUnsignedByteOrderNotInsertionOrder) {
    ConfigurationMap registry;
    for (const std::string name : {"\xc3\xa9t\xc3\xa9", "mock2", "mock", "Mock", "int32", "_x"}) {
        registry.emplace(name, std::make_shared<NamedConfiguration>(name, "d " + name));
    }
    std::ostringstream out;
    out << registry;
    EXPECT_EQ(out.str(), "Mock\td Mock\n"
                         "_x\td _x\n"
                         "int32\td int32\n"
                         "mock\td mock\n"
                         "mock2\td mock2\n"
                         "\xc3\xa9t\xc3\xa9\td \xc3\xa9t\xc3\xa9\n");
}

} // namespace
} // namespace quarvel::test
