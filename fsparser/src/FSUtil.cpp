// Aligned reads of a volume through a bounce buffer.
#include "agent/core/fs/FSUtil.h"

#include "AllocationLog.h"
#include "ZeroedBuffer.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <stdexcept>

namespace agent::core::fs {

using agent::info::Level;
using agent::info::Logger;

namespace {

/// Most bytes asked of the volume at once.
constexpr long kLargestPiece = 4194304;

/// The line that a failed allocation names; part of the message, so it does not move with the code.
constexpr int kAllocationLine = 81;

/// What growing a standard vector beyond its greatest size says; callers know this failure by it.
constexpr char const* kTooLong = "vector::_M_default_append";

ZeroedBuffer makeBounceBuffer(Logger& logger, unsigned long size, unsigned long alignment) {
    try {
        if (size > static_cast<unsigned long>(std::numeric_limits<long>::max())) {
            throw std::length_error(kTooLong);
        }
        return ZeroedBuffer(size, alignment);
    } catch (std::exception const& error) {
        logFailedAllocation(logger, size, alignment, kAllocationLine, __FILE__, error);
        throw;
    }
}

} // namespace

long fs_chunk_read(agent::core::IVolumeReader const& volume, void* buffer, long length, long* bytesRead) {
    char* destination = static_cast<char*>(buffer);
    for (long remaining = length; remaining > 0;) {
        long const piece = std::min(remaining, kLargestPiece);
        long const result = volume.read(destination, piece);
        if (result == -1) {
            return -1;
        }
        // Unsigned, so that a reader with absurd answers cannot overflow it.
        *bytesRead = static_cast<long>(static_cast<unsigned long>(*bytesRead) + static_cast<unsigned long>(result));
        // By the piece, not by what was read, on purpose: short reads are the reader's to report.
        destination += piece;
        remaining -= piece;
    }
    return 0;
}

long fs_seek_read_aligned(Logger& logger, agent::core::IVolumeReader const& volume, unsigned long alignment,
                          unsigned long offset, void* buffer, unsigned long length, unsigned long* bytesRead) {
    *bytesRead = 0;
    if (alignment == 0) {
        return -1;
    }
    unsigned long const start = offset / alignment * alignment;
    auto const lead = static_cast<std::uint32_t>(offset % alignment);
    // A length of 0 wraps here: at a unit's start it gives a size of 0, elsewhere one unit.
    unsigned long const size = ((lead + length - 1) / alignment + 1) * alignment;
    ZeroedBuffer bounce = makeBounceBuffer(logger, size, alignment);

    if (volume.seek(static_cast<long>(start), SEEK_SET) == -1) {
        return -1;
    }
    long delivered = 0;
    if (fs_chunk_read(volume, bounce.data(), static_cast<long>(size), &delivered) != 0) {
        Logger::Entry(logger, Level::Debug) << "CHUNK READ FILE FAILED: OFFSET: " << start << " - " << size << " BYTES";
        return -1;
    }
    // Counted from the aligned start, on purpose: of what is copied, the bytes that were not delivered are zeros.
    unsigned long const copied = std::min(static_cast<unsigned long>(delivered), length);
    if (copied == 0) {
        return 0;
    }
    if (lead > size || copied > size - lead) {
        return -1; // the length wrapped around: the wanted bytes were never read
    }
    std::memcpy(buffer, bounce.data() + lead, copied);
    *bytesRead = copied;
    return 0;
}

} // namespace agent::core::fs
