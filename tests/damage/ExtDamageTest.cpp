// Ext volumes with one field of the superblock changed: one exact result, entries and reads for each.
#include "support/ExtRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace {

using namespace tests;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t kWholeVolume = 2600; // bytes of a chunk for 20000 blocks, and some

/// Three groups of 1 KiB blocks: the table in block 2, the bitmaps in blocks 3 to 5, the boot block all zero.
ExtBuilder makeGood() {
    return ExtBuilder().fillBitmapsAtRandom(11);
}

/// Changes one 32-bit field and proves that the change took.
ExtBuilder withSuper32(std::uint64_t field, std::uint32_t value, ExtBuilder builder = makeGood()) {
    EXPECT_NE(builder.super32(field), value) << "the field already holds the value: nothing is damaged";
    builder.setSuper32(field, value);
    EXPECT_EQ(builder.super32(field), value);
    return builder;
}

ExtBuilder withSuper16(std::uint64_t field, std::uint16_t value, ExtBuilder builder = makeGood()) {
    EXPECT_NE(builder.super16(field), value) << "the field already holds the value: nothing is damaged";
    builder.setSuper16(field, value);
    EXPECT_EQ(builder.super16(field), value);
    return builder;
}

/// Runs a request and expects what the slow reference gives, to the last call.
ExtOutcome runAsReference(ExtBuilder const& builder, std::uint64_t start, std::uint64_t length,
                          std::uint64_t alignment = 512) {
    ExtRequest const request{alignment, start, length};
    ExtOutcome const outcome = runExtChunk(builder.bytes, request);
    auto const expected = referenceExtChunk(builder.bytes, request, 600000);
    EXPECT_TRUE(expected.has_value());
    EXPECT_EQ(outcome, expected.value_or(ExtOutcome{}));
    return outcome;
}

void expectFailure(ExtOutcome const& outcome, char const* cause) {
    EXPECT_EQ(outcome.result, -1);
    EXPECT_THAT(outcome.entries, ElementsAre(errorEntry(cause), extWrapperEntry()));
}

TEST(ExtDamage, UndamagedVolumeGivesItsMap) {
    ExtBuilder const builder = makeGood();
    ExtOutcome const outcome = runAsReference(builder, 0, kWholeVolume);
    EXPECT_EQ(outcome.result, 20000);
    EXPECT_EQ(bitsOf(outcome.buffer, 20000), builder.map());
    EXPECT_THAT(outcome.entries, IsEmpty());
}

class ExtDamagedMagic : public testing::TestWithParam<std::uint16_t> {};

TEST_P(ExtDamagedMagic, IsRefusedByName) {
    ExtBuilder const builder = withSuper16(ext_super::kMagic, GetParam());
    EXPECT_THAT([&] { ExtBench bench(builder); },
                testing::ThrowsMessage<std::runtime_error>(testing::StrEq("Not an EXT filesystem.")));
}

INSTANTIATE_TEST_SUITE_P(Values, ExtDamagedMagic, testing::Values(0, 0x53EF, 0xEF52, 0xEE53, 0xFFFF));

TEST(ExtDamagedLogBlockSize, Of7PutsTheTablePastTheEndWhichReadsAsZeros) {
    ExtOutcome const outcome = runAsReference(withSuper32(ext_super::kLogBlockSize, 7), 0, kWholeVolume);
    EXPECT_EQ(outcome.result, 20000);
    EXPECT_THAT(outcome.buffer, Each(0));
    EXPECT_THAT(outcome.entries, IsEmpty());
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(262144), readCall(512), seekCall(0), readCall(1024), seekCall(0),
                                           readCall(1024), seekCall(0), readCall(1024)));
}

class ExtNegativeBlockSize : public testing::TestWithParam<std::uint32_t> {};

