// The FAT parser with what must be true before its map is believed.
#include "imaging/fat/FatGeometry.h"

#include "agent/core/fs/FATParser.h"
#include "imaging/Detection.h"
#include "imaging/LoadInteger.h"
#include "imaging/fat/TableWindow.h"

#include <algorithm>
#include <bit>

namespace imaging::fat {

namespace {

using Reason = std::optional<std::string>;

/// The parser keeps 16 bits of the sectors per FAT.
constexpr std::uint64_t kMostSectorsPerFat = 0xFFFF;

/// The entries from 0x0FFFFFF7 on have meanings of their own, and the first two stand for no cluster.
constexpr std::uint64_t kMostClusters = 0x0FFFFFF7 - 2;

/// Room for the units that are asked for together.
constexpr std::uint64_t kChunkBytes = std::uint64_t{2} << 10;

constexpr std::uint64_t kFirstCluster = 2;
constexpr std::uint64_t kEntryBytes = 4;
constexpr std::uint64_t kEntryMask = 0x0FFFFFFF;
constexpr std::uint64_t kBadCluster = 0x0FFFFFF7;

/// Bytes of two tables compared at once.
constexpr std::uint64_t kComparedBytes = std::uint64_t{64} << 10;

/// What a boot sector has at its end and where its kind stands.
constexpr std::size_t kSignature = 0x1FE;
constexpr std::uint64_t kSignatureValue = 0xAA55;
constexpr std::size_t kLabel = 0x52;

/// In the extended flags: one table alone is kept, the one that the low four bits name.
constexpr std::uint64_t kNotMirrored = 0x80;
constexpr std::uint64_t kActiveTable = 0x0F;

/// In entry 1 of the table, set on a sound volume; in the boot sector's state, set while the volume is mounted.
constexpr std::uint64_t kCleanShutdown = 0x08000000;
constexpr std::uint64_t kNoErrors = 0x04000000;
constexpr std::uint64_t kDirty = 0x01;

/// The fields of the boot sector that count here.
struct Facts {
    std::uint64_t bytesPerSector;
    std::uint64_t sectorsPerCluster;
    std::uint64_t reservedSectors;
    std::uint64_t tables;
    std::uint64_t totalSectors;
    std::uint64_t media;
    std::uint64_t sectorsPerFat16;
    std::uint64_t sectorsPerFat;
    std::uint64_t extendedFlags;
    std::uint64_t rootCluster;
    std::uint64_t state;
    std::uint64_t backupSector;

