// Builds small XFS volumes in memory, byte by byte, and one of any size that nothing backs.
#pragma once

#include "support/Readers.h"

#include <cstdint>
#include <functional>
#include <map>
#include <vector>

namespace tests {

/// The superblock's bytes that shape the map, from the volume's start.
namespace xfs_super {
inline constexpr std::uint64_t kMagic = 0x00;
inline constexpr std::uint64_t kBlockSize = 0x04;
inline constexpr std::uint64_t kTotalBlocks = 0x08;
inline constexpr std::uint64_t kLogStart = 0x30;
inline constexpr std::uint64_t kGroupBlocks = 0x54;
inline constexpr std::uint64_t kGroups = 0x58;
inline constexpr std::uint64_t kLogBlocks = 0x60;
inline constexpr std::uint64_t kVersion = 0x64;
inline constexpr std::uint64_t kSectorSize = 0x66;
inline constexpr std::uint64_t kBlockSizeLog = 0x78;
inline constexpr std::uint64_t kSectorSizeLog = 0x79;
inline constexpr std::uint64_t kGroupBlocksLog = 0x7C;
} // namespace xfs_super

/// A group's free-space header, from the group's second sector.
namespace xfs_header {
inline constexpr std::uint64_t kMagic = 0x00;
inline constexpr std::uint64_t kRoot = 0x10;
inline constexpr std::uint64_t kLevels = 0x1C;
inline constexpr std::uint64_t kListFirst = 0x28;
inline constexpr std::uint64_t kListLast = 0x2C;
inline constexpr std::uint64_t kListCount = 0x30;
inline constexpr std::uint64_t kFreeBlocks = 0x34;
} // namespace xfs_header

/// A tree's node, from its block's start.
namespace xfs_node {
inline constexpr std::uint64_t kMagic = 0x00;
inline constexpr std::uint64_t kLevel = 0x04;
inline constexpr std::uint64_t kRecords = 0x06;
inline constexpr std::uint64_t kLeft = 0x08;
inline constexpr std::uint64_t kRight = 0x0C;
} // namespace xfs_node

inline constexpr std::uint32_t kXfsNoBlock = 0xFFFFFFFF;
inline constexpr std::uint32_t kXfsPlainNode = 0x41425442;    // "ABTB"
inline constexpr std::uint32_t kXfsChecksumNode = 0x41423342; // "AB3B"

/// The shape of a volume. The defaults give three groups, the last of them short.
struct XfsGeometry {
    std::uint32_t blockSize = 512; ///< the smallest; 1024 where metadata carry checksums
    std::uint16_t sectorSize = 512;
    std::uint32_t groupBlocks = 500;  ///< no power of two, so that block numbers on disk have a gap between groups
    std::uint64_t totalBlocks = 1300; ///< no multiple of 8, so that the last byte of the map is not full
    bool hasChecksums = false;        ///< version 5: longer headers of nodes and free lists
    std::uint64_t logStart = 0;       ///< as the superblock has it, the group's number in the upper bits
    std::uint32_t logBlocks = 0;      ///< 0: the journal is elsewhere

    std::uint32_t groups() const { return static_cast<std::uint32_t>((totalBlocks + groupBlocks - 1) / groupBlocks); }
    std::uint16_t version() const { return hasChecksums ? 0xB4A5 : 0xB4A4; }
    std::uint8_t groupBlocksLog() const; ///< rounded up

    std::uint32_t nodeMagic() const { return hasChecksums ? kXfsChecksumNode : kXfsPlainNode; }
    std::uint32_t nodeHeader() const { return hasChecksums ? 56 : 16; }
    std::uint32_t mostRecords() const { return (blockSize - nodeHeader()) / 8; }
    std::uint32_t mostChildren() const { return (blockSize - nodeHeader()) / 12; }

    /// Entries that a free list has room for, and those of them within its sector's first 512 bytes.
    std::uint32_t listCapacity() const { return (sectorSize - (hasChecksums ? 36U : 0U)) / 4; }
    std::uint32_t readableEntries() const { return hasChecksums ? 119 : 128; }

    std::uint64_t blockOffset(std::uint64_t group, std::uint64_t block) const {
        return (group * groupBlocks + block) * blockSize;
    }
    std::uint64_t headerOffset(std::uint64_t group) const { return blockOffset(group, 0) + sectorSize; }

    /// The free list's first entry.
    std::uint64_t listOffset(std::uint64_t group) const {
        return blockOffset(group, 0) + std::uint64_t{3} * sectorSize + (hasChecksums ? 36 : 0);
    }

