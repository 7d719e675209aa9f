// Builds small FAT32 volumes in memory, byte by byte, and one of any size that nothing backs.
#pragma once

#include "support/Readers.h"

#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

namespace tests {

/// The boot sector's bytes as the format numbers them.
namespace fat_boot {
inline constexpr std::uint64_t kJump = 0x00;
inline constexpr std::uint64_t kSystemId = 0x03;
inline constexpr std::uint64_t kBytesPerSector = 0x0B;
inline constexpr std::uint64_t kSectorsPerCluster = 0x0D;
inline constexpr std::uint64_t kReservedSectors = 0x0E;
inline constexpr std::uint64_t kNumberOfFats = 0x10;
inline constexpr std::uint64_t kRootEntries = 0x11;
inline constexpr std::uint64_t kTotalSectors16 = 0x13;
inline constexpr std::uint64_t kMedia = 0x15;
inline constexpr std::uint64_t kSectorsPerFat16 = 0x16;
inline constexpr std::uint64_t kHiddenSectors = 0x1C;
inline constexpr std::uint64_t kTotalSectors32 = 0x20;
inline constexpr std::uint64_t kSectorsPerFat32 = 0x24;
inline constexpr std::uint64_t kExtFlags = 0x28;
inline constexpr std::uint64_t kVersion = 0x2A;
inline constexpr std::uint64_t kRootCluster = 0x2C;
inline constexpr std::uint64_t kFsInfoSector = 0x30;
inline constexpr std::uint64_t kBackupSector = 0x32;
inline constexpr std::uint64_t kOldLabel = 0x36; ///< the type label of FAT12 and FAT16
inline constexpr std::uint64_t kDrive = 0x40;
inline constexpr std::uint64_t kExtendedSignature = 0x42;
inline constexpr std::uint64_t kVolumeLabel = 0x47;
inline constexpr std::uint64_t kFat32Label = 0x52; ///< the type label of FAT32
inline constexpr std::uint64_t kSignature = 0x1FE;
} // namespace fat_boot

/// The bytes of the FSInfo sector, relative to the sector.
namespace fat_info {
inline constexpr std::uint64_t kLeadSignature = 0x00;
inline constexpr std::uint64_t kStructSignature = 0x1E4;
inline constexpr std::uint64_t kFreeCount = 0x1E8;
inline constexpr std::uint64_t kNextFree = 0x1EC;
inline constexpr std::uint64_t kTrailSignature = 0x1FC;
} // namespace fat_info

/// What an entry of the table may say of its cluster.
namespace fat_entry {
inline constexpr std::uint32_t kFree = 0;
inline constexpr std::uint32_t kBad = 0x0FFFFFF7;
inline constexpr std::uint32_t kEndOfChain = 0x0FFFFFFF;
} // namespace fat_entry

/// The shape of a volume. The defaults are a genuine FAT32 volume with clusters of 4 KiB, whose data area starts at a
/// multiple of the cluster size: unit 254.
struct FatGeometry {
    std::uint16_t bytesPerSector = 512;
    std::uint8_t sectorsPerCluster = 8;
    std::uint16_t reservedSectors = 32;
    std::uint8_t numberOfFats = 2;
    std::uint32_t sectorsPerFat = 1000;
    std::uint32_t totalSectors = 1000000;
    std::uint16_t totalSectors16 = 0; ///< in force when it is not 0

    /// As the default with one reserved sector more, so that each unit straddles two clusters.
    static FatGeometry unaligned() { return {512, 8, 33, 2, 1000, 1000000, 0}; }

    /// 204 units of 1 KiB, of which the first four are no data: too few clusters for FAT32 by the book, which no test
    /// of the parser minds.
    static FatGeometry tiny() { return {512, 2, 4, 2, 2, 408, 0}; }

    std::uint64_t sectors() const { return totalSectors16 != 0 ? totalSectors16 : totalSectors; }
    std::uint64_t totalBytes() const { return sectors() * bytesPerSector; }
    std::uint64_t clusterBytes() const { return std::uint64_t{sectorsPerCluster} * bytesPerSector; }
    std::uint64_t fatBytes() const { return std::uint64_t{sectorsPerFat} * bytesPerSector; }
    std::uint64_t fatOffset(unsigned fat = 0) const {
        return std::uint64_t{reservedSectors} * bytesPerSector + fat * fatBytes();
    }
    std::uint64_t dataStart() const { return fatOffset(numberOfFats); }
    std::uint64_t clusters() const { return (totalBytes() - dataStart()) / clusterBytes(); }
    std::uint64_t units() const { return (totalBytes() + clusterBytes() - 1) / clusterBytes(); }

    /// The first unit that holds nothing but data.
    std::uint64_t dataUnit() const { return (dataStart() + clusterBytes() - 1) / clusterBytes(); }

    /// Bytes of a buffer that holds the whole map.
    std::uint64_t mapBytes() const { return (units() + 7) / 8; }
};

/// A volume of the given (sane) geometry: boot sector, FSInfo, backup boot sector, the tables and the root directory's
/// cluster; all clusters but that one are free. Its bytes end where nothing more is read. Every field can be changed
/// afterwards, to anything.
class FatBuilder {
public:
    explicit FatBuilder(FatGeometry const& geometry = {});

    FatGeometry const& geometry() const { return geometry_; }

    /// Sets an entry in every table, all 32 bits of it.
    FatBuilder& setEntry(std::uint64_t cluster, std::uint32_t value);

    /// Sets an entry in one table only.
    FatBuilder& setEntryIn(unsigned fat, std::uint64_t cluster, std::uint32_t value);

    /// The entry of the first table.
    std::uint32_t entry(std::uint64_t cluster) const;

    /// Gives the entry of every cluster a value from a generator of a fixed seed: free, bad, end of a chain or a link,
    /// with any upper four bits.
    FatBuilder& fillAtRandom(unsigned seed);

    /// Sets a field of the boot sector, little-endian.
    FatBuilder& setBoot(std::uint64_t field, std::uint64_t value, unsigned width);
    std::uint64_t boot(std::uint64_t field, unsigned width) const { return get(field, width); }

    /// Writes text over the boot sector's bytes.
    FatBuilder& setText(std::uint64_t field, std::string_view text);

    /// Sets a field of the FSInfo sector.
    FatBuilder& setInfo32(std::uint64_t field, std::uint32_t value);

    /// One state a unit, as the clusters lie: each used cluster makes the units that it overlaps used, and so does what
    /// stands before the first cluster. The bytes behind the last cluster are free.
    std::vector<bool> map() const;

    /// Cuts the volume's bytes, or appends zeros.
    FatBuilder& resize(std::uint64_t size);

    MemoryReader reader() const { return MemoryReader(bytes); }

    std::vector<std::uint8_t> bytes;

private:
    void put(std::uint64_t offset, std::uint64_t value, unsigned width);
    std::uint64_t get(std::uint64_t offset, unsigned width) const;
    std::uint64_t neededBytes() const;

    FatGeometry geometry_;
};

/// The boot sector of a geometry, as the builder writes it.
std::vector<std::uint8_t> makeFatBootSector(FatGeometry const& geometry);

/// A volume that no memory backs, as large as its geometry says. The entry of each cluster is what `entries` says.
SyntheticReader makeSyntheticFatVolume(FatGeometry const& geometry,
                                       std::function<std::uint32_t(std::uint64_t cluster)> entries);

} // namespace tests
