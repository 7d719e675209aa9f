// The XFS parser with what must be true before its map is believed.
#include "imaging/xfs/XfsGeometry.h"

#include "agent/core/fs/XFSParser.h"
#include "imaging/Detection.h"
#include "imaging/Hexadecimal.h"
#include "imaging/LoadInteger.h"
#include "imaging/xfs/XfsGroups.h"
#include "imaging/xfs/XfsLog.h"

#include <algorithm>
#include <bit>

namespace imaging::xfs {

namespace {

using Reason = std::optional<std::string>;

/// A chunk covers whole groups where it can, since the parser reads the tree of each group that a chunk touches. Where
/// every tree is a single block, that costs little, and short chunks stay in the processor's caches.
constexpr std::uint64_t kChunkOfSmallTrees = std::uint64_t{128} << 10;
constexpr std::uint64_t kShortestChunk = std::uint64_t{1} << 20;
constexpr std::uint64_t kLongestChunk = std::uint64_t{16} << 20;

/// The format's own bounds.
constexpr std::uint64_t kSmallestBlock = 512;
constexpr std::uint64_t kLargestBlock = 65536;
constexpr std::uint64_t kSmallestSector = 512;
constexpr std::uint64_t kLargestSector = 32768;
constexpr std::uint64_t kFewestGroupBlocks = 64;

/// The incompatible features under which the free-space trees keep their place and their meaning: ftype, sparse inodes,
/// meta UUID, bigtime, large extent counters, exchange range, parent pointers.
constexpr std::uint64_t kIncompatHarmless = 0x1 | 0x2 | 0x4 | 0x8 | 0x20 | 0x40 | 0x80;
constexpr std::uint64_t kIncompatNeedsRepair = 0x10;

/// Superblock copy, free-space header, inode header and free list take a sector each.
constexpr std::uint64_t kHeaderSectors = 4;

/// Volumes of more groups count as used as a whole: the list of their headers would take too much memory.
constexpr std::uint64_t kMostGroups = std::uint64_t{1} << 20;

/// The fields of the superblock that count here.
struct Facts {
    std::uint64_t blockSize;
    std::uint64_t blocks;
    std::uint64_t realtimeBlocks;
    std::uint64_t logStart;
    std::uint64_t groupBlocks;
    std::uint64_t groups;
    std::uint64_t logBlocks;
    std::uint64_t version;
    std::uint64_t sectorSize;
    std::uint64_t blockLog;
    std::uint64_t groupBlocksLog;
    std::uint64_t inProgress;
    std::uint64_t incompatible;

