// XFS volumes with one field of the superblock changed: one exact result, entries and reads for each.
#include "support/XfsRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace tests;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t kWholeVolume = 170; // bytes of a chunk for 1300 blocks, and some

/// Three groups with trees of several levels and free lists.
XfsBuilder makeGood() {
    return XfsBuilder().fillAtRandom(5);
}

/// Changes one field and proves that the change took.
XfsBuilder with(std::uint64_t field, std::uint64_t value, unsigned width = 4, XfsBuilder builder = makeGood()) {
    EXPECT_NE(builder.get(field, width), value) << "the field already holds the value: nothing is damaged";
    builder.setSuper(field, value, width);
    EXPECT_EQ(builder.get(field, width), value);
    return builder;
}

/// Runs a request and expects what the slow reference gives, to the last call.
XfsOutcome runAsReference(XfsBuilder const& builder, std::uint64_t start, std::uint64_t length) {
    XfsRequest const request{512, start, length};
    XfsOutcome const outcome = runXfsChunk(builder.bytes, request);
    auto const expected = referenceXfsChunk(builder.bytes, request);
    EXPECT_TRUE(expected.has_value());
    EXPECT_EQ(outcome, expected.value_or(XfsOutcome{}));
    return outcome;
}

/// The entries but those of the trace.
std::vector<LogEntry> errorsOf(XfsOutcome const& outcome) {
    std::vector<LogEntry> errors;
    for (LogEntry const& entry : outcome.entries) {
        if (entry.level != agent::info::Level::Debug) {
            errors.push_back(entry);
        }
    }
    return errors;
}

void expectFailure(XfsOutcome const& outcome, char const* cause) {
    EXPECT_EQ(outcome.result, -1);
    EXPECT_THAT(errorsOf(outcome), ElementsAre(errorEntry(cause), xfsWrapperEntry()));
}

TEST(XfsDamage, UndamagedVolumeGivesItsMap) {
    XfsOutcome const outcome = runAsReference(makeGood(), 0, kWholeVolume);
    EXPECT_EQ(outcome.result, 1300);
    EXPECT_EQ(xfsBits(outcome.buffer, 1300), makeGood().map());
}

class XfsDamagedMagic : public testing::TestWithParam<std::uint32_t> {};

TEST_P(XfsDamagedMagic, IsRefusedByName) {
    XfsBuilder const builder = with(xfs_super::kMagic, GetParam());
    EXPECT_THAT([&] { XfsBench bench(builder); },
                testing::ThrowsMessage<std::runtime_error>(testing::StrEq("Not an XFS filesystem")));
}

INSTANTIATE_TEST_SUITE_P(Values, XfsDamagedMagic,
                         testing::Values(0U, 0x42534658U, 0x58465352U, 0x58465300U, 0xFFFFFFFFU));

TEST(XfsDamagedBlockSize, OfZeroFindsTheSuperblockWhereTheRootShouldBe) {
    // All groups lie upon each other; group 0's headers are found by the sector size alone.
    XfsOutcome const outcome = runAsReference(with(xfs_super::kBlockSize, 0), 0, kWholeVolume);
    expectFailure(outcome, "XFS: Invalid btree node magic number.");
    EXPECT_EQ(outcome.calls.at(4), seekCall(0));
}

TEST(XfsDamagedBlockSize, Of256LooksForTheRootInTheHeaders) {
    XfsOutcome const outcome = runAsReference(with(xfs_super::kBlockSize, 256), 0, kWholeVolume);
    expectFailure(outcome, "XFS: Invalid btree node magic number.");
}

TEST(XfsDamagedBlockSize, Of256WithTheTreeInItsPlaceLosesTheSecondGroup) {
    XfsBuilder builder = with(xfs_super::kBlockSize, 256);
    builder.setHeader32(0, xfs_header::kRoot, 2 * 20); // the same byte in blocks of half the size
    builder.makeNode(0, 20, 0, 30);
    builder.setNode32(0, 20, xfs_node::kRight, kXfsNoBlock);
    XfsOutcome const outcome = runAsReference(builder, 0, kWholeVolume);
    expectFailure(outcome, "Invalid fsi magic number.");
    EXPECT_EQ(runAsReference(builder, 0, 60).result, 480) << "30 records fit into 256 bytes";
}

