#include "sources/Recorder.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace quarvel {
namespace {

using test::readFile;
using test::StderrCapture;
using test::TempDir;
using test::writeFile;

// what() of the exception of type E thrown by call, or a marker that no such one was.
template <typename E, typename F> std::string errorOf(F&& call) {
    try {
        call();
    } catch (const E& e) {
        return e.what();
    } catch (...) {
        return "other exception";
    }
    return "no exception";
}

int openDescriptors() {
    int count = 0;
    if (DIR* dir = ::opendir("/proc/self/fd")) {
        while (::readdir(dir) != nullptr) {
            ++count;
        }
        ::closedir(dir);
    }
    return count;
}

// A recorder whose control directory and device are files of the test's own directory.
class RecorderTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(::mkdir(control.c_str(), 0700), 0);
        writeFile(device, "");
    }

    std::unique_ptr<Recorder> makeRecorder() { return std::make_unique<Recorder>(device, control); }
    void setAttribute(const std::string& name, const std::string& text) {
        writeFile(control + "/" + name, text);
    }
    std::string attribute(const std::string& name) { return readFile(control + "/" + name); }

    TempDir dir;
    std::string control = dir.file("control");
    std::string device = dir.file("device");
};

// --- construction and the control directory ---

TEST(RecorderSysfsRoot, SplitsDeviceNumbersLikeTheCLibrary) {
    EXPECT_EQ(recorderSysfsRoot(makedev(240, 3)), "/sys/dev/char/240:3/device/control");
    EXPECT_EQ(recorderSysfsRoot(0), "/sys/dev/char/0:0/device/control");
    // Numbers that use the high halves of the 64-bit encoding.
    const unsigned majors[] = {0xFFFu, 0x1000u, 0xFFFFF123u, 0xFFFFFFFFu};
    const unsigned minors[] = {0xFFu, 0x100u, 0xFFFFFF45u, 0xFFFFFFFFu};
    for (unsigned maj : majors) {
        for (unsigned min : minors) {
            const dev_t rdev = makedev(maj, min);
            EXPECT_EQ(recorderSysfsRoot(rdev), "/sys/dev/char/" + std::to_string(major(rdev)) +
                                                   ":" + std::to_string(minor(rdev)) +
                                                   "/device/control");
        }
    }
    EXPECT_EQ(recorderSysfsRoot(makedev(0xFFFFFFFFu, 0xFFFFFFFFu)),
              "/sys/dev/char/4294967295:4294967295/device/control");
}

TEST(RecorderConstruction, CharacterDeviceGivesItsControlDirectory) {
    struct stat info {};
    if (::stat("/dev/null", &info) != 0 || !S_ISCHR(info.st_mode) || major(info.st_rdev) != 1 ||
        minor(info.st_rdev) != 3) {
        GTEST_SKIP() << "/dev/null is not the character device 1:3 here";
    }
    Recorder recorder("/dev/null");
    EXPECT_EQ(recorder.sysfsRoot(), "/sys/dev/char/1:3/device/control");
    EXPECT_EQ(recorder.devicePath(), "/dev/null");
}

TEST(RecorderConstruction, RegularFileGivesDeviceNumberZeroAndLogsIt) {
    TempDir dir;
    const std::string device = dir.file("device");
    writeFile(device, "");
    StderrCapture capture(4);
    std::unique_ptr<Recorder> recorder = std::make_unique<Recorder>(device);
    const std::string log = capture.text();
    EXPECT_EQ(recorder->sysfsRoot(), "/sys/dev/char/0:0/device/control");
    EXPECT_NE(log.find("[Recoder] Got recorder sysfsroot = /sys/dev/char/0:0/device/control\n"),
              std::string::npos)
        << log;
    EXPECT_FALSE(recorder->isOpen());
}

TEST(RecorderConstruction, ExplicitControlDirectoryIsKeptAndLogged) {
    TempDir dir;
    const std::string device = dir.file("device");
    writeFile(device, "");
    StderrCapture capture(4);
    Recorder recorder(device, dir.file("ctl"));
    const std::string log = capture.text();
    EXPECT_EQ(recorder.sysfsRoot(), dir.file("ctl"));
    EXPECT_NE(log.find("Got recorder sysfsroot = " + dir.file("ctl") + "\n"), std::string::npos)
        << log;
}

