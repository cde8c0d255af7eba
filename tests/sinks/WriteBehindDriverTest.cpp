#include "sinks/WriteBehindDriver.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <string>

#include <sys/resource.h>

namespace quarvel {
namespace {

using test::readFile;

// Opens FILE in a directory of its own, through the driver alone, with room for 1 MiB.
struct Driver {
    Driver() {
        file = H5FDopen(path.c_str(), H5F_ACC_RDWR | H5F_ACC_CREAT | H5F_ACC_TRUNC,
                        WriteBehindDriver::fileAccess().getId(), HADDR_UNDEF);
        EXPECT_NE(file, nullptr);
        EXPECT_GE(H5FDset_eoa(file, H5FD_MEM_DEFAULT, 1 << 20), 0);
    }
    ~Driver() {
        if (file != nullptr) {
            H5FDclose(file);
        }
    }
    herr_t write(H5FD_mem_t type, haddr_t at, const std::string& bytes) {
        return H5FDwrite(file, type, H5P_DEFAULT, at, bytes.size(), bytes.data());
    }
    test::TempDir dir;
    std::string path = dir.file("file.h5");
    H5FD_t* file = nullptr;
};

// Raw data waits for its neighbours, but never for anything that could point at it.
TEST(WriteBehindDriver, RawDataReachesTheFileBeforeAnyMetadataAndReadsBackAtOnce) {
    Driver driver;
    const std::string first(3000, 'a'), second(2000, 'b'), apart(100, 'c'), meta(50, 'd');
    ASSERT_GE(driver.write(H5FD_MEM_DRAW, 0, first), 0);
    ASSERT_GE(driver.write(H5FD_MEM_DRAW, 3000, second), 0);
    EXPECT_TRUE(readFile(driver.path).empty()) << "neighbouring chunks are gathered";
    EXPECT_EQ(H5FDget_eof(driver.file, H5FD_MEM_DEFAULT), 5000u);

    std::string back(10, '\0');
    ASSERT_GE(H5FDread(driver.file, H5FD_MEM_DRAW, H5P_DEFAULT, 2995, back.size(), &back[0]), 0);
    EXPECT_EQ(back, "aaaaabbbbb");

    ASSERT_GE(driver.write(H5FD_MEM_DRAW, 6000, apart), 0);
    ASSERT_GE(driver.write(H5FD_MEM_OHDR, 8000, meta), 0);
    const std::string disk = readFile(driver.path);
    ASSERT_EQ(disk.size(), 8050u);
    EXPECT_EQ(disk.substr(6000, 100), apart);
    EXPECT_EQ(disk.substr(8000), meta);
}

// The file keeps what it held at the failure: no later metadata may describe lost data.
TEST(WriteBehindDriver, AFailedWriteOfTheBufferFailsEveryLaterWriteAndFlush) {
    Driver driver;
    struct rlimit saved {};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
    const auto previous = std::signal(SIGXFSZ, SIG_IGN);
    struct rlimit small = saved;
    small.rlim_cur = 4096;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);

    H5E_BEGIN_TRY {
        EXPECT_GE(driver.write(H5FD_MEM_DRAW, 0, std::string(8192, 'a')), 0)
            << "buffered, not yet written";
        errno = 0;
        EXPECT_LT(H5FDflush(driver.file, H5P_DEFAULT, false), 0);
        EXPECT_EQ(errno, EFBIG);
        ::setrlimit(RLIMIT_FSIZE, &saved);
        errno = 0;
        EXPECT_LT(driver.write(H5FD_MEM_SUPER, 0, std::string(96, 'm')), 0)
            << "the disk has room again";
        EXPECT_EQ(errno, EFBIG);
        EXPECT_LT(H5FDflush(driver.file, H5P_DEFAULT, false), 0);
        EXPECT_LT(H5FDclose(driver.file), 0);
        driver.file = nullptr;
    }
    H5E_END_TRY;
    std::signal(SIGXFSZ, previous);
    const std::string disk = readFile(driver.path);
    EXPECT_LE(disk.size(), 4096u);
    EXPECT_EQ(disk.find('m'), std::string::npos) << "the metadata never landed";
}

} // namespace
} // namespace quarvel
