// The FAT volumes that tests are built on: which byte goes where, and why.
#include "support/FatBuilder.h"

#include <algorithm>
#include <random>
#include <utility>

namespace tests {

namespace {

constexpr std::uint64_t kEntryBytes = 4;
constexpr std::uint64_t kFirstCluster = 2;
constexpr std::uint32_t kEntryMask = 0x0FFFFFFF;
constexpr std::uint64_t kBootSectorBytes = 512;
constexpr std::uint16_t kInfoSector = 1;
constexpr std::uint16_t kBackupSector = 6; // where every format program puts it
constexpr std::uint32_t kUnknown = 0xFFFFFFFF;
constexpr std::uint8_t kFixedDisk = 0xF8;

void store(std::uint8_t* place, std::uint64_t value, unsigned width) {
    for (unsigned i = 0; i < width; ++i) {
        place[i] = static_cast<std::uint8_t>(value >> (8 * i));
    }
}

void storeText(std::uint8_t* place, std::string_view text) {
    std::copy(text.begin(), text.end(), place);
}

bool hasBackup(FatGeometry const& geometry) {
    return geometry.reservedSectors > kBackupSector + 1;
}

std::vector<std::uint8_t> makeInfoSector() {
    std::vector<std::uint8_t> info(kBootSectorBytes);
    storeText(&info[fat_info::kLeadSignature], "RRaA");
    storeText(&info[fat_info::kStructSignature], "rrAa");
    store(&info[fat_info::kFreeCount], kUnknown, 4);
    store(&info[fat_info::kNextFree], kUnknown, 4);
    store(&info[fat_info::kTrailSignature], 0xAA550000, 4);
    return info;
}

/// What the two entries before the first cluster's hold.
std::uint32_t reservedEntry(std::uint64_t cluster) {
    return cluster == 0 ? 0x0FFFFF00 | kFixedDisk : fat_entry::kEndOfChain;
}

bool isUsedEntry(std::uint32_t value) {
    return (value & kEntryMask) != fat_entry::kFree && (value & kEntryMask) != fat_entry::kBad;
}

} // namespace

std::vector<std::uint8_t> makeFatBootSector(FatGeometry const& geometry) {
    std::vector<std::uint8_t> boot(kBootSectorBytes);
    store(&boot[fat_boot::kJump], 0x9058EB, 3);
    storeText(&boot[fat_boot::kSystemId], "TESTFAT ");
    store(&boot[fat_boot::kBytesPerSector], geometry.bytesPerSector, 2);
    boot[fat_boot::kSectorsPerCluster] = geometry.sectorsPerCluster;
    store(&boot[fat_boot::kReservedSectors], geometry.reservedSectors, 2);
    boot[fat_boot::kNumberOfFats] = geometry.numberOfFats;
    store(&boot[fat_boot::kTotalSectors16], geometry.totalSectors16, 2);
    boot[fat_boot::kMedia] = kFixedDisk;
    store(&boot[fat_boot::kTotalSectors32], geometry.totalSectors, 4);
    store(&boot[fat_boot::kSectorsPerFat32], geometry.sectorsPerFat, 4);
    store(&boot[fat_boot::kRootCluster], kFirstCluster, 4);
    store(&boot[fat_boot::kFsInfoSector], kInfoSector, 2);
    store(&boot[fat_boot::kBackupSector], hasBackup(geometry) ? kBackupSector : 0, 2);
    boot[fat_boot::kDrive] = 0x80;
    boot[fat_boot::kExtendedSignature] = 0x29;
    storeText(&boot[fat_boot::kVolumeLabel], "NO NAME    ");
    storeText(&boot[fat_boot::kFat32Label], "FAT32   ");
    store(&boot[fat_boot::kSignature], 0xAA55, 2);
    return boot;
}

FatBuilder::FatBuilder(FatGeometry const& geometry) : geometry_(geometry) {
    bytes.resize(neededBytes());
    auto const writeSector = [this](std::uint64_t sector, std::vector<std::uint8_t> const& content) {
        std::copy(content.begin(), content.end(),
                  bytes.begin() + static_cast<std::ptrdiff_t>(sector * geometry_.bytesPerSector));
    };
    writeSector(0, makeFatBootSector(geometry));
    writeSector(kInfoSector, makeInfoSector());
    if (hasBackup(geometry)) {
        writeSector(kBackupSector, makeFatBootSector(geometry));
        writeSector(kBackupSector + kInfoSector, makeInfoSector());
    }
    setEntry(0, reservedEntry(0)).setEntry(1, reservedEntry(1)).setEntry(kFirstCluster, fat_entry::kEndOfChain);
}

/// Up to the end of the root directory, or of the whole clusters that a request for all units reads.
std::uint64_t FatBuilder::neededBytes() const {
    std::uint64_t const clusterBytes = geometry_.clusterBytes();
    std::uint64_t const stretchEnd = geometry_.fatOffset() + (geometry_.units() + 1) * kEntryBytes;
    return std::max(geometry_.dataStart() + clusterBytes,
                    (stretchEnd + clusterBytes - 1) / clusterBytes * clusterBytes);
}

FatBuilder& FatBuilder::setEntry(std::uint64_t cluster, std::uint32_t value) {
    for (unsigned fat = 0; fat < geometry_.numberOfFats; ++fat) {
        setEntryIn(fat, cluster, value);
    }
    return *this;
}

FatBuilder& FatBuilder::setEntryIn(unsigned fat, std::uint64_t cluster, std::uint32_t value) {
    put(geometry_.fatOffset(fat) + cluster * kEntryBytes, value, kEntryBytes);
    return *this;
}

std::uint32_t FatBuilder::entry(std::uint64_t cluster) const {
    return static_cast<std::uint32_t>(get(geometry_.fatOffset() + cluster * kEntryBytes, kEntryBytes));
}

FatBuilder& FatBuilder::fillAtRandom(unsigned seed) {
    std::mt19937 generator(seed);
    for (std::uint64_t cluster = kFirstCluster; cluster < geometry_.clusters() + kFirstCluster; ++cluster) {
        auto const draw = static_cast<std::uint32_t>(generator());
        std::uint32_t const upper = (draw & 8) != 0 ? draw & ~kEntryMask : 0;
        switch (draw % 8) {
        case 0:
        case 1:
        case 2:
            setEntry(cluster, upper | fat_entry::kFree);
            break;
        case 3:
            setEntry(cluster, upper | fat_entry::kBad);
            break;
        case 4:
            setEntry(cluster, upper | fat_entry::kEndOfChain);
            break;
        default:
            setEntry(cluster, upper | static_cast<std::uint32_t>(kFirstCluster + generator() % geometry_.clusters()));
        }
    }
    return *this;
}

FatBuilder& FatBuilder::setBoot(std::uint64_t field, std::uint64_t value, unsigned width) {
    put(field, value, width);
    return *this;
}

FatBuilder& FatBuilder::setText(std::uint64_t field, std::string_view text) {
    storeText(&bytes.at(field), text);
    return *this;
}

FatBuilder& FatBuilder::setInfo32(std::uint64_t field, std::uint32_t value) {
    put(std::uint64_t{kInfoSector} * geometry_.bytesPerSector + field, value, 4);
    return *this;
}

std::vector<bool> FatBuilder::map() const {
    std::vector<bool> units(geometry_.units(), false);
    auto const setUsed = [&](std::uint64_t from, std::uint64_t end) {
        for (std::uint64_t unit = from / geometry_.clusterBytes();
             unit * geometry_.clusterBytes() < end && unit < units.size(); ++unit) {
            units[unit] = true;
        }
    };
    setUsed(0, geometry_.dataStart());
    for (std::uint64_t i = 0; i < geometry_.clusters(); ++i) {
        if (isUsedEntry(entry(kFirstCluster + i))) {
            std::uint64_t const start = geometry_.dataStart() + i * geometry_.clusterBytes();
            setUsed(start, start + geometry_.clusterBytes());
        }
    }
    return units;
}

FatBuilder& FatBuilder::resize(std::uint64_t size) {
    bytes.resize(size);
    return *this;
}

void FatBuilder::put(std::uint64_t offset, std::uint64_t value, unsigned width) {
    for (unsigned i = 0; i < width; ++i) {
        bytes.at(offset + i) = static_cast<std::uint8_t>(value >> (8 * i));
    }
}

std::uint64_t FatBuilder::get(std::uint64_t offset, unsigned width) const {
    std::uint64_t value = 0;
    for (unsigned i = 0; i < width; ++i) {
        value |= std::uint64_t{bytes.at(offset + i)} << (8 * i);
    }
    return value;
}

SyntheticReader makeSyntheticFatVolume(FatGeometry const& geometry,
                                       std::function<std::uint32_t(std::uint64_t cluster)> entries) {
    auto content = [geometry, entries = std::move(entries), boot = makeFatBootSector(geometry)](
                       std::uint64_t offset, std::uint8_t* destination, std::uint64_t length) {
        if (offset < boot.size()) {
            std::copy_n(boot.begin() + static_cast<std::ptrdiff_t>(offset), std::min(length, boot.size() - offset),
                        destination);
        }
        std::uint64_t const first = geometry.fatOffset();
        std::uint64_t const end = std::min(geometry.dataStart(), offset + length);
        // Sectors, and so all reads, begin at a whole entry.
        for (std::uint64_t at = std::max(offset, first); at + kEntryBytes <= end; at += kEntryBytes) {
            std::uint64_t const cluster = (at - first) % geometry.fatBytes() / kEntryBytes;
            store(destination + (at - offset), cluster < kFirstCluster ? reservedEntry(cluster) : entries(cluster),
                  kEntryBytes);
        }
    };
    return {geometry.totalBytes(), std::move(content)};
}

} // namespace tests