TEST(RecorderConstruction, MissingDeviceFailsWithErrnoLogLine) {
    TempDir dir;
    const std::string missing = dir.file("no-such-device");
    for (int explicitRoot = 0; explicitRoot < 2; ++explicitRoot) {
        StderrCapture capture(1);
        const std::string error = errorOf<std::runtime_error>([&] {
            if (explicitRoot) {
                Recorder recorder(missing, dir.path());
            } else {
                Recorder recorder(missing);
            }
        });
        const std::string log = capture.text();
        EXPECT_EQ(error, "Failed to get stat from cdev, file exist?") << explicitRoot;
        EXPECT_NE(log.find("ERROR [Recoder] ::stat on recorder cdev failed with " +
                           std::to_string(ENOENT) + "\n"),
                  std::string::npos)
            << log;
    }
}

TEST(RecorderConstruction, ConfigureFailsWhenTheComputedDirectoryIsMissing) {
    if (::access("/sys/dev/char/0:0", F_OK) == 0) {
        GTEST_SKIP() << "this machine has a device 0:0";
    }
    TempDir dir;
    const std::string device = dir.file("device");
    writeFile(device, "");
    Recorder recorder(device);
    EXPECT_EQ(errorOf<std::runtime_error>([&] { recorder.configure(0, 4096, 3); }),
              "Could not open sysfs entry");
}

// --- sysfs attributes ---

struct StatusCase {
    const char* text;
    bool running;
    bool failed;
    const char* statusText;
};

void PrintTo(const StatusCase& c, std::ostream* out) {
    *out << "status_";
    for (const char* p = c.text; *p; ++p) {
        *out << (std::isalnum(static_cast<unsigned char>(*p)) ? *p : '_');
    }
}

class RecorderStatus : public RecorderTest, public ::testing::WithParamInterface<StatusCase> {};

TEST_P(RecorderStatus, DecodesStatusBits) {
    const StatusCase& c = GetParam();
    setAttribute("status", c.text);
    auto recorder = makeRecorder();
    EXPECT_EQ(recorder->isRunning(), c.running);
    EXPECT_EQ(recorder->failed(), c.failed);
    EXPECT_EQ(recorder->statusText(), c.statusText);
    EXPECT_EQ(attribute("status"), c.text);
}

INSTANTIATE_TEST_SUITE_P(
    Values, RecorderStatus,
    ::testing::Values(
        StatusCase{"5", true, true, "BUSY"}, StatusCase{"0x5", true, true, "BUSY"},
        StatusCase{"0X5\n", true, true, "BUSY"}, StatusCase{"0x18", false, true, "ACCESS ERROR"},
        StatusCase{"0x10", false, true, "OUT OF RANGE ERROR"}, StatusCase{"2", false, false, ""},
        StatusCase{"0x1", true, false, ""}, StatusCase{"0", false, false, ""},
        StatusCase{"010", false, true, "ACCESS ERROR"}, // octal 8
        StatusCase{"  \n 0x1c ", false, true, "BUSY"},
        StatusCase{"9 junk", true, true, "ACCESS ERROR"},
        StatusCase{"17junk", true, true, "OUT OF RANGE ERROR"},
        StatusCase{"0xFFFFFFE3", true, false, ""}, StatusCase{"4294967295", true, true, "BUSY"}));

TEST_F(RecorderTest, StatusIsReadAfreshByEveryQuery) {
    auto recorder = makeRecorder();
    setAttribute("status", "1");
    EXPECT_TRUE(recorder->isRunning());
    setAttribute("status", "0x8");
    EXPECT_FALSE(recorder->isRunning());
    EXPECT_TRUE(recorder->failed());
    EXPECT_EQ(recorder->statusText(), "ACCESS ERROR");
}

