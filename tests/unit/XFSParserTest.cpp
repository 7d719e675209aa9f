// The XFS parser's construction: recognition, the fields and their entries, version words, the journal's place.
#include "support/XfsRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

namespace {

using namespace tests;
using agent::core::fs::XFSParser;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StrEq;
using testing::ThrowsMessage;

TEST(XFSParserRecognition, NullBufferIsNotXfs) {
    EXPECT_FALSE(XFSParser::isXFSFileSystem(nullptr));
}

TEST(XFSParserRecognition, FourBytesDecide) {
    std::vector<char> bytes{'X', 'F', 'S', 'B'}; // no fifth byte to look at
    EXPECT_TRUE(XFSParser::isXFSFileSystem(bytes.data()));
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        std::vector<char> other = bytes;
        other[i] = static_cast<char>(other[i] ^ 0x20);
        EXPECT_FALSE(XFSParser::isXFSFileSystem(other.data())) << "byte " << i;
    }
    std::vector<char> reversed{'B', 'S', 'F', 'X'};
    EXPECT_FALSE(XFSParser::isXFSFileSystem(reversed.data()));
}

TEST(XFSParserRecognition, AnythingMayFollowTheMagic) {
    std::vector<std::uint8_t> bytes(512, 0xFF);
    bytes[0] = 'X';
    bytes[1] = 'F';
    bytes[2] = 'S';
    bytes[3] = 'B';
    EXPECT_TRUE(XFSParser::isXFSFileSystem(bytes.data()));
    EXPECT_NO_THROW(XfsBench{bytes});
}

TEST(XFSParserConstruction, LogsItsFieldsInTheirOrder) {
    XfsGeometry geometry;
    geometry.blockSize = 4096;
    geometry.sectorSize = 4096;
    geometry.logStart = 33;
    geometry.logBlocks = 77;
    geometry.totalBlocks = 1234;
    XfsBench const bench{XfsBuilder(geometry)};
    EXPECT_THAT(bench.logger.entries,
                ElementsAre(debugEntry("magic 0x58465342"), debugEntry("block_size 4096"),
                            debugEntry("sector_size 4096"), debugEntry("ag_count 3"), debugEntry("ag_blocks 500"),
                            debugEntry("total_blocks 1234"), debugEntry("version 46244"), debugEntry("log_blocks 77"),
                            debugEntry("log_start 33"), debugEntry("log2(ag_blocks) 9")));
}

TEST(XFSParserConstruction, TakesEveryFieldBigEndianFromItsPlaceAlone) {
    std::vector<std::uint8_t> bytes(512);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<std::uint8_t>(i);
    }
    std::string const magic = "XFSB";
    std::copy(magic.begin(), magic.end(), bytes.begin());
    XfsBench const bench(bytes);
    EXPECT_THAT(bench.logger.entries,
                ElementsAre(debugEntry("magic 0x58465342"), debugEntry("block_size " + std::to_string(0x04050607)),
                            debugEntry("sector_size " + std::to_string(0x6667)),
                            debugEntry("ag_count " + std::to_string(0x58595A5B)),
                            debugEntry("ag_blocks " + std::to_string(0x54555657)),
                            debugEntry("total_blocks " + std::to_string(0x08090A0B0C0D0E0F)),
                            debugEntry("version " + std::to_string(0x6465)),
                            debugEntry("log_blocks " + std::to_string(0x60616263)),
                            debugEntry("log_start " + std::to_string(0x3031323334353637)),
                            debugEntry("log2(ag_blocks) " + std::to_string(0x7C))));
}

TEST(XFSParserConstruction, LargestFieldsAreUnsignedNumbers) {
    std::vector<std::uint8_t> bytes(512, 0xFF);
    std::string const magic = "XFSB";
    std::copy(magic.begin(), magic.end(), bytes.begin());
    XfsBench const bench(bytes);
    EXPECT_THAT(bench.logger.entries,
                ElementsAre(debugEntry("magic 0x58465342"), debugEntry("block_size 4294967295"),
                            debugEntry("sector_size 65535"), debugEntry("ag_count 4294967295"),
                            debugEntry("ag_blocks 4294967295"), debugEntry("total_blocks 18446744073709551615"),
                            debugEntry("version 65535"), debugEntry("log_blocks 4294967295"),
                            debugEntry("log_start 18446744073709551615"), debugEntry("log2(ag_blocks) 255")));
}

