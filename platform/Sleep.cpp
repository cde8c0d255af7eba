#include "platform/Sleep.h"

#include <cerrno>
#include <ctime>

namespace quarvel {

void sleepFor(std::chrono::nanoseconds duration) {
    if (duration <= std::chrono::nanoseconds::zero()) {
        return;
    }
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(duration);
    timespec wait{static_cast<time_t>(seconds.count()),
                  static_cast<long>((duration - seconds).count())};
    timespec remaining{};
    while (::nanosleep(&wait, &remaining) != 0 && errno == EINTR) {
        wait = remaining;
    }
}

} // namespace quarvel
