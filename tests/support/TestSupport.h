#pragma once

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>

#include <fcntl.h>
#include <ftw.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include "platform/Logger.h"

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

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void writeFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

// Runs `undo` when the scope ends, however it ends: puts back a setting a test changed.
struct Finally {
    std::function<void()> undo;
    ~Finally() { undo(); }
};

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

// Captures what the process writes to standard error (the log goes there) between
// construction and text(); also sets the log threshold for the duration.
class StderrCapture {
public:
    explicit StderrCapture(int threshold = 5) : mOldThreshold(morvik::pellum::log::threshold()) {
        morvik::pellum::log::setThreshold(threshold);
        std::fflush(stderr);
        const int fd = ::open(mPath.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
        mSaved = ::dup(STDERR_FILENO);
        ::dup2(fd, STDERR_FILENO);
        ::close(fd);
    }
    ~StderrCapture() { restore(); }

    std::string text() {
        restore();
        return readFile(mPath);
    }

private:
    void restore() {
        if (mSaved >= 0) {
            std::fflush(stderr);
            ::dup2(mSaved, STDERR_FILENO);
            ::close(mSaved);
            mSaved = -1;
            morvik::pellum::log::setThreshold(mOldThreshold);
        }
    }

    TempDir mDir;
    std::string mPath = mDir.file("stderr");
    int mSaved = -1;
    int mOldThreshold;
};

} // namespace quarvel::test
