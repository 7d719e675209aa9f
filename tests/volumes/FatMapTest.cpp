// The maps of real FAT32 volumes, unit by unit against what independent tools say.
#include "agent/core/backup/VolumeReader.h"
#include "agent/core/fs/FATParser.h"
#include "support/Files.h"
#include "support/RecordingLogger.h"
#include "support/TempDirectory.h"
#include "volumes/ExtRecipe.h"
#include "volumes/FatOracles.h"
#include "volumes/FatRecipe.h"
#include "volumes/VolumeAnswers.h"

#include <algorithm>
#include <gmock/gmock.h>

namespace tests {

namespace {

constexpr std::uint64_t kMiB = std::uint64_t{1} << 20;

/// Each differs from the others in something that could shift or hide units.
std::vector<FatRecipe> const& realVolumes() {
    static std::vector<FatRecipe> const recipes{
        {"Clusters512", {"-s", "1"}, 40 * kMiB, FatFill::Holes},
        {"Clusters1K", {"-s", "2"}, 80 * kMiB, FatFill::Files},
        {"Clusters2K", {"-s", "4"}, 160 * kMiB, FatFill::Holes},
        {"Clusters4K", {"-s", "8"}, 300 * kMiB, FatFill::Holes},
        {"Clusters8K", {"-s", "16"}, 600 * kMiB, FatFill::Holes},
        {"Clusters16K", {"-s", "32"}, 1100 * kMiB, FatFill::Files, false, true},
        {"Clusters32K", {"-s", "64"}, 2200 * kMiB, FatFill::Holes, false, true},
        {"Clusters64K", {"-s", "128"}, 4300 * kMiB, FatFill::Holes, false, true},
        {"Unaligned2K", {"-s", "4", "-a", "-R", "35"}, 160 * kMiB, FatFill::Holes, true, true},
        {"Unaligned4K", {"-s", "8", "-a", "-R", "33"}, 300 * kMiB, FatFill::Holes, true, true},
        {"Unaligned32K", {"-s", "64", "-a", "-R", "37"}, 2200 * kMiB, FatFill::Holes, true, true},
        {"UnalignedWithOneTable", {"-s", "8", "-a", "-R", "33", "-f", "1"}, 300 * kMiB, FatFill::Holes, true, true},
        {"Sectors4K", {"-S", "4096", "-s", "1"}, 300 * kMiB, FatFill::Holes},
        {"Sectors4KUnaligned", {"-S", "4096", "-s", "4", "-a", "-R", "33"}, 1100 * kMiB, FatFill::Holes, true, true},
        {"Sectors1K", {"-S", "1024", "-s", "4"}, 300 * kMiB, FatFill::Files},
        {"OneTable", {"-s", "8", "-f", "1"}, 300 * kMiB, FatFill::Holes},
        {"ManyReservedSectors", {"-s", "8", "-R", "1000"}, 300 * kMiB, FatFill::Holes},
        {"BadClusters", {"-s", "2"}, 80 * kMiB, FatFill::Holes, false, false, {2000, 2001, 3000}},
        {"NothingInIt", {"-s", "8"}, 300 * kMiB},
    };
    return recipes;
}

class RealFatVolume : public testing::TestWithParam<FatRecipe> {
protected:
    /// Makes the volume, and makes sure that it is what the recipe wanted.
    void SetUp() override {
        if (auto const reason = missingProgram({"mkfs.fat", "fsck.fat", "mcopy", "mdel"})) {
            GTEST_SKIP() << *reason;
        }
        volume = makeFatVolume(GetParam(), directory.path());
        ASSERT_EQ(checkWithFsckFat(volume), 0);
        geometry = readFatGeometry(volume);
        ASSERT_GE(geometry.clusters(), 65525U) << "not a genuine FAT32 volume";
        ASSERT_EQ(geometry.dataStart() % geometry.clusterBytes() != 0, GetParam().isUnaligned);
        bool const hasTail = (geometry.totalBytes() - geometry.dataStart()) % geometry.clusterBytes() != 0;
        ASSERT_EQ(hasTail, GetParam().hasTail);
        for (std::uint64_t const piece : GetParam().badKibibytes) {
            bad.push_back((piece * 1024 - geometry.dataStart()) / geometry.clusterBytes() + 2);
        }
    }

    /// The parser's own answer: the one request.
    BlockMap parserMap() const {
        RecordingLogger logger;
        agent::core::backup::VolumeReader reader(logger, volume);
        EXPECT_TRUE(reader.open());
        agent::core::fs::FATParser const parser(logger, 4096, reader);
        logger.entries.clear();
        std::vector<char> buffer(geometry.mapBytes());
        long const units = parser.getChunk(0, buffer.data(), buffer.size());
        EXPECT_EQ(units, static_cast<long>(geometry.units()));
        EXPECT_THAT(logger.entries, testing::ElementsAre(debugEntry("returning[3] " + std::to_string(units))));
        BlockMap map;
        for (std::uint64_t unit = 0; unit < static_cast<std::uint64_t>(std::max(units, 0L)); ++unit) {
            map.push_back(((static_cast<unsigned char>(buffer.at(unit / 8)) >> (unit % 8)) & 1) != 0);
        }
        return map;
    }