TEST_F(RecorderTest, UnreadableStatusThrowsTheConversionErrors) {
    auto recorder = makeRecorder();
    auto expectFromAllQueries = [&](const char* what, auto exceptionTag) {
        using E = decltype(exceptionTag);
        EXPECT_EQ(errorOf<E>([&] { recorder->isRunning(); }), "stoul") << what;
        EXPECT_EQ(errorOf<E>([&] { recorder->failed(); }), "stoul") << what;
        EXPECT_EQ(errorOf<E>([&] { recorder->statusText(); }), "stoul") << what;
    };
    expectFromAllQueries("missing", std::invalid_argument(""));
    setAttribute("status", "");
    expectFromAllQueries("empty", std::invalid_argument(""));
    setAttribute("status", " \n");
    expectFromAllQueries("blank", std::invalid_argument(""));
    setAttribute("status", "running");
    expectFromAllQueries("word", std::invalid_argument(""));
    setAttribute("status", "0x100000000");
    expectFromAllQueries("33 bits", std::out_of_range(""));
    setAttribute("status", "4294967296");
    expectFromAllQueries("2^32", std::out_of_range(""));
    setAttribute("status", "99999999999999999999999");
    expectFromAllQueries("beyond 64 bits", std::out_of_range(""));
}

TEST_F(RecorderTest, AttributeAccessLogsEntryAndResult) {
    setAttribute("status", "0x18");
    auto recorder = makeRecorder();
    StderrCapture capture(5);
    EXPECT_FALSE(recorder->isRunning());
    EXPECT_TRUE(recorder->failed());
    recorder->setToSysfs("datacount", 4096);
    const std::string log = capture.text();
    for (const char* line :
         {"DEBUG [Recoder] +readFromSysfs(entryName=status)\n",
          "DEBUG [Recoder] -readFromSysfs(entryname=status) returns 0x00000018\n",
          "DEBUG [Recoder] -isRunning(): 0\n", "DEBUG [Recoder] -failed(): 1\n",
          "DEBUG [Recoder] +setToSysfs(entryName=datacount, value = 0x00001000)\n"}) {
        EXPECT_NE(log.find(line), std::string::npos) << line << "\nin:\n" << log;
    }
}

TEST_F(RecorderTest, AttributeValuesRoundTripInDecimal) {
    auto recorder = makeRecorder();
    setAttribute("srcmemaddr", "a much longer previous content\n");
    recorder->setToSysfs("srcmemaddr", 0xFFFFFFFFu);
    EXPECT_EQ(attribute("srcmemaddr"), "4294967295");
    EXPECT_EQ(recorder->readFromSysfs("srcmemaddr"), 0xFFFFFFFFu);
}

TEST_F(RecorderTest, ConfigureWritesTheThreeAttributesWithoutLineEnds) {
    setAttribute("datacount", "123456789\n");
    auto recorder = makeRecorder();
    recorder->configure(0, 4096, 3);
    EXPECT_EQ(attribute("srcmemaddr"), "0");
    EXPECT_EQ(attribute("datacount"), "4096");
    EXPECT_EQ(attribute("datarate"), "3");
}

TEST_F(RecorderTest, ConfigureWritesInOrderAndStopsAtTheFirstFailure) {
    auto recorder = makeRecorder();
    // An attribute that is a directory cannot be opened for writing.
    ASSERT_EQ(::mkdir((control + "/datarate").c_str(), 0700), 0);
    EXPECT_EQ(errorOf<std::runtime_error>([&] { recorder->configure(0, 4096, 3); }),
              "Could not open sysfs entry");
    EXPECT_EQ(attribute("srcmemaddr"), "0");
    EXPECT_EQ(attribute("datacount"), "4096");

    ASSERT_EQ(::rmdir((control + "/datarate").c_str()), 0);
    ASSERT_EQ(::unlink((control + "/srcmemaddr").c_str()), 0);
    ASSERT_EQ(::unlink((control + "/datacount").c_str()), 0);
    ASSERT_EQ(::mkdir((control + "/datacount").c_str(), 0700), 0);
    EXPECT_EQ(errorOf<std::runtime_error>([&] { recorder->configure(1, 2, 3); }),
              "Could not open sysfs entry");
    EXPECT_EQ(attribute("srcmemaddr"), "1");
    EXPECT_NE(::access((control + "/datarate").c_str(), F_OK), 0) << "written after a failure";
}

