// The NTFS boot sector, as far as imaging must know it.
#pragma once

#include "imaging/LoadInteger.h"

#include <cstdint>
#include <span>

namespace imaging::ntfs {

inline constexpr std::uint64_t kBootBytes = 512;

/// Fields of a boot sector that the parser accepted, so that nothing here is zero or wraps.
struct Boot {
    std::uint64_t bytesPerSector;
    std::uint64_t sectorsPerCluster;
    std::uint64_t totalSectors;
    std::uint64_t mftCluster;
    std::int8_t clustersPerRecord;

    std::uint64_t clusterSize() const { return bytesPerSector * sectorsPerCluster; }
    std::uint64_t recordSize() const {
        return clustersPerRecord >= 0 ? clusterSize() * static_cast<std::uint64_t>(clustersPerRecord)
                                      : std::uint64_t{1} << -clustersPerRecord;
    }
};

/// @param sector  the first 512 bytes of the volume
inline Boot parseBoot(std::span<std::uint8_t const> sector) {
    std::uint64_t const stored = sector[0x0D];
    return {load(sector, 0x0B, 2), stored <= 0x80 ? stored : std::uint64_t{1} << (256 - stored), load(sector, 0x28, 8),
            load(sector, 0x30, 8), static_cast<std::int8_t>(sector[0x40])};
}

} // namespace imaging::ntfs