    TempDirectory directory{TempDirectory::Place::Memory};
    std::string volume;
    FatGeometry geometry;
    std::vector<std::uint64_t> bad; ///< clusters
};

TEST_P(RealFatVolume, IsMappedAsBlklsSays) {
    if (auto const reason = missingProgram({"blkls"})) {
        GTEST_SKIP() << *reason;
    }
    EXPECT_EQ(differences(parserMap(), fatUnitsFromBlkls(volume, bad)), "");
}

TEST_P(RealFatVolume, IsMappedByTheLibraryAsByTheParser) {
    LibraryMap const map = readMap(volume);
    EXPECT_EQ(differences(map.used, parserMap()), "");
    EXPECT_THAT(map.totals.warnings, testing::IsEmpty());
    EXPECT_EQ(map.geometry.unitSize, geometry.clusterBytes());
    EXPECT_EQ(map.geometry.units, geometry.units());
    EXPECT_EQ(map.totals.used, static_cast<std::uint64_t>(std::count(map.used.begin(), map.used.end(), true)));
    EXPECT_EQ(map.totals.used + map.totals.free, geometry.units());
}

TEST_P(RealFatVolume, IsListedByTheCommandAsByTheParser) {
    CommandResult const result = runFsparser({"ranges", "--json", volume});
    ASSERT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.error, "");
    auto const document = nlohmann::json::parse(result.output);
    EXPECT_EQ(document.at("file_system"), "fat32");
    EXPECT_EQ(document.at("unit_size"), geometry.clusterBytes());
    EXPECT_EQ(document.at("units"), geometry.units());
    EXPECT_EQ(document.at("size"), GetParam().bytes);
    EXPECT_EQ(differences(mapFromRanges(document), parserMap()), "");
}

TEST_P(RealFatVolume, GivesTheParsersBitmap) {
    std::string const output = directory.file("used.bin");
    CommandResult const result = runFsparser({"bitmap", "-o", output, volume});
    ASSERT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.error, "");
    EXPECT_TRUE(contentOfFile(output) == bitmapOf(parserMap()));
}

INSTANTIATE_TEST_SUITE_P(Made, RealFatVolume, testing::ValuesIn(realVolumes()), fatRecipeName);

/// The same volumes again where a tool is too slow for all of them: it sleeps a second each time.
class RealFatVolumeAndPartclone : public RealFatVolume {};

TEST_P(RealFatVolumeAndPartclone, Agree) {
    if (auto const reason = missingProgram({"partclone.fat32"})) {
        GTEST_SKIP() << *reason;
    }
    EXPECT_EQ(differences(parserMap(), fatUnitsFromPartclone(volume, directory.file("domain"), bad)), "");
}

std::vector<FatRecipe> volumesForPartclone() {
    std::vector<FatRecipe> chosen;
    for (FatRecipe const& recipe : realVolumes()) {
        if (recipe.isUnaligned || recipe.hasTail || !recipe.badKibibytes.empty() || recipe.name == "Clusters512" ||
            recipe.name == "Clusters32K" || recipe.name == "Sectors4K") {
            chosen.push_back(recipe);
        }
    }
    return chosen;
}

INSTANTIATE_TEST_SUITE_P(Made, RealFatVolumeAndPartclone, testing::ValuesIn(volumesForPartclone()), fatRecipeName);

TEST(RealFatVolumeFixture, HasItsFreeSpaceInManyPieces) {
    if (auto const reason = missingProgram({"mkfs.fat", "mcopy", "mdel"})) {
        GTEST_SKIP() << *reason;
    }
    TempDirectory const directory(TempDirectory::Place::Memory);
    LibraryMap const map = readMap(makeFatVolume({"", {"-s", "1"}, 40 * kMiB, FatFill::Holes}, directory.path()));
    unsigned changes = 0;
    for (std::size_t unit = 1; unit < map.used.size(); ++unit) {
        changes += map.used[unit] != map.used[unit - 1] ? 1U : 0U;
    }
    EXPECT_GT(changes, 50U);
}

TEST(FatBuilderVolume, IsSoundForFsckFat) {
    if (auto const reason = missingProgram({"fsck.fat"})) {
        GTEST_SKIP() << *reason;
    }
    TempDirectory const directory(TempDirectory::Place::Memory);
    for (FatGeometry const& geometry : {FatGeometry{}, FatGeometry::unaligned()}) {
        FatBuilder const builder(geometry);
        std::string const path = writeFile(directory.file("built"), builder.bytes);
        std::filesystem::resize_file(path, geometry.totalBytes());
        CommandResult const result = runTool({"fsck.fat", "-n", path});
        EXPECT_EQ(result.exitCode, 0) << result;
        EXPECT_EQ(differences(readMap(path).used, builder.map()), "");
    }
}

} // namespace

} // namespace tests
