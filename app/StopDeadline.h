#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace quarvel {

// Ends the process if stopping the data movers takes too long. A recorder device that
// delivers nothing keeps its mover blocked in the kernel's read, where no abort reaches it;
// a stop requested by the user or forced by a failure must still end the run.
class StopDeadline {
public:
    StopDeadline() = default;
    ~StopDeadline();
    StopDeadline(const StopDeadline&) = delete;
    StopDeadline& operator=(const StopDeadline&) = delete;

    // From now on the process ends with exitCode unless this object is destroyed within limit.
    void arm(int exitCode, std::chrono::milliseconds limit);

private:
    std::mutex mMutex;
    std::condition_variable mDisarmed;
    bool mDone = false;
    std::thread mThread;
};

} // namespace quarvel
