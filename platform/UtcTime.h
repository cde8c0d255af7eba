#pragma once

#include <string>

namespace quarvel {

// Now in UTC, ISO 8601 with `decimals` digits of the second (3 or 6) and a final Z, e.g.
// 2026-11-23T20:30:10.123Z.
std::string utcTimestamp(int decimals);

} // namespace quarvel
