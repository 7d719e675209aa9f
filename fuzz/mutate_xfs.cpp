// XFS: a superblock, group headers and tree nodes that are accepted.
#include "Mutator.h"

#include "xfs/XfsLayout.h"

#include <algorithm>

namespace fuzz {

namespace {

using namespace agent::core::fs;

constexpr std::uint64_t kMostGroups = 16;

std::uint64_t blockBytes(Image const& image) {
    return image.big(offsetof(xfs_super_block, sb_blocksize), 4);
}

std::uint64_t groupBytes(Image const& image) {
    return image.big(offsetof(xfs_super_block, sb_agblocks), 4) * blockBytes(image);
}

bool hasChecksums(Image const& image) {
    return (image.big(offsetof(xfs_super_block, sb_versionnum), 2) & 0xF) == 5;
}

/// Where the groups' headers stand that lie on the volume.
std::vector<std::uint64_t> headers(Image const& image) {
    std::vector<std::uint64_t> places;
    std::uint64_t const groups = std::min(image.big(offsetof(xfs_super_block, sb_agcount), 4), kMostGroups);
    for (std::uint64_t group = 0; group < groups; ++group) {
        std::uint64_t const header = group * groupBytes(image) + image.big(offsetof(xfs_super_block, sb_sectsize), 2);
        if (header < image.size()) {
            places.push_back(header);
        }
    }
    return places;
}

bool isNode(Image const& image, std::uint64_t sector) {
    std::uint64_t const magic = image.big(sector, 4);
    return magic >> 16 == kXfsByBlockTreeMagic >> 16 || (magic & 0xFFFF) == (kXfsByBlockTreeMagic & 0xFFFF);
}

void repairSuper(Image& image, Dice& dice) {
    auto const field = [&](std::uint64_t offset, unsigned width, std::uint64_t value, auto const& isSound) {
        repairBig(image, dice, offset, width, value, isSound);
    };
    field(offsetof(xfs_super_block, sb_magicnum), 4, 0x58465342, equals(0x58465342)); // "XFSB"
    field(offsetof(xfs_super_block, sb_blocksize), 4, 512, isPowerBetween(512, 65536));
    field(offsetof(xfs_super_block, sb_sectsize), 2, 512, isPowerBetween(512, 4096));
    field(offsetof(xfs_super_block, sb_agblocks), 4, 16 + dice.below(64),
          [](std::uint64_t count) { return count != 0 && count < 0x1000000; });
    field(offsetof(xfs_super_block, sb_dblocks), 8, dice.below(4096), [](std::uint64_t count) { return count != 0; });
    field(offsetof(xfs_super_block, sb_agcount), 4, 1 + dice.below(4), [](std::uint64_t count) { return count != 0; });
}

void repairNode(Image& image, Dice& dice, std::uint64_t node) {
    std::uint64_t const magic = hasChecksums(image) ? kXfsByBlockTreeMagic5 : kXfsByBlockTreeMagic;
    repairBig(image, dice, node, 4, magic, equals(magic));
    std::uint64_t const header = hasChecksums(image) ? kXfsNodeHeader5 : kXfsNodeHeader;
    std::uint64_t const level = image.big(node + offsetof(xfs_btree_block, bb_level), 2);
    std::uint64_t const each = kXfsRecordBytes + (level == 0 ? 0 : kXfsPointerBytes);
    std::uint64_t const most = blockBytes(image) < header ? 0 : (blockBytes(image) - header) / each;
    repairBig(image, dice, node + offsetof(xfs_btree_block, bb_numrecs), 2, most,
              [=](std::uint64_t count) { return count <= most && (level == 0 || count != 0); });
}

void repairXfs(Image& image, Dice& dice) {
    repairSuper(image, dice);
    for (std::uint64_t const header : headers(image)) {
        repairBig(image, dice, header, 4, kXfsFreeSpaceMagic, equals(kXfsFreeSpaceMagic));
    }
    for (std::uint64_t const sector : image.sectors()) {
        if (isNode(image, sector)) {
            repairNode(image, dice, sector);
        }
    }
}

std::vector<Place> findXfsPlaces(Image const& image) {
    std::vector<Place> places{{0, 0x80}, {0x110, 8}};
    for (std::uint64_t const header : headers(image)) {
        places.push_back({header, 0x38});
        places.push_back({header + 2 * image.big(offsetof(xfs_super_block, sb_sectsize), 2), 64});
    }
    for (std::uint64_t const sector : image.sectors()) {
        if (isNode(image, sector)) {
            places.push_back({sector, 16});
            places.push_back({sector + 16, kSector - 16});
        }
    }
    return places;
}

} // namespace

Format const formatUnderTest{true, true, findXfsPlaces, repairXfs};

} // namespace fuzz
