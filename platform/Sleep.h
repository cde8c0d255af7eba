#pragma once

#include <chrono>

namespace quarvel {

// Sleeps the whole duration: a signal that interrupts the sleep does not shorten it.
void sleepFor(std::chrono::nanoseconds duration);

} // namespace quarvel