TEST(XFSParserConstruction, GeometryOfZerosIsAccepted) {
    std::vector<std::uint8_t> bytes(512);
    std::string const magic = "XFSB";
    std::copy(magic.begin(), magic.end(), bytes.begin());
    XfsBench bench(bytes);
    EXPECT_EQ(bench.logger.entries.back(), debugEntry("log2(ag_blocks) 0"));
    EXPECT_EQ(bench.chunk(0, 8).result, 0) << "a volume without blocks ends at once";
}

TEST(XFSParserConstruction, WithoutATraceNothingIsWritten) {
    XfsBench const bench(XfsBuilder(), 512, XfsTrace::Off);
    EXPECT_THAT(bench.logger.entries, IsEmpty());
    EXPECT_THAT(bench.reader.calls, ElementsAre(seekCall(0), readCall(512)));
}

class XFSParserConstructionReads : public testing::TestWithParam<std::pair<unsigned, long>> {};

TEST_P(XFSParserConstructionReads, AreOneOfTheFirstUnits) {
    auto const [alignment, length] = GetParam();
    XfsBench const bench(XfsBuilder(), alignment);
    EXPECT_THAT(bench.reader.calls, ElementsAre(seekCall(0), readCall(length)));
}

INSTANTIATE_TEST_SUITE_P(Alignments, XFSParserConstructionReads,
                         testing::Values(std::pair(1U, 512L), std::pair(512U, 512L), std::pair(1024U, 1024L),
                                         std::pair(4096U, 4096L)),
                         [](auto const& instance) { return "By" + std::to_string(instance.param.first); });

TEST(XFSParserConstructionFailure, OtherMagicIsRefused) {
    XfsBuilder builder;
    builder.setSuper32(xfs_super::kMagic, 0x58465343);
    EXPECT_THAT([&] { XfsBench bench(builder); }, ThrowsMessage<std::runtime_error>(StrEq("Not an XFS filesystem")));
}

TEST(XFSParserConstructionFailure, EmptyVolumeReadsAsZerosAndIsNotXfs) {
    EXPECT_THAT([] { XfsBench bench(std::vector<std::uint8_t>{}); },
                ThrowsMessage<std::runtime_error>(StrEq("Not an XFS filesystem")));
}

TEST(XFSParserConstructionFailure, UnreadableSuperblockIsNamed) {
    MemoryReader const volume = XfsBuilder().reader();
    FaultyReader const faulty(volume, Fault::ReadFails, 0);
    RecordingLogger logger;
    EXPECT_THAT([&] { XFSParser(logger, 512, faulty); },
                ThrowsMessage<std::runtime_error>(StrEq("Can't read XFS super block.")));
    EXPECT_THAT(logger.entries, ElementsAre(debugEntry("CHUNK READ FILE FAILED: OFFSET: 0 - 512 BYTES")));
}

TEST(XFSParserConstructionFailure, AlignmentOfZeroIsUnreadable) {
    EXPECT_THAT([] { XfsBench bench(XfsBuilder(), 0); },
                ThrowsMessage<std::runtime_error>(StrEq("Can't read XFS super block.")));
}

TEST(XFSParserConstructionFailure, AlignmentThatIsNoPowerOfTwoIsRefused) {
    EXPECT_THROW(XfsBench(XfsBuilder(), 768), std::invalid_argument);
}

TEST(XFSParserOrder, LeastSignificantBitComesFirst) {
    XfsBench const bench{XfsBuilder()};
    EXPECT_FALSE(bench.parser.isMostSignificantBitFirst());
}