    std::uint64_t versionNumber() const { return version & 0xF; }
    bool isLogExternal() const { return logStart == 0 || logBlocks == 0; }
};

Facts parse(std::span<std::uint8_t const> super) {
    Facts facts{};
    facts.blockSize = loadBig(super, 0x04, 4);
    facts.blocks = loadBig(super, 0x08, 8);
    facts.realtimeBlocks = loadBig(super, 0x10, 8);
    facts.logStart = loadBig(super, 0x30, 8);
    facts.groupBlocks = loadBig(super, 0x54, 4);
    facts.groups = loadBig(super, 0x58, 4);
    facts.logBlocks = loadBig(super, 0x60, 4);
    facts.version = loadBig(super, 0x64, 2);
    facts.sectorSize = loadBig(super, 0x66, 2);
    facts.blockLog = super[0x78];
    facts.groupBlocksLog = super[0x7C];
    facts.inProgress = super[0x7E];
    facts.incompatible = facts.versionNumber() == 5 ? loadBig(super, 0xD8, 4) : 0;
    return facts;
}

bool isPowerBetween(std::uint64_t value, std::uint64_t smallest, std::uint64_t largest) {
    return std::has_single_bit(value) && value >= smallest && value <= largest;
}

Facts readFacts(Volume& volume) {
    Facts const facts = parse(volume.readBytes(0, kSectorBytes));
    std::string const where = volume.path() + ": the XFS superblock at byte 0 describes no volume: ";
    if (!isPowerBetween(facts.blockSize, kSmallestBlock, kLargestBlock)) {
        throw VolumeError(Trouble::NotUnderstood, where + "sb_blocksize is " + std::to_string(facts.blockSize) +
                                                      ", which must be a power of two from 512 to 65536");
    }
    if (facts.blocks == 0 || facts.blocks > (std::uint64_t{1} << 63) / facts.blockSize - 1) {
        throw VolumeError(Trouble::NotUnderstood, where + "sb_dblocks is " + std::to_string(facts.blocks));
    }
    return facts;
}

/// Free space is kept elsewhere, or in another way than in the trees that the parser walks.
Reason findForeignLayout(Facts const& facts) {
    if (facts.versionNumber() != 4 && facts.versionNumber() != 5) {
        return "sb_versionnum is " + hexadecimal(facts.version) + ", and versions 4 and 5 are known here";
    }
    if (facts.realtimeBlocks != 0) {
        return "sb_rblocks is " + std::to_string(facts.realtimeBlocks) +
               ": the volume has a realtime section, whose space the map does not cover";
    }
    if ((facts.incompatible & kIncompatNeedsRepair) != 0) {
        return "sb_features_incompat " + hexadecimal(facts.incompatible) +
               " says that the volume needs repair (0x10): its free space cannot be told";
    }
    if ((facts.incompatible & ~kIncompatHarmless) != 0) {
        return "sb_features_incompat " + hexadecimal(facts.incompatible) + " has a feature that is not known here (" +
               hexadecimal(facts.incompatible & ~kIncompatHarmless) + "): free space may be kept elsewhere";
    }
    if (facts.inProgress != 0) {
        return "sb_inprogress is " + std::to_string(facts.inProgress) + ": the volume was never made whole";
    }
    return std::nullopt;
}

/// The superblock contradicts itself, so that groups and blocks cannot be told apart.
Reason findContradiction(Facts const& facts) {
    if (facts.blockSize != std::uint64_t{1} << std::min<std::uint64_t>(facts.blockLog, 63)) {
        return "sb_blocklog is " + std::to_string(facts.blockLog) + ", and sb_blocksize " +
               std::to_string(facts.blockSize);
    }
    if (!isPowerBetween(facts.sectorSize, kSmallestSector, std::min(kLargestSector, facts.blockSize))) {
        return "sb_sectsize is " + std::to_string(facts.sectorSize) + ", with blocks of " +
               std::to_string(facts.blockSize) + " bytes: the groups' headers cannot be found";
    }
    if (facts.groupBlocks < kFewestGroupBlocks ||
        facts.groups != (facts.blocks + facts.groupBlocks - 1) / facts.groupBlocks) {
        return "sb_dblocks " + std::to_string(facts.blocks) + " is not filled by sb_agcount " +
               std::to_string(facts.groups) + " groups of sb_agblocks " + std::to_string(facts.groupBlocks);
    }
    if (facts.groupBlocksLog != static_cast<std::uint64_t>(std::bit_width(facts.groupBlocks - 1))) {
        return "sb_agblklog is " + std::to_string(facts.groupBlocksLog) + ", and sb_agblocks " +
               std::to_string(facts.groupBlocks);
    }
    return std::nullopt;
}

std::uint64_t chunkBytes(Facts const& facts) {
    std::uint64_t const group = (facts.groupBlocks + 7) / 8;
    if (group == 0 || group >= kLongestChunk) {
        return kLongestChunk;
    }
    return group * std::max<std::uint64_t>(kShortestChunk / group, 1);
}

Journal journalOf(agent::core::fs::XFSParser const& parser, Facts const& facts) {
    if (facts.isLogExternal()) {
        return {true};
    }
    return {false, parser.getXFSJournalBlocks(), facts.logBlocks};
}

Reason findMisplacedJournal(Journal const& journal, Facts const& facts) {
    if (journal.isExternal || (journal.first < facts.blocks && journal.units <= facts.blocks - journal.first)) {
        return std::nullopt;
    }
    return "the journal of " + std::to_string(journal.units) + " blocks begins at block " +
           std::to_string(journal.first) + ", where it cannot be (the volume has " + std::to_string(facts.blocks) +
           " blocks)";
}

/// The headers of every group, which lie in its first four sectors, and the journal.
std::vector<ByteRange> alwaysKept(Journal const& journal, Facts const& facts) {
    std::uint64_t const headers =
        (kHeaderSectors * facts.sectorSize + facts.blockSize - 1) / facts.blockSize * facts.blockSize;
    std::vector<ByteRange> ranges;
    for (std::uint64_t group = 0; group < facts.groups; ++group) {
        std::uint64_t const start = group * facts.groupBlocks * facts.blockSize;
        ranges.push_back({start, start + headers});
    }
    if (!journal.isExternal) {
        ranges.push_back({journal.first * facts.blockSize, (journal.first + journal.units) * facts.blockSize});
    }
    return ranges;
}

std::optional<std::string> uncleanReason(Volume& volume, Journal const& journal, Facts const& facts) {
    if (journal.isExternal) {
        return "its journal lies on another device: whether it holds changes that are not in place yet cannot be told";
    }
    std::uint64_t const start = journal.first * facts.blockSize;
    return findOpenLog(journal.units * facts.blockSize, [&volume, start](std::uint64_t offset, std::uint64_t length) {
        return volume.readBytes(start + offset, length);
    });
}

} // namespace

Answerer open(Volume& volume) {
    Facts const facts = readFacts(volume);
    Geometry geometry;
    geometry.unitSize = facts.blockSize;
    geometry.units = facts.blocks;
    geometry.bytes = geometry.units * geometry.unitSize;
    geometry.chunkBytes = chunkBytes(facts);
    if (volume.size() < geometry.bytes) {
        volume.reader().forbidTail(); // the last unit of a truncated volume may cut through a tree
    }
    geometry.notBelieved = findContradiction(facts);
    if (geometry.notBelieved) {
        return allUsed(std::move(geometry), volume.size());
    }
    auto parser = makeParser<agent::core::fs::XFSParser>(volume);
    geometry.journal = journalOf(*parser, facts);
    geometry.notBelieved = findForeignLayout(facts);
    if (!geometry.notBelieved) {
        geometry.notBelieved = findMisplacedJournal(*geometry.journal, facts);
    }
    if (geometry.notBelieved) {
        return allUsed(std::move(geometry), volume.size());
    }
    if (facts.groups > kMostGroups) {
        geometry.notBelieved = "sb_agcount is " + std::to_string(facts.groups) + ", more than the " +
                               std::to_string(kMostGroups) + " groups whose headers are looked at";
        return allUsed(std::move(geometry), volume.size());
    }
    GroupHeaders headers = readGroupHeaders(volume, {facts.groups, facts.groupBlocks, facts.blocks, facts.blockSize,
                                                     facts.sectorSize, facts.versionNumber() == 5});
    if (headers.notBelieved) {
        geometry.notBelieved = headers.notBelieved;
        return allUsed(std::move(geometry), volume.size());
    }
    if (headers.levels <= 1) {
        geometry.chunkBytes = kChunkOfSmallTrees;
    }
    Journal const journal = *geometry.journal;
    Answerer answerer{std::move(geometry), nullptr, std::move(parser)};
    auto const keep = [journal, facts](std::vector<ByteRange> more) {
        return [journal, facts, more = std::move(more)] {
            std::vector<ByteRange> ranges = alwaysKept(journal, facts);
            ranges.insert(ranges.end(), more.begin(), more.end());
            return ranges;
        };
    };
    answerer.mustBeUsed = keep(std::move(headers.roots));
    answerer.alwaysKept = keep(std::move(headers.listed));
    answerer.freeCounts.stretches = std::move(headers.freeCounts);
    answerer.uncleanReason = [&volume, journal, facts] { return uncleanReason(volume, journal, facts); };
    return answerer;
}

} // namespace imaging::xfs
