// The FAT parser, asked for a stretch of the table at a time.
#pragma once

#include "agent/core/fs/IBlockBitmapChunkProvider.h"
#include "imaging/Volume.h"

#include <cstdint>

namespace imaging::fat {

/// Where the units and the first table of a volume lie.
struct TableLayout {
    std::uint64_t bytesPerSector;
    std::uint64_t sectorsPerCluster; ///< a power of two
    std::uint64_t tableStart;        ///< byte
    std::uint64_t dataSector;        ///< where cluster 2 begins; not inside the first piece of a cluster's size
    std::uint64_t units;             ///< pieces of a cluster's size, from byte 0 on

    /// The first unit that lies wholly in the data area.
    std::uint64_t dataUnit() const { return (dataSector + sectorsPerCluster - 1) / sectorsPerCluster; }
};

/// The map of a FAT32 volume in pieces.
///
/// The parser answers a request from unit 0 rightly, and no other, and holds the whole table meanwhile. Each piece is
/// therefore asked of a parser on a small volume of its own, presented to it in memory: a boot sector, and the stretch
/// of the real table that the piece needs. The answers are those of one request for everything, and memory is that of a
/// piece.
class TableWindow : public agent::core::fs::IBlockBitmapChunkProvider {
public:
    /// @param volume  must outlive this provider
    TableWindow(Volume& volume, TableLayout const& layout) : volume_(volume), layout_(layout) {}

    /// As every provider; covers fewer units than the buffer has room for where a piece ends.
    /// @throws VolumeError         the table cannot be read
    /// @throws std::runtime_error  the parser refuses what it is presented
    long getChunk(unsigned long offset, char* buffer, unsigned long length) const override;

private:
    long askParser(std::uint64_t first, std::uint64_t count, char* buffer) const;
    std::vector<std::uint8_t> present(std::uint64_t first, std::uint64_t count) const;

    Volume& volume_;
    TableLayout layout_;
};

} // namespace imaging::fat