TEST_F(RecorderTest, ConfigureAgainstMissingDirectoryThrows) {
    Recorder recorder(device, dir.file("missing"));
    EXPECT_EQ(errorOf<std::runtime_error>([&] { recorder.configure(0, 4096, 3); }),
              "Could not open sysfs entry");
}

TEST_F(RecorderTest, AbortOnlyLogs) {
    setAttribute("status", "1");
    writeFile(device, "abcdefgh");
    auto recorder = makeRecorder();
    recorder->configure(16, 32, 2);
    recorder->start();
    std::vector<uint8_t> buffer(4);
    ASSERT_EQ(recorder->read(buffer.data(), 4), 4u);

    StderrCapture capture(2);
    recorder->abort();
    const std::string log = capture.text();
    EXPECT_NE(log.find("WARNING [Recoder] abort\n"), std::string::npos) << log;
    EXPECT_TRUE(recorder->isOpen());
    ASSERT_EQ(recorder->read(buffer.data(), 4), 4u);
    EXPECT_EQ(std::string(buffer.begin(), buffer.end()), "efgh");
    EXPECT_EQ(attribute("status"), "1");
    EXPECT_EQ(attribute("srcmemaddr"), "16");
    EXPECT_EQ(attribute("datacount"), "32");
    EXPECT_EQ(attribute("datarate"), "2");
}

// --- the device stream ---