TEST(XfsDamagedBlockSize, BelowANodesHeaderItsRoomWrapsAround) {
    // Records are limited by their 16-bit count alone; what lies past the volume reads as zeros, runs of nothing.
    XfsBuilder builder = with(xfs_super::kBlockSize, 8);
    builder.setHeader32(0, xfs_header::kRoot, 1299 * 512 / 8);
    builder.makeNode(2, 299, 0, 0xFFFF).setRecord(2, 299, 0, {100, 7});
    XfsOutcome const outcome = runAsReference(builder, 0, 60);
    EXPECT_EQ(outcome.result, 480);
    EXPECT_EQ(outcome.calls.back(), readCall(524800));
    EXPECT_THAT(outcome.entries, testing::Contains(debugEntry("0: 0 -> 0")).Times(65534));
}

TEST(XfsDamagedBlockSize, Of2To31PutsTheTreePastTheEndWhichReadsAsZeros) {
    for (std::uint32_t const size : {0x80000000U, 0xFFFFFFFFU, 0x40000000U}) {
        XfsOutcome const outcome = runAsReference(with(xfs_super::kBlockSize, size), 0, kWholeVolume);
        expectFailure(outcome, "XFS: Invalid btree node magic number.");
        EXPECT_EQ(outcome.calls.at(4), seekCall(static_cast<long>(std::uint64_t{size} * 4 / 512 * 512)));
    }
}

TEST(XfsDamagedBlockSize, AddressesOfLaterGroupsMayBeNegativeWhichFails) {
    // Group 4294967 of 500 blocks of 4 GiB less a byte lies past 2^63.
    XfsBuilder builder = with(xfs_super::kBlockSize, 0xFFFFFFFF);
    builder.setSuper(xfs_super::kTotalBlocks, std::uint64_t{1} << 62, 8).setSuper32(xfs_super::kGroups, 0xFFFFFFFF);
    XfsOutcome const outcome = runAsReference(builder, std::uint64_t{4300000} * 500, 1);
    expectFailure(outcome, "Can't read fsi block.");
    EXPECT_THAT(outcome.calls, testing::SizeIs(1));
    EXPECT_LT(outcome.calls.front().argument, 0);
}

TEST(XfsDamagedGroupBlocks, OfZeroFailsBeforeAnyRead) {
    XfsBuilder const builder = with(xfs_super::kGroupBlocks, 0);
    for (std::uint64_t const start : {0U, 8U, 1296U}) {
        XfsOutcome const outcome = runAsReference(builder, start, 10);
        EXPECT_EQ(outcome.result, -1);
        EXPECT_THAT(errorsOf(outcome), ElementsAre(xfsWrapperEntry())) << "without a message of its own";
        EXPECT_THAT(outcome.calls, IsEmpty());
        EXPECT_THAT(outcome.buffer, Each(0)) << "the buffer is cleared all the same";
    }
    EXPECT_EQ(runAsReference(builder, 1300, 10).result, 0);
}

TEST(XfsDamagedGroupBlocks, OfOneTakesTheSecondBlockForAGroup) {
    XfsBuilder const builder = with(xfs_super::kGroupBlocks, 1);
    XfsOutcome const outcome = runAsReference(builder, 0, 10);
    expectFailure(outcome, "Invalid fsi magic number.");
    EXPECT_THAT(outcome.entries, testing::Contains(debugEntry("Iterating over allocation group(s) 0 - 80")).Times(1));
    EXPECT_EQ(runAsReference(builder, 8, 10).result, 10 * 8) << "there is no group with the number 8: all is used";
}

TEST(XfsDamagedGroupBlocks, Of2To31CoversTheVolumeByTheFirstGroup) {
    for (std::uint32_t const blocks : {0x80000000U, 0xFFFFFFFFU}) {
        XfsOutcome const outcome = runAsReference(with(xfs_super::kGroupBlocks, blocks), 0, kWholeVolume);
        EXPECT_EQ(outcome.result, 1300);
        std::vector<bool> expected = makeGood().map();
        std::fill(expected.begin() + 500, expected.end(), true);
        EXPECT_EQ(xfsBits(outcome.buffer, 1300), expected) << "the other groups' free blocks are not found";
    }
}

