/// @file
/// The map of a volume that nothing else understands.
#pragma once

#include "agent/core/fs/IBlockBitmapChunkProvider.h"

namespace agent::core::fs {

/// Reports every unit as used: what is not understood is kept. Reads nothing and cannot fail; any thread.
///
/// @code
/// agent::core::fs::UnrecognizedParser const parser(262144); // a volume of 1 GiB, in units of 4096 bytes
/// std::vector<char> map(1 << 20);
/// long const units = parser.getChunk(0, map.data(), map.size()); // 262144
/// @endcode
class AGENT_EXPORT UnrecognizedParser : public IBlockBitmapChunkProvider {
public:
    /// @param totalUnits  units of the volume, of whatever size the caller counts in
    explicit UnrecognizedParser(unsigned long totalUnits);
    UnrecognizedParser(UnrecognizedParser const&) = default;
    UnrecognizedParser& operator=(UnrecognizedParser const&) = default;
    ~UnrecognizedParser() override;

    /// Sets every bit of the buffer. At or past the end it returns 0 and leaves the buffer alone.
    /// @return otherwise the smaller of `length * 8` and the units that are left from `offset` on
    long getChunk(unsigned long offset, char* buffer, unsigned long length) const override;

private:
    unsigned long totalUnits_;
};

} // namespace agent::core::fs