TEST_P(ExtNegativeBlockSize, AsksForANegativeOffsetWhichFails) {
    // 1024 << 21 is the lowest signed 32-bit number; the table would be at minus 4 GiB.
    ExtOutcome const outcome = runAsReference(withSuper32(ext_super::kLogBlockSize, GetParam()), 0, kWholeVolume);
    expectFailure(outcome, "Can't read bgd table");
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(-4294967296)));
    EXPECT_THAT(outcome.buffer, Each(0));
}

INSTANTIATE_TEST_SUITE_P(LogBlockSizes, ExtNegativeBlockSize, testing::Values(21U, 53U, 0xFFFFFFF5U));

class ExtVanishedBlockSize : public testing::TestWithParam<std::uint32_t> {};

TEST_P(ExtVanishedBlockSize, ReadsEverythingFromByteZero) {
    ExtOutcome const outcome = runAsReference(withSuper32(ext_super::kLogBlockSize, GetParam()), 0, kWholeVolume);
    EXPECT_EQ(outcome.result, 20000);
    EXPECT_THAT(outcome.buffer, Each(0));
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(0), readCall(512), seekCall(0), readCall(1024), seekCall(0),
                                           readCall(1024), seekCall(0), readCall(1024)));
}

INSTANTIATE_TEST_SUITE_P(LogBlockSizes, ExtVanishedBlockSize, testing::Values(22U, 31U, 0xFFFFFFF7U));

TEST(ExtDamagedLogBlockSize, Of32ShiftsAsZeroDoes) {
    ExtBuilder const builder = withSuper32(ext_super::kLogBlockSize, 32);
    ExtOutcome const outcome = runAsReference(builder, 0, kWholeVolume);
    EXPECT_EQ(bitsOf(outcome.buffer, outcome.result), makeGood().map());
}

TEST(ExtDamagedBlocksCount, OfZeroEndsAtOnceAfterEveryGroupOfAWrappedSpan) {
    // Without a bit in the bitmaps: they lie where the table of so many groups goes on.
    ExtBuilder const builder = withSuper32(ext_super::kBlocksCountLow, 0, ExtBuilder());
    ExtOutcome const outcome = runAsReference(builder, 0, 100);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_THAT(outcome.entries, IsEmpty());
    // 2^32 - 1 blocks are 524288 groups: a table in four pieces, and a bitmap of each.
    EXPECT_EQ(outcome.calls.size(), 5U + 524288U * 2);
    expectFailure(runAsReference(builder, 1, 100), "Invalid start block");
}

TEST(ExtDamagedBlocksCount, OfOneHasNoGroups) {
    ExtBuilder const builder = withSuper32(ext_super::kBlocksCountLow, 1);
    for (std::uint64_t const start : {0U, 1U}) {
        ExtOutcome const outcome = runAsReference(builder, start, 100);
        EXPECT_EQ(outcome.result, 0);
        EXPECT_THAT(outcome.calls, ElementsAre(seekCall(2048))) << "a table of no bytes is sought, not read";
        EXPECT_THAT(outcome.entries, IsEmpty());
    }
    ExtOutcome const wide = runAsReference(builder, 0, 100, 4096);
    EXPECT_EQ(wide.result, 0);
    EXPECT_THAT(wide.calls, ElementsAre(seekCall(0), readCall(4096))) << "inside a unit, no bytes cost that unit";
}

TEST(ExtDamagedBlocksCount, OfTwoHasOneBlockInOneGroup) {
    ExtBuilder builder = makeGood();
    builder.setUsed(1);
    ExtOutcome const outcome = runAsReference(withSuper32(ext_super::kBlocksCountLow, 2, builder), 0, 100);
    EXPECT_EQ(outcome.result, 2);
    EXPECT_EQ(outcome.buffer[0], 0x02);
    EXPECT_THAT(std::vector(outcome.buffer.begin() + 1, outcome.buffer.end()), Each(0));
}

