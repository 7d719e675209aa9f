// The memory that a walk over the map of a very large volume takes, for each parser and several lengths of chunks.
#include "agent/core/backup/VolumeReader.h"
#include "agent/core/fs/EXTParser.h"
#include "agent/core/fs/FATParser.h"
#include "agent/core/fs/HFSParser.h"
#include "agent/core/fs/NTFSParser.h"
#include "agent/core/fs/XFSParser.h"
#include "support/Command.h"
#include "support/ExtBuilder.h"
#include "support/FatBuilder.h"
#include "support/HfsBuilder.h"
#include "support/RecordingLogger.h"
#include "support/ResidentMemory.h"
#include "support/Sanitized.h"
#include "support/TempDirectory.h"
#include "support/XfsBuilder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <vector>

namespace {

using namespace tests;

constexpr std::uint64_t kMiB = std::uint64_t{1} << 20;
constexpr long kMostMiB = 64;

/// Takes no entries, and so no memory.
class SilentLogger : public agent::info::Logger {
public:
    bool isEnabled(agent::info::Level) const override { return false; }
    void write(agent::info::Level, std::string const&) override {}
};

class WalkMemory : public testing::TestWithParam<std::uint64_t> {
protected:
    void SetUp() override {
        if (kIsSanitized) {
            GTEST_SKIP() << "the sanitizer keeps memory that was given back";
        }
    }

    /// Asks for some chunks one after the other, from unit 0 on, and expects at most chunk * 4 + 64 MiB beyond the
    /// chunk.
    void expectLittle(agent::core::fs::IBlockBitmapChunkProvider const& parser, int chunks) const {
        std::vector<char> chunk(GetParam());
        ResidentPeak const peak;
        if (!peak.works) {
            GTEST_SKIP() << "the system does not tell how much memory a process had";
        }
        std::uint64_t unit = 0;
        for (int i = 0; i < chunks; ++i) {
            long const count = parser.getChunk(unit, chunk.data(), chunk.size());
            ASSERT_GT(count, 0) << "at unit " << unit;
            unit += static_cast<std::uint64_t>(count);
        }
        EXPECT_LE(peak.growthMiB(), static_cast<long>(GetParam() * 4 / kMiB) + kMostMiB);
    }

    SilentLogger logger;
};

TEST_P(WalkMemory, OfExtOf16TiBIsSmall) {
    SyntheticReader const volume = makeSyntheticExtVolume(
        ExtGeometry::with4KiBBlocks(0xFFFFFFFF), [](std::uint64_t) { return std::uint8_t{0x55}; },
        [](std::uint64_t) { return std::uint8_t{0}; });
    expectLittle(agent::core::fs::EXTParser(logger, 4096, volume), 3);
}

TEST_P(WalkMemory, OfXfsOf23TiBIsSmall) {
    XfsGeometry geometry;
    geometry.blockSize = 4096;
    geometry.groupBlocks = 268435455;
    geometry.totalBlocks = std::uint64_t{23} * 268435455;
    SyntheticReader const volume = makeSyntheticXfsVolume(
        geometry,
        [](std::uint32_t group) {
            return std::vector<XfsRun>{{100 + group, 200'000'000}};
        },
        [](std::uint32_t group) { return 50 + group; });
    expectLittle(agent::core::fs::XFSParser(logger, 4096, volume), 3);
}

TEST_P(WalkMemory, OfHfsPlusOf16TiBIsSmall) {
    constexpr std::uint32_t kBlocks = 0xFFFFFFF0;
    HfsGeometry geometry;
    geometry.blockSize = 4096;
    geometry.totalBlocks = 4096;
    HfsBuilder builder(geometry);
    builder.setHeader32(hfs_header::kTotalBlocks, kBlocks);
    builder.setForkExtents(hfs_header::kAllocationFile, {{100, kBlocks / 8 / 4096 + 1}});
    std::uint64_t const fork = kHfsHeaderOffset + hfs_header::kAllocationFile;
    builder.put(fork + hfs_fork::kLogicalSize, kBlocks / 8 + 1, 8);
    builder.put(fork + hfs_fork::kTotalBlocks, kBlocks / 8 / 4096 + 1, 4);
    // The parser wants the header where a volume's first bytes are.
    std::vector<std::uint8_t> const header(builder.bytes.begin() + kHfsHeaderOffset,
                                           builder.bytes.begin() + kHfsHeaderOffset + kHfsHeaderBytes);
    SyntheticReader const volume(std::uint64_t{kBlocks} * 4096,
                                 [&header](std::uint64_t offset, std::uint8_t* to, std::uint64_t length) {
                                     for (std::uint64_t at = offset; at < header.size() && at - offset < length; ++at) {
                                         to[at - offset] = header[at];
                                     }
                                 });
    expectLittle(agent::core::fs::HFSParser(logger, 512, volume), 3);
}

TEST_P(WalkMemory, OfNtfsOf4TiBIsSmall) {
    TempDirectory const directory{TempDirectory::Place::Memory};
    std::string const path = directory.file("volume");
    std::ofstream(path).flush();
    std::error_code problem;
    std::filesystem::resize_file(path, std::uint64_t{4} << 40, problem);
    if (problem || !findProgram("mkntfs") ||
        !runCommand({"mkntfs", "-F", "-Q", "-q", "-c", "4096", "-p", "0", "-H", "0", "-S", "0", path}).succeeded()) {
        GTEST_SKIP() << "no NTFS volume of 4 TiB can be made here";
    }
    agent::core::backup::VolumeReader volume(logger, path);
    ASSERT_TRUE(volume.open());
    expectLittle(agent::core::fs::NTFSParser(logger, 4096, volume), 3);
}

INSTANTIATE_TEST_SUITE_P(Chunks, WalkMemory, testing::Values(kMiB / 16, kMiB, 16 * kMiB),
                         [](auto const& instance) { return std::to_string(instance.param / 1024) + "KiB"; });

TEST(WalkMemoryOfFat, IsThatOfTheWholeTableTwiceAsDocumented) {
    if (kIsSanitized) {
        GTEST_SKIP() << "the sanitizer keeps memory that was given back";
    }
    // As many entries as the parser numbers with sectors of 512 bytes.
    FatGeometry const geometry{512, 1, 32, 2, 65535, 131102 + 8388478, 0};
    SyntheticReader const volume =
        makeSyntheticFatVolume(geometry, [](std::uint64_t cluster) { return static_cast<std::uint32_t>(cluster % 2); });
    SilentLogger logger;
    agent::core::fs::FATParser const parser(logger, 512, volume);
    std::vector<char> chunk(geometry.mapBytes());
    ResidentPeak const peak;
    if (!peak.works) {
        GTEST_SKIP() << "the system does not tell how much memory a process had";
    }
    EXPECT_EQ(parser.getChunk(0, chunk.data(), chunk.size()), static_cast<long>(geometry.units()));
    EXPECT_LE(peak.growthMiB(), 66 + 2);
}

} // namespace
