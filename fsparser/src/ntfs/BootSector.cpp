// Recognition of an NTFS boot sector.
#include "agent/core/fs/NTFSParser.h"

#include "ntfs/NtfsLayout.h"

#include <bit>
#include <ios>

namespace agent::core::fs {

using agent::info::Level;
using agent::info::Logger;

namespace {

/// "NTFS" and four blanks, as one little-endian word.
constexpr std::uint64_t kOemId = 0x202020205346544E;

/// The largest cluster that is accepted, 2 MiB.
constexpr std::uint32_t kLargestClusterSize = 0x200000;

bool checkBytesPerSector(ntfs_boot_sector const& boot, Logger& logger) {
    std::uint16_t const bytes = boot.bytes_per_sector.value();
    if (bytes >= 256 && bytes <= 4096) { // no power-of-two test here, on purpose
        return true;
    }
    Logger::Entry(logger, Level::Error) << "Unexpected bytes per sector: 0x" << std::hex << bytes << std::dec;
    return false;
}

bool checkSectorsPerCluster(ntfs_boot_sector const& boot, Logger& logger) {
    std::uint8_t const sectors = boot.sectors_per_cluster;
    if (std::has_single_bit(sectors)) {
        return true;
    }
    if (sectors >= 0xF0 && sectors <= 0xFD) {
        // The negative exponent, cut to 16 bits on purpose: 0xF0 gives a cluster of 0 bytes, and passes.
        std::uint32_t const count = static_cast<std::uint16_t>(1U << (256U - sectors));
        std::uint32_t const size = count * boot.bytes_per_sector.value();
        if (size <= kLargestClusterSize) {
            return true;
        }
        Logger::Entry(logger, Level::Error) << "Unexpected cluster size 0x" << std::hex << size << std::dec;
        return false;
    }
    // The byte is written as one raw character, not as hexadecimal digits, on purpose.
    Logger::Entry(logger, Level::Error) << "Unexpected sectors per cluster value: 0x" << std::hex << sectors
                                        << std::dec;
    return false;
}

bool checkReservedFields(ntfs_boot_sector const& boot, Logger& logger) {
    bool const allZero = boot.reserved_sectors.value() == 0 && boot.root_entries.value() == 0 &&
                         boot.sectors.value() == 0 && boot.sectors_per_fat.value() == 0 &&
                         boot.large_sectors.value() == 0 && boot.fats == 0;
    if (!allZero) {
        Logger::Entry(logger, Level::Error) << "Reserved fields aren't zero";
    }
    return allZero;
}

/// Clusters in a record: a power of two up to 64, or as a signed byte from -31 to -9 an exponent in bytes.
bool isRecordSize(std::uint8_t clusters) {
    auto const exponent = static_cast<std::int8_t>(clusters);
    return (exponent > 0 && std::has_single_bit(clusters)) || (exponent >= -31 && exponent <= -9);
}

bool checkRecordSizes(ntfs_boot_sector const& boot, Logger& logger) {
    // The raw byte as one character, here as well.
    if (!isRecordSize(boot.clusters_per_mft_record)) {
        Logger::Entry(logger, Level::Error)
            << "Unexpected clusters per mft record: 0x" << std::hex << boot.clusters_per_mft_record << std::dec;
        return false;
    }
    if (!isRecordSize(boot.clusters_per_index_record)) {
        Logger::Entry(logger, Level::Error)
            << "Unexpected clusters per index record: 0x" << std::hex << boot.clusters_per_index_record << std::dec;
        return false;
    }
    return true;
}

bool checkMftLocation(ntfs_boot_sector const& boot, Logger& logger) {
    auto const mft = static_cast<std::int64_t>(boot.mft_lcn.value());
    auto const mirror = static_cast<std::int64_t>(boot.mftmirr_lcn.value());
    if (mft > 0 && mirror > 0 && mft != mirror) {
        return true;
    }
    Logger::Entry(logger, Level::Error) << "Invalid location of MFT or MFTMirr.";
    return false;
}

} // namespace

bool NTFSParser::isNTFileSystem(void* bootSector, Logger& logger) {
    if (bootSector == nullptr) {
        return false;
    }
    auto const& boot = *static_cast<ntfs_boot_sector const*>(bootSector);
    if (boot.oem_id.value() != kOemId) {
        Logger::Entry(logger, Level::Debug) << "Invalid NTFS magic.";
        return false;
    }
    if (!checkBytesPerSector(boot, logger) || !checkSectorsPerCluster(boot, logger) ||
        !checkReservedFields(boot, logger) || !checkRecordSizes(boot, logger) || !checkMftLocation(boot, logger)) {
        return false;
    }
    if (boot.end_of_sector_marker.value() != 0xAA55) {
        Logger::Entry(logger, Level::Warning) << "Bootsector has invalid end of sector marker.";
    }
    return true;
}

} // namespace agent::core::fs