TEST(ExtDamagedBlocksCount, OfAllOnesKeepsTheGroupsThatExist) {
    ExtBuilder const builder = withSuper32(ext_super::kBlocksCountLow, 0xFFFFFFFF);
    ExtOutcome const first = runAsReference(builder, 0, 2048);
    EXPECT_EQ(first.result, 16384);
    std::vector<bool> expected = makeGood().map();
    expected.resize(16384);
    EXPECT_EQ(bitsOf(first.buffer, 16384), expected);
    ExtOutcome const last = runAsReference(builder, 0xFFFFFFFF - 8, 2048);
    EXPECT_EQ(last.result, 8);
}

TEST(ExtDamagedFirstDataBlock, OfZeroTakesTheSuperblockForTheTable) {
    ExtOutcome const outcome = runAsReference(withSuper32(ext_super::kFirstDataBlock, 0), 0, kWholeVolume);
    EXPECT_EQ(outcome.result, 20000);
    EXPECT_THAT(outcome.buffer, Each(0));
    // The blocks per group, 8192, stand where the location of group 1 is looked for.
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(1024), readCall(512), seekCall(0), readCall(1024),
                                           seekCall(8388608), readCall(1024), seekCall(0), readCall(1024)));
}

TEST(ExtDamagedFirstDataBlock, OfTwoTakesABitmapForTheTable) {
    ExtOutcome const outcome = runAsReference(withSuper32(ext_super::kFirstDataBlock, 2), 0, kWholeVolume);
    EXPECT_EQ(outcome.calls.front(), seekCall(3072));
    EXPECT_EQ(outcome.result, 20000);
    EXPECT_EQ(outcome.buffer[0] & 0x03, 0) << "two blocks belong to no group";
}

TEST(ExtDamagedFirstDataBlock, EqualToTheCountHasNoGroups) {
    ExtBuilder const builder = withSuper32(ext_super::kFirstDataBlock, 20000);
    for (std::uint64_t const start : {0U, 5U, 20000U}) {
        ExtOutcome const outcome = runAsReference(builder, start, 100);
        EXPECT_EQ(outcome.result, 0);
        EXPECT_THAT(outcome.calls, ElementsAre(seekCall(20001L * 1024)));
    }
}

TEST(ExtDamagedFirstDataBlock, PastTheCountWrapsTheGroupsAround) {
    // Groups 524286 and 524287 begin with blocks 3617 and 11809, past the wrap; the others are past the count.
    ExtBuilder const builder = withSuper32(ext_super::kFirstDataBlock, 20001);
    ExtOutcome const whole = runAsReference(builder, 0, kWholeVolume);
    EXPECT_EQ(whole.result, 20000);
    EXPECT_THAT(whole.buffer, Each(0));
    ExtOutcome const head = runAsReference(builder, 0, 100);
    EXPECT_EQ(head.result, 0) << "block 3617 is the first and past the limit";
    EXPECT_EQ(runAsReference(builder, 5000, 100).result, 0) << "a start before the first data block is in no group";
}

TEST(ExtDamagedFirstDataBlock, OfAllOnesPutsTheTableAtFourTiB) {
    ExtBuilder const builder = withSuper32(ext_super::kFirstDataBlock, 0xFFFFFFFF);
    ExtOutcome const whole = runAsReference(builder, 0, kWholeVolume);
    EXPECT_EQ(whole.result, 20000);
    EXPECT_EQ(whole.calls.front(), seekCall(4398046511104)) << "the sum does not wrap at 32 bits";
    EXPECT_EQ(runAsReference(builder, 0, 100).result, 0);
}

TEST(ExtDamagedBlocksPerGroup, OfZeroFailsBeforeAnyRead) {
    ExtBuilder const builder = withSuper32(ext_super::kBlocksPerGroup, 0);
    for (std::uint64_t const start : {0U, 1U, 2U, 20000U}) {
        ExtOutcome const outcome = runAsReference(builder, start, 100);
        expectFailure(outcome, "Can't read bgd table");
        EXPECT_THAT(outcome.calls, IsEmpty());
        EXPECT_THAT(outcome.buffer, Each(0)) << "the buffer is cleared all the same";
    }
    expectFailure(runAsReference(builder, 20001, 100), "Invalid start block");
}

