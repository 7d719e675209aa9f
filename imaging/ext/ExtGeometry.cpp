// The ext superblock, as far as imaging must know it.
#include "imaging/ext/ExtGeometry.h"

#include "agent/core/fs/EXTParser.h"
#include "imaging/Detection.h"
#include "imaging/Error.h"
#include "imaging/Hexadecimal.h"
#include "imaging/ext/ExtDescriptors.h"
#include "imaging/ext/ExtFacts.h"
#include "imaging/ext/ExtKept.h"
#include "imaging/ext/GroupWindow.h"

#include <algorithm>
#include <array>
#include <bit>
#include <string>

namespace imaging::ext {

namespace {

/// The format goes up to 64 KiB blocks (log 6).
constexpr std::uint32_t kLargestLogBlockSize = 6;

/// Short, so that a chunk stays in the processor's caches.
constexpr std::uint64_t kChunkBytes = std::uint64_t{128} << 10;

/// The incompatible features under which the block bitmaps keep their place and their meaning: compression, filetype,
/// recover, extents, 64bit, mmp, flex_bg, ea_inode, dirdata, csum_seed, largedir, inline_data, encrypt, casefold.
constexpr std::uint32_t kIncompatHarmless =
    0x1 | 0x2 | 0x4 | 0x40 | 0x80 | 0x100 | 0x200 | 0x400 | 0x1000 | 0x2000 | 0x4000 | 0x8000 | 0x10000 | 0x20000;

/// One condition under which the parser's map is not the truth.
struct Limit {
    bool (*applies)(Facts const&);
    std::string (*reason)(Facts const&);
};

/// Every such condition; the first that applies is told.
constexpr std::array kLimits{
    Limit{[](Facts const& facts) { return facts.has(kIncompatJournalDevice); },
          [](Facts const& facts) {
              return "s_feature_incompat " + hexadecimal(facts.incompatible) +
                     " has journal_dev (0x8): this is a journal device, which has no block bitmaps";
          }},
    Limit{[](Facts const& facts) { return (facts.readOnlyCompatible & kRoCompatBigalloc) != 0; },
          [](Facts const& facts) {
              return "s_feature_ro_compat " + hexadecimal(facts.readOnlyCompatible) +
                     " has bigalloc (0x200): a bit of the bitmaps stands for a cluster of several blocks";
          }},
    Limit{[](Facts const& facts) { return facts.has(kIncompatMetaBg); },
          [](Facts const& facts) {
              return "s_feature_incompat " + hexadecimal(facts.incompatible) +
                     " has meta_bg (0x10): the group descriptors do not stand in one table";
          }},
    Limit{[](Facts const& facts) { return facts.blocks > 0xFFFFFFFFU; },
          [](Facts const& facts) {
              return "s_blocks_count " + std::to_string(facts.blocks) +
                     " is more than the 4294967295 blocks that the map can number";
          }},
    Limit{[](Facts const& facts) { return facts.blocksPerGroup > 8 * facts.blockSize(); },
          [](Facts const& facts) {
              return "s_blocks_per_group " + std::to_string(facts.blocksPerGroup) + " is more than the " +
                     std::to_string(8 * facts.blockSize()) + " bits that a bitmap block holds";
          }},
    Limit{[](Facts const& facts) {
              return (facts.incompatible & ~(kIncompatHarmless | kIncompatMetaBg | kIncompatJournalDevice)) != 0;
          },
          [](Facts const& facts) {
              return "s_feature_incompat " + hexadecimal(facts.incompatible) +
                     " has a feature that is not known here (" + hexadecimal(facts.incompatible & ~kIncompatHarmless) +
                     "): the bitmaps may lie elsewhere or mean something else";
          }},
    Limit{[](Facts const& facts) { return facts.firstDataBlock != facts.usualFirstDataBlock(); },
          [](Facts const& facts) {
              return "s_first_data_block is " + std::to_string(facts.firstDataBlock) + ", and with blocks of " +
                     std::to_string(facts.blockSize()) + " bytes it must be " +
                     std::to_string(facts.usualFirstDataBlock()) + ": the groups cannot be told apart";
          }},
    Limit{[](Facts const& facts) { return facts.blocksPerGroup != facts.clustersPerGroup; },
          [](Facts const& facts) {
              return "s_blocks_per_group " + std::to_string(facts.blocksPerGroup) + " and s_clusters_per_group " +
                     std::to_string(facts.clustersPerGroup) + " differ: the groups cannot be told apart";
          }},
    Limit{[](Facts const& facts) {
              return facts.has(kIncompat64Bit) &&
                     (facts.descriptorSize < 64 || !std::has_single_bit(facts.descriptorSize));
          },
          [](Facts const& facts) {
              return "s_desc_size is " + std::to_string(facts.descriptorSize) +
                     ", and with 64bit it is a power of two from 64 on: the group descriptors cannot be told apart";
          }},
};

std::optional<std::string> findLimit(Facts const& facts) {
    for (Limit const& limit : kLimits) {
        if (limit.applies(facts)) {
            return limit.reason(facts);
        }
    }
    return std::nullopt;
}

std::optional<std::string> uncleanReason(Facts const& facts) {
    if (facts.has(kIncompatRecover)) {
        return "s_feature_incompat " + hexadecimal(facts.incompatible) +
               " has needs_recovery (0x4): its journal holds changes that are not in place yet";
    }
    if ((facts.state & kStateClean) == 0 || (facts.state & kStateErrors) != 0) {
        return "s_state is " + std::to_string(facts.state) +
               ": it was not unmounted cleanly, or errors were found in it";
    }
    return std::nullopt;
}

Geometry makeGeometry(Facts const& facts) {
    Geometry geometry;
    geometry.unitSize = facts.blockSize();
    geometry.units = facts.blocks;
    geometry.bytes = geometry.units * geometry.unitSize;
    geometry.chunkBytes = kChunkBytes;
    geometry.notBelieved = findLimit(facts);
    return geometry;
}

} // namespace

Facts readFacts(Volume& volume) {
    if (volume.size() < kHeaderOffset + kSuperBlockBytes) {
        throw VolumeError(Trouble::NotUnderstood, volume.path() + ": ends at byte " + std::to_string(volume.size()) +
                                                      ", inside the ext superblock (bytes 1024 to 2047)");
    }
    Facts const facts = parse(volume.readBytes(kHeaderOffset, kSuperBlockBytes));
    std::string const where = volume.path() + ": the ext superblock at byte 1024 describes no volume: ";
    if (facts.logBlockSize > kLargestLogBlockSize) {
        throw VolumeError(Trouble::NotUnderstood, where + "s_log_block_size is " + std::to_string(facts.logBlockSize) +
                                                      ", and blocks go up to 6 (64 KiB)");
    }
    if (facts.blocks == 0 || facts.blocks > (std::uint64_t{1} << 63) / facts.blockSize() - 1) {
        throw VolumeError(Trouble::NotUnderstood, where + "s_blocks_count is " + std::to_string(facts.blocks));
    }
    return facts;
}

Geometry readGeometry(Volume& volume) {
    return makeGeometry(readFacts(volume));
}

Answerer open(Volume& volume) {
    Facts const facts = readFacts(volume);
    Geometry geometry = makeGeometry(facts);
    if (volume.size() < geometry.units * geometry.unitSize) {
        volume.reader().forbidTail(); // the last unit of a truncated volume may cut through a table or a bitmap
    }
    GroupReport groups;
    if (!geometry.notBelieved && facts.blocksPerGroup != 0) {
        groups = examineGroups(volume, tableOf(facts));
        geometry.notBelieved = groups.notBelieved;
        if (!geometry.notBelieved) {
            geometry.notBelieved = findUsedUninitialised(volume, groups.uninitialised);
        }
    }
    if (geometry.notBelieved) {
        return allUsed(std::move(geometry), volume.size());
    }
    std::unique_ptr<agent::core::fs::IBlockBitmapChunkProvider> map;
    if (facts.blocksPerGroup != 0) {
        map = std::make_unique<GroupWindow>(volume, tableOf(facts));
    } else {
        map = makeParser<agent::core::fs::EXTParser>(volume); // it refuses such a volume
    }
    Answerer answerer{std::move(geometry), nullptr, std::move(map)};
    answerer.alwaysKept = [&volume] { return alwaysKept(volume); };
    answerer.mustBeUsed = [&volume] { return mustBeUsed(volume); };
    if (!uncleanReason(facts)) {
        answerer.freeCounts = {facts.firstDataBlock, std::move(groups.freeBlocks)}; // elsewhere they may be late
    }
    answerer.uncleanReason = [facts] { return uncleanReason(facts); };
    return answerer;
}

} // namespace imaging::ext
