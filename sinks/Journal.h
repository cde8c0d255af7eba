#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace quarvel {

// The journal that makes a checkpoint atomic. A checkpoint rewrites some metadata blocks of the
// recording in place (the chunk index, the dataset's object header with "recorded_values", the
// superblock); a mixture of old and new blocks is no valid file. So the new blocks are first
// written, with a checksum, beyond the end of the file, and synced; then written in place and
// synced; then the file is cut back to its new end, which removes the journal. Whatever the
// moment of a crash or a power cut, the file then holds either the last checkpoint, or a
// complete journal that brings it to the next one, or an incomplete journal that is ignored.
//
// Layout, at the end of the file, all numbers 64-bit little-endian:
//   journal: "QVJOURNL", sequence, end, count, then count times (address, size, bytes)
//   trailer: "QVJTRAIL", the journal's offset, its length, its CRC-32, sequence
// end is the file's size once the journal has been applied.
struct JournalBlock {
    uint64_t address = 0;
    std::vector<uint8_t> bytes;
};

struct Journal {
    uint64_t sequence = 0;
    uint64_t end = 0;
    std::vector<JournalBlock> blocks; // in the order they are to be written
};

constexpr size_t kJournalTrailerBytes = 40;

// The journal and its trailer, as written at the end of the file.
std::vector<uint8_t> encodeJournal(const Journal& journal, uint64_t offset);

enum class JournalFound { None, Incomplete, Complete };

// Looks at the end of the open file for a journal; a complete one is read into journal, and
// offset tells where it begins (also for an incomplete one whose trailer survived).
JournalFound findJournal(int fd, Journal& journal, uint64_t& offset);

// Brings the file to the journal's checkpoint: every block in place, synced, then the file cut
// to its end and synced. Returns 0 or the errno of the failure.
int applyJournal(int fd, const Journal& journal);

} // namespace quarvel
