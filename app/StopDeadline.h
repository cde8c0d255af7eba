#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace quarvel {

// Ends the process if stopping a run takes too long: a last resort for a recorder device that
// keeps its reader in the kernel, where no stop reaches it. The countdown starts when
// stopRequested() turns true (checked every 50 ms) or when arm() is called; destroying the
// object in time cancels it. When it fires, it prints what the run had yet to print, calls
// beforeExit (which must not wait for the stuck threads) and ends the process.
class StopDeadline {
public:
    StopDeadline(std::function<bool()> stopRequested, int stopExitCode, std::string stopFarewell,
                 std::chrono::milliseconds limit, std::function<void()> beforeExit = {});
    ~StopDeadline();
    StopDeadline(const StopDeadline&) = delete;
    StopDeadline& operator=(const StopDeadline&) = delete;

    // Starts the countdown now, unless it runs already. The process would end with exitCode
    // after printing farewell on standard error: the run's own decision, so a later call
    // replaces both.
    void arm(int exitCode, std::string farewell = {});

private:
    void watch();
    void startCountdownLocked();
    [[noreturn]] void fire();

    const std::function<bool()> mStopRequested;
    const int mStopExitCode;
    const std::string mStopFarewell;
    const std::chrono::milliseconds mLimit;
    const std::function<void()> mBeforeExit;
    std::mutex mMutex;
    std::condition_variable mChanged;
    bool mDone = false;
    bool mArmed = false;
    int mExitCode = 0;
    std::string mFarewell;
    std::chrono::steady_clock::time_point mEnd{};
    std::thread mThread;
};

} // namespace quarvel
