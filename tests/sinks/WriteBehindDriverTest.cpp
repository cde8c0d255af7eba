#include "sinks/WriteBehindDriver.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

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

// Between commits only new data, beyond the committed end, reaches the disk; HDF5 reads its
// metadata back from memory. A commit brings it in place through a journal that is synced first,
// object headers last, and cut off once done.
TEST(WriteBehindDriver, OnlyNewDataReachesTheDiskUntilACommitBringsTheRestThroughAJournal) {
    Driver driver;
    using Op = WriteBehindDriver::Operation;
    // A first checkpoint of 4 KiB, written in place: before it there was nothing to keep.
    constexpr haddr_t kBase = 4096;
    ASSERT_GE(H5FDset_eoa(driver.file, H5FD_MEM_DEFAULT, kBase), 0);
    ASSERT_GE(driver.write(H5FD_MEM_SUPER, 0, "super"), 0);
    ASSERT_TRUE(WriteBehindDriver::commit(driver.file));
    ASSERT_GE(H5FDset_eoa(driver.file, H5FD_MEM_DEFAULT, 1 << 20), 0);
    std::string expected(kBase, '\0');
    expected.replace(0, 5, "super");
    EXPECT_EQ(readFile(driver.path), expected);

    std::vector<Op> ops;
    WriteBehindDriver::setOperationLog([&](const Op& op) { ops.push_back(op); });
    const test::Finally stopLogging{[] { WriteBehindDriver::setOperationLog({}); }};
    const std::string first(3000, 'a'), second(2000, 'b'), header(50, 'h'), index(60, 'i');
    ASSERT_GE(driver.write(H5FD_MEM_DRAW, kBase, first), 0);
    ASSERT_GE(driver.write(H5FD_MEM_DRAW, kBase + 3000, second), 0);
    EXPECT_EQ(readFile(driver.path).size(), kBase) << "neighbouring chunks are gathered";
    ASSERT_GE(driver.write(H5FD_MEM_OHDR, kBase + 8000, header), 0);
    ASSERT_GE(driver.write(H5FD_MEM_BTREE, kBase + 6000, index), 0);
    ASSERT_GE(driver.write(H5FD_MEM_OHDR, kBase + 8010, "new"), 0);
    ASSERT_GE(driver.write(H5FD_MEM_SUPER, 0, "SUPER"), 0);
    std::string back(16, '\0');
    ASSERT_GE(H5FDread(driver.file, H5FD_MEM_OHDR, H5P_DEFAULT, kBase + 4995, 6, &back[0]), 0);
    EXPECT_EQ(back.substr(0, 6), std::string("bbbbb\0", 6));
    ASSERT_GE(H5FDread(driver.file, H5FD_MEM_OHDR, H5P_DEFAULT, kBase + 8008, 6, &back[0]), 0);
    EXPECT_EQ(back.substr(0, 6), "hhnewh");
    EXPECT_EQ(readFile(driver.path), expected + first + second) << "no metadata before the commit";

    ops.clear();
    ASSERT_TRUE(WriteBehindDriver::commit(driver.file));
    expected.resize(1 << 20, '\0');
    expected.replace(0, 5, "SUPER");
    expected.replace(kBase, 5000, first + second);
    expected.replace(kBase + 6000, 60, index);
    expected.replace(kBase + 8000, 50, header);
    expected.replace(kBase + 8010, 3, "new");
    EXPECT_TRUE(readFile(driver.path) == expected) << "cut back to the end, without the journal";
    std::string kinds;
    for (const Op& op : ops) {
        kinds += "wstcb"[op.kind];
    }
    // Data synced; journal, synced; the blocks in place (the index, the superblock, the header
    // in its three pieces), synced; the journal cut off.
    EXPECT_EQ(kinds, "swswwwwwstc");
    ASSERT_EQ(ops.size(), 11u);
    EXPECT_GE(ops[1].offset, kBase + 5000) << "the journal overwrites nothing";
    EXPECT_EQ(ops[3].offset, kBase + 6000) << "the index first";
    EXPECT_EQ(ops[4].offset, 0u) << "then the superblock, the object header last";
    EXPECT_EQ(ops[9].offset, uint64_t{1} << 20);

    ASSERT_GE(driver.write(H5FD_MEM_DRAW, kBase + 100, "x"), 0);
    EXPECT_EQ(readFile(driver.path)[kBase + 100], 'a') << "below the committed end, data waits";
}

// On a slow card the recording must go at the card's pace, not fill the memory with dirty pages.
TEST(WriteBehindDriver, DataWrittenButNotYetOnDiskStaysBounded) {
    Driver driver;
    ASSERT_GE(H5FDset_eoa(driver.file, H5FD_MEM_DEFAULT, 64 << 20), 0);
    uint64_t written = 0, writtenBack = 0, most = 0, waits = 0;
    WriteBehindDriver::setOperationLog([&](const WriteBehindDriver::Operation& op) {
        if (op.kind == WriteBehindDriver::Operation::Write) {
            written = std::max<uint64_t>(written, op.offset + op.data.size());
            most = std::max(most, written - writtenBack);
        } else if (op.kind == WriteBehindDriver::Operation::WrittenBack) {
            writtenBack = op.offset;
            ++waits;
        }
    });
    const test::Finally stopLogging{[] { WriteBehindDriver::setOperationLog({}); }};
    const std::string piece(100000, 'x');
    for (haddr_t at = 0; at < (24u << 20); at += piece.size()) {
        ASSERT_GE(driver.write(H5FD_MEM_DRAW, at, piece), 0);
    }
    EXPECT_GE(waits, 10u);
    EXPECT_LE(most, WriteBehindDriver::kMaxUnsyncedBytes);
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
