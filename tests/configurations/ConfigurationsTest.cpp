#include "configurations/Configurations.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <tuple>

namespace quarvel::test {
namespace {

namespace fs = std::filesystem;

// What building the scheme's chain for this device throws; empty when it succeeds.
std::string buildError(const std::string& conf, const std::string& device, uint32_t bytes) {
    const auto options = std::make_shared<CommandLineOptions>(std::vector<std::string>{
        "--conf=" + conf, "--file=" + device + ".h5", "--rec-dev=" + device,
        "--data-bytes=" + std::to_string(bytes), "--src-addr=4294967295", "--data-rate=7"});
    try {
        getConfiguration(createConfigurations(), conf)->buildChain(options);
    } catch (const std::exception& e) {
        return e.what();
    }
    return "";
}

// Each recorder scheme programs the recorder once (the files alone cannot tell), with the
// options' values. Regression: a byte count that the decoder cannot deliver was refused only
// after the recorder had been programmed.
TEST(RecorderSchemes, BuildingTheChainProgramsTheRecorderOnceOrNotAtAll) {
    if (!privateSysfs().empty()) {
        GTEST_SKIP() << privateSysfs();
    }
    const std::string control = "/sys/dev/char/0:0/device/control"; // that of a regular file
    // Every write is logged: the second of the same would be a held-back repeat.
    morvik::pellum::log::setRepeatWindow(std::chrono::milliseconds(0));
    const Finally window{[] { morvik::pellum::log::setRepeatWindow(std::chrono::seconds(10)); }};
    TempDir dir;
    writeFile(dir.file("device"), "");
    const std::tuple<const char*, uint32_t, std::string> cases[] = {
        {"int32", 4096, ""},
        {"tavoadc", 4096, ""},
        {"lumetra", 2147483644u, ""}, // the largest count it can decode
        {"lumetra", 2147483652u, "data-bytes too large for the Lumetra DDS decoder"}};
    for (const auto& [conf, bytes, error] : cases) {
        SCOPED_TRACE(std::string(conf) + " " + std::to_string(bytes));
        fs::remove_all(control); // on our own tmpfs
        fs::create_directories(control);
        StderrCapture log(5);
        const std::string got = buildError(conf, dir.file("device"), bytes);
        EXPECT_EQ(got.substr(0, error.size()), error);
        const bool programmed = error.empty();
        EXPECT_EQ(got.empty(), programmed) << got;
        const std::string text = log.text();
        size_t writes = 0;
        for (size_t at = 0; (at = text.find("+setToSysfs(", at)) != std::string::npos; ++at) {
            ++writes;
        }
        EXPECT_EQ(writes, programmed ? 3u : 0u) << text;
        EXPECT_EQ(readFile(control + "/srcmemaddr"), programmed ? "4294967295" : "");
        EXPECT_EQ(readFile(control + "/datacount"), programmed ? std::to_string(bytes) : "");
        EXPECT_EQ(readFile(control + "/datarate"), programmed ? "55" : ""); // the character '7'
    }
}

} // namespace
} // namespace quarvel::test
