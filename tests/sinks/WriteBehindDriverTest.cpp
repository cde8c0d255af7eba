#include "sinks/WriteBehindDriver.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include <sys/resource.h>

namespace quarvel {
namespace {

using Bytes = std::vector<uint8_t>;

// What another process would read from the file now.
Bytes onDisk(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

struct Driver {
    explicit Driver(std::string name) : path(std::move(name)) {
        file = H5FDopen(path.c_str(), H5F_ACC_RDWR | H5F_ACC_CREAT | H5F_ACC_TRUNC,
                        WriteBehindDriver::fileAccess().getId(), HADDR_UNDEF);
        EXPECT_NE(file, nullptr);
        EXPECT_GE(H5FDset_eoa(file, H5FD_MEM_DEFAULT, 1 << 20), 0);
    }
    ~Driver() {
        if (file != nullptr) {
            H5FDclose(file);
        }
        std::remove(path.c_str());
    }
    herr_t write(H5FD_mem_t type, haddr_t at, const Bytes& bytes) {
        return H5FDwrite(file, type, H5P_DEFAULT, at, bytes.size(), bytes.data());
    }
    std::string path;
    H5FD_t* file = nullptr;
};

// Raw data waits for its neighbours, but never for anything that could point at it.
TEST(WriteBehindDriver, RawDataReachesTheFileBeforeAnyMetadataAndReadsBackAtOnce) {
    Driver driver(::testing::TempDir() + "write-behind.h5");
    const Bytes first(3000, 0x11), second(2000, 0x22), apart(100, 0x33), meta(50, 0x44);
    ASSERT_GE(driver.write(H5FD_MEM_DRAW, 0, first), 0);
    ASSERT_GE(driver.write(H5FD_MEM_DRAW, 3000, second), 0);
    EXPECT_TRUE(onDisk(driver.path).empty()) << "neighbouring chunks are gathered";
    EXPECT_EQ(H5FDget_eof(driver.file, H5FD_MEM_DEFAULT), 5000u);

    Bytes back(10);
    ASSERT_GE(H5FDread(driver.file, H5FD_MEM_DRAW, H5P_DEFAULT, 2995, back.size(), back.data()), 0);
    EXPECT_EQ(back, Bytes({0x11, 0x11, 0x11, 0x11, 0x11, 0x22, 0x22, 0x22, 0x22, 0x22}));

    ASSERT_GE(driver.write(H5FD_MEM_DRAW, 6000, apart), 0);
    ASSERT_GE(driver.write(H5FD_MEM_OHDR, 8000, meta), 0);
    const Bytes disk = onDisk(driver.path);
    ASSERT_EQ(disk.size(), 8050u);
    EXPECT_EQ(Bytes(disk.begin() + 6000, disk.begin() + 6100), apart);
    EXPECT_EQ(Bytes(disk.begin() + 8000, disk.end()), meta);
}

// The file keeps what it held at the failure: no later metadata may describe lost data.
TEST(WriteBehindDriver, AFailedWriteOfTheBufferFailsEveryLaterWriteAndFlush) {
    Driver driver(::testing::TempDir() + "write-behind-full.h5");
    struct rlimit saved {};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
    const auto previous = std::signal(SIGXFSZ, SIG_IGN);
    struct rlimit small = saved;
    small.rlim_cur = 4096;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);

    H5E_BEGIN_TRY {
        EXPECT_GE(driver.write(H5FD_MEM_DRAW, 0, Bytes(8192, 1)), 0) << "buffered, not yet written";
        errno = 0;
        EXPECT_LT(H5FDflush(driver.file, H5P_DEFAULT, false), 0);
        EXPECT_EQ(errno, EFBIG);
        ::setrlimit(RLIMIT_FSIZE, &saved);
        errno = 0;
        EXPECT_LT(driver.write(H5FD_MEM_SUPER, 0, Bytes(96, 2)), 0) << "the disk has room again";
        EXPECT_EQ(errno, EFBIG);
        EXPECT_LT(H5FDflush(driver.file, H5P_DEFAULT, false), 0);
        EXPECT_LT(H5FDclose(driver.file), 0);
        driver.file = nullptr;
    }
    H5E_END_TRY;
    std::signal(SIGXFSZ, previous);
    const Bytes disk = onDisk(driver.path);
    EXPECT_LE(disk.size(), 4096u);
    EXPECT_EQ(disk.size() > 0 ? disk[0] : 1, 1) << "the metadata never landed";
}

} // namespace
} // namespace quarvel