TEST(XfsDamagedGroups, OfZeroHasNothingFree) {
    XfsOutcome const outcome = runAsReference(with(xfs_super::kGroups, 0), 0, 100);
    EXPECT_EQ(outcome.result, 800);
    EXPECT_THAT(outcome.buffer, Each(0xFF));
    EXPECT_THAT(outcome.calls, IsEmpty());
}

TEST(XfsDamagedGroups, OfAllOnesFailsAtTheFirstThatIsNotThere) {
    // The chunk asks for groups up to its own end; the fourth does not exist, which reads as zeros.
    XfsBuilder const builder = with(xfs_super::kGroups, 0xFFFFFFFF);
    expectFailure(runAsReference(builder, 0, 4096), "Invalid fsi magic number.");
    EXPECT_EQ(runAsReference(builder, 0, 163).result, 1300) << "no further than the chunk";
}

TEST(XfsDamagedGroups, OfOneKeepsTheRestUsed) {
    XfsOutcome const outcome = runAsReference(with(xfs_super::kGroups, 1), 0, kWholeVolume);
    std::vector<bool> expected = makeGood().map();
    std::fill(expected.begin() + 500, expected.end(), true);
    EXPECT_EQ(xfsBits(outcome.buffer, 1300), expected);
}

TEST(XfsDamagedTotalBlocks, OfZeroIsTheEndAtOnce) {
    XfsOutcome const outcome = runAsReference(with(xfs_super::kTotalBlocks, 0, 8), 0, 100);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_THAT(outcome.buffer, Each(0));
}

class XfsDamagedTotalBlocks : public testing::TestWithParam<std::uint64_t> {};

TEST_P(XfsDamagedTotalBlocks, IsTakenAtItsWordAndPastTheGroupsAllIsUsed) {
    XfsBuilder const builder = with(xfs_super::kTotalBlocks, GetParam(), 8);
    XfsOutcome const outcome = runAsReference(builder, 0, kWholeVolume);
    EXPECT_EQ(outcome.result, static_cast<long>(kWholeVolume * 8));
    XfsOutcome const far = runAsReference(builder, (GetParam() - 1) / 8 * 8, 100);
    EXPECT_EQ(far.result, static_cast<long>((GetParam() - 1) % 8 + 1));
    EXPECT_THAT(far.calls, IsEmpty());
    EXPECT_THAT(far.buffer, Each(0xFF));
}

INSTANTIATE_TEST_SUITE_P(Values, XfsDamagedTotalBlocks,
                         testing::Values(std::uint64_t{1} << 62, (std::uint64_t{1} << 63) - 1, std::uint64_t{1} << 63));

TEST(XfsDamagedTotalBlocks, OfAllOnesHasGroupNumbersThatWrap) {
    // The last byte's chunk ends past 64 bits, so that no group lies before its end.
    XfsBuilder const builder = with(xfs_super::kTotalBlocks, ~std::uint64_t{0}, 8);
    XfsOutcome const outcome = runAsReference(builder, ~std::uint64_t{0} / 8 * 8, 1);
    EXPECT_THAT(outcome.calls, IsEmpty());
    EXPECT_EQ(outcome.result, 8);
}

TEST(XfsDamagedTotalBlocks, OfOneBlockKeepsTheBytesBehindItClear) {
    XfsOutcome const outcome = runAsReference(with(xfs_super::kTotalBlocks, 1, 8), 0, 10);
    EXPECT_EQ(outcome.result, 1);
    EXPECT_EQ(outcome.buffer.front(), 0xFF);
    EXPECT_THAT(std::vector(outcome.buffer.begin() + 1, outcome.buffer.end()), Each(0));
}

TEST(XfsDamagedSectorSize, OfZeroLooksForHeadersInTheSuperblock) {
    XfsOutcome const outcome = runAsReference(with(xfs_super::kSectorSize, 0, 2), 0, kWholeVolume);
    expectFailure(outcome, "Invalid fsi magic number.");
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(0), readCall(512)));
}

