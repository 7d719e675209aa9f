// Volumes of ext, FAT32, HFS+ and XFS that ask for far more memory than anyone should give them.
#include "command/GreedyVolumes.h"

#include "command/Fsparser.h"
#include "support/FatBuilder.h"
#include "support/HfsBuilder.h"
#include "support/XfsBuilder.h"

#include <algorithm>
#include <utility>

namespace tests {

void writeSparse(std::string const& path, std::vector<std::uint8_t> const& bytes, std::uint64_t size) {
    writeFile(path, bytes);
    std::filesystem::resize_file(path, std::max<std::uint64_t>(size, bytes.size()));
}

namespace {

constexpr bool kLarge = true;

constexpr std::uint64_t kMiB = std::uint64_t{1} << 20;
constexpr std::uint64_t kTiB = std::uint64_t{1} << 40;

GreedyVolume ext(std::string const& name, std::function<ExtBuilder()> const& make, std::uint64_t size = 4 * kMiB,
                 bool isLarge = false) {
    return {"Ext" + name, [make, size](std::string const& path) { writeSparse(path, make().bytes, size); }, isLarge};
}

ExtBuilder withSuper(std::uint64_t field, std::uint32_t value) {
    return makeThousandBlocks().setSuper32(field, value);
}

ExtBuilder withGroups(std::uint32_t blocksPerGroup, std::uint32_t blocks) {
    ExtBuilder builder = withSuper(ext_super::kBlocksCountLow, blocks);
    return setGroupSize(builder, blocksPerGroup);
}

ExtBuilder withDescriptors(std::uint16_t size) {
    ExtBuilder builder = withGroups(65528, 0xFFFFFFFF);
    builder.setSuper32(ext_super::kIncompatibleFeatures, kExt64Bit);
    return builder.setSuper16(ext_super::kDescriptorSize, size);
}

} // namespace

std::vector<GreedyVolume> greedyExtVolumes() {
    return {ext("LargestGroups", [=] { return withGroups(0xFFFFFFF8, 1000); }),
            ext("GroupsOfOneBlock", [=] { return withGroups(1, 0xFFFFFFFF); }),
            ext("GroupsOfEightBlocks", [=] { return withGroups(8, 0xFFFFFFFF); }),
            ext(
                "GroupsOfEightBlocksThatAreThere", [=] { return withGroups(8, 0xFFFFFFFF); }, 16 * kTiB - 4096, kLarge),
            ext(
                "GroupsThatAreThere", [=] { return withGroups(32768, 0xFFFFFFFF); }, 16 * kTiB - 4096, kLarge),
            ext("LargestDescriptors", [=] { return withDescriptors(0xFFFF); }),
            ext(
                "LargestSoundDescriptors", [=] { return withDescriptors(1024); }, 8 * kTiB, kLarge),
            ext("MostBlocks", [=] { return withSuper(ext_super::kBlocksCountLow, 0xFFFFFFFF); }),
            ext("BlocksOf64MiB", [=] { return withSuper(ext_super::kLogBlockSize, 16); }),
            ext("BlocksOfTwoGiB", [=] { return withSuper(ext_super::kLogBlockSize, 21); }),
            ext("LastFirstBlock", [=] { return withSuper(ext_super::kFirstDataBlock, 0xFFFFFFFF); }),
            ext("BitmapBehindTheEnd", [=] { return makeThousandBlocks().setBitmapLocation(0, 0xFFFFFFFF); }),
            {"ExtSlow", [](std::string const& path) { writeSlowVolume(path, 4096); }, kLarge}};
}

namespace {

GreedyVolume fat(std::string const& name, std::function<FatBuilder()> const& make, std::uint64_t size = 0,
                 bool isLarge = false) {
    return {"Fat" + name, [make, size](std::string const& path) { writeSparse(path, make().bytes, size); }, isLarge};
}

FatBuilder withBoot(std::uint64_t field, std::uint64_t value, unsigned width) {
    return FatBuilder().setBoot(field, value, width);
}

/// As many clusters as tables of so many sectors can number, of which only the headers are there.
FatBuilder withLargestTables(std::uint16_t bytesPerSector, std::uint8_t numberOfFats) {
    FatBuilder builder;
    builder.setBoot(fat_boot::kBytesPerSector, bytesPerSector, 2).setBoot(fat_boot::kSectorsPerCluster, 1, 1);
    builder.setBoot(fat_boot::kSectorsPerFat32, 65535, 4).setBoot(fat_boot::kNumberOfFats, numberOfFats, 1);
    std::uint64_t const tables = std::uint64_t{65535} * numberOfFats;
    builder.setBoot(fat_boot::kTotalSectors32, 32 + tables + 65535UL * bytesPerSector / 4 - 2, 4);
    return builder;
}

} // namespace

std::vector<GreedyVolume> greedyFatVolumes() {
    FatBuilder const largest = withLargestTables(512, 2);
    return {fat("MostSectors", [=] { return withBoot(fat_boot::kTotalSectors32, 0xFFFFFFFF, 4); }),
            fat(
                "MostSectorsThatAreThere", [=] { return withBoot(fat_boot::kTotalSectors32, 0xFFFFFFFF, 4); }, 2 * kTiB,
                kLarge),
            fat(
                "MostSectorsOfOneSectorClusters",
                [=] {
                    return FatBuilder(withBoot(fat_boot::kTotalSectors32, 0xFFFFFFFF, 4))
                        .setBoot(fat_boot::kSectorsPerCluster, 1, 1);
                },
                2 * kTiB, kLarge),
            fat("LargestTable", [=] { return largest; }),
            fat(
                "LargestTableThatIsThere", [=] { return largest; }, 8 * 1024 * kMiB, kLarge),
            fat(
                "ManyTables", [=] { return withLargestTables(512, 255); }, 16 * 1024 * kMiB, kLarge),
            fat("TableOfAllSectors", [=] { return withBoot(fat_boot::kSectorsPerFat32, 0xFFFFFFFF, 4); }),
            fat("SectorsOf32KiB", [=] { return withBoot(fat_boot::kBytesPerSector, 0x8000, 2); }),
            fat(
                "SectorsOf4KiB", [=] { return withBoot(fat_boot::kBytesPerSector, 4096, 2); }, 4 * 1024 * kMiB, kLarge),
            fat("ClustersOf128Sectors", [=] { return withBoot(fat_boot::kSectorsPerCluster, 128, 1); }),
            fat("MostReservedSectors", [=] { return withBoot(fat_boot::kReservedSectors, 0xFFFF, 2); }),
            fat("RootBehindTheEnd", [=] { return withBoot(fat_boot::kRootCluster, 0x0FFFFFF0, 4); })};
}

namespace {

GreedyVolume hfs(std::string const& name, std::function<HfsBuilder()> const& make, std::uint64_t size = 0,
                 bool isLarge = false) {
    return {"Hfs" + name,
            [make, size](std::string const& path) {
                if (size == 0) {
                    writeHfsVolume(path, make());
                } else {
                    writeSparse(path, make().bytes, size);
                }
            },
            isLarge};
}

/// An allocation file in more than eight extents, and a tree of these nodes; node 1 is the root.
HfsBuilder withNodes(std::vector<HfsNode> nodes) {
    HfsGeometry geometry;
    geometry.blockSize = 4096;
    geometry.totalBlocks = 20000;
    geometry.nodes = makeHfsTreeOf(std::move(nodes));
    geometry.extentsFile = {{100, 9000}};
    geometry.allocationFile = hfsFragments(8, 1, 10, 1);
    HfsBuilder builder(geometry);
    return builder.setHeader32(hfs_header::kAllocationFile + hfs_fork::kTotalBlocks, 3000);
}

constexpr std::uint16_t kLargeNode = 32768;
constexpr std::uint16_t kMostSlots = (kLargeNode - 14 - 76 - 2) / 2;

/// As many slots as there is room for, all of which lead to the one record.
HfsNode manySlots(HfsNode node) {
    for (std::uint64_t slot = 0; slot < kMostSlots; ++slot) {
        node.setSlot(slot, 14);
    }
    return node.setNumRecords(kMostSlots);
}

HfsNode indexNode(std::uint16_t size, std::uint32_t child) {
    return HfsNode(size, hfs_node::kIndex, 2).addChild(child);
}

HfsNode leaf(std::uint16_t size) {
    return HfsNode(size, hfs_node::kLeaf, 1).addLeafRecord({kHfsAllocationFileId, 0, {{7, 7}}});
}

HfsBuilder makeDeepHfsVolume() {
    std::vector<HfsNode> nodes;
    for (std::uint32_t node = 1; node <= 3000; ++node) {
        nodes.push_back(indexNode(512, node + 1));
    }
    nodes.push_back(leaf(512));
    return withNodes(std::move(nodes));
}

/// All blocks that can be numbered, with an allocation file that covers them.
HfsBuilder makeLargestHfsVolume() {
    HfsBuilder builder;
    builder.setHeader32(hfs_header::kTotalBlocks, 0xFFFFFFFF);
    builder.setForkExtents(hfs_header::kAllocationFile, {{64, 0x100000}});
    builder.setHeader32(hfs_header::kAllocationFile + hfs_fork::kTotalBlocks, 0x100000);
    return builder.setHeader32(hfs_header::kAllocationFile + hfs_fork::kLogicalSize + 4, 0x20000000);
}

HfsBuilder withLargestFork(std::uint64_t fork) {
    HfsBuilder builder;
    builder.setForkExtents(fork, {{0, 0xFFFFFFFF}, {0, 0xFFFFFFFF}});
    return builder.setHeader32(fork + hfs_fork::kTotalBlocks, 0xFFFFFFFF);
}

} // namespace

std::vector<GreedyVolume> greedyHfsVolumes() {
    return {hfs(
                "MostBlocks", [=] { return HfsBuilder().setHeader32(hfs_header::kTotalBlocks, 0xFFFFFFFF); }, kMiB),
            hfs(
                "MostBlocksThatAreThere", [=] { return makeLargestHfsVolume(); }, 2 * kTiB - 512, kLarge),
            hfs("BlocksOfTwoGiB", [=] { return HfsBuilder().setHeader32(hfs_header::kBlockSize, 0x80000000); }),
            hfs(
                "BlocksOfTwoGiBThatAreThere",
                [=] { return HfsBuilder().setHeader32(hfs_header::kBlockSize, 0x80000000); }, 8 * kTiB, kLarge),
            hfs("LargestAllocationFile", [=] { return withLargestFork(hfs_header::kAllocationFile); }),
            hfs("LargestExtentsFile", [=] { return withLargestFork(hfs_header::kExtentsFile); }),
            hfs("ThreeThousandLevels", [=] { return makeDeepHfsVolume(); }),
            hfs("RootNamesItself", [=] { return withNodes({indexNode(512, 1)}); }),
            hfs("NodesNameEachOther",
                [=] {
                    return withNodes({indexNode(512, 2), indexNode(512, 3), indexNode(512, 2)});
                }),
            hfs("CircleThatGrows",
                [=] {
                    return withNodes({manySlots(indexNode(kLargeNode, 2)), manySlots(indexNode(kLargeNode, 2))});
                }),
            hfs("ManyExtents",
                [=] {
                    return withNodes({manySlots(indexNode(kLargeNode, 2)), manySlots(leaf(kLargeNode))});
                }),
            hfs("LargestNodes", [=] {
                return HfsBuilder(withNodes({indexNode(512, 2), leaf(512)}))
                    .putInNode(0, hfs_tree_header::kNodeSize, 0xFFFF, 2);
            })};
}

namespace {

GreedyVolume xfs(std::string const& name, std::function<XfsBuilder()> const& make, std::uint64_t size = 0,
                 bool isLarge = false) {
    return {"Xfs" + name, [make, size](std::string const& path) { writeSparse(path, make().bytes, size); }, isLarge};
}

XfsBuilder withSuper(std::uint64_t field, std::uint64_t value, unsigned width) {
    return XfsBuilder().setSuper(field, value, width);
}

/// Groups of the fewest blocks that a group may have, as many as there can be on the volume.
XfsBuilder withManyGroups(std::uint64_t groups) {
    XfsGeometry geometry;
    geometry.groupBlocks = 64;
    geometry.totalBlocks = 64;
    XfsBuilder builder(geometry);
    return builder.setSuper(xfs_super::kTotalBlocks, 64 * groups, 8).setSuper(xfs_super::kGroups, groups, 4);
}

/// One group of large blocks whose tree is a long row of leaves with as many records as they hold.
XfsBuilder makeRowOfLeaves() {
    constexpr std::uint32_t kLeaves = 100;
    XfsGeometry geometry;
    geometry.blockSize = 65536;
    geometry.groupBlocks = kLeaves + 10;
    geometry.totalBlocks = kLeaves + 10;
    XfsBuilder builder(geometry);
    builder.makeNode(0, 1, 1, 1).setChild(0, 1, 0, 2).setHeader32(0, xfs_header::kRoot, 1);
    for (std::uint32_t i = 0; i < kLeaves; ++i) {
        builder.makeNode(0, 2 + i, 0, static_cast<std::uint16_t>(geometry.mostRecords()), kXfsNoBlock,
                         i + 1 < kLeaves ? 3 + i : kXfsNoBlock);
    }
    return builder;
}

/// Each level leads to the next one twice.
XfsBuilder makeSharedLevels() {
    XfsBuilder builder;
    for (std::uint32_t level = 0; level < 40; ++level) {
        std::uint32_t const left = 10 + 2 * level;
        builder.makeNode(0, left, 1, 1, kXfsNoBlock, left + 1).setChild(0, left, 0, left + 2);
        builder.makeNode(0, left + 1, 1, 1, left).setChild(0, left + 1, 0, left + 2);
    }
    return builder.makeNode(0, 90, 0, 0).setHeader32(0, xfs_header::kRoot, 10);
}

} // namespace

std::vector<GreedyVolume> greedyXfsVolumes() {
    XfsBuilder const manyGroups = withManyGroups(0xFFFFFFFF);
    XfsBuilder const siblings = XfsBuilder().makeNode(0, 4, 1, 1).setChild(0, 4, 0, 5).makeNode(0, 5, 1, 1, 5, 6);
    return {xfs("MostBlocks", [=] { return withSuper(xfs_super::kTotalBlocks, ~std::uint64_t{0}, 8); }),
            xfs("MostGroups", [=] { return withSuper(xfs_super::kGroups, 0xFFFFFFFF, 4); }),
            xfs("MostGroupsThatFit", [=] { return manyGroups; }),
            xfs(
                "ManyGroupsThatAreThere", [=] { return withManyGroups(std::uint64_t{1} << 28); }, 8 * kTiB, kLarge),
            xfs("LargestGroups", [=] { return withSuper(xfs_super::kGroupBlocks, 0xFFFFFFFF, 4); }),
            xfs("LargestBlocks", [=] { return withSuper(xfs_super::kBlockSize, 0x80000000, 4); }),
            xfs("LargestSectors", [=] { return withSuper(xfs_super::kSectorSize, 0x8000, 2); }),
            xfs("LargestJournal",
                [=] {
                    return XfsBuilder(withSuper(xfs_super::kLogStart, 100, 8))
                        .setSuper(xfs_super::kLogBlocks, 0xFFFFFFFF, 4);
                }),
            xfs("NodeOfManyRecords", [=] { return XfsBuilder().makeNode(0, 4, 0, 0xFFFF); }),
            xfs("RowOfFullLeaves", [=] { return makeRowOfLeaves(); }),
            xfs("LevelsThatMultiply", [=] { return makeSharedLevels(); }),
            xfs("SiblingsInACircle", [=] { return XfsBuilder(siblings).makeNode(0, 6, 1, 1, 5, 5); })};
}

} // namespace tests
