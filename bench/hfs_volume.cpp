// Makes a fragmented HFS+ volume of 1 TiB: hfs_volume PATH EXTENTS
//
// No tool that Debian ships formats HFS+. EXTENTS are those of the allocation file: what is more than the eight that
// the volume header has room for stands in the extents-overflow file. No multiple of eight beyond the first: the parser
// wants an empty extent behind the last.
#include "support/HfsBuilder.h"

#include <cstdio>
#include <exception>
#include <random>
#include <string>

namespace {

constexpr std::uint32_t kBlockBytes = 4096;
constexpr std::uint32_t kBlocks = 1U << 28; // 1 TiB
constexpr std::uint32_t kBitmapBlocks = kBlocks / 8 / kBlockBytes;
constexpr std::uint32_t kFirstFragment = 1024;
constexpr std::uint64_t kContent = std::uint64_t{1} << 16; // first block of the files
constexpr std::uint64_t kLongestFile = 256;                // blocks
constexpr std::uint64_t kLongestGap = 4096;                // free blocks between two files

tests::HfsBuilder makeVolume(std::uint32_t extents) {
    tests::HfsGeometry geometry;
    geometry.blockSize = kBlockBytes;
    geometry.totalBlocks = kBlocks;
    geometry.nodeSize = 4096;
    geometry.recordsPerNode = 4; // so that the tree has two levels
    geometry.allocationFile = tests::hfsFragments(extents, (kBitmapBlocks + extents - 1) / extents, kFirstFragment);
    tests::HfsBuilder builder(geometry);
    std::mt19937 random(1);
    for (std::uint64_t block = kContent; block + kLongestFile < kBlocks;) {
        std::uint64_t const used = 1 + random() % kLongestFile;
        builder.setUsedFrom(block, used);
        block += used + 1 + random() % kLongestGap;
    }
    return builder;
}

} // namespace

int main(int count, char** arguments) {
    if (count != 3) {
        std::fputs("usage: hfs_volume PATH EXTENTS\n", stderr);
        return 2;
    }
    try {
        tests::writeHfsVolume(arguments[1], makeVolume(static_cast<std::uint32_t>(std::stoul(arguments[2]))));
        return 0;
    } catch (std::exception const& error) {
        std::fprintf(stderr, "hfs_volume: %s\n", error.what());
        return 1;
    }
}
