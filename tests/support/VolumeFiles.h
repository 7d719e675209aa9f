// Files of a known pattern, for tests of the volume reader, and memory that direct I/O accepts.
#pragma once

#include "agent/AlignedAllocator.h"

#include <cstdint>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace tests {

/// Bytes that start at a multiple of a page, as direct I/O may ask for.
class AlignedBytes : public std::vector<std::uint8_t, agent::AlignedAllocator<std::uint8_t>> {
public:
    explicit AlignedBytes(std::size_t size) : vector(size, 0, agent::AlignedAllocator<std::uint8_t>(4096)) {}
};

/// The byte of the pattern at an offset: never 0, and not the same in neighbouring sectors.
inline std::uint8_t patternByte(long offset) {
    return static_cast<std::uint8_t>(offset % 251 + 1);
}

/// Writes a file of this many bytes of the pattern.
inline void writePatternFile(std::string const& path, long size) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    for (long offset = 0; offset < size; ++offset) {
        file.put(static_cast<char>(patternByte(offset)));
    }
}

/// Whether the first `count` bytes are those of the pattern from `offset` on.
template <typename Bytes>
bool holdsPattern(Bytes const& bytes, long offset, long count) {
    for (long i = 0; i < count; ++i) {
        if (bytes[static_cast<std::size_t>(i)] != patternByte(offset + i)) {
            return false;
        }
    }
    return true;
}

/// Whether a file can be opened for direct I/O.
inline bool allowsDirect(std::string const& path) {
    int const descriptor = ::open(path.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC);
    if (descriptor != -1) {
        ::close(descriptor);
    }
    return descriptor != -1;
}

} // namespace tests
