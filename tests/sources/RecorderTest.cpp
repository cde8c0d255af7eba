#include "sources/Recorder.h"
#include "sources/MockRecorder.h"
#include "tests/support/TestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
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

// The counter values themselves are read back end to end from mock recordings.
TEST(MockRecorder, CountsInWholeWordsAtAnyAlignmentAndRestartsOnlyOnStartOrAbort) {
    MockRecorder recorder;
    std::vector<uint8_t> storage(17, 0xAA);
    uint8_t* const buffer = storage.data() + 1;
    EXPECT_EQ(recorder.read(buffer, 8), 0u) << "unconfigured";
    // The refused count still sets the limit: two whole words.
    EXPECT_THROW(recorder.configure(0, 10, 0), std::runtime_error);
    EXPECT_TRUE(recorder.isRunning());
    EXPECT_THAT([&] { recorder.read(buffer, 6); },
                ThrowsMessage<std::runtime_error>(
                    StrEq("MockRecorder::read requires a bufferLen multiple of 4")));
    const uint32_t firstTwo[] = {0, 1, 0xAAAAAAAA, 0xAAAAAAAA}; // in host order
    ASSERT_EQ(recorder.read(buffer, 16), 8u);
    EXPECT_EQ(std::memcmp(buffer, firstTwo, 16), 0);
    EXPECT_FALSE(recorder.isRunning());
    recorder.open(16);
    EXPECT_EQ(recorder.read(buffer, 8), 0u) << "open restarted the counter";
    for (const auto restart : {&MockRecorder::start, &MockRecorder::abort}) {
        (recorder.*restart)();
        std::fill(storage.begin(), storage.end(), 0xAA);
        ASSERT_EQ(recorder.read(buffer, 16), 8u);
        EXPECT_EQ(std::memcmp(buffer, firstTwo, 16), 0);
    }
}

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

// One recorder for all rows: each query must read the attribute afresh.
TEST_F(RecorderTest, StatusBitsAndUnreadableStatus) {
    Recorder recorder(device, control);
    for (const auto& [text, running, failed, name] :
         {std::tuple{"0x5", true, true, "BUSY"}, std::tuple{"0x18", false, true, "ACCESS ERROR"},
          std::tuple{"0x10", false, true, "OUT OF RANGE ERROR"}, std::tuple{"2", false, false, ""},
          std::tuple{"010", false, true, "ACCESS ERROR"}}) { // octal 8
        SCOPED_TRACE(text);
        writeFile(control + "/status", text);
        EXPECT_EQ(recorder.isRunning(), running);
        EXPECT_EQ(recorder.failed(), failed);
        EXPECT_EQ(recorder.statusText(), name);
    }
    writeFile(control + "/status", "");
    EXPECT_THAT([&] { recorder.isRunning(); },
                ThrowsMessage<std::invalid_argument>(StrEq("stoul")));
    // Accepted by a 64-bit stoul, but not by the 32-bit target's.
    writeFile(control + "/status", "0x100000000");
    EXPECT_THAT([&] { recorder.failed(); }, ThrowsMessage<std::out_of_range>(StrEq("stoul")));
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

// The bytes themselves are read back end to end from recordings.
TEST_F(RecorderTest, ASecondStartReplacesTheStreamAndAFailedOneKeepsIt) {
    writeFile(device, "0123456789");
    const auto descriptors = [] {
        const std::filesystem::directory_iterator fds("/proc/self/fd");
        return std::distance(begin(fds), end(fds));
    };
    StderrCapture capture(4);
    const auto before = descriptors();
    auto recorder = std::make_unique<Recorder>(device, control);
    std::vector<uint8_t> buffer(16);
    EXPECT_THROW(recorder->read(buffer.data(), 8), std::runtime_error) << "read before open";
    recorder->open(4096);
    ASSERT_EQ(recorder->read(buffer.data(), 16), 10u);
    EXPECT_FALSE(recorder->isEndOfData());
    EXPECT_EQ(recorder->read(buffer.data(), 16), 0u);
    EXPECT_TRUE(recorder->isEndOfData());

    recorder->start();
    EXPECT_EQ(descriptors(), before + 1) << "the first stream leaked";
    EXPECT_FALSE(recorder->isEndOfData());
    ASSERT_EQ(recorder->read(buffer.data(), 4), 4u);
    // The open stream outlives the unlink; abort leaves it open.
    ASSERT_EQ(::unlink(device.c_str()), 0);
    EXPECT_THAT([&] { recorder->start(); }, ThrowsMessage<std::runtime_error>(StrEq(
                                                "Failed to open the recorder device for reading")));
    recorder->abort();
    ASSERT_EQ(recorder->read(buffer.data(), 4), 4u);
    EXPECT_EQ(std::string(buffer.begin(), buffer.begin() + 4), "4567");
    recorder.reset();
    EXPECT_EQ(descriptors(), before) << "destruction left the stream open";
    EXPECT_THAT(capture.text(), HasSubstr("ERROR [Recoder] ~start: cannot open " + device +
                                          ": No such file or directory\n"));
}

// A read takes what a FIFO has, in pieces of any size, no more and without waiting, and hears a
// writer that comes back after the end.
TEST_F(RecorderTest, FifoIsReadWithoutReadingAheadOrWaiting) {
    const std::string fifo = dir.file("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    // Read-write: the recorder's open does not block, and the test can see what is left.
    const int other = ::open(fifo.c_str(), O_RDWR | O_NONBLOCK);
    ASSERT_EQ(::write(other, "12345678", 8), 8);
    Recorder recorder(fifo, control);
    recorder.start();
    std::vector<uint8_t> buffer(64);
    ASSERT_EQ(recorder.read(buffer.data(), 4), 4u);
    char rest[16] = {};
    EXPECT_EQ(::read(other, rest, sizeof rest), 4) << "the stream read ahead";
    EXPECT_EQ(recorder.read(buffer.data(), 64), 0u) << "with nothing there";
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
        received.append(reinterpret_cast<const char*>(buffer.data()),
                        recorder.read(buffer.data(), 64));
        return recorder.isEndOfData();
    }));
    writer.join();
    EXPECT_TRUE(received == data) << "received " << received.size() << " bytes";
    const int back = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
    ASSERT_EQ(::write(back, "again", 5), 5);
    EXPECT_EQ(recorder.read(buffer.data(), 64), 5u);
    EXPECT_FALSE(recorder.isEndOfData());
    ::close(back);
}

} // namespace
} // namespace quarvel