TEST(XFSParserVersion, LowFourBitsOfFiveCarryChecksums) {
    XfsBench const bench{XfsBuilder()};
    EXPECT_TRUE(bench.parser.xfs_sb_version_hascrc(0xB4A5));
    EXPECT_FALSE(bench.parser.xfs_sb_version_hascrc(0xB4A4));
    EXPECT_TRUE(bench.parser.xfs_sb_version_hascrc(0x0015));
}

TEST(XFSParserVersion, NoOtherBitMatters) {
    XfsBench const bench{XfsBuilder()};
    for (unsigned version = 0; version <= 0xFFFF; ++version) {
        ASSERT_EQ(bench.parser.xfs_sb_version_hascrc(static_cast<unsigned short>(version)), version % 16 == 5)
            << version;
    }
}

/// A volume whose superblock has just these fields of the journal.
XfsBuilder withJournal(std::uint8_t groupBlocksLog, std::uint32_t groupBlocks, std::uint64_t start,
                       std::uint32_t blocks) {
    XfsBuilder builder;
    builder.setSuper(xfs_super::kGroupBlocksLog, groupBlocksLog, 1).setSuper32(xfs_super::kGroupBlocks, groupBlocks);
    return builder.setSuper(xfs_super::kLogStart, start, 8).setSuper32(xfs_super::kLogBlocks, blocks);
}

struct Journal {
    char const* name;
    std::uint8_t groupBlocksLog;
    std::uint32_t groupBlocks;
    std::uint64_t start;
    std::uint64_t linear;
};

class XFSParserJournal : public testing::TestWithParam<Journal> {};

TEST_P(XFSParserJournal, StartsAtTheBlockOfTheMap) {
    Journal const& journal = GetParam();
    XfsBench const bench(withJournal(journal.groupBlocksLog, journal.groupBlocks, journal.start, 1));
    EXPECT_EQ(bench.parser.getXFSJournalBlocks(), journal.linear);
}

constexpr std::uint64_t kHighBit = std::uint64_t{1} << 63;

INSTANTIATE_TEST_SUITE_P(
    Places, XFSParserJournal,
    testing::Values(Journal{"Group2Block3", 3, 5, 0x13, 13}, Journal{"BlockZero", 3, 5, 0, 0},
                    Journal{"LastBlockOfAGroup", 3, 5, 4, 4}, Journal{"FirstBlockOfTheNext", 3, 5, 8, 5},
                    Journal{"GroupsOfTwoBlocks", 1, 2, 7, 7},
                    Journal{"LargeGroup", 28, 268435455, (std::uint64_t{23} << 28) + 77, 23 * 268435455ULL + 77},
                    Journal{"Shift63", 63, 5, kHighBit + 9, 9 + 5}, Journal{"Shift64CountsAsZero", 64, 5, 7, 35},
                    Journal{"Shift255CountsAs63", 255, 5, kHighBit + 9, 14},
                    Journal{"Shift67CountsAs3", 67, 5, 0x13, 13},
                    Journal{"ProductWraps", 1, 0xFFFFFFFF, ~std::uint64_t{0}, 1 + 0x7FFFFFFFFFFFFFFFULL * 0xFFFFFFFF}),
    [](auto const& instance) { return std::string(instance.param.name); });

TEST(XFSParserJournalFailure, ExternalOrUnknownJournalThrows) {
    auto const text = StrEq("Unable to get XFS Journal Blocks due to corrupted superblock!");
    for (XfsBuilder const& builder :
         {withJournal(3, 5, 0x13, 0), withJournal(0, 5, 0x13, 10), withJournal(0, 5, 0, 0)}) {
        XfsBench bench(builder);
        bench.forget();
        EXPECT_THAT([&] { static_cast<void>(bench.parser.getXFSJournalBlocks()); },
                    ThrowsMessage<std::runtime_error>(text));
        EXPECT_THAT(bench.logger.entries, IsEmpty());
        EXPECT_THAT(bench.reader.calls, IsEmpty());
    }
}

TEST(XFSParserJournalFailure, GroupsOfNoBlocksAreNoFailure) {
    XfsBench const bench(withJournal(3, 0, 0x13, 1));
    EXPECT_EQ(bench.parser.getXFSJournalBlocks(), 3U);
}

} // namespace
