// The ext map in pieces against the volume's own bits.
#include "imaging/Error.h"
#include "imaging/ext/GroupWindow.h"
#include "support/ExtRun.h"
#include "support/Files.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

namespace {

using namespace tests;

imaging::ext::DescriptorTable tableOf(ExtGeometry const& geometry) {
    return {geometry.tableOffset(),
            geometry.groups(),
            geometry.descriptorBytes(),
            geometry.firstDataBlock,
            geometry.blocksCount,
            geometry.blocksPerGroup,
            true};
}

class ImagingExtWindow : public testing::Test {
protected:
    imaging::Volume& open(ExtBuilder const& builder) {
        writeFile(path, builder.bytes);
        return volume.emplace(path, 0, logger);
    }

    /// The whole map, asked for with buffers of these lengths in turn.
    std::vector<bool> inPieces(ExtBuilder const& builder, std::vector<std::uint64_t> const& lengths) {
        imaging::ext::GroupWindow const window(open(builder), tableOf(builder.geometry()));
        std::vector<bool> blocks;
        for (std::size_t i = 0; blocks.size() < builder.geometry().blocksCount; ++i) {
            std::vector<char> chunk(lengths[i % lengths.size()], '\xAA');
            long const count = window.getChunk(blocks.size(), chunk.data(), chunk.size());
            if (count <= 0) {
                ADD_FAILURE() << "code " << count << " at block " << blocks.size();
                break;
            }
            for (long bit = 0; bit < count; ++bit) {
                blocks.push_back(
                    (static_cast<unsigned char>(chunk[static_cast<std::size_t>(bit / 8)]) >> (bit % 8) & 1) != 0);
            }
        }
        EXPECT_EQ(window.getChunk(builder.geometry().blocksCount, nullptr, 1), 0) << "nothing is behind the last block";
        return blocks;
    }

    TempDirectory directory;
    std::string path = directory.file("volume");
    RecordingLogger logger;
    std::optional<imaging::Volume> volume;
};

TEST_F(ImagingExtWindow, PiecesOfAnyLengthGiveTheVolumesBits) {
    std::mt19937 generator(2026);
    auto const pick = [&generator](std::uint32_t low, std::uint32_t high) {
        return low + static_cast<std::uint32_t>(generator() % (high - low + 1));
    };
    for (unsigned round = 0; round < 60; ++round) {
        ExtGeometry geometry;
        geometry.logBlockSize = pick(0, 2);
        geometry.firstDataBlock = geometry.logBlockSize == 0 ? 1 : 0;
        geometry.blocksPerGroup = 8 * pick(8, 128);
        geometry.blocksCount = pick(3000, 12000);
        geometry.is64Bit = round % 2 == 0;
        geometry.descriptorSize = geometry.is64Bit ? 64 : 0;
        ExtBuilder builder(geometry);
        builder.fillBitmapsAtRandom(round);
        builder.setFlags(pick(0, static_cast<std::uint32_t>(geometry.groups()) - 1), ext_group::kBlocksUninitialised);
        std::vector<bool> const expected = builder.map();
        ASSERT_TRUE(inPieces(builder, {1, 7, 40}) == expected) << "round " << round;
        ASSERT_TRUE(inPieces(builder, {600, 64}) == expected) << "round " << round;
        ASSERT_TRUE(inPieces(builder, {1'000'000}) == expected) << "round " << round;
    }
}

TEST_F(ImagingExtWindow, MoreGroupsThanAreAskedForTogetherAreAllThere) {
    ExtGeometry geometry;
    geometry.blocksPerGroup = 8;
    geometry.blocksCount = 8 * 9000 + 5;
    ExtBuilder builder(geometry);
    builder.fillBitmapsAtRandom(3);
    EXPECT_TRUE(inPieces(builder, {1'000'000}) == builder.map());
}

TEST_F(ImagingExtWindow, AVolumeWithoutGroupsHasNoUnitsAndNoDescriptorIsRead) {
    ExtBuilder builder(ExtGeometry{});
    builder.setSuper32(ext_super::kBlocksCountLow, 1).resize(2048); // the table would begin behind the end
    imaging::ext::GroupWindow const window(open(builder), {2048, 0, 32, 1, 1, 8192, true});
    char byte = 0;
    EXPECT_EQ(window.getChunk(0, &byte, 1), 0);
}

TEST_F(ImagingExtWindow, ABitmapThatCannotBeReadIsTheParsersFailure) {
    ExtBuilder builder(ExtGeometry{});
    builder.setBitmapLocation(1, 19'000'000);
    imaging::ext::GroupWindow const window(open(builder), tableOf(builder.geometry()));
    std::vector<char> chunk(4096);
    EXPECT_EQ(window.getChunk(0, chunk.data(), chunk.size()), -1);
    EXPECT_THAT(volume->logger().takeReason(""), testing::HasSubstr("Can't read bitmap"));
    EXPECT_EQ(window.getChunk(1 + 8192 * 2, chunk.data(), chunk.size()), 20000 - 1 - 8192 * 2)
        << "groups behind it can be read";
}

TEST_F(ImagingExtWindow, ATableThatCannotBeReadIsAnError) {
    ExtBuilder builder(ExtGeometry{});
    builder.resize(2048);
    imaging::ext::GroupWindow const window(open(builder), tableOf(builder.geometry()));
    std::vector<char> chunk(4096);
    EXPECT_THROW(window.getChunk(0, chunk.data(), chunk.size()), imaging::VolumeError);
}

} // namespace
