#pragma once

#include <string>

namespace quarvel {

// How a run ended before its movers moved everything.
enum class RunOutcome { Stopped, Failed };

// An element that records how its run ended (the file says "stopped" or "failed", and why).
// The job's thread tells it before the movers are stopped, while its mover may still run.
class AbstractOutcomeRecorder {
public:
    virtual void runEnding(RunOutcome outcome, const std::string& reason) = 0;

protected:
    ~AbstractOutcomeRecorder() = default;
};

} // namespace quarvel
