// The command on HFS+ volumes: each verb on sound ones of every shape, and the volumes whose map has an end too early.
#include "command/Fsparser.h"
#include "support/HfsBuilder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <filesystem>

namespace {

using namespace tests;
using testing::ElementsAre;
using testing::HasSubstr;

enum class Shape { Plain, Hfsx, Wrapped, Pieces, TwoLevels, ThreeLevels };

std::string shapeName(testing::TestParamInfo<Shape> const& instance) {
    return std::array{"Plain", "Hfsx", "Wrapped", "Pieces", "TwoLevels", "ThreeLevels"}.at(
        static_cast<std::size_t>(instance.param));
}

HfsGeometry fragmented(std::uint32_t fragments) {
    HfsGeometry geometry;
    geometry.totalBlocks = fragments * 4096 - 3;
    geometry.allocationFile = hfsFragments(fragments, 1, 100);
    geometry.recordsPerNode = 2;
    return geometry;
}

HfsBuilder makeVolume(Shape shape) {
    HfsGeometry geometry;
    switch (shape) {
    case Shape::Plain:
    case Shape::Wrapped:
        break;
    case Shape::Hfsx:
        geometry.isHfsx = true;
        break;
    case Shape::Pieces:
        geometry = fragmented(7);
        break;
    case Shape::TwoLevels:
        geometry = fragmented(30);
        break;
    case Shape::ThreeLevels:
        geometry = fragmented(60);
        break;
    }
    return HfsBuilder(geometry).useBlocksAtRandom(61);
}

/// Runs a verb that must end well and say nothing beside its data.
std::string dataOf(std::vector<std::string> const& arguments) {
    CommandResult const result = fsparser(arguments);
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.error, "");
    return result.output;
}

class CommandHfs : public testing::TestWithParam<Shape> {
protected:
    bool isWrapped() const { return GetParam() == Shape::Wrapped; }
    std::uint64_t firstUnitOffset() const { return isWrapped() ? HfsWrapper().volumeOffset() : 0; }
    std::uint64_t used() const {
        auto const map = builder.map();
        return static_cast<std::uint64_t>(std::count(map.begin(), map.end(), true));
    }

    TempDirectory directory{TempDirectory::Place::Memory};
    HfsBuilder builder = makeVolume(GetParam());
    std::string path = isWrapped() ? writeFile(directory.file("volume"), wrapHfsVolume(builder.image()))
                                   : writeHfsVolume(directory.file("volume"), builder);
};

TEST_P(CommandHfs, IsDetected) {
    EXPECT_EQ(dataOf({"detect", path}), "hfs+\n");
}

TEST_P(CommandHfs, InfoCountsAllocationBlocks) {
    Json const document = Json::parse(dataOf({"info", "--json", path}));
    EXPECT_EQ(document.at("file_system"), "hfs+");
    EXPECT_EQ(document.at("unit_size"), 512);
    EXPECT_EQ(document.at("units"), builder.geometry().totalBlocks);
    EXPECT_EQ(document.at("size"), std::filesystem::file_size(path));
    EXPECT_EQ(document.at("first_unit_offset"), firstUnitOffset());
    EXPECT_EQ(document.at("used"), used());
    EXPECT_EQ(document.at("free"), builder.geometry().totalBlocks - used());
    EXPECT_EQ(document.at("free"), builder.header32(hfs_header::kFreeBlocks)) << "the volume's own counter";
    EXPECT_EQ(document.at("past_last_unit"),
              std::filesystem::file_size(path) - firstUnitOffset() - builder.geometry().bytes());
}

TEST_P(CommandHfs, BitmapHasTheLowestBlockInTheLowestBit) {
    std::string const output = directory.file("used.bin");
    EXPECT_EQ(dataOf({"bitmap", "-o", output, path}), "");
    auto const bytes = readFile(output);
    auto const map = builder.map();
    ASSERT_EQ(bytes.size(), (map.size() + 7) / 8);
    for (std::size_t block = 0; block < bytes.size() * 8; ++block) {
        ASSERT_EQ((bytes[block / 8] >> (block % 8)) & 1, block < map.size() && map[block]) << block;
    }
}

TEST_P(CommandHfs, RangesAreThoseOfTheInnerVolumesBlocks) {
    std::vector<bool> listed(builder.geometry().totalBlocks);
    Json const document = Json::parse(dataOf({"ranges", "--json", path}));
    for (auto const& range : document.at("ranges")) {
        for (std::uint64_t i = 0; i < range.at("count"); ++i) {
            listed.at(range.at("first").get<std::uint64_t>() + i) = true;
        }
    }
    EXPECT_EQ(listed, builder.map());
}

TEST_P(CommandHfs, MapDrawsBlocks) {
    std::string const picture = dataOf({"map", "--color=never", path});
    EXPECT_THAT(picture, HasSubstr("hfs+"));
    EXPECT_THAT(picture, HasSubstr("#"));
}

INSTANTIATE_TEST_SUITE_P(Shapes, CommandHfs,
                         testing::Values(Shape::Plain, Shape::Hfsx, Shape::Wrapped, Shape::Pieces, Shape::TwoLevels,
                                         Shape::ThreeLevels),
                         shapeName);