TEST(ExtDamagedBlocksPerGroup, OfZeroWithoutAnyGroupEndsAtBlockZeroOnly) {
    ExtBuilder const builder = withSuper32(ext_super::kBlocksPerGroup, 0, withSuper32(ext_super::kBlocksCountLow, 1));
    ExtOutcome const atZero = runAsReference(builder, 0, 100);
    EXPECT_EQ(atZero.result, 0);
    EXPECT_THAT(atZero.calls, ElementsAre(seekCall(2048)));
    expectFailure(runAsReference(builder, 1, 100), "Can't read bgd table");
}

TEST(ExtDamagedBlocksPerGroup, OfOneReadsABitmapByteForEachBlock) {
    ExtBuilder const builder = withSuper32(ext_super::kBlocksPerGroup, 1);
    ExtOutcome const outcome = runAsReference(builder, 0, 8);
    EXPECT_EQ(outcome.result, 64);
    EXPECT_EQ(runAsReference(builder, 19990, 8).result, 10);
    EXPECT_EQ(outcome.calls.at(1), readCall(640000)) << "19999 descriptors in units of 512";
}

TEST(ExtDamagedBlocksPerGroup, OfSevenLeavesTheEighthBitAlone) {
    ExtBuilder builder = makeGood();
    builder.setUsedFrom(1, 8);
    builder = withSuper32(ext_super::kBlocksPerGroup, 7, builder);
    ExtOutcome const outcome = runAsReference(builder, 1, 8);
    EXPECT_EQ(outcome.result, 64);
    EXPECT_EQ(outcome.buffer[0] & 0x7F, 0x7F);
    EXPECT_EQ(bitAt(outcome.buffer, 7), (builder.bytes.at(4096) & 1) != 0) << "group 1's own first bit";
}

TEST(ExtDamagedBlocksPerGroup, OfTwoBitmapBlocksReadsOnIntoTheNext) {
    // The bitmaps lie one behind the other, so that twice the bits from the first are the first two groups' map.
    ExtBuilder const builder = withSuper32(ext_super::kBlocksPerGroup, 16384);
    ExtOutcome const outcome = runAsReference(builder, 0, 2048);
    EXPECT_EQ(outcome.result, 16384);
    std::vector<bool> expected = makeGood().map();
    expected.resize(16384);
    EXPECT_EQ(bitsOf(outcome.buffer, 16384), expected);
}

TEST(ExtDamagedBlocksPerGroup, OfTheLargestBitmapCoversTheVolumeInOneGroup) {
    ExtBuilder const builder = withSuper32(ext_super::kBlocksPerGroup, 0xFFFFFFF8);
    ExtOutcome const outcome = runAsReference(builder, 0, kWholeVolume);
    EXPECT_EQ(outcome.result, 20000);
    EXPECT_EQ(bitsOf(outcome.buffer, 20000), makeGood().map());
    EXPECT_EQ(outcome.calls.size(), 2U + 1 + 128) << "512 MiB in pieces of 4 MiB";
}

class ExtVanishedBitmap : public testing::TestWithParam<std::uint32_t> {};

TEST_P(ExtVanishedBitmap, HasNoBitsToGive) {
    ExtBuilder const builder = withSuper32(ext_super::kBlocksPerGroup, GetParam());
    for (std::uint64_t const start : {0U, 1U, 5U, 19999U}) {
        ExtOutcome const outcome = runAsReference(builder, start, 100);
        expectFailure(outcome, "Can't read bitmap");
        EXPECT_THAT(outcome.calls, ElementsAre(seekCall(2048), readCall(512), seekCall(3072)));
        EXPECT_THAT(outcome.buffer, Each(0));
    }
    EXPECT_EQ(runAsReference(builder, 20000, 100).result, 0);
}

INSTANTIATE_TEST_SUITE_P(BlocksPerGroup, ExtVanishedBitmap, testing::Values(0xFFFFFFF9U, 0xFFFFFFFEU, 0xFFFFFFFFU));

} // namespace
