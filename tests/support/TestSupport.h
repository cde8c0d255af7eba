#pragma once

#include "platform/Logger.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>

#include <fcntl.h>
#include <ftw.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quarvel::test {

// A private directory per test, so that tests can run in parallel; removed with its content.
class TempDir {
public:
    TempDir() {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base && *base ? base : "/tmp") + "/quarvel-test-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("mkdtemp failed");
        }
        mPath = pattern;
    }
    ~TempDir() {
        const auto remove = [](const char* p, const struct stat*, int, struct FTW*) {
            return ::remove(p);
        };
        nftw(mPath.c_str(), remove, 16, FTW_DEPTH | FTW_PHYS);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return mPath; }
    std::string file(const std::string& name) const { return mPath + "/" + name; }

private:
    std::string mPath;
};

// The seed of a randomized test: QUARVEL_TEST_SEED, or a fresh one; printed, so that a failure
// can be run again.
inline uint64_t testSeed() {
    const char* given = std::getenv("QUARVEL_TEST_SEED");
    const uint64_t seed =
        given != nullptr ? std::strtoull(given, nullptr, 10) : std::random_device{}();
    std::printf("QUARVEL_TEST_SEED=%llu\n", static_cast<unsigned long long>(seed));
    return seed;
}

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    EXPECT_TRUE(out.flush().good()) << "cannot write " << path;
}

// Polls a state that another thread or process reaches, with a deadline for any machine.
inline bool eventually(const std::function<bool()>& reached,
                       std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!reached()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Empty once this process has a mount namespace of its own with a tmpfs over /sys/dev/char,
// where a regular file's device number 0:0 may have a control directory; otherwise why a test
// that needs it is skipped. Done once: the namespace cannot be left again.
inline std::string privateSysfs() {
    static const std::string why = []() -> std::string {
        if (::geteuid() != 0) {
            return "needs root for a private mount namespace";
        }
        if (::unshare(CLONE_NEWNS) != 0) {
            return errno == EINVAL
                       ? "needs a private mount namespace, which a chroot refuses "
                         "(EINVAL)"
                       : std::string("no private mount namespace: ") + std::strerror(errno);
        }
        if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("none", "/sys/dev/char", "tmpfs", 0, "mode=0755") != 0) {
            return std::string("no tmpfs over /sys/dev/char: ") + std::strerror(errno);
        }
        return {};
    }();
    return why;
}

// What the process writes to standard error (the log goes there) from construction to text(),
// with the log threshold set meanwhile.
class StderrCapture {
public:
    explicit StderrCapture(int threshold = 5) : mOldThreshold(morvik::pellum::log::threshold()) {
        morvik::pellum::log::setThreshold(threshold);
        ::testing::internal::CaptureStderr();
    }
    ~StderrCapture() { text(); }
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    std::string text() {
        if (mOldThreshold >= 0) {
            mText = ::testing::internal::GetCapturedStderr();
            morvik::pellum::log::setThreshold(mOldThreshold);
            mOldThreshold = -1;
        }
        return mText;
    }

private:
    int mOldThreshold;
    std::string mText;
};

// Runs `undo` when the scope ends, however it ends: puts back a setting a test changed.
struct Finally {
    std::function<void()> undo;
    ~Finally() { undo(); }
};

} // namespace quarvel::test