TEST_F(RecorderTest, ReadsFileExactlyThenReportsEndOfFile) {
    const std::string content("\x00\x01\xFF\r\n\x7F\x80\n\x1A"
                              "z",
                              10);
    writeFile(device, content);
    auto recorder = makeRecorder();
    recorder->open(4096);
    ASSERT_TRUE(recorder->isOpen());
    EXPECT_EQ(recorder->optimalReadSize(), 4u);

    std::vector<uint8_t> buffer(8);
    ASSERT_EQ(recorder->read(buffer.data(), 8), 8u);
    EXPECT_EQ(std::string(buffer.begin(), buffer.end()), content.substr(0, 8));
    EXPECT_FALSE(recorder->isEndOfData());

    StderrCapture capture(5);
    ASSERT_EQ(recorder->read(buffer.data(), 8), 2u);
    EXPECT_EQ(std::string(buffer.begin(), buffer.begin() + 2), content.substr(8));
    EXPECT_TRUE(recorder->isEndOfData());
    EXPECT_EQ(recorder->read(buffer.data(), 8), 0u);
    EXPECT_EQ(recorder->read(buffer.data(), 4), 0u);
    const std::string log = capture.text();
    EXPECT_NE(log.find("DEBUG [Recoder] +read(bufferLen = 8)\n"), std::string::npos) << log;
    EXPECT_NE(log.find("INFO [Recoder] Reached end of file on recorder device\n"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("DEBUG [Recoder] -read: 2\n"), std::string::npos) << log;
    EXPECT_NE(log.find("DEBUG [Recoder] -read: 0\n"), std::string::npos) << log;
    EXPECT_EQ(log.find("while reading"), std::string::npos) << log;
}

TEST_F(RecorderTest, StreamErrorIsLoggedWithTheErrorIndicator) {
    // A directory opens as a stream, but reading it fails.
    Recorder recorder(dir.path(), control);
    recorder.start();
    std::vector<uint8_t> buffer(8);
    StderrCapture capture(1);
    EXPECT_EQ(recorder.read(buffer.data(), 8), 0u);
    const std::string log = capture.text();
    EXPECT_NE(log.find("ERROR [Recoder] Got error 1 while reading on recorder device\n"),
              std::string::npos)
        << log;
    EXPECT_FALSE(recorder.isEndOfData());
}

TEST_F(RecorderTest, ReadOnClosedRecorderThrowsAndLogs) {
    auto recorder = makeRecorder();
    std::vector<uint8_t> buffer(4);
    StderrCapture capture(1);
    const std::string error =
        errorOf<std::runtime_error>([&] { recorder->read(buffer.data(), 4); });
    const std::string log = capture.text();
    EXPECT_NE(error, "no exception");
    EXPECT_NE(log.find("ERROR [Recoder] -read: throws " + error + "\n"), std::string::npos) << log;
    EXPECT_FALSE(recorder->isEndOfData());
}

TEST_F(RecorderTest, StartOnMissingDeviceThrowsAndStaysClosed) {
    auto recorder = makeRecorder();
    ASSERT_EQ(::unlink(device.c_str()), 0);
    StderrCapture capture(4);
    EXPECT_EQ(errorOf<std::runtime_error>([&] { recorder->start(); }),
              "Failed to open the recorder device for reading");
    EXPECT_FALSE(recorder->isOpen());
    EXPECT_EQ(errorOf<std::runtime_error>([&] { recorder->open(16); }),
              "Failed to open the recorder device for reading");
    EXPECT_FALSE(recorder->isOpen());
    const std::string log = capture.text();
    EXPECT_NE(log.find("INFO [Recoder] +start\n"), std::string::npos) << log;
    // The reason names the path and the system's error.
    EXPECT_NE(log.find("ERROR [Recoder] ~start: cannot open " + device + ": " +
                       std::strerror(ENOENT) + "\n"),
              std::string::npos)
        << log;
}

TEST_F(RecorderTest, SecondStartReopensAndAFailedOneKeepsTheStream) {
    writeFile(device, "abcdefgh");
    auto recorder = makeRecorder();
    const int before = openDescriptors();
    recorder->start();
    std::vector<uint8_t> buffer(16);
    ASSERT_EQ(recorder->read(buffer.data(), 16), 8u);
    ASSERT_TRUE(recorder->isEndOfData());

    recorder->start();
    EXPECT_EQ(openDescriptors(), before + 1) << "the first stream leaked";
    EXPECT_FALSE(recorder->isEndOfData());
    ASSERT_EQ(recorder->read(buffer.data(), 4), 4u);
    EXPECT_EQ(std::string(buffer.begin(), buffer.begin() + 4), "abcd");

    // The open file survives the unlink, so the kept stream still reads.
    ASSERT_EQ(::unlink(device.c_str()), 0);
    StderrCapture quiet(0);
    EXPECT_EQ(errorOf<std::runtime_error>([&] { recorder->start(); }),
              "Failed to open the recorder device for reading");
    ASSERT_TRUE(recorder->isOpen());
    ASSERT_EQ(recorder->read(buffer.data(), 4), 4u);
    EXPECT_EQ(std::string(buffer.begin(), buffer.begin() + 4), "efgh");
}

TEST_F(RecorderTest, CloseAndDestructionReleaseTheStream) {
    const int before = openDescriptors();
    {
        auto recorder = makeRecorder();
        recorder->start();
        EXPECT_EQ(openDescriptors(), before + 1);
        recorder->close();
        EXPECT_FALSE(recorder->isOpen());
        EXPECT_EQ(openDescriptors(), before);
        recorder->close(); // closing twice is harmless
        recorder->start();
    }
    EXPECT_EQ(openDescriptors(), before) << "destructor left the stream open";
}

TEST_F(RecorderTest, StreamIsUnbufferedSoNothingIsReadAhead) {
    const std::string fifo = dir.file("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    // Read-write: the recorder's open does not block, and the test can see what is left.
    const int other = ::open(fifo.c_str(), O_RDWR | O_NONBLOCK);
    ASSERT_GE(other, 0);
    ASSERT_EQ(::write(other, "12345678", 8), 8);

    Recorder recorder(fifo, control);
    recorder.start();
    std::vector<uint8_t> buffer(4);
    ASSERT_EQ(recorder.read(buffer.data(), 4), 4u);
    EXPECT_EQ(std::string(buffer.begin(), buffer.end()), "1234");
    char rest[16] = {};
    EXPECT_EQ(::read(other, rest, sizeof rest), 4) << "the stream read ahead";
    EXPECT_EQ(std::string(rest, 4), "5678");
    ::close(other);
}

TEST_F(RecorderTest, FifoFedInIrregularPiecesDeliversEveryByteInOrder) {
    const std::string fifo = dir.file("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const uint32_t total = 3001; // below the pipe capacity: the writer never blocks
    std::string data(total, '\0');
    for (uint32_t i = 0; i < total; ++i) {
        data[i] = static_cast<char>((i * 7 + i / 251) & 0xFF);
    }
    // Opened here so that the data cannot get lost before the recorder opens the FIFO.
    const int writeEnd = ::open(fifo.c_str(), O_RDWR);
    ASSERT_GE(writeEnd, 0);

    Recorder recorder(fifo, control);
    recorder.start();
    std::thread writer([&data, writeEnd] {
        static const unsigned pieces[] = {1, 7, 3, 64, 13, 2, 40, 5, 130, 11};
        size_t sent = 0;
        for (unsigned i = 0; sent < data.size(); ++i) {
            const size_t piece = std::min<size_t>(pieces[i % 10], data.size() - sent);
            if (::write(writeEnd, data.data() + sent, piece) != static_cast<ssize_t>(piece)) {
                break;
            }
            sent += piece;
            std::this_thread::sleep_for(std::chrono::microseconds(i % 4 * 700));
        }
        ::close(writeEnd); // the last writer gone: the reader sees the end of file
    });

    // A FIFO reads like the device: each read waits until its request is filled or the
    // writer has gone, so only the last one is short.
    const uint32_t request = 64;
    std::string received;
    std::vector<uint32_t> counts;
    std::vector<uint8_t> buffer(request);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (received.size() < total && std::chrono::steady_clock::now() < deadline) {
        const uint32_t n = recorder.read(buffer.data(), request);
        counts.push_back(n);
        if (n == 0) {
            recorder.waitForMaybeData();
        }
        received.append(buffer.begin(), buffer.begin() + n);
    }
    writer.join();
    ASSERT_EQ(received.size(), total);
    EXPECT_TRUE(received == data) << "bytes differ";
    EXPECT_EQ(counts.size(), total / request + 1);
    EXPECT_EQ(counts.back(), total % request);
    EXPECT_TRUE(recorder.isEndOfData());
    EXPECT_EQ(recorder.read(buffer.data(), request), 0u);
}

// --- waiting ---

std::atomic<int> gSignalsSeen{0};
extern "C" void countSignal(int) {
    gSignalsSeen.fetch_add(1);
}

TEST_F(RecorderTest, WaitForMaybeDataSleepsFiftyMilliseconds) {
    auto recorder = makeRecorder();
    const auto start = std::chrono::steady_clock::now();
    recorder->waitForMaybeData();
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(45));
    EXPECT_LT(elapsed, std::chrono::seconds(2));
}

TEST_F(RecorderTest, WaitForMaybeDataResumesAfterSignals) {
    struct sigaction action {};
    action.sa_handler = countSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0; // no SA_RESTART: the sleep is interrupted
    struct sigaction previous {};
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &previous), 0);
    gSignalsSeen.store(0);

    auto recorder = makeRecorder();
    std::atomic<bool> done{false};
    const pthread_t sleeper = ::pthread_self();
    std::thread sender([&] {
        while (!done.load()) {
            ::pthread_kill(sleeper, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    const auto start = std::chrono::steady_clock::now();
    recorder->waitForMaybeData();
    const auto elapsed = std::chrono::steady_clock::now() - start;
    done.store(true);
    sender.join();
    ::sigaction(SIGUSR1, &previous, nullptr);

    EXPECT_GT(gSignalsSeen.load(), 1);
    EXPECT_GE(elapsed, std::chrono::milliseconds(45));
    EXPECT_LT(elapsed, std::chrono::seconds(2));
}

} // namespace
} // namespace quarvel
