#include "sources/Recorder.h"
#include "tests/support/TestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <fcntl.h>
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
using ::testing::HasSubstr;
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
    EXPECT_EQ(readFile(control + "/srcmemaddr"), "4294967295");
    EXPECT_EQ(readFile(control + "/datacount"), "4096");
    EXPECT_EQ(readFile(control + "/datarate"), "55");

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

// A read takes whole words of what a FIFO has, in pieces of any size, no more and without
// waiting; an unfinished word waits for its last bytes, also across a writer that comes back.
TEST_F(RecorderTest, FifoIsReadInWholeWordsWithoutReadingAheadOrWaiting) {
    const std::string fifo = dir.file("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    // Read-write: the recorder's open does not block, and the test can see what is left.
    const int other = ::open(fifo.c_str(), O_RDWR | O_NONBLOCK);
    Recorder recorder(fifo, control);
    recorder.start();
    std::vector<uint8_t> buffer(64);
    const auto text = [&](uint32_t n) { return std::string(buffer.begin(), buffer.begin() + n); };
    ASSERT_EQ(::write(other, "12345", 5), 5);
    EXPECT_EQ(text(recorder.read(buffer.data(), 64)), "1234");
    EXPECT_EQ(recorder.read(buffer.data(), 64), 0u) << "one byte is no word";
    ASSERT_EQ(::write(other, "678abcdefgh", 11), 11);
    EXPECT_EQ(text(recorder.read(buffer.data(), 4)), "5678");
    char rest[16] = {};
    EXPECT_EQ(::read(other, rest, sizeof rest), 8) << "the stream read ahead";
    EXPECT_FALSE(recorder.isEndOfData());

    std::string data(3001, '\0'); // below the pipe capacity: the writer never blocks
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<char>(i * 7 + i / 251);
    }
    std::thread writer([&data, other] {
        for (size_t i = 0, sent = 0; sent < data.size(); ++i) {
            const size_t piece = std::min<size_t>(1 + i * 37 % 130, data.size() - sent);
            EXPECT_EQ(::write(other, data.data() + sent, piece), static_cast<ssize_t>(piece));
            sent += piece;
            std::this_thread::sleep_for(std::chrono::microseconds(i % 4 * 700));
        }
        ::close(other); // the last writer gone: the end of the FIFO
    });
    std::string received;
    EXPECT_TRUE(test::eventually([&] {
        const uint32_t n = recorder.read(buffer.data(), 64);
        EXPECT_EQ(n % 4, 0u);
        received += text(n);
        return recorder.isEndOfData();
    }));
    writer.join();
    EXPECT_TRUE(received == data.substr(0, 3000)) << "received " << received.size() << " bytes";
    const int back = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
    ASSERT_EQ(::write(back, "again", 5), 5);
    EXPECT_EQ(text(recorder.read(buffer.data(), 64)), data.substr(3000) + "aga");
    EXPECT_FALSE(recorder.isEndOfData());
    ::close(back);
    StderrCapture capture(2);
    recorder.close();
    EXPECT_THAT(capture.text(), HasSubstr("WARNING [Recoder] 2 bytes of an unfinished word"));
}

} // namespace
} // namespace quarvel
