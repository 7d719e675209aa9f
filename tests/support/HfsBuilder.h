// Builds small HFS+ volumes in memory, byte by byte, such as the format's own tools accept.
#pragma once

#include "support/HfsTree.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tests {

/// The volume header's bytes as the format numbers them, relative to the header.
namespace hfs_header {
inline constexpr std::uint64_t kSignature = 0;
inline constexpr std::uint64_t kVersion = 2;
inline constexpr std::uint64_t kAttributes = 4;
inline constexpr std::uint64_t kBlockSize = 40;
inline constexpr std::uint64_t kTotalBlocks = 44;
inline constexpr std::uint64_t kFreeBlocks = 48;
inline constexpr std::uint64_t kAllocationFile = 112;
inline constexpr std::uint64_t kExtentsFile = 192;
inline constexpr std::uint64_t kCatalogFile = 272;
inline constexpr std::uint64_t kAttributesFile = 352;
} // namespace hfs_header

/// A fork's bytes, relative to the fork.
namespace hfs_fork {
inline constexpr std::uint64_t kLogicalSize = 0;
inline constexpr std::uint64_t kClumpSize = 8;
inline constexpr std::uint64_t kTotalBlocks = 12;
inline constexpr std::uint64_t kExtents = 16;
} // namespace hfs_fork

inline constexpr std::uint64_t kHfsHeaderOffset = 1024;
inline constexpr std::uint64_t kHfsHeaderBytes = 512;

/// The shape of a volume. The defaults give 2 MiB with a map of one block.
struct HfsGeometry {
    std::uint32_t blockSize = 512;    ///< the smallest
    std::uint32_t totalBlocks = 4096; ///< one bitmap block's worth of bits
    HfsExtents allocationFile = {};   ///< in this order; none: one extent, as large as the volume needs it
    HfsExtents extentsFile = {};      ///< none: one extent, as large as the tree needs it
    std::uint16_t nodeSize = 512;     ///< of the extents-overflow tree
    unsigned recordsPerNode = 0;      ///< of that tree, at most; few make it deep. 0: as many as fit
    std::vector<HfsOverflowRecord> otherRecords = {}; ///< of other files, in that tree
    std::vector<HfsNode> nodes = {};                  ///< that tree, instead of one made from what it should hold
    bool isHfsx = false;                              ///< the case-sensitive kind

    std::uint64_t bytes() const { return std::uint64_t{totalBlocks} * blockSize; }
    std::uint64_t bitmapBytes() const { return (std::uint64_t{totalBlocks} + 7) / 8; }
};

/// `count` extents of `blocks` blocks each, the first at block `first`, with `gap` blocks between one and the next.
HfsExtents hfsFragments(std::uint32_t count, std::uint32_t blocks, std::uint32_t first, std::uint32_t gap = 1);

/// A volume of the given (sane) geometry: volume header, allocation file, extents-overflow file, catalog with an empty
/// root folder, attributes file of no attributes. The bytes end behind the last of these; what follows is free up to
/// the alternate header, which image() and writeHfsVolume() put in its place. Every field can be changed afterwards, to
/// anything.
class HfsBuilder {
public:
    explicit HfsBuilder(HfsGeometry const& geometry = {});

    HfsGeometry const& geometry() const { return geometry_; }

    /// Where the builder put the files.
    HfsExtents const& allocationFile() const { return geometry_.allocationFile; }
    HfsExtents const& extentsFile() const { return geometry_.extentsFile; }
    HfsExtents const& catalogFile() const { return catalogFile_; }

    /// The volume byte of a byte of the allocation file, and of a node of the extents-overflow file.
    std::uint64_t bitmapOffset(std::uint64_t fileByte) const;
    std::uint64_t nodeOffset(std::uint64_t node) const;

    /// Sets a block's bit, and counts it in the header's number of free blocks.
    HfsBuilder& setUsed(std::uint64_t block, bool used = true);
    HfsBuilder& setUsedFrom(std::uint64_t first, std::uint64_t count);

    /// Fills the whole allocation file, padding included, from a generator of a fixed seed: a pattern without symmetry,
    /// which the header's number of free blocks does not follow.
    HfsBuilder& fillBitmapAtRandom(unsigned seed);

    /// Marks blocks as used or free from a generator of a fixed seed, but none that the volume itself lies in.
    HfsBuilder& useBlocksAtRandom(unsigned seed);

    bool isUsed(std::uint64_t block) const;

    /// isUsed() of every block, one element a block.
    std::vector<bool> map() const;

    /// A byte of the allocation file.
    std::uint8_t bitmapByte(std::uint64_t fileByte) const { return bytes.at(bitmapOffset(fileByte)); }

    HfsBuilder& put(std::uint64_t offset, std::uint64_t value, unsigned width);
    std::uint64_t get(std::uint64_t offset, unsigned width) const { return getBig(bytes, offset, width); }

    HfsBuilder& setHeader32(std::uint64_t field, std::uint32_t value) {
        return put(kHfsHeaderOffset + field, value, 4);
    }
    std::uint32_t header32(std::uint64_t field) const;

    /// A fork's list in the header, which may be anything; at most eight extents, the rest become empty.
    HfsBuilder& setForkExtents(std::uint64_t fork, HfsExtents const& extents);

    /// A field of a node of the extents-overflow file; the field lies in the node.
    HfsBuilder& putInNode(std::uint64_t node, std::uint64_t offset, std::uint64_t value, unsigned width) {
        return put(nodeOffset(node) + offset, value, width);
    }

    /// The volume's bytes in full size, the alternate header included.
    std::vector<std::uint8_t> image() const;

    /// The copy of the header that lies in the last 1024 bytes of the volume.
    std::vector<std::uint8_t> alternateHeader() const;

    std::vector<std::uint8_t> bytes;

private:
    void place(HfsExtents& extents, std::uint64_t fileBytes);
    std::uint32_t findFree(std::uint32_t count) const;
    void write(HfsExtents const& extents, std::uint64_t fileByte, std::vector<std::uint8_t> const& content);
    void writeHeader();
    void writeTree();
    void writeCatalog();
    void writeAttributes();
    void writeFork(std::uint64_t fork, HfsExtents const& extents);
    void markOwnBlocks();
    std::uint64_t volumeByte(HfsExtents const& extents, std::uint64_t fileByte) const;

    HfsGeometry geometry_;
    HfsExtents catalogFile_;
    HfsExtents attributesFile_;
    std::vector<HfsNode> nodes_;
    std::vector<HfsExtent> taken_; ///< what the volume itself lies in
};

/// Writes a volume in its full size, of which only what the builder made takes room.
std::string writeHfsVolume(std::string const& path, HfsBuilder const& builder);

/// Where a wrapper puts the volume inside it.
struct HfsWrapper {
    std::uint32_t blockSize = 2048; ///< of the wrapper's own blocks
    std::uint16_t firstSector = 8;  ///< sector of the wrapper's block 0
    std::uint16_t firstBlock = 3;   ///< the wrapper's block where the volume begins
    std::uint16_t trailing = 2;     ///< the wrapper's blocks behind the volume

    std::uint64_t volumeOffset() const {
        return std::uint64_t{firstSector} * 512 + std::uint64_t{firstBlock} * blockSize;
    }
};

/// A volume of the older kind around a volume, as a hull for systems that knew that kind only.
std::vector<std::uint8_t> wrapHfsVolume(std::vector<std::uint8_t> const& volume, HfsWrapper const& wrapper = {});

} // namespace tests
