#pragma once

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <ftw.h>
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
        nftw(
            mPath.c_str(),
            [](const char* p, const struct stat*, int, struct FTW*) { return ::remove(p); }, 16,
            FTW_DEPTH | FTW_PHYS);
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
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

// Captures what the process writes to standard error (the log goes there) between
// construction and text(); also raises the log threshold for the duration.
class StderrCapture {
public:
    explicit StderrCapture(int threshold = 5) : mOldThreshold(morvik::pellum::log::threshold()) {
        morvik::pellum::log::setThreshold(threshold);
        std::fflush(stderr);
        mPath = mDir.file("stderr");
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
    std::string mPath;
    int mSaved = -1;
    int mOldThreshold;
};

} // namespace quarvel::test