    /// The first block of a group behind its four sectors of headers.
    std::uint32_t firstBlock() const { return (4U * sectorSize + blockSize - 1) / blockSize; }
};

/// A run of blocks in a group.
struct XfsRun {
    std::uint32_t start;
    std::uint32_t count;

    bool operator==(XfsRun const&) const = default;
};

/// How a tree is laid out.
struct XfsTreeShape {
    std::uint32_t leafRecords; ///< in each leaf but the last
    std::uint32_t children;    ///< of each inner node but the last of a level
    std::uint32_t firstBlock;  ///< of the root; the others follow without a gap, level by level, leaves at the end
};

/// The blocks of a tree's nodes by level, from left to right: the leaves are level 0, the root is the last level.
using XfsTreeBlocks = std::vector<std::vector<std::uint32_t>>;

/// A volume of the given (sane) geometry: the headers, and in each group an empty tree whose root is the first block
/// behind them, and a free list that wraps around, which is how an empty one is written. Every field can be changed
/// afterwards, to anything.
class XfsBuilder {
public:
    explicit XfsBuilder(XfsGeometry const& geometry = {});

    XfsGeometry const& geometry() const { return geometry_; }

    /// Writes a tree by block number over the runs and makes it the group's. The nodes of the one before stay.
    /// @throws std::invalid_argument  a node would need more room than a block has
    XfsTreeBlocks plantTree(std::uint32_t group, std::vector<XfsRun> const& runs, XfsTreeShape const& shape);

    /// A tree of few nodes: a leaf as large as a block holds it.
    XfsTreeBlocks plantTree(std::uint32_t group, std::vector<XfsRun> const& runs);

    /// Writes entries into a group's free list from an index on; past the list's capacity they go on from its start.
    /// An empty list does not begin at 0: its end would be the last index, so that it would name every entry.
    XfsBuilder& setFreeList(std::uint32_t group, std::uint32_t first, std::vector<std::uint32_t> const& blocks);

    /// Gives each group a tree of short runs with gaps between them, and a free list, from a generator of a fixed seed.
    XfsBuilder& fillAtRandom(unsigned seed);

    XfsBuilder& setSuper(std::uint64_t field, std::uint64_t value, unsigned width);
    XfsBuilder& setSuper32(std::uint64_t field, std::uint32_t value) { return setSuper(field, value, 4); }
    XfsBuilder& setHeader32(std::uint32_t group, std::uint64_t field, std::uint32_t value);
    XfsBuilder& setNode16(std::uint32_t group, std::uint32_t block, std::uint64_t field, std::uint16_t value);
    XfsBuilder& setNode32(std::uint32_t group, std::uint32_t block, std::uint64_t field, std::uint32_t value);

    /// A leaf's record, or an inner node's key; and an inner node's child.
    XfsBuilder& setRecord(std::uint32_t group, std::uint32_t block, std::uint32_t index, XfsRun const& run);
    XfsBuilder& setChild(std::uint32_t group, std::uint32_t block, std::uint32_t index, std::uint32_t child);

    /// A whole node without records.
    XfsBuilder& makeNode(std::uint32_t group, std::uint32_t block, std::uint16_t level, std::uint16_t records,
                         std::uint32_t left = kXfsNoBlock, std::uint32_t right = kXfsNoBlock);

    /// A big-endian number anywhere.
    std::uint64_t get(std::uint64_t offset, unsigned width) const;
    XfsBuilder& put(std::uint64_t offset, std::uint64_t value, unsigned width);

    /// What the volume's map should show of every block, by what plantTree() and setFreeList() were given: used, unless
    /// a run or an entry of the list names it. A list that wraps, and entries that are not read, name nothing.
    std::vector<bool> map() const;

    MemoryReader reader() const { return MemoryReader(bytes); }

    std::vector<std::uint8_t> bytes;

private:
    void writeSuperBlock();
    void writeNode(std::uint32_t group, std::uint32_t block, std::vector<XfsRun> const& records,
                   std::vector<std::uint32_t> const& children, std::uint16_t level);

    XfsGeometry geometry_;
    std::map<std::uint32_t, std::vector<XfsRun>> trees_;
    std::map<std::uint32_t, std::vector<std::uint32_t>> lists_;
};

/// A volume that no memory backs, as large as its geometry says. A group's tree is one leaf behind its headers with the
/// runs that `runs` gives for it; its free list holds the one block that `listed` gives.
SyntheticReader makeSyntheticXfsVolume(XfsGeometry const& geometry,
                                       std::function<std::vector<XfsRun>(std::uint32_t)> runs,
                                       std::function<std::uint32_t(std::uint32_t)> listed);

} // namespace tests
