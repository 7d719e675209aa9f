/// @file
/// FAT32 volumes.
#pragma once

#include "agent/Export.h"
#include "agent/core/IVolumeReader.h"
#include "agent/core/fs/IBlockBitmapChunkProvider.h"
#include "agent/info/Logger.h"

#include <cstdint>

namespace agent::core::fs {

/// The 512 bytes of a FAT boot sector, as they stand on disk. Opaque: cast a pointer to at least 512 bytes.
struct fat_boot_sector;

/// The used space of a FAT32 volume, from its first file allocation table. A unit is a cluster-sized piece of the
/// volume counted from volume byte 0 (unit u covers the bytes from u * cluster size on), not a cluster of the table:
/// the reserved area and the tables are covered too and always count as used. Least significant bit first.
///
/// Limits that are kept on purpose, so that a caller must know them:
/// - The map is exact for a single request that starts at unit 0 and whose buffer holds the whole map (at least units /
///   8 bytes). A later request consults the table at shifted entries, and one that reaches into the data area may
///   consult entries that it never read: **the process is aborted** then.
/// - Even a request from unit 0 may reach past the entries it read, and abort, when the data area starts less than one
///   cluster size after byte 0.
/// - Of the sectors per FAT only the low 16 bits are kept; tables of 65536 sectors and more are mis-sized.
/// - The first table is read, whatever the mirroring flags say.
/// - A start past the end of the units is not answered with 0.
///
/// The boot sector is read once, at construction. A request reads its stretch of the table in one piece (4 bytes a unit
/// and 4 more) and holds nothing afterwards. Logger and volume reader are not owned and must outlive the parser; one
/// thread at a time.
///
/// @code
/// agent::core::fs::FATParser parser(logger, 4096, volume);
/// unsigned long const units = 262144; // bytes of the file system / bytes of a cluster, rounded up
/// std::vector<char> map((units + 7) / 8);
/// long const described = parser.getChunk(0, map.data(), map.size()); // one request, from unit 0
/// @endcode
///
/// Memory: 8 bytes for each unit requested while the table is read, 4 afterwards, in pages that the volume fills; never
/// more than 64 times the caller's own buffer and two clusters. docs/formats/fat.md lists the fields that are read.
class AGENT_EXPORT FATParser : public IBlockBitmapChunkProvider {
public:
    /// Reads and checks the boot sector (512 bytes at byte 0).
    /// @param logger     takes every message; not owned
    /// @param alignment  bytes, the granularity of that read. The table is read in multiples of the cluster size.
    /// @param volume     an open volume; not owned
    /// @throws std::runtime_error
    ///     - "Can't read fat boot sector" (also for an alignment of 0)
    ///     - "FAT12 is not supported", "FAT16 is not supported"
    ///     - "Not a FAT filesystem"
    /// @throws std::invalid_argument  the alignment is no power of two
    FATParser(agent::info::Logger& logger, unsigned int alignment, agent::core::IVolumeReader const& volume);
    FATParser(FATParser const&) = delete;
    FATParser& operator=(FATParser const&) = delete;
    ~FATParser() override;

    /// The type that the labels claim: 0 when the 5 bytes at 0x36 are "FAT12"; else 1 when they are "FAT16"; else 2
    /// when the 5 bytes at 0x52 are "FAT32"; else 3. Any thread.
    /// @param bootSector  not null; no byte past the 87th is looked at
    static int fat_get_type(fat_boot_sector* bootSector);

    /// Whether the buffer is the boot sector of a FAT32 volume. Any thread.
    /// @param buffer  the volume's first sector, at least 87 bytes; null is not recognised
    static bool isFATFileSystem(void* buffer);

    /// As IBlockBitmapChunkProvider states it, within the limits above: 0 for an empty request and for a start exactly
    /// at the end. The whole buffer is cleared first. A negative result is -1 (the table cannot be read, or the cluster
    /// size is 0) or -400 (it came short), after two entries with that code at their end:
    ///     - `Debug` "returning[2] "
    ///     - `Error` "A logical error occurred while attempting to parse the FAT bitmap, err: "
    ///
    /// A request that succeeds leaves `Debug` "returning[3] N", where N is the result.
    /// @throws std::bad_alloc         the memory for the table cannot be had
    /// @throws std::invalid_argument  "alignment is not a power of two": the cluster size is none. Both after `Debug`
    ///     "Failed to create aligned memory of size: S, alignment: A from line: 200 in file: FATParser.cpp, error: E",
    ///     where A is the cluster size; or, when it is the read's own buffer, after the entry of fs_seek_read_aligned()
    long getChunk(unsigned long offset, char* buffer, unsigned long length) const override;

protected:
    /// Reads the 512 bytes at byte 0.
    /// @param bootSector  takes them
    /// @return 0; -1 when the read failed, -5 when fewer bytes arrived
    int fat_read_bootsector(fat_boot_sector& bootSector) const;

    /// The routine behind getChunk(), without the `Error` entry.
    /// @param length  bytes of the buffer
    /// @param start   number of the first unit
    /// @param buffer  takes the bits
    /// @return units covered, or a negative code
    long fs_get_blocks_bitmap_chunk(unsigned long length, unsigned long start, char* buffer) const;

    /// Tells which units are used, one flag a unit: 1 used, 0 free. As with getChunk(), **the process is aborted**
    /// where a unit's entry is not among those that were read.
    /// @param tableOffset   byte of the first table
    /// @param dataStart     byte of cluster 2
    /// @param clusterBytes  bytes of a cluster; below 1 nothing can be told, which is a failed read
    /// @param start         first unit
    /// @param flags         takes the flags; with null nothing is done
    /// @param count         units
    /// @return 0; -1 when the table cannot be read, -400 when it came short
    /// @throws std::exception  std::bad_alloc or std::invalid_argument, as getChunk()
    int fat_blocks_in_use(long tableOffset, long dataStart, long clusterBytes, long start, int* flags,
                          unsigned int count) const;

private:
    struct AGENT_LOCAL Request;

    AGENT_LOCAL std::uint64_t totalSectors() const;
    template <typename Sink>
    AGENT_LOCAL int findUsed(Request const& request, Sink const& setUsed) const;

    agent::info::Logger* logger_;
    agent::core::IVolumeReader const* volume_;
    std::uint64_t alignment_;
    std::uint8_t numberOfFats_ = 0;
    std::uint8_t sectorsPerCluster_ = 0;
    std::uint16_t totalSectors16_ = 0;
    std::uint32_t totalSectors32_ = 0;
    std::uint16_t reservedSectors_ = 0;
    std::uint16_t bytesPerSector_ = 0;
    std::uint16_t sectorsPerFat_ = 0;
    int type_;
};

} // namespace agent::core::fs
