// Presenting stretches of the table as volumes of their own.
#include "imaging/fat/TableWindow.h"

#include "agent/core/fs/FATParser.h"
#include "imaging/Detection.h"
#include "imaging/LoadInteger.h"
#include "imaging/MemoryReader.h"

#include <algorithm>
#include <cstring>

namespace imaging::fat {

namespace {

/// Units asked for together: 64 KiB of the table, which the parser holds twice, and which stay in the processor's
/// caches.
constexpr std::uint64_t kWindowUnits = std::uint64_t{1} << 14;

/// Units before the data area of a presented volume: the first byte of its map.
constexpr std::uint64_t kLeadUnits = 8;

constexpr std::uint64_t kEntryBytes = 4;
constexpr std::uint64_t kFirstCluster = 2;

/// Fields of the boot sector.
constexpr std::size_t kBytesPerSector = 0x0B;
constexpr std::size_t kSectorsPerCluster = 0x0D;
constexpr std::size_t kReservedSectors = 0x0E;
constexpr std::size_t kTables = 0x10;
constexpr std::size_t kTotalSectors = 0x20;
constexpr std::size_t kSectorsPerTable = 0x24;
constexpr std::size_t kLabel = 0x52;

} // namespace

long TableWindow::getChunk(unsigned long offset, char* buffer, unsigned long length) const {
    if (offset >= layout_.units) {
        return 0;
    }
    std::uint64_t const room = length > layout_.units / 8 ? layout_.units : length * 8;
    std::uint64_t const count = std::min({layout_.units - offset, room, kWindowUnits});
    if (offset >= layout_.dataUnit()) {
        return askParser(offset, count, buffer);
    }
    // The reserved area and the tables.
    std::uint64_t const before = std::min(count, layout_.dataUnit() - offset);
    std::memset(buffer, 0xFF, (before + 7) / 8);
    return static_cast<long>(before);
}

long TableWindow::askParser(std::uint64_t first, std::uint64_t count, char* buffer) const {
    MemoryReader const reader(present(first, count));
    agent::core::fs::FATParser const parser(volume_.logger(), kSectorBytes, reader);
    std::vector<char> bits((kLeadUnits + count + 7) / 8);
    long const units = parser.getChunk(0, bits.data(), bits.size());
    if (units < 0) {
        return units;
    }
    std::copy(bits.begin() + kLeadUnits / 8, bits.end(), buffer);
    return units - static_cast<long>(kLeadUnits);
}

/// The data area begins as far into a unit as the real one does, so that the units straddle clusters in the same way.
std::vector<std::uint8_t> TableWindow::present(std::uint64_t first, std::uint64_t count) const {
    std::uint64_t const lead = kLeadUnits * layout_.sectorsPerCluster;
    std::uint64_t const surplus = layout_.dataUnit() * layout_.sectorsPerCluster - layout_.dataSector;
    std::uint64_t const reserved = lead - surplus - 1; // one table of one sector follows, as far as the fields go
    std::uint64_t const entries = kLeadUnits + count + 1;
    std::uint64_t const clusterBytes = layout_.bytesPerSector * layout_.sectorsPerCluster;
    std::uint64_t const tableStart = reserved * layout_.bytesPerSector;
    // The parser reads whole pieces of a cluster's size.
    std::uint64_t const end = tableStart + entries * kEntryBytes;
    std::vector<std::uint8_t> bytes((end + clusterBytes - 1) / clusterBytes * clusterBytes);
    store(bytes, kBytesPerSector, layout_.bytesPerSector, 2);
    store(bytes, kSectorsPerCluster, layout_.sectorsPerCluster, 1);
    store(bytes, kReservedSectors, reserved, 2);
    store(bytes, kTables, 1, 1);
    store(bytes, kTotalSectors, (kLeadUnits + count) * layout_.sectorsPerCluster, 4);
    store(bytes, kSectorsPerTable, 1, 4);
    std::memcpy(&bytes[kLabel], "FAT32", 5);
    // Entry 2 is that of the first unit; a unit that straddles two clusters needs one entry more than there are units.
    std::uint64_t const needed = count + (surplus == 0 ? 0 : 1);
    std::uint64_t const real = layout_.tableStart + (first - layout_.dataUnit() + kFirstCluster) * kEntryBytes;
    std::vector<std::uint8_t> const stretch = volume_.readBytes(real, needed * kEntryBytes);
    std::copy(stretch.begin(), stretch.end(),
              bytes.begin() + static_cast<std::ptrdiff_t>(tableStart + kFirstCluster * kEntryBytes));
    return bytes;
}

} // namespace imaging::fat
