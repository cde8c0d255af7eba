#include "sources/Recorder.h"
#include "tests/support/TestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <tuple>

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace quarvel {
namespace {

using test::readFile;
using test::StderrCapture;
using test::TempDir;
using test::writeFile;
using ::testing::EndsWith;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

// The control directory and the device are files of the test's own directory.
class RecorderTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(::mkdir(control.c_str(), 0700), 0);
        writeFile(device, "");
    }

    TempDir dir;
    std::string control = dir.file("control");
    std::string device = dir.file("device");
};

TEST_F(RecorderTest, ControlDirectoryComesFromTheDeviceNumberOfAnExistingNode) {
    EXPECT_EQ(recorderSysfsRoot(makedev(240, 3)), "/sys/dev/char/240:3/device/control");
    // The high halves of the 64-bit encoding split as the C library does.
    const dev_t rdev = makedev(0xFFFFF123u, 0xFFFFFF45u);
    EXPECT_EQ(recorderSysfsRoot(rdev), "/sys/dev/char/" + std::to_string(major(rdev)) + ":" +
                                           std::to_string(minor(rdev)) + "/device/control");
    EXPECT_EQ(Recorder(device).sysfsRoot(), "/sys/dev/char/0:0/device/control");
}

// Bare numbers, in order; an attribute that cannot be opened or written stops the rest, and
// the log names it with the system's reason.
TEST_F(RecorderTest, ConfigureWritesInOrderAndStopsAtTheFirstFailure) {
    Recorder recorder(device, control);
    recorder.configure(4294967295u, 4096, 55);

    const std::string datacount = control + "/datacount";
    // A directory cannot be opened for writing; /dev/full takes the open and fails the write.
    const std::tuple<std::function<void()>, const char*, std::string> cases[] = {
        {[&] { std::filesystem::create_directory(datacount); }, "Could not open sysfs entry",
         "ERROR [Recoder] cannot open sysfs entry " + datacount + ": " + std::strerror(EISDIR)},
        {[&] { std::filesystem::create_symlink("/dev/full", datacount); },
         "Could not write sysfs entry",
         "ERROR [Recoder] cannot write sysfs entry " + datacount + ": " + std::strerror(ENOSPC)}};
    uint32_t srcAddr = 0;
    for (const auto& [makeDatacount, what, logLine] : cases) {
        SCOPED_TRACE(what);
        ASSERT_TRUE(std::filesystem::remove(datacount));
        makeDatacount();
        StderrCapture capture(1);
        EXPECT_THAT([&] { recorder.configure(++srcAddr, 4096, 3); },
                    ThrowsMessage<std::runtime_error>(StrEq(what)));
        const std::string log = capture.text();
        EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
        EXPECT_THAT(log, EndsWith(" " + logLine + "\n"));
        EXPECT_EQ(readFile(control + "/srcmemaddr"), std::to_string(srcAddr));
        EXPECT_EQ(readFile(control + "/datarate"), "55") << "written after the failure";
    }
}

} // namespace
} // namespace quarvel