/// A volume of which everything counts as used, with the sentence that says why.
void expectAllUsed(HfsBuilder const& builder, std::string const& sentence) {
    TempDirectory const directory(TempDirectory::Place::Memory);
    std::string const path = writeHfsVolume(directory.file("volume"), builder);
    std::string const warning = "fsparser: warning: " + path + ": " + sentence + "\n";
    std::uint32_t const blocks = builder.geometry().totalBlocks;
    CommandResult const ranges = fsparser({"ranges", path});
    EXPECT_EQ(ranges.exitCode, 4) << ranges;
    EXPECT_EQ(ranges.output, "0 " + std::to_string(blocks) + "\n");
    EXPECT_EQ(ranges.error, warning);
    CommandResult const info = fsparser({"info", "--json", path});
    EXPECT_EQ(info.exitCode, 4) << info;
    EXPECT_EQ(info.error, warning);
    EXPECT_EQ(Json::parse(info.output).at("free"), 0);
    EXPECT_THAT(Json::parse(info.output).at("warnings").get<std::vector<std::string>>(),
                ElementsAre(path + ": " + sentence));
    CommandResult const bitmap = fsparser({"bitmap", "-o", directory.file("used.bin"), path});
    EXPECT_EQ(bitmap.exitCode, 4) << bitmap;
    EXPECT_EQ(bitmap.error, warning);
    auto const bytes = readFile(directory.file("used.bin"));
    ASSERT_EQ(bytes.size(), (blocks + 7) / 8);
    for (std::size_t block = 0; block < bytes.size() * 8; ++block) {
        ASSERT_EQ((bytes[block / 8] >> (block % 8)) & 1, block < blocks) << block;
    }
    EXPECT_EQ(fsparser({"detect", path}).exitCode, 0);
}

TEST(CommandHfsLimit, ExactlyEightExtentsEndTheMapAtOnce) {
    HfsBuilder const builder(fragmented(8));
    expectAllUsed(builder, "the map ends at unit 0 of 32765; the rest counts as used");
}

TEST(CommandHfsLimit, ExactlySixteenExtentsDoTheSame) {
    HfsGeometry geometry = fragmented(16);
    geometry.recordsPerNode = 1;
    geometry.otherRecords = {{17, 8, {{50, 1}}}}; // for a second leaf
    expectAllUsed(HfsBuilder(geometry), "the map ends at unit 0 of 65533; the rest counts as used");
}

TEST(CommandHfsLimit, TreeOfOneLeafIsNotRead) {
    expectAllUsed(HfsBuilder(fragmented(9)), "the extents-overflow tree is a single leaf, which the parser does not "
                                             "read; every unit counts as used");
}

TEST(CommandHfsDamage, MapOutsideTheVolumeIsNotBelieved) {
    HfsBuilder builder;
    builder.setForkExtents(hfs_header::kAllocationFile, {{5000, 1}});
    expectAllUsed(builder, "the allocation file has an extent of 1 blocks at block 5000, where none can be (the volume "
                           "has 4096 blocks); every unit counts as used");
}

/// A volume that no verb but detect makes sense of.
void expectRefused(HfsBuilder const& builder, std::string const& reason) {
    TempDirectory const directory(TempDirectory::Place::Memory);
    std::string const path = writeHfsVolume(directory.file("volume"), builder);
    for (std::string const verb : {"info", "ranges", "map"}) {
        CommandResult const result = fsparser({verb, path});
        EXPECT_EQ(result.exitCode, 3) << verb << ": " << result;
        EXPECT_EQ(result.output, "");
        EXPECT_EQ(result.error, "fsparser: " + path + ": the HFS+ volume header describes no volume: " + reason + "\n");
    }
}

TEST(CommandHfsDamage, BlockSizeThatIsNoneIsRefused) {
    for (std::uint32_t const size : {0U, 256U, 511U, 1536U, 0xFFFFFFFFU}) {
        expectRefused(HfsBuilder().setHeader32(hfs_header::kBlockSize, size),
                      "blockSize is " + std::to_string(size) + ", which must be a power of two from 512 on");
    }
}

TEST(CommandHfsDamage, VolumeOfNoBlocksIsRefused) {
    expectRefused(HfsBuilder().setHeader32(hfs_header::kTotalBlocks, 0), "totalBlocks is 0");
}

TEST(CommandHfsDamage, WrapperThatNamesMoreThanThereIsIsRefused) {
    TempDirectory const directory(TempDirectory::Place::Memory);
    std::string const path = writeFile(directory.file("volume"), wrapHfsVolume(HfsBuilder().image()));
    std::filesystem::resize_file(path, 900000);
    CommandResult const result = fsparser({"info", path});
    EXPECT_EQ(result.exitCode, 3) << result;
    EXPECT_EQ(result.error, "fsparser: " + path +
                                ": the HFS wrapper names a volume of 2097152 bytes at byte 10240, and there are only "
                                "900000\n");
}

} // namespace
