// The volumes: what the builders make, in full size, and noise where nothing of the file system lies.
#include "support/CopyVolumes.h"

#include "support/ExtBuilder.h"
#include "support/FatBuilder.h"
#include "support/Files.h"
#include "support/HfsBuilder.h"
#include "support/NtfsBuilder.h"
#include "support/XfsBuilder.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <optional>
#include <random>
#include <stdexcept>

namespace tests {

namespace {

/// Fills the free units, and all units from `first` on whose bytes are zeros.
CopyVolume noisy(std::string name, std::vector<std::uint8_t> bytes, std::uint64_t unitSize, std::vector<bool> used,
                 std::uint64_t first) {
    std::mt19937 generator(77);
    for (std::uint64_t unit = first; unit < used.size(); ++unit) {
        auto const begin = bytes.begin() + static_cast<std::ptrdiff_t>(unit * unitSize);
        auto const end = begin + static_cast<std::ptrdiff_t>(std::min(unitSize, bytes.size() - unit * unitSize));
        if (std::all_of(begin, end, [](std::uint8_t byte) { return byte == 0; })) {
            std::generate(begin, end, [&generator] { return static_cast<std::uint8_t>(generator() | 1U); });
        }
    }
    return {std::move(name), std::move(bytes), unitSize, std::move(used)};
}

CopyVolume makeExt(std::string const& name, ExtGeometry const& geometry) {
    ExtBuilder builder = makeSoundExtVolume(geometry);
    for (std::uint64_t block = geometry.firstDataBlock + 60; block < geometry.blocksCount; block += 37) {
        builder.setUsedFrom(block, std::min<std::uint64_t>(11, geometry.blocksCount - block));
    }
    builder.setSuper16(0x3A, 1); // clean
    auto bytes = builder.bytes;
    bytes.resize(geometry.blocksCount * geometry.blockBytes());
    return noisy(name, std::move(bytes), geometry.blockBytes(), builder.map(), 60);
}

CopyVolume makeFat(std::string const& name) {
    FatBuilder builder(FatGeometry::tiny());
    for (std::uint32_t cluster = 10; cluster < 190; cluster += 13) {
        builder.setEntry(cluster, cluster + 1).setEntry(cluster + 1, fat_entry::kEndOfChain);
    }
    auto bytes = builder.bytes;
    bytes.resize(FatGeometry::tiny().totalBytes());
    return noisy(name, std::move(bytes), FatGeometry::tiny().clusterBytes(), builder.map(), 6);
}

CopyVolume makeHfs(std::string const& name, std::uint32_t fragments) {
    HfsGeometry geometry;
    if (fragments != 1) {
        geometry.totalBlocks = fragments * 4096 - 3;
        geometry.allocationFile = hfsFragments(fragments, 1, 100);
        geometry.recordsPerNode = 2;
        geometry.otherRecords = {{17, 8, {{50, 1}}}, {18, 8, {{51, 1}}}}; // for a second leaf
    }
    HfsBuilder const builder = HfsBuilder(geometry).useBlocksAtRandom(78);
    auto volume = noisy(name, builder.image(), geometry.blockSize, builder.map(), 500);
    auto const alternate = builder.alternateHeader();
    std::copy(alternate.begin(), alternate.end(), volume.bytes.end() - 1024);
    return volume;
}

CopyVolume makeNtfs(std::string const& name, NtfsGeometry const& geometry) {
    NtfsBuilder const builder = NtfsBuilder::standard(geometry);
    std::vector<bool> used;
    for (std::uint64_t unit = 0; unit < builder.geometry().clusters; ++unit) {
        used.push_back(builder.isUsed(unit));
    }
    CopyVolume volume = noisy(name, builder.bytes, geometry.clusterBytes, std::move(used), 100);
    for (NtfsRun const& run : builder.bitmapRuns) { // zeros there mean something
        std::copy_n(builder.bytes.begin() + static_cast<std::ptrdiff_t>(builder.byteOfCluster(run.lcn)),
                    static_cast<std::ptrdiff_t>(builder.byteOfCluster(run.length)),
                    volume.bytes.begin() + static_cast<std::ptrdiff_t>(builder.byteOfCluster(run.lcn)));
    }
    return volume;
}

CopyVolume makeXfs(std::string const& name) {
    XfsGeometry geometry;
    geometry.totalBlocks = 1000;
    geometry.logStart = (1 << 9) + 400; // group 1; 512 is the first power of two from 500 on
    geometry.logBlocks = 50;
    XfsBuilder builder(geometry);
    builder.plantTree(0, {{100, 50}, {210, 20}, {250, 7}, {280, 10}}, {2, 2, 4});
    builder.plantTree(1, {{20, 70}, {200, 190}});
    CopyVolume volume = noisy(name, builder.bytes, geometry.blockSize, builder.map(), 20);
    std::fill_n(volume.bytes.begin() + 900 * 512, 50 * 512, std::uint8_t{0}); // a journal of nothing
    return volume;
}

CopyVolume makeExtGroups(std::string const& name) {
    ExtGeometry geometry;
    geometry.blocksCount = 9000; // two groups, the second one short
    return makeExt(name, geometry);
}

CopyVolume makeNtfsPieces(std::string const& name) {
    NtfsGeometry geometry = NtfsGeometry::withClusters(512);
    geometry.clusters = 9000; // three clusters of bitmap
    geometry.bitmapPieces = 2;
    return makeNtfs(name, geometry);
}

struct Recipe {
    char const* name;
    bool isSmall; ///< at most 3 MiB
    CopyVolume (*make)(std::string const& name);
};

constexpr std::array kRecipes{
    Recipe{"Ext", true, [](std::string const& name) { return makeExt(name, ExtGeometry::with4KiBBlocks(700)); }},
    Recipe{"ExtGroups", false, makeExtGroups},
    Recipe{"Fat", true, makeFat},
    Recipe{"Hfs", true, [](std::string const& name) { return makeHfs(name, 1); }},
    Recipe{"HfsTree", false, [](std::string const& name) { return makeHfs(name, 9); }},
    Recipe{"Ntfs", true, [](std::string const& name) { return makeNtfs(name, {}); }},
    Recipe{"NtfsPieces", false, makeNtfsPieces},
    Recipe{"Xfs", true, makeXfs},
};

} // namespace

std::vector<std::string> const& copyVolumeNames() {
    static std::vector<std::string> const names = [] {
        std::vector<std::string> all;
        std::transform(kRecipes.begin(), kRecipes.end(), std::back_inserter(all),
                       [](Recipe const& recipe) { return recipe.name; });
        return all;
    }();
    return names;
}

std::vector<std::string> smallCopyVolumeNames() {
    std::vector<std::string> names;
    for (Recipe const& recipe : kRecipes) {
        if (recipe.isSmall) {
            names.emplace_back(recipe.name);
        }
    }
    return names;
}

CopyVolume const& copyVolume(std::size_t number) {
    static std::array<std::optional<CopyVolume>, kRecipes.size()> made;
    if (!made.at(number)) {
        Recipe const& recipe = kRecipes[number];
        made[number] = recipe.make(recipe.name);
        if (recipe.isSmall != (made[number]->bytes.size() <= std::size_t{3} << 20)) {
            throw std::logic_error(made[number]->name + " is not of the size that its recipe says");
        }
    }
    return *made[number];
}

CopyVolume const& copyVolume(std::string const& name) {
    auto const& names = copyVolumeNames();
    return copyVolume(static_cast<std::size_t>(std::find(names.begin(), names.end(), name) - names.begin()));
}

std::uint64_t firstLoss(CopyVolume const& volume, std::vector<std::uint8_t> const& copy) {
    for (std::uint64_t unit = 0; unit < volume.used.size(); ++unit) {
        std::uint64_t const begin = unit * volume.unitSize;
        std::uint64_t const end = std::min<std::uint64_t>(volume.bytes.size(), begin + volume.unitSize);
        auto const at = [](std::uint64_t offset) { return static_cast<std::ptrdiff_t>(offset); };
        if (volume.used[unit] &&
            (copy.size() < end ||
             !std::equal(volume.bytes.begin() + at(begin), volume.bytes.begin() + at(end), copy.begin() + at(begin)))) {
            return unit;
        }
    }
    return volume.used.size();
}

} // namespace tests
