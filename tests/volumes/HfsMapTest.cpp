// The maps of HFS+ volumes in files, block by block against what independent tools say.
#include "agent/core/backup/VolumeReader.h"
#include "agent/core/fs/HFSParser.h"
#include "support/Files.h"
#include "support/HfsReader.h"
#include "support/RecordingLogger.h"
#include "support/TempDirectory.h"
#include "volumes/ExtRecipe.h"
#include "volumes/HfsOracles.h"
#include "volumes/VolumeAnswers.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>

namespace tests {

namespace {

/// The parser's own answer, in chunks of some kilobytes.
BlockMap parserMap(std::string const& volume) {
    RecordingLogger logger;
    agent::core::backup::VolumeReader reader(logger, volume);
    EXPECT_TRUE(reader.open());
    HfsFrontReader const front(reader);
    agent::core::fs::HFSParser const parser(logger, 4096, front);
    BlockMap map;
    std::vector<char> buffer(5000);
    for (long units = 1; units > 0;) {
        units = parser.getChunk(map.size(), buffer.data(), buffer.size());
        EXPECT_GE(units, 0);
        for (std::size_t unit = 0; unit < static_cast<std::size_t>(std::max(units, 0L)); ++unit) {
            map.push_back(((static_cast<unsigned char>(buffer.at(unit / 8)) << (unit % 8)) & 0x80) != 0);
        }
    }
    return map;
}

std::uint64_t countFree(BlockMap const& map) {
    return static_cast<std::uint64_t>(std::count(map.begin(), map.end(), false));
}

struct HfsRecipe {
    std::string name;
    HfsGeometry geometry;
};

void PrintTo(HfsRecipe const& recipe, std::ostream* out) {
    *out << recipe.name;
}

HfsGeometry makeGeometry(std::uint32_t blockSize, std::uint32_t blocks, HfsExtents const& map = {}) {
    HfsGeometry geometry;
    geometry.blockSize = blockSize;
    geometry.totalBlocks = blocks;
    geometry.allocationFile = map;
    return geometry;
}

HfsGeometry makeFragmented(std::uint32_t fragments, std::uint32_t blockSize, unsigned recordsPerNode) {
    HfsGeometry geometry = makeGeometry(blockSize, fragments * blockSize * 8 - 5, hfsFragments(fragments, 1, 100));
    geometry.recordsPerNode = recordsPerNode;
    return geometry;
}

HfsGeometry makeHfsx(HfsGeometry geometry) {
    geometry.isHfsx = true;
    return geometry;
}

/// Each differs from the others in something that could shift or hide blocks.
std::vector<HfsRecipe> const& builtVolumes() {
    static std::vector<HfsRecipe> const recipes{
        {"Smallest", makeGeometry(512, 4096)},
        {"LastByteNotFull", makeGeometry(512, 9997)},
        {"Blocks4K", makeGeometry(4096, 3000)},
        {"Blocks64K", makeGeometry(65536, 700)},
        {"Hfsx", makeHfsx(makeGeometry(4096, 2001))},
        {"MapInSevenPieces", makeGeometry(512, 7 * 4096, hfsFragments(7, 1, 100))},
        {"MapInPiecesOutOfOrder", makeGeometry(1024, 20000, {{900, 1}, {50, 1}, {400, 1}})},
        {"TreeOfTwoLevels", makeFragmented(20, 512, 1)},
        {"TreeOfTwoLevelsIn1KBlocks", makeFragmented(30, 1024, 2)},
        {"TreeOfThreeLevels", makeFragmented(60, 512, 2)},
        {"HfsxWithATreeOfThreeLevels", makeHfsx(makeFragmented(70, 512, 2))},
    };
    return recipes;
}

bool needsTree(HfsGeometry const& geometry) {
    return geometry.allocationFile.size() > kHfsExtentsInRecord;
}

std::string hfsRecipeName(testing::TestParamInfo<HfsRecipe> const& instance) {
    return instance.param.name;
}

/// Volumes of the builder: that the tools read them alike proves that they are what they should be.
class BuiltHfsVolume : public testing::TestWithParam<HfsRecipe> {
protected:
    TempDirectory directory{TempDirectory::Place::Memory};
    HfsBuilder builder = HfsBuilder(GetParam().geometry).useBlocksAtRandom(51);
    std::string volume = writeHfsVolume(directory.file("volume.img"), builder);
};

TEST_P(BuiltHfsVolume, IsMappedByTheParserAsItWasBuilt) {
    EXPECT_EQ(differences(parserMap(volume), builder.map()), "");
}

TEST_P(BuiltHfsVolume, IsWhatFsstatSays) {
    if (auto const reason = missingProgram({"fsstat"})) {
        GTEST_SKIP() << *reason;
    }
    HfsAnswers const answers = askFsstat(volume);
    EXPECT_EQ(answers.type, GetParam().geometry.isHfsx ? "HFSX" : "HFS+");
    EXPECT_EQ(answers.blockSize, GetParam().geometry.blockSize);
    EXPECT_EQ(answers.blocks, GetParam().geometry.totalBlocks);
    EXPECT_EQ(answers.freeBlocks, countFree(parserMap(volume)));
}

TEST_P(BuiltHfsVolume, IsAcceptedByFshfsinfo) {
    if (auto const reason = missingProgram({"fshfsinfo"})) {
        GTEST_SKIP() << *reason;
    }
    CommandResult const result = runCommand({"fshfsinfo", volume});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_THAT(result.output, testing::HasSubstr(": test\n")) << "the name, which stands in the catalog";
}

TEST_P(BuiltHfsVolume, IsMappedAsBlklsSays) {
    if (auto const reason = missingProgram({"blkls"})) {
        GTEST_SKIP() << *reason;
    }
    EXPECT_EQ(differences(parserMap(volume), hfsMapFromBlkls(volume, GetParam().geometry.totalBlocks)), "");
}

TEST_P(BuiltHfsVolume, IsMappedByTheLibraryAsByTheParser) {
    LibraryMap const map = readMap(volume);
    EXPECT_EQ(differences(map.used, parserMap(volume)), "");
    EXPECT_THAT(map.totals.warnings, testing::IsEmpty());
    EXPECT_EQ(map.geometry.unitSize, GetParam().geometry.blockSize);
    EXPECT_EQ(map.geometry.units, GetParam().geometry.totalBlocks);
    EXPECT_EQ(map.totals.free, countFree(map.used));
    EXPECT_EQ(map.totals.used + map.totals.free, GetParam().geometry.totalBlocks);
    EXPECT_EQ(map.bytesPastLastUnit, 0U);
}

TEST_P(BuiltHfsVolume, IsListedByTheCommandAsItWasBuilt) {
    CommandResult const result = runFsparser({"ranges", "--json", volume});
    ASSERT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(differences(mapFromRanges(nlohmann::json::parse(result.output)), builder.map()), "");
}

TEST_P(BuiltHfsVolume, GivesTheBitmapThatWasBuilt) {
    std::string const output = directory.file("used.bin");
    CommandResult const result = runFsparser({"bitmap", "-o", output, volume});
    ASSERT_EQ(result.exitCode, 0) << result;
    EXPECT_TRUE(contentOfFile(output) == bitmapOf(builder.map())) << "least significant bit first, padding clear";
}

INSTANTIATE_TEST_SUITE_P(Built, BuiltHfsVolume, testing::ValuesIn(builtVolumes()), hfsRecipeName);

/// The same volumes again without those that partclone refuses since it knows no overflow extents.
class BuiltHfsVolumeAndPartclone : public BuiltHfsVolume {};

TEST_P(BuiltHfsVolumeAndPartclone, Agree) {
    if (auto const reason = missingProgram({"partclone.hfsplus"})) {
        GTEST_SKIP() << *reason;
    }
    BlockMap const answer = hfsMapFromPartclone(volume, directory.file("domain"), GetParam().geometry.blockSize);
    EXPECT_EQ(differences(parserMap(volume), answer), "");
}

std::vector<HfsRecipe> volumesWithoutTree() {
    std::vector<HfsRecipe> chosen;
    std::copy_if(builtVolumes().begin(), builtVolumes().end(), std::back_inserter(chosen),
                 [](HfsRecipe const& recipe) { return !needsTree(recipe.geometry); });
    return chosen;
}

INSTANTIATE_TEST_SUITE_P(Built, BuiltHfsVolumeAndPartclone, testing::ValuesIn(volumesWithoutTree()), hfsRecipeName);

class WrappedHfsVolume : public testing::Test {
protected:
    TempDirectory directory{TempDirectory::Place::Memory};
    HfsBuilder builder = HfsBuilder(makeGeometry(512, 5000)).useBlocksAtRandom(52);
    std::string volume = writeFile(directory.file("volume.img"), wrapHfsVolume(builder.image()));
};

TEST_F(WrappedHfsVolume, IsMappedInBlocksOfTheInnerVolume) {
    LibraryMap const map = readMap(volume);
    EXPECT_EQ(differences(map.used, builder.map()), "");
    EXPECT_EQ(map.geometry.start, HfsWrapper().volumeOffset());
    EXPECT_EQ(map.geometry.unitSize, 512U);
}

TEST_F(WrappedHfsVolume, IsMappedAsBlklsSays) {
    if (auto const reason = missingProgram({"blkls", "fsstat"})) {
        GTEST_SKIP() << *reason;
    }
    EXPECT_EQ(askFsstat(volume).blocks, 5000U);
    EXPECT_EQ(differences(readMap(volume).used, hfsMapFromBlkls(volume, 5000)), "");
}

TEST_F(WrappedHfsVolume, LiesWhereHpfsckSays) {
    if (auto const reason = missingProgram({"hpfsck"})) {
        GTEST_SKIP() << *reason;
    }
    // The tool reads both headers and the tree, then stumbles over any catalog on this kind of processor.
    CommandResult const result = runCommand({"hpfsck", "-v", volume});
    EXPECT_THAT(result.output, testing::HasSubstr("Volume is wrapped in HFS volume"));
    EXPECT_THAT(result.output, testing::HasSubstr("total_blocks    : 5000\n"));
    EXPECT_THAT(result.output, testing::HasSubstr("*** Checking Extents Btree:\n\t\t\t\t\t\tDone ***"));
}

/// Cuts the one HFS+ partition out of a disk with an Apple partition map of 512-byte blocks.
std::string cutHfsPartition(std::string const& disk, std::string const& path) {
    std::vector<std::uint8_t> const bytes = readFile(disk);
    for (std::size_t block = 1; block < 64 && getBig(bytes, block * 512, 2) == 0x504D; ++block) {
        std::string const type(bytes.begin() + static_cast<std::ptrdiff_t>(block * 512 + 48),
                               bytes.begin() + static_cast<std::ptrdiff_t>(block * 512 + 57));
        if (type == "Apple_HFS") {
            auto const start = bytes.begin() + static_cast<std::ptrdiff_t>(getBig(bytes, block * 512 + 8, 4) * 512);
            return writeFile(path,
                             {start, start + static_cast<std::ptrdiff_t>(getBig(bytes, block * 512 + 12, 4) * 512)});
        }
    }
    throw std::runtime_error("no such partition in " + disk);
}

TEST(HfsVolumeOfXorriso, IsMappedAsTheToolsSay) {
    if (auto const reason = missingProgram({"xorriso", "fsstat", "blkls", "partclone.hfsplus"})) {
        GTEST_SKIP() << *reason;
    }
    TempDirectory const directory(TempDirectory::Place::Memory);
    std::filesystem::create_directory(directory.file("tree"));
    for (unsigned file = 0; file < 40; ++file) {
        writeFile(directory.file("tree/" + std::to_string(file)), std::vector<std::uint8_t>(1000 * file, 0x5A));
    }
    CommandResult const made = runCommand(
        {"xorriso", "-as", "mkisofs", "-quiet", "-hfsplus", "-o", directory.file("disk.img"), directory.file("tree")});
    ASSERT_TRUE(made.succeeded()) << made;
    std::string const volume = cutHfsPartition(directory.file("disk.img"), directory.file("volume.img"));
    HfsAnswers const answers = askFsstat(volume);
    BlockMap const map = parserMap(volume);
    EXPECT_EQ(map.size(), answers.blocks);
    EXPECT_EQ(differences(map, hfsMapFromBlkls(volume, answers.blocks)), "");
    EXPECT_EQ(differences(map, hfsMapFromPartclone(volume, directory.file("domain"), answers.blockSize)), "");
    EXPECT_EQ(countFree(map), 0U) << "this tool leaves nothing free";
    EXPECT_EQ(differences(readMap(volume).used, map), "");
}

struct MkfsCase {
    std::string name;
    std::vector<std::string> options;
};

void PrintTo(MkfsCase const& mkfs, std::ostream* out) {
    *out << mkfs.name;
}

class HfsVolumeOfMkfs : public testing::TestWithParam<MkfsCase> {};

TEST_P(HfsVolumeOfMkfs, IsMappedAsTheToolsSay) {
    if (auto const reason = missingProgram({"mkfs.hfsplus", "fsstat", "blkls", "partclone.hfsplus"})) {
        GTEST_SKIP() << *reason;
    }
    TempDirectory const directory(TempDirectory::Place::Memory);
    std::string const volume = directory.file("volume.img");
    std::ofstream(volume).put('\0');
    std::filesystem::resize_file(volume, std::uint64_t{64} << 20);
    std::vector<std::string> words{"mkfs.hfsplus"};
    words.insert(words.end(), GetParam().options.begin(), GetParam().options.end());
    words.push_back(volume);
    CommandResult const made = runCommand(words);
    ASSERT_TRUE(made.succeeded()) << made;
    HfsAnswers const answers = askFsstat(volume);
    BlockMap const map = parserMap(volume);
    EXPECT_EQ(countFree(map), answers.freeBlocks);
    EXPECT_EQ(differences(map, hfsMapFromBlkls(volume, answers.blocks)), "");
    EXPECT_EQ(differences(map, hfsMapFromPartclone(volume, directory.file("domain"), answers.blockSize)), "");
    EXPECT_EQ(differences(readMap(volume).used, map), "");
}

INSTANTIATE_TEST_SUITE_P(Options, HfsVolumeOfMkfs,
                         testing::Values(MkfsCase{"Plain", {}}, MkfsCase{"CaseSensitive", {"-s"}},
                                         MkfsCase{"Journal", {"-J", "1M"}}, MkfsCase{"Blocks512", {"-b", "512"}},
                                         MkfsCase{"Blocks64K", {"-b", "65536"}}),
                         [](auto const& instance) { return instance.param.name; });

} // namespace

} // namespace tests
