// Volumes of the other file systems, and first sectors.
#include "Seeds.h"
#include "support/ExtBuilder.h"
#include "support/FatBuilder.h"
#include "support/HfsBuilder.h"
#include "support/NtfsBootSector.h"
#include "support/XfsBuilder.h"

#include <algorithm>

namespace fuzz {

namespace {

using namespace tests;

/// As sent with every volume: alignment 512, chunks of 64 bytes, a second walk from unit 8 on.
Bytes const kRequest{0, 0x3F, 0, 8, 0, 0, 0, 0};

void addDetection(SeedFolder const& seeds) {
    auto const add = [&seeds](std::string const& name, std::span<std::uint8_t const> bytes, std::size_t offset) {
        seeds.add("detection", name, bytes.subspan(offset, 512));
    };
    add("ntfs", ntfsBootSector(), 0);
    add("fat", makeFatBootSector(FatGeometry::tiny()), 0);
    add("ext", ExtBuilder().bytes, kExtSuperBlockOffset);
    add("hfs", HfsBuilder().bytes, kHfsHeaderOffset);
    add("xfs", XfsBuilder().bytes, 0);
    seeds.add("detection", "empty", Bytes(512));
}

void addExt(SeedFolder const& seeds) {
    auto const addOne = [&seeds](std::string const& name, ExtGeometry const& geometry) {
        ExtBuilder builder(geometry);
        builder.setUsedFrom(geometry.firstDataBlock, 37).setUsed(geometry.blocksCount - 1);
        builder.setFlags(1, ext_group::kBlocksUninitialised);
        seeds.addVolume("ext", name, imageOf(builder.bytes), 0, kRequest);
    };
    addOne("small-blocks", {});
    addOne("large-blocks", ExtGeometry::with4KiBBlocks(100000));
    addOne("wide", {0, 1, 8192, 40000, true, 64});
    addOne("short-groups", {0, 1, 256, 2000, false, 0});
}

void addFat(SeedFolder const& seeds) {
    auto const addOne = [&seeds](std::string const& name, FatGeometry const& geometry) {
        FatBuilder builder(geometry);
        for (std::uint32_t cluster = 3; cluster < 20; cluster += 3) {
            builder.setEntryIn(0, cluster, cluster % 2 == 0 ? fat_entry::kBad : cluster + 1);
        }
        seeds.addVolume("fat", name, imageOf(builder.bytes), 0x60, kRequest);
    };
    addOne("tiny", FatGeometry::tiny());
    addOne("aligned", {512, 1, 32, 2, 16, 4000, 0});
    addOne("unaligned", {512, 8, 33, 2, 16, 8000, 0});
    addOne("short", {512, 1, 8, 1, 4, 0, 500});
}

void addHfs(SeedFolder const& seeds) {
    auto const addOne = [&seeds](std::string const& name, HfsGeometry const& geometry) {
        HfsBuilder builder(geometry);
        builder.setUsedFrom(geometry.totalBlocks - 20, 10);
        Bytes request = kRequest;
        request[7] = kHfsAllocationFileId; // whose extents are searched
        seeds.addVolume("hfs", name, imageOf(builder.bytes), 0, request);
    };
    addOne("plain", {});
    HfsGeometry geometry;
    geometry.totalBlocks = 100000;
    geometry.allocationFile = hfsFragments(25, 1, 40);
    geometry.recordsPerNode = 2;
    addOne("deep", geometry);
    geometry.otherRecords = {{20, 0, {{500, 2}}}, {30, 8, {{600, 3}}}};
    geometry.isHfsx = true;
    geometry.recordsPerNode = 1;
    addOne("others", geometry);
    geometry.nodeSize = 1024;
    geometry.blockSize = 1024;
    geometry.allocationFile = hfsFragments(13, 1, 30);
    addOne("larger", geometry);
}

void addXfs(SeedFolder const& seeds) {
    auto const addOne = [&seeds](std::string const& name, XfsGeometry const& geometry) {
        XfsBuilder builder(geometry);
        builder.fillAtRandom(static_cast<unsigned>(name.size()));
        seeds.addVolume("xfs", name, imageOf(builder.bytes), 0x110, kRequest);
        builder.plantTree(0, {{200, 3}, {205, 1}, {210, 6}, {220, 2}, {230, 1}, {240, 5}, {250, 9}, {260, 2}},
                          {2, 2, geometry.firstBlock()});
        seeds.addVolume("xfs", name + "-deep", imageOf(builder.bytes), 0x110, kRequest);
    };
    addOne("small", {});
    XfsGeometry geometry;
    geometry.blockSize = 1024;
    geometry.hasChecksums = true;
    geometry.logStart = 5;
    geometry.logBlocks = 20;
    addOne("checksums", geometry);
    geometry.sectorSize = 4096;
    geometry.blockSize = 4096;
    addOne("large-sectors", geometry);
}

} // namespace

void addSmallSeeds(SeedFolder const& seeds) {
    addDetection(seeds);
    addExt(seeds);
    addFat(seeds);
    addHfs(seeds);
    addXfs(seeds);
}

} // namespace fuzz
