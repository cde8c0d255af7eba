#pragma once

#include <cstdint>
#include <string>

namespace quarvel {

// Brings a recording that a crash or a power cut left behind to its last complete checkpoint:
// a complete journal at its end is applied, an incomplete one cut off. A file that is no
// quarvel recording, or that HDF5 still cannot read afterwards, is left byte for byte as it was.
struct Recovery {
    enum class Outcome { Repaired, NothingToDo, NotARecording, CannotRepair };
    Outcome outcome = Outcome::CannotRepair;
    uint64_t recordedValues = 0;
    std::string state;
    std::string reason;      // why it is not a recording, or cannot be repaired
    bool leftAsItWas = true; // false when what recovery changed could not be undone
};

Recovery recoverRecording(const std::string& path);

// The journal part alone, without HDF5, on a file open for writing: true when the file was
// changed (a journal applied or cut off).
bool settleJournal(int fd);

} // namespace quarvel
