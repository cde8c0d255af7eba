#include "app/StopDeadline.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

namespace quarvel {

namespace {
constexpr std::chrono::milliseconds kPollPeriod{50};
}

StopDeadline::StopDeadline(std::function<bool()> stopRequested, int stopExitCode,
                           std::chrono::milliseconds limit)
    : mStopRequested(std::move(stopRequested)), mStopExitCode(stopExitCode), mLimit(limit),
      mThread(&StopDeadline::watch, this) {}

StopDeadline::~StopDeadline() {
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mDone = true;
    }
    mChanged.notify_all();
    mThread.join();
}

void StopDeadline::arm(int exitCode) {
    {
        std::lock_guard<std::mutex> lock(mMutex);
        armLocked(exitCode);
    }
    mChanged.notify_all();
}

void StopDeadline::armLocked(int exitCode) {
    if (!mArmed) {
        mArmed = true;
        mExitCode = exitCode;
        mEnd = std::chrono::steady_clock::now() + mLimit;
    }
}

void StopDeadline::watch() {
    std::unique_lock<std::mutex> lock(mMutex);
    while (!mDone) {
        if (!mArmed && mStopRequested && mStopRequested()) {
            armLocked(mStopExitCode);
        }
        const auto now = std::chrono::steady_clock::now();
        if (mArmed && now >= mEnd) {
            const char message[] = "quarvel: a data mover did not stop (the recorder device "
                                   "delivers nothing); leaving without it\n";
            (void)!::write(STDERR_FILENO, message, std::strlen(message));
            // Only the standard streams: a blocked reader holds its own stream's lock.
            std::fflush(stdout);
            std::fflush(stderr);
            std::_Exit(mExitCode);
        }
        const auto wait =
            mArmed ? std::min<std::chrono::steady_clock::duration>(kPollPeriod, mEnd - now)
                   : std::chrono::steady_clock::duration(kPollPeriod);
        mChanged.wait_for(lock, wait);
    }
}

} // namespace quarvel
