#include "configurations/Configurations.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

namespace quarvel::test {
namespace {

namespace fs = std::filesystem;

const std::string kZeroControl = "/sys/dev/char/0:0/device/control"; // that of a regular file

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

// The listing and a wrong case are checked on the program's output.
TEST(Registry, FindsOnlyExactNames) {
    const ConfigurationMap registry = createConfigurations();
    for (const std::string name : {" mock", "mock ", "", "int", "int32x"}) {
        EXPECT_THROW(getConfiguration(registry, name), std::out_of_range) << "'" << name << "'";
    }
}

// Regression: the decoder's size check came after the recorder had been programmed.
TEST(RecorderSchemes, LumetraByteCountTooLargeToDecodeFailsBeforeTheRecorder) {
    if (fs::exists(kZeroControl)) {
        GTEST_SKIP() << kZeroControl << " exists on this machine";
    }
    TempDir dir;
    const std::string device = dir.file("device");
    writeFile(device, "");
    EXPECT_EQ(buildError("lumetra", device, 2147483652u)
                  .rfind("data-bytes too large for the Lumetra DDS decoder", 0),
              0u);
    EXPECT_EQ(buildError("lumetra", device, 2147483644u), "Could not open sysfs entry")
        << "the largest decodable count reaches the recorder";
}

TEST(RecorderSchemes, BuildingTheChainProgramsTheRecorderOnce) {
    // A tmpfs of this process's own over /sys/dev/char lets the device number 0:0 of a regular
    // file have a control directory.
    if (::geteuid() != 0 || ::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("none", "/sys/dev/char", "tmpfs", 0, nullptr) != 0) {
        GTEST_SKIP() << "no private mount namespace here";
    }
    TempDir dir;
    writeFile(dir.file("device"), "");
    for (const char* conf : {"int32", "tavoadc", "lumetra"}) {
        fs::remove_all(kZeroControl); // no attribute left from the scheme before
        fs::create_directories(kZeroControl);
        StderrCapture log(5);
        EXPECT_EQ(buildError(conf, dir.file("device"), 4096), "") << conf;
        const std::string text = log.text();
        size_t writes = 0;
        for (size_t at = 0; (at = text.find("+setToSysfs(", at)) != std::string::npos; ++at) {
            ++writes;
        }
        EXPECT_EQ(writes, 3u) << conf << "\n" << text; // once: the files alone cannot tell
        EXPECT_EQ(readFile(kZeroControl + "/srcmemaddr"), "4294967295");
        EXPECT_EQ(readFile(kZeroControl + "/datacount"), "4096");
        EXPECT_EQ(readFile(kZeroControl + "/datarate"), "55"); // the character '7'
    }
    fs::remove_all("/sys/dev/char/0:0"); // on our own tmpfs
}

} // namespace
} // namespace quarvel::test
