#include "sinks/Journal.h"

#include <libdeflate.h>

#include <cerrno>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

namespace quarvel {

namespace {

constexpr char kJournalMagic[8] = {'Q', 'V', 'J', 'O', 'U', 'R', 'N', 'L'};
constexpr char kTrailerMagic[8] = {'Q', 'V', 'J', 'T', 'R', 'A', 'I', 'L'};
constexpr size_t kHeaderBytes = 32;

void put64(std::vector<uint8_t>& out, uint64_t value) {
    for (int i = 0; i < 8; ++i) {
        out.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

uint64_t get64(const uint8_t* in) {
    uint64_t value = 0;
    for (int i = 7; i >= 0; --i) {
        value = value << 8 | in[i];
    }
    return value;
}

uint64_t checksum(const uint8_t* data, size_t size) {
    return libdeflate_crc32(0, data, size);
}

// The whole range, or false.
bool readAt(int fd, uint8_t* out, size_t size, uint64_t offset) {
    while (size > 0) {
        const ssize_t n = ::pread(fd, out, size, static_cast<off_t>(offset));
        if (n <= 0) {
            if (n < 0 && errno == EINTR) {
                continue;
            }
            return false;
        }
        out += n;
        size -= static_cast<size_t>(n);
        offset += static_cast<uint64_t>(n);
    }
    return true;
}

int writeAt(int fd, const uint8_t* data, size_t size, uint64_t offset) {
    while (size > 0) {
        const ssize_t n = ::pwrite(fd, data, size, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return n < 0 ? errno : EIO;
        }
        data += n;
        size -= static_cast<size_t>(n);
        offset += static_cast<uint64_t>(n);
    }
    return 0;
}

// Parses a journal body; false when it is not one.
bool decode(const std::vector<uint8_t>& body, Journal& journal) {
    if (body.size() < kHeaderBytes || std::memcmp(body.data(), kJournalMagic, 8) != 0) {
        return false;
    }
    journal.sequence = get64(&body[8]);
    journal.end = get64(&body[16]);
    const uint64_t count = get64(&body[24]);
    journal.blocks.clear();
    size_t at = kHeaderBytes;
    for (uint64_t i = 0; i < count; ++i) {
        if (body.size() - at < 16) {
            return false;
        }
        JournalBlock block;
        block.address = get64(&body[at]);
        const uint64_t size = get64(&body[at + 8]);
        at += 16;
        if (body.size() - at < size) {
            return false;
        }
        // Within the body, which is in memory: size fits a size_t.
        const auto length = static_cast<size_t>(size);
        block.bytes.assign(body.begin() + static_cast<std::ptrdiff_t>(at),
                           body.begin() + static_cast<std::ptrdiff_t>(at + length));
        at += length;
        journal.blocks.push_back(std::move(block));
    }
    return at == body.size();
}

} // namespace

std::vector<uint8_t> encodeJournal(const Journal& journal, uint64_t offset) {
    std::vector<uint8_t> out(kJournalMagic, kJournalMagic + 8);
    put64(out, journal.sequence);
    put64(out, journal.end);
    put64(out, journal.blocks.size());
    for (const JournalBlock& block : journal.blocks) {
        put64(out, block.address);
        put64(out, block.bytes.size());
        out.insert(out.end(), block.bytes.begin(), block.bytes.end());
    }
    const uint64_t length = out.size();
    const uint64_t crc = checksum(out.data(), out.size());
    out.insert(out.end(), kTrailerMagic, kTrailerMagic + 8);
    put64(out, offset);
    put64(out, length);
    put64(out, crc);
    put64(out, journal.sequence);
    return out;
}

JournalFound findJournal(int fd, Journal& journal, uint64_t& offset) {
    struct stat info {};
    if (::fstat(fd, &info) != 0 || static_cast<uint64_t>(info.st_size) < kJournalTrailerBytes) {
        return JournalFound::None;
    }
    const uint64_t size = static_cast<uint64_t>(info.st_size);
    uint8_t trailer[kJournalTrailerBytes];
    if (!readAt(fd, trailer, sizeof trailer, size - sizeof trailer) ||
        std::memcmp(trailer, kTrailerMagic, 8) != 0) {
        return JournalFound::None;
    }
    offset = get64(trailer + 8);
    const uint64_t length = get64(trailer + 16);
    // The journal ends where its trailer begins; a trailer that says otherwise is torn, and
    // its offset is no place to cut the file at. No commit wrote in place before its trailer
    // was synced whole, so the file is still at its last checkpoint.
    if (offset > size || length != size - kJournalTrailerBytes - offset ||
        length > (uint64_t{1} << 30)) {
        return JournalFound::None;
    }
    std::vector<uint8_t> body(static_cast<size_t>(length));
    if (!readAt(fd, body.data(), body.size(), offset) ||
        checksum(body.data(), body.size()) != get64(trailer + 24) || !decode(body, journal) ||
        journal.sequence != get64(trailer + 32) || journal.end > offset) {
        return JournalFound::Incomplete;
    }
    return JournalFound::Complete;
}

int applyJournal(int fd, const Journal& journal) {
    for (const JournalBlock& block : journal.blocks) {
        if (const int error = writeAt(fd, block.bytes.data(), block.bytes.size(), block.address)) {
            return error;
        }
    }
    if (::fdatasync(fd) != 0 || ::ftruncate(fd, static_cast<off_t>(journal.end)) != 0 ||
        ::fsync(fd) != 0) {
        return errno;
    }
    return 0;
}

} // namespace quarvel
