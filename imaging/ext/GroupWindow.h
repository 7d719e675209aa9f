// The ext parser, asked for a few groups at a time.
#pragma once

#include "agent/core/fs/IBlockBitmapChunkProvider.h"
#include "imaging/Volume.h"
#include "imaging/ext/ExtDescriptors.h"

#include <cstdint>
#include <vector>

namespace imaging::ext {

/// The map of an ext volume in pieces.
///
/// The parser reads the whole descriptor table at each request. Each piece is therefore asked of a parser on the same
/// volume with another superblock and another table before it, which name the groups of the piece alone. The answers
/// are those of one request for everything; time and memory for the table are those of a piece.
class GroupWindow : public agent::core::fs::IBlockBitmapChunkProvider {
public:
    /// @param volume  must outlive this provider
    /// @param table   with at least one block in a group, and no group's bitmap inside the table itself
    GroupWindow(Volume& volume, DescriptorTable const& table);

    /// As every provider; covers fewer blocks than the buffer has room for where a piece ends.
    /// @throws VolumeError         superblock or table cannot be read
    /// @throws std::runtime_error  the parser refuses what it is presented
    long getChunk(unsigned long offset, char* buffer, unsigned long length) const override;

private:
    std::uint64_t groupOf(std::uint64_t block) const;

    Volume& volume_;
    DescriptorTable table_;
    std::vector<std::uint8_t> super_;
};

} // namespace imaging::ext
