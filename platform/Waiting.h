#pragma once

#include <string>

namespace quarvel {

// What the program's threads wait for in the system right now, so that a stop that takes too long
// can say what held it up instead of guessing. A stop held up by nothing marked is taken to be
// held up by the recorder device.
enum class Waiting { Disk, Sysfs };

// Marks one thread's wait for its lifetime; name says what (the file, the attribute, the device).
class WaitingFor {
public:
    WaitingFor(Waiting what, const std::string& name);
    ~WaitingFor();
    WaitingFor(const WaitingFor&) = delete;
    WaitingFor& operator=(const WaitingFor&) = delete;

private:
    const Waiting mWhat;
};

// The first kind of wait under way, in the order of the enumeration, and its name; false when
// nothing is waited for.
bool currentWait(Waiting& what, std::string& name);

} // namespace quarvel
