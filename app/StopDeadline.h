#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace quarvel {

// Ends the process if stopping a run takes too long. A recorder device that delivers nothing
// keeps its reader blocked in the kernel (in open or read), where no abort reaches it; a stop
// requested by the user or forced by a failure must still end the run. The countdown starts
// when stopRequested() turns true (checked every 50 ms) or when arm() is called; destroying
// the object in time cancels it.
class StopDeadline {
public:
    StopDeadline(std::function<bool()> stopRequested, int stopExitCode,
                 std::chrono::milliseconds limit);
    ~StopDeadline();
    StopDeadline(const StopDeadline&) = delete;
    StopDeadline& operator=(const StopDeadline&) = delete;

    // Starts the countdown now, unless it runs already; the process would end with exitCode.
    void arm(int exitCode);

private:
    void watch();
    void armLocked(int exitCode);

    const std::function<bool()> mStopRequested;
    const int mStopExitCode;
    const std::chrono::milliseconds mLimit;
    std::mutex mMutex;
    std::condition_variable mChanged;
    bool mDone = false;
    bool mArmed = false;
    int mExitCode = 0;
    std::chrono::steady_clock::time_point mEnd{};
    std::thread mThread;
};

} // namespace quarvel