    std::uint64_t clusterBytes() const { return sectorsPerCluster * bytesPerSector; }
    std::uint64_t tableStart() const { return reservedSectors * bytesPerSector; }
    std::uint64_t dataSector() const { return reservedSectors + tables * sectorsPerFat; }
    std::uint64_t dataStart() const { return dataSector() * bytesPerSector; }
    std::uint64_t clusters() const {
        return totalSectors < dataSector() ? 0 : (totalSectors - dataSector()) / sectorsPerCluster;
    }
    std::uint64_t tableEntries() const { return sectorsPerFat * bytesPerSector / kEntryBytes; }
};

Facts parse(std::span<std::uint8_t const> boot) {
    Facts facts{};
    facts.bytesPerSector = load(boot, 0x0B, 2);
    facts.sectorsPerCluster = boot[0x0D];
    facts.reservedSectors = load(boot, 0x0E, 2);
    facts.tables = boot[0x10];
    std::uint64_t const total16 = load(boot, 0x13, 2);
    facts.totalSectors = total16 != 0 ? total16 : load(boot, 0x20, 4);
    facts.media = boot[0x15];
    facts.sectorsPerFat16 = load(boot, 0x16, 2);
    facts.sectorsPerFat = load(boot, 0x24, 4);
    facts.extendedFlags = load(boot, 0x28, 2);
    facts.rootCluster = load(boot, 0x2C, 4);
    facts.state = boot[0x41];
    facts.backupSector = load(boot, 0x32, 2);
    return facts;
}

bool isSectorSize(std::uint64_t bytes) {
    return std::has_single_bit(bytes) && bytes >= 512 && bytes <= 4096;
}

Facts readFacts(Volume& volume) {
    Facts const facts = parse(volume.readBytes(0, kSectorBytes));
    std::string const where = volume.path() + ": the FAT boot sector at byte 0 describes no volume: ";
    if (!isSectorSize(facts.bytesPerSector)) {
        throw VolumeError(Trouble::NotUnderstood, where + "it has " + std::to_string(facts.bytesPerSector) +
                                                      " bytes per sector, which must be 512, 1024, 2048 or 4096");
    }
    if (!std::has_single_bit(facts.sectorsPerCluster)) {
        throw VolumeError(Trouble::NotUnderstood, where + "it has " + std::to_string(facts.sectorsPerCluster) +
                                                      " sectors per cluster, which must be a power of two");
    }
    if (facts.totalSectors == 0) {
        throw VolumeError(Trouble::NotUnderstood, where + "it has 0 sectors");
    }
    return facts;
}

/// The tables are not where the parser looks, or not as long as it believes.
Reason findMisplacedTable(Facts const& facts) {
    if (facts.sectorsPerFat > kMostSectorsPerFat) {
        return "sectors per FAT is " + std::to_string(facts.sectorsPerFat) +
               ", and the parser keeps 16 bits of it: it would look for the clusters at a wrong place";
    }
    if (facts.sectorsPerFat16 != 0) {
        return "sectors per FAT (16 bits) is " + std::to_string(facts.sectorsPerFat16) +
               ", which is 0 on FAT32: the tables cannot be told apart";
    }
    if (facts.reservedSectors == 0 || facts.tables == 0 || facts.sectorsPerFat == 0) {
        return "the boot sector has " + std::to_string(facts.reservedSectors) + " reserved sectors and " +
               std::to_string(facts.tables) + " tables of " + std::to_string(facts.sectorsPerFat) +
               " sectors: there is no table";
    }
    if ((facts.extendedFlags & kNotMirrored) != 0 && (facts.extendedFlags & kActiveTable) != 0) {
        return "mirroring is off and table " + std::to_string(facts.extendedFlags & kActiveTable) +
               " is the active one (flags " + std::to_string(facts.extendedFlags) + "): the parser reads table 0";
    }
    return std::nullopt;
}

/// The units cannot be numbered by the entries that are there.
Reason findMisfit(Facts const& facts) {
    if (facts.totalSectors <= facts.dataSector()) {
        return "the data area begins at sector " + std::to_string(facts.dataSector()) +
               ", and the volume has no more than " + std::to_string(facts.totalSectors);
    }
    if (facts.clusters() > kMostClusters) {
        return "the volume has " + std::to_string(facts.clusters()) + " clusters, more than the " +
               std::to_string(kMostClusters) + " that a table can number";
    }
    if (facts.tableEntries() < facts.clusters() + kFirstCluster) {
        return "a table has " + std::to_string(facts.tableEntries()) + " entries, and the volume's " +
               std::to_string(facts.clusters()) + " clusters need " + std::to_string(facts.clusters() + kFirstCluster);
    }
    if (facts.dataStart() < facts.clusterBytes()) {
        return "the data area begins at byte " + std::to_string(facts.dataStart()) +
               ", inside the first piece of a cluster's size (" + std::to_string(facts.clusterBytes()) +
               " bytes): the parser would need more entries than it reads";
    }
    return std::nullopt;
}

std::uint64_t readEntry(Volume& volume, Facts const& facts, std::uint64_t number) {
    return load(volume.readBytes(facts.tableStart() + number * kEntryBytes, kEntryBytes), 0, kEntryBytes) & kEntryMask;
}

/// The copy of the boot sector tells another place for the clusters. No copy is no contradiction.
Reason findOtherBoot(Volume& volume, Facts const& facts) {
    std::uint64_t const sector = facts.backupSector;
    if (sector == 0 || sector >= facts.reservedSectors) {
        return std::nullopt;
    }
    std::vector<std::uint8_t> const copy = volume.readBytes(sector * facts.bytesPerSector, kSectorBytes);
    bool const isBoot = load(copy, kSignature, 2) == kSignatureValue && copy[kLabel] == 'F' && copy[kLabel + 1] == 'A';
    if (!isBoot) {
        return std::nullopt;
    }
    Facts const other = parse(copy);
    auto const differ = [](char const* name, std::uint64_t here, std::uint64_t there) {
        return std::string(name) + " is " + std::to_string(here) + ", and " + std::to_string(there) +
               " in the copy of the boot sector: the clusters cannot be told apart";
    };
    if (facts.bytesPerSector != other.bytesPerSector) {
        return differ("bytes per sector", facts.bytesPerSector, other.bytesPerSector);
    }
    if (facts.sectorsPerCluster != other.sectorsPerCluster) {
        return differ("sectors per cluster", facts.sectorsPerCluster, other.sectorsPerCluster);
    }
    if (facts.reservedSectors != other.reservedSectors) {
        return differ("reserved sectors", facts.reservedSectors, other.reservedSectors);
    }
    if (facts.tables != other.tables) {
        return differ("the number of tables", facts.tables, other.tables);
    }
    if (facts.sectorsPerFat != other.sectorsPerFat) {
        return differ("sectors per FAT", facts.sectorsPerFat, other.sectorsPerFat);
    }
    return std::nullopt;
}

/// The tables are kept alike, unless the volume says that only one is.
Reason findOtherTable(Volume& volume, Facts const& facts) {
    if ((facts.extendedFlags & kNotMirrored) != 0) {
        return std::nullopt;
    }
    std::uint64_t const tableBytes = facts.sectorsPerFat * facts.bytesPerSector;
    std::uint64_t const entries = (facts.clusters() + kFirstCluster) * kEntryBytes;
    for (std::uint64_t table = 1; table < facts.tables; ++table) {
        for (std::uint64_t done = 0; done < entries;) {
            std::uint64_t const piece = std::min(entries - done, kComparedBytes);
            std::uint64_t const place = facts.tableStart() + done;
            std::vector<std::uint8_t> const first = volume.readBytes(place, piece);
            std::vector<std::uint8_t> const other = volume.readBytes(place + table * tableBytes, piece);
            if (first != other) {
                auto const at = std::mismatch(first.begin(), first.end(), other.begin()).first - first.begin();
                return "tables 0 and " + std::to_string(table) + " differ in entry " +
                       std::to_string((done + static_cast<std::uint64_t>(at)) / kEntryBytes) +
                       ": it cannot be told which is right";
            }
            done += piece;
        }
    }
    return std::nullopt;
}

/// A table that does not begin like one, or that calls the root directory free, was never written or is none.
Reason findContradiction(Volume& volume, Facts const& facts) {
    std::uint64_t const begin = readEntry(volume, facts, 0);
    if (begin != (0x0FFFFF00 | facts.media)) {
        return "the table begins with entry " + std::to_string(begin) + ", and with media " +
               std::to_string(facts.media) + " it must be " + std::to_string(0x0FFFFF00 | facts.media);
    }
    if (facts.rootCluster < kFirstCluster || facts.rootCluster >= facts.clusters() + kFirstCluster) {
        return "the root directory begins at cluster " + std::to_string(facts.rootCluster) +
               ", where none can be (the volume has " + std::to_string(facts.clusters()) + " clusters)";
    }
    std::uint64_t const root = readEntry(volume, facts, facts.rootCluster);
    if (root == 0 || root == kBadCluster) {
        return "the table calls cluster " + std::to_string(facts.rootCluster) + " free, which holds the root directory";
    }
    return std::nullopt;
}

TableLayout layoutOf(Facts const& facts, Geometry const& geometry) {
    return {facts.bytesPerSector, facts.sectorsPerCluster, facts.tableStart(), facts.dataSector(), geometry.units};
}

std::optional<std::string> uncleanReason(Volume& volume, Facts const& facts) {
    std::uint64_t const flags = readEntry(volume, facts, 1);
    if ((flags & kCleanShutdown) == 0) {
        return "entry 1 of its table has the flag of a clean unmount cleared";
    }
    if ((flags & kNoErrors) == 0) {
        return "entry 1 of its table says that reading or writing it failed";
    }
    if ((facts.state & kDirty) != 0) {
        return "its boot sector has the dirty flag set";
    }
    return std::nullopt;
}

/// Every such condition, in an order in which each may rely on the ones before it; the first that applies is told.
Reason findLimit(Volume& volume, Facts const& facts) {
    Reason reason = findMisplacedTable(facts);
    if (!reason) {
        reason = findMisfit(facts);
    }
    if (!reason) {
        reason = findOtherBoot(volume, facts);
    }
    if (!reason) {
        reason = findContradiction(volume, facts);
    }
    return reason ? reason : findOtherTable(volume, facts);
}

} // namespace

Answerer open(Volume& volume) {
    Facts const facts = readFacts(volume);
    Geometry geometry;
    geometry.unitSize = facts.clusterBytes();
    geometry.bytes = facts.totalSectors * facts.bytesPerSector;
    geometry.units = (geometry.bytes + geometry.unitSize - 1) / geometry.unitSize;
    geometry.chunkBytes = kChunkBytes;
    if (volume.size() < geometry.bytes) {
        volume.reader().forbidTail(); // the end of a truncated volume may cut through the table
    }
    geometry.notBelieved = findLimit(volume, facts);
    if (geometry.notBelieved) {
        return allUsed(std::move(geometry), volume.size());
    }
    makeParser<agent::core::fs::FATParser>(volume); // what it refuses is refused
    auto window = std::make_unique<TableWindow>(volume, layoutOf(facts, geometry));
    Answerer answerer{std::move(geometry), nullptr, std::move(window)};
    // The sectors behind the last cluster, which no entry of the table stands for.
    answerer.alwaysKept = [facts] {
        std::uint64_t const end = facts.dataStart() + facts.clusters() * facts.clusterBytes();
        return std::vector{ByteRange{end, facts.totalSectors * facts.bytesPerSector}};
    };
    answerer.uncleanReason = [&volume, facts] { return uncleanReason(volume, facts); };
    return answerer;
}

} // namespace imaging::fat
