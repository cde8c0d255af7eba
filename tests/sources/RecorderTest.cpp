#include "sources/Recorder.h"
#include "tests/support/TestSupport.h"

#include <gmock/gmock.h>

#include <filesystem>

#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace quarvel::test {
namespace {

// The high halves of the 64-bit device number split as the C library does.
TEST(Recorder, ControlDirectoryComesFromTheDeviceNumber) {
    EXPECT_EQ(recorderSysfsRoot(makedev(240, 3)), "/sys/dev/char/240:3/device/control");
    const dev_t rdev = makedev(0xFFFFF123u, 0xFFFFFF45u);
    EXPECT_EQ(recorderSysfsRoot(rdev), "/sys/dev/char/" + std::to_string(major(rdev)) + ":" +
                                           std::to_string(minor(rdev)) + "/device/control");
}

// An attribute that cannot be opened (a directory) or written (/dev/full takes the open and
// fails the write) stops the rest, and the log names it with the system's reason.
TEST(Recorder, ConfigureStopsAtTheFirstAttributeThatFails) {
    TempDir dir;
    const std::string control = dir.file("control"), datacount = control + "/datacount";
    writeFile(dir.file("device"), "");
    std::filesystem::create_directories(datacount);
    Recorder recorder(dir.file("device"), control);
    for (const bool opens : {false, true}) {
        StderrCapture capture(1);
        EXPECT_THAT([&] { recorder.configure(opens ? 7 : 5, 4096, 3); },
                    ::testing::ThrowsMessage<std::runtime_error>(
                        opens ? "Could not write sysfs entry" : "Could not open sysfs entry"));
        const std::string log = capture.text(); // one line, after its time stamp
        EXPECT_EQ(log.substr(log.find(' ') + 1), "ERROR [Recoder] cannot " +
                                                     std::string(opens ? "write" : "open") +
                                                     " sysfs entry " + datacount + ": " +
                                                     std::strerror(opens ? ENOSPC : EISDIR) + "\n");
        EXPECT_EQ(readFile(control + "/srcmemaddr"), opens ? "7" : "5");
        EXPECT_FALSE(std::filesystem::exists(control + "/datarate")) << "written after a failure";
        std::filesystem::remove(datacount);
        std::filesystem::create_symlink("/dev/full", datacount);
    }
}

} // namespace
} // namespace quarvel::test
