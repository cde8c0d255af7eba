#include "platform/UtcTime.h"

#include <cstdio>
#include <ctime>

namespace quarvel {

std::string utcTimestamp(int decimals) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts{};
    const time_t seconds = now.tv_sec;
    gmtime_r(&seconds, &parts);
    long fraction = now.tv_nsec;
    for (int digits = 9; digits > decimals; --digits) {
        fraction /= 10;
    }
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%0*ldZ", parts.tm_year + 1900,
                  parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                  decimals, fraction);
    return text;
}

} // namespace quarvel
