// The FAT map in pieces against the parser's one request.
#include "imaging/Error.h"
#include "imaging/fat/TableWindow.h"
#include "support/FatRun.h"
#include "support/Files.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace {

using namespace tests;

imaging::fat::TableLayout layoutOf(FatGeometry const& geometry) {
    return {geometry.bytesPerSector, geometry.sectorsPerCluster, geometry.fatOffset(),
            geometry.dataStart() / geometry.bytesPerSector, geometry.units()};
}

class ImagingFatWindow : public testing::Test {
protected:
    /// The whole map, asked for with buffers of these lengths in turn.
    std::vector<bool> inPieces(FatBuilder const& builder, std::vector<std::uint64_t> const& lengths) {
        writeFatVolume(path, builder);
        imaging::Volume volume(path, 0, logger);
        imaging::fat::TableWindow const window(volume, layoutOf(builder.geometry()));
        std::vector<bool> units;
        for (std::size_t i = 0; units.size() < builder.geometry().units(); ++i) {
            std::vector<std::uint8_t> chunk(lengths[i % lengths.size()], 0xAA);
            long const count = window.getChunk(units.size(), reinterpret_cast<char*>(chunk.data()), chunk.size());
            if (count <= 0) {
                ADD_FAILURE() << "code " << count << " at unit " << units.size();
                break;
            }
            std::vector<bool> const piece = fatUnits(chunk, count);
            units.insert(units.end(), piece.begin(), piece.end());
        }
        EXPECT_EQ(window.getChunk(builder.geometry().units(), nullptr, 1), 0);
        return units;
    }

    static std::vector<bool> atOnce(FatBuilder const& builder) {
        FatOutcome const outcome = wholeFatMap(builder);
        return fatUnits(outcome.buffer, outcome.result);
    }

    TempDirectory directory;
    std::string path = directory.file("volume");
    RecordingLogger logger;
};

TEST_F(ImagingFatWindow, PiecesOfAnyLengthGiveTheMapOfOneRequest) {
    std::mt19937 generator(2026);
    auto const pick = [&generator](std::uint32_t low, std::uint32_t high) {
        return low + static_cast<std::uint32_t>(generator() % (high - low + 1));
    };
    for (unsigned round = 0; round < 60; ++round) {
        auto const sectorBytes = static_cast<std::uint16_t>(512U << pick(0, 3));
        auto const perCluster = static_cast<std::uint8_t>(1U << pick(0, 7));
        auto const reserved = static_cast<std::uint16_t>(pick(perCluster, 300));
        std::uint32_t const clusters = pick(1, 3000);
        std::uint32_t const perFat = (clusters + 4) * 4 / sectorBytes + pick(1, 9);
        auto const tables = static_cast<std::uint8_t>(pick(1, 3));
        std::uint32_t const sectors = reserved + tables * perFat + clusters * perCluster + pick(0, perCluster - 1U);
        FatBuilder builder({sectorBytes, perCluster, reserved, tables, perFat, sectors, 0});
        builder.fillAtRandom(round).setEntry(2, fat_entry::kEndOfChain);
        std::vector<bool> const expected = atOnce(builder);
        ASSERT_EQ(expected.size(), builder.geometry().units());
        ASSERT_TRUE(inPieces(builder, {1, 7, 40}) == expected) << "round " << round;
        ASSERT_TRUE(inPieces(builder, {100'000}) == expected) << "round " << round;
    }
}

TEST_F(ImagingFatWindow, AMapOfMoreThanOneWindowIsWhole) {
    // 1,200,000 units, a window has 16,384.
    for (std::uint16_t const reserved : {std::uint16_t{32}, std::uint16_t{33}}) {
        FatBuilder builder({512, 2, reserved, 2, 9400, 2'400'000, 0});
        builder.fillAtRandom(9).setEntry(2, fat_entry::kEndOfChain);
        EXPECT_TRUE(inPieces(builder, {1'000'000}) == atOnce(builder)) << reserved;
    }
}

TEST_F(ImagingFatWindow, ATableThatCannotBeReadIsAnError) {
    FatBuilder builder;
    writeFile(path, builder.resize(32 * 512 + 2000).bytes);
    imaging::Volume volume(path, 0, logger);
    volume.reader().forbidTail();
    imaging::fat::TableWindow const window(volume, layoutOf(builder.geometry()));
    std::vector<char> chunk(1000);
    EXPECT_EQ(window.getChunk(0, chunk.data(), chunk.size()), 254) << "before the data area nothing is read";
    EXPECT_THROW(window.getChunk(254, chunk.data(), chunk.size()), imaging::VolumeError);
}

} // namespace
