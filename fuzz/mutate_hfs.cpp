// HFS+: a volume header that is accepted, and nodes that the tree's walk reaches.
#include "Mutator.h"

#include "hfs/HfsLayout.h"

#include <algorithm>

namespace fuzz {

namespace {

using namespace agent::core::fs;

constexpr std::uint64_t kHeader = 1024;
constexpr std::uint64_t kFirstExtent = offsetof(HFSPlusForkData, extents);

std::uint64_t blockBytes(Image const& image) {
    return image.big(kHeader + offsetof(HFSPlusVolumeHeader, blockSize), 4);
}

std::uint64_t extentStart(Image const& image, std::uint64_t fork) {
    return image.big(kHeader + fork + kFirstExtent, 4) * blockBytes(image);
}

std::uint64_t treeStart(Image const& image) {
    return extentStart(image, offsetof(HFSPlusVolumeHeader, extentsFile));
}

std::uint64_t nodeBytes(Image const& image) {
    return image.big(treeStart(image) + sizeof(BTNodeDescriptor) + offsetof(BTHeaderRec, nodeSize), 2);
}

/// Where nodes stand; none where the geometry is nonsense.
std::vector<std::uint64_t> nodes(Image const& image) {
    std::vector<std::uint64_t> places;
    std::uint64_t const start = treeStart(image);
    for (std::uint64_t const sector : image.sectors()) {
        std::uint64_t const size = nodeBytes(image);
        if (isPowerBetween(512, 32768)(size) && sector >= start && (sector - start) % size == 0 &&
            (sector - start) / size < 64) {
            places.push_back(sector);
        }
    }
    return places;
}

void repairNode(Image& image, Dice& dice, std::uint64_t node) {
    repairBig(image, dice, node + offsetof(BTNodeDescriptor, kind), 1, dice.oneIn(2) ? 0xFF : 0,
              [](std::uint64_t kind) { return kind <= 2 || kind == 0xFF; });
    repairBig(image, dice, node + offsetof(BTNodeDescriptor, numRecords), 2, 1 + dice.below(6),
              [](std::uint64_t count) { return count <= 64; });
}

void repairHfs(Image& image, Dice& dice) {
    auto const isSignature = [](std::uint64_t found) { return found == 0x482B || found == 0x4858; };
    repairBig(image, dice, kHeader, 2, 0x482B, isSignature); // "H+"
    repairBig(image, dice, kHeader + offsetof(HFSPlusVolumeHeader, blockSize), 4, 512, isPowerBetween(512, 65536));
    repairBig(image, dice, kHeader + offsetof(HFSPlusVolumeHeader, totalBlocks), 4, 1 + dice.below(100000),
              [](std::uint64_t count) { return count != 0; });
    constexpr std::uint64_t treeBlocks =
        kHeader + offsetof(HFSPlusVolumeHeader, extentsFile) + offsetof(HFSPlusForkData, totalBlocks);
    std::uint64_t const first = image.big(treeBlocks + 4 + 4, 4); // blocks of its first extent
    repairBig(image, dice, treeBlocks, 4, first, [first](std::uint64_t count) { return count <= first; });
    std::uint64_t const tree = treeStart(image);
    if (tree >= image.size()) {
        return;
    }
    repairBig(image, dice, tree + sizeof(BTNodeDescriptor) + offsetof(BTHeaderRec, nodeSize), 2, 512,
              isPowerBetween(512, 32768));
    repairBig(image, dice, tree + sizeof(BTNodeDescriptor) + offsetof(BTHeaderRec, rootNode), 4, 1 + dice.below(4),
              [](std::uint64_t number) { return number != 0 && number < 64; });
    for (std::uint64_t const node : nodes(image)) {
        repairNode(image, dice, node);
    }
}

std::vector<Place> findHfsPlaces(Image const& image) {
    std::vector<Place> places{{0, 9}, {kHeader, 0x30}, {kHeader + 0x70, 80}, {kHeader + 0xC0, 80}};
    for (std::uint64_t const node : nodes(image)) {
        std::uint64_t const size = nodeBytes(image);
        places.push_back({node, 14});
        places.push_back({node + 14, std::min<std::uint64_t>(size, 512) - 14});
        places.push_back({node + size - 16, 16}); // where records are
    }
    return places;
}

} // namespace

Format const formatUnderTest{true, true, findHfsPlaces, repairHfs};

} // namespace fuzz
