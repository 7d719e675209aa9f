/// @file
/// The map of a volume that nothing else understands.
#pragma once

#include "agent/core/fs/IBlockBitmapChunkProvider.h"

namespace agent::core::fs {

/// Reports every unit as used: what is not understood is kept. Reads nothing and cannot fail; any thread.
class AGENT_EXPORT UnrecognizedParser : public IBlockBitmapChunkProvider {
public:
    /// @param totalUnits  units of the volume, of whatever size the caller counts in
    explicit UnrecognizedParser(unsigned long totalUnits);
    UnrecognizedParser(UnrecognizedParser const&) = default;
    UnrecognizedParser& operator=(UnrecognizedParser const&) = default;
    ~UnrecognizedParser() override;

    /// Sets every bit of the buffer. At or past the end it returns 0 and leaves the buffer alone.
    long getChunk(unsigned long offset, char* buffer, unsigned long length) const override;

private:
    unsigned long totalUnits_;
};

} // namespace agent::core::fs