TEST(XfsDamagedSectorSize, Of65535LooksForHeadersBetweenSectors) {
    XfsOutcome const outcome = runAsReference(with(xfs_super::kSectorSize, 65535, 2), 0, kWholeVolume);
    expectFailure(outcome, "Invalid fsi magic number.");
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(65024), readCall(1024)));
}

class XfsDamagedGroupBlocksLog : public testing::TestWithParam<std::uint8_t> {};

TEST_P(XfsDamagedGroupBlocksLog, DoesNotChangeTheMap) {
    XfsBuilder const builder = with(xfs_super::kGroupBlocksLog, GetParam(), 1);
    XfsOutcome const outcome = runAsReference(builder, 0, kWholeVolume);
    EXPECT_EQ(xfsBits(outcome.buffer, 1300), makeGood().map());
}

TEST_P(XfsDamagedGroupBlocksLog, SplitsTheJournalsStartModulo64) {
    XfsBuilder builder = with(xfs_super::kGroupBlocksLog, GetParam(), 1);
    builder.setSuper(xfs_super::kLogStart, 0x1234567, 8).setSuper32(xfs_super::kLogBlocks, 1);
    XfsBench const bench(builder);
    if (GetParam() == 0) {
        EXPECT_THROW(static_cast<void>(bench.parser.getXFSJournalBlocks()), std::runtime_error);
        return;
    }
    unsigned const bits = GetParam() % 64U;
    std::uint64_t const group = 0x1234567ULL >> bits;
    EXPECT_EQ(bench.parser.getXFSJournalBlocks(), (0x1234567 - (group << bits)) + group * 500);
}

INSTANTIATE_TEST_SUITE_P(Values, XfsDamagedGroupBlocksLog, testing::Values(0, 1, 8, 63, 64, 65, 127, 128, 255));

TEST(XfsDamagedVersion, OfChecksumsReadsTheListBehindAHeader) {
    XfsBuilder builder;
    builder.setFreeList(0, 0, {20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31});
    XfsOutcome const outcome = runAsReference(with(xfs_super::kVersion, 0xB4A5, 2, builder), 0, 60);
    EXPECT_EQ(outcome.result, 480);
    EXPECT_EQ(outcome.buffer.at(3), 0x1F) << "the entries from the tenth on, 29 to 31, and zeros behind them";
}

TEST(XfsDamagedVersion, WithoutChecksumsTakesTheHeaderForEntries) {
    XfsGeometry geometry;
    geometry.blockSize = 1024;
    geometry.hasChecksums = true;
    XfsBuilder builder(geometry);
    builder.setFreeList(0, 0, {20, 21});
    XfsOutcome const outcome = runAsReference(with(xfs_super::kVersion, 0xB4A4, 2, builder), 0, 60);
    EXPECT_EQ(outcome.result, 480) << "nodes tell their own headers' length";
    EXPECT_EQ(outcome.buffer.front(), 0xFE) << "a zero of the header is block 0";
}

TEST(XfsDamagedVersion, OfUnknownNumbersIsOneWithoutChecksums) {
    for (unsigned const version : {0x0000U, 0xB4A3U, 0xB4A6U, 0xFFFFU}) {
        XfsOutcome const outcome = runAsReference(with(xfs_super::kVersion, version, 2), 0, kWholeVolume);
        EXPECT_EQ(xfsBits(outcome.buffer, 1300), makeGood().map());
    }
}

TEST(XfsDamageAnywhereInTheSuperblock, GivesWhatTheReferenceGives) {
    // Every byte that is read, with every bit alone.
    unsigned maps = 0;
    for (std::uint64_t at = 4; at < 0x80; ++at) {
        for (unsigned bit = 0; bit < 8; ++bit) {
            XfsBuilder builder = makeGood();
            builder.put(at, builder.get(at, 1) ^ (1U << bit), 1);
            XfsRequest const request{512, 0, 80};
            auto const expected = referenceXfsChunk(builder.bytes, request);
            ASSERT_TRUE(expected.has_value());
            ASSERT_EQ(runXfsChunk(builder.bytes, request), *expected) << "bit " << bit << " of byte " << at;
            maps += expected->result > 0 ? 1U : 0U;
        }
    }
    EXPECT_GT(maps, 500U) << "most fields do not matter";
}

} // namespace
