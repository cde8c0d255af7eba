#include "app/StopDeadline.h"

#include "platform/Waiting.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

namespace quarvel {

namespace {
// How often the stop request is looked at.
constexpr std::chrono::milliseconds kStopCheckPeriod{50};
} // namespace

StopDeadline::StopDeadline(std::function<bool()> stopRequested, int stopExitCode,
                           std::string stopFarewell, std::chrono::milliseconds limit,
                           std::function<void()> beforeExit)
    : mStopRequested(std::move(stopRequested)), mStopExitCode(stopExitCode),
      mStopFarewell(std::move(stopFarewell)), mLimit(limit), mBeforeExit(std::move(beforeExit)),
      mThread(&StopDeadline::watch, this) {}

StopDeadline::~StopDeadline() {
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mDone = true;
    }
    mChanged.notify_all();
    mThread.join();
}

void StopDeadline::arm(int exitCode, std::string farewell) {
    {
        std::lock_guard<std::mutex> lock(mMutex);
        startCountdownLocked();
        mExitCode = exitCode;
        mFarewell = std::move(farewell);
    }
    mChanged.notify_all();
}

void StopDeadline::startCountdownLocked() {
    if (!mArmed) {
        mArmed = true;
        mEnd = std::chrono::steady_clock::now() + mLimit;
    }
}

void StopDeadline::watch() {
    std::unique_lock<std::mutex> lock(mMutex);
    while (!mDone) {
        if (!mArmed && mStopRequested && mStopRequested()) {
            startCountdownLocked();
            mExitCode = mStopExitCode;
            mFarewell = mStopFarewell;
        }
        const auto now = std::chrono::steady_clock::now();
        if (mArmed && now >= mEnd) {
            fire();
        }
        const auto wait =
            mArmed ? std::min<std::chrono::steady_clock::duration>(kStopCheckPeriod, mEnd - now)
                   : std::chrono::steady_clock::duration(kStopCheckPeriod);
        mChanged.wait_for(lock, wait);
    }
}

// Called with the mutex held; nothing of the stuck threads is waited for.
void StopDeadline::fire() {
    Waiting what = Waiting::Disk;
    std::string name;
    const bool known = currentWait(what, name);
    std::string why =
        "quarvel: a data mover did not stop (the recorder device delivers nothing); leaving "
        "without it\n";
    if (known && what == Waiting::Disk) {
        why = "quarvel: still writing " + name + " to disk; leaving without waiting\n";
    } else if (known && what == Waiting::Sysfs) {
        why = "quarvel: the recorder's attribute " + name +
              " does not answer; leaving without waiting\n";
    }
    const std::string message = (mFarewell.empty() ? std::string() : mFarewell + "\n") + why;
    (void)!::write(STDERR_FILENO, message.data(), message.size());
    if (mBeforeExit) {
        mBeforeExit();
    }
    // Only the standard streams: a blocked reader holds its own stream's lock.
    std::fflush(stdout);
    std::fflush(stderr);
    std::_Exit(mExitCode);
}

} // namespace quarvel
