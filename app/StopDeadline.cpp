#include "app/StopDeadline.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

namespace quarvel {

void StopDeadline::arm(int exitCode, std::chrono::milliseconds limit) {
    if (mThread.joinable()) {
        return;
    }
    mThread = std::thread([this, exitCode, limit] {
        std::unique_lock<std::mutex> lock(mMutex);
        if (mDisarmed.wait_for(lock, limit, [this] { return mDone; })) {
            return;
        }
        const char message[] = "quarvel: a data mover did not stop (the recorder device delivers "
                               "nothing); leaving without it\n";
        (void)!::write(STDERR_FILENO, message, std::strlen(message));
        std::fflush(nullptr);
        std::_Exit(exitCode);
    });
}

StopDeadline::~StopDeadline() {
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mDone = true;
    }
    mDisarmed.notify_all();
    if (mThread.joinable()) {
        mThread.join();
    }
}

} // namespace quarvel
