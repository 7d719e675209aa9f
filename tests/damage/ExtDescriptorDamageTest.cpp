// Ext volumes with damaged descriptors, features and descriptor sizes: exact results, entries and reads.
#include "support/ExtRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

using namespace tests;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t kWholeVolume = 2600;

ExtBuilder makeGood() {
    return ExtBuilder().fillBitmapsAtRandom(12);
}

/// The same with 64-byte descriptors.
ExtBuilder makeGood64() {
    ExtGeometry geometry;
    geometry.is64Bit = true;
    geometry.descriptorSize = 64;
    return ExtBuilder(geometry).fillBitmapsAtRandom(13);
}

ExtBuilder withDescriptorSize(std::uint16_t size) {
    ExtBuilder builder = makeGood64();
    EXPECT_NE(builder.super16(ext_super::kDescriptorSize), size);
    builder.setSuper16(ext_super::kDescriptorSize, size);
    EXPECT_EQ(builder.super16(ext_super::kDescriptorSize), size);
    return builder;
}

ExtOutcome runAsReference(ExtBuilder const& builder, std::uint64_t start, std::uint64_t length) {
    ExtRequest const request{512, start, length};
    ExtOutcome const outcome = runExtChunk(builder.bytes, request);
    auto const expected = referenceExtChunk(builder.bytes, request);
    EXPECT_TRUE(expected.has_value());
    EXPECT_EQ(outcome, expected.value_or(ExtOutcome{}));
    return outcome;
}

std::vector<bool> part(std::vector<bool> const& map, std::uint64_t from, std::uint64_t count) {
    auto const begin = map.begin() + static_cast<long>(from);
    return {begin, begin + static_cast<long>(count)};
}

/// Bits of group 1 alone: from block 8193 on, 1023 bytes of 1024, so that group 2 is not needed to see the limit.
ExtOutcome runGroup1(ExtBuilder const& builder) {
    return runAsReference(builder, 8193, 1023);
}

TEST(ExtDamagedDescriptorSize, OfZeroHasNoTable) {
    ExtOutcome const outcome = runAsReference(withDescriptorSize(0), 0, 1024);
    EXPECT_EQ(outcome.result, -1);
    EXPECT_THAT(outcome.entries, ElementsAre(errorEntry("Can't read bgd table"), extWrapperEntry()));
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(2048)));
    EXPECT_THAT(outcome.buffer, Each(0));
}

TEST(ExtDamagedDescriptorSize, OfOneHoldsNoWholeDescriptor) {
    ExtOutcome const outcome = runAsReference(withDescriptorSize(1), 0, 1024);
    EXPECT_EQ(outcome.result, -1);
    EXPECT_THAT(outcome.entries, ElementsAre(errorEntry("Can't read bgd table"), extWrapperEntry()));
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(2048), readCall(512)));
}

TEST(ExtDamagedDescriptorSize, OfEighteenLacksTheLastFlagsByte) {
    ExtBuilder const builder = withDescriptorSize(18);
    ExtOutcome const first = runAsReference(builder, 0, 1024);
    EXPECT_EQ(first.result, 8192);
    EXPECT_EQ(bitsOf(first.buffer, 8192), part(makeGood64().map(), 0, 8192));
    ExtOutcome const last = runAsReference(builder, 16385, 1024);
    EXPECT_EQ(last.result, -1);
    EXPECT_THAT(last.entries, ElementsAre(errorEntry("Can't read bgd table"), extWrapperEntry()));
    EXPECT_THAT(last.calls, ElementsAre(seekCall(2048), readCall(512)));
}

TEST(ExtDamagedDescriptorSize, OfNineteenIsTheLeastThatHoldsAllFields) {
    ExtOutcome const outcome = runAsReference(withDescriptorSize(19), 0, kWholeVolume);
    EXPECT_EQ(outcome.result, 20000);
    EXPECT_THAT(outcome.entries, IsEmpty());
}

TEST(ExtDamagedDescriptorSize, Of33FindsGroup1AByteIntoAnotherField) {
    ExtBuilder builder = withDescriptorSize(33);
    // Byte 33 of the table is the second byte of group 0's high location; read from there, 1 is block 1.
    builder.bytes.at(2048 + 33) = 1;
    ExtOutcome const outcome = runGroup1(builder);
    EXPECT_EQ(outcome.result, 8184);
    EXPECT_EQ(outcome.calls.at(2), seekCall(1024));
    EXPECT_EQ(outcome.buffer, std::vector<std::uint8_t>(builder.bytes.begin() + 1024, builder.bytes.begin() + 2047));
}

TEST(ExtDamagedDescriptorSize, Of65535FindsGroup1PastTheEndAsZeros) {
    ExtBuilder const builder = withDescriptorSize(65535);
    ExtOutcome const outcome = runAsReference(builder, 0, kWholeVolume);
    EXPECT_EQ(outcome.result, 20000);
    EXPECT_EQ(bitsOf(outcome.buffer, 8193), part(makeGood64().map(), 0, 8193));
    EXPECT_THAT(std::vector(outcome.buffer.begin() + 1025, outcome.buffer.end()), Each(0));
    EXPECT_EQ(outcome.calls.at(1), readCall(196608)) << "three descriptors in units of 512";
}

TEST(ExtDamagedFeatures, EveryOtherIncompatibleBitIsIgnored) {
    ExtOutcome const good = runAsReference(makeGood(), 0, kWholeVolume);
    for (unsigned bit = 0; bit < 32; ++bit) {
        if (1U << bit == kExt64Bit) {
            continue;
        }
        ExtBuilder builder = makeGood();
        ASSERT_EQ(builder.super32(ext_super::kIncompatibleFeatures), 0U);
        builder.setSuper32(ext_super::kIncompatibleFeatures, 1U << bit);
        EXPECT_EQ(runAsReference(builder, 0, kWholeVolume), good) << "bit " << bit;
    }
}

TEST(ExtDamagedFeatures, Feature80WithoutADescriptorSizeHasNoTable) {
    ExtBuilder builder = makeGood();
    ASSERT_EQ(builder.super16(ext_super::kDescriptorSize), 0);
    builder.setSuper32(ext_super::kIncompatibleFeatures, kExt64Bit);
    ExtOutcome const outcome = runAsReference(builder, 0, kWholeVolume);
    EXPECT_EQ(outcome.result, -1);
    EXPECT_THAT(outcome.entries, ElementsAre(errorEntry("Can't read bgd table"), extWrapperEntry()));
}

ExtBuilder withLocationOfGroup1(std::uint32_t block) {
    ExtBuilder builder = makeGood();
    std::uint64_t const at = builder.geometry().descriptorOffset(1);
    EXPECT_EQ(builder.bytes.at(at), 4) << "the sound location";
    builder.setBitmapLocation(1, block);
    EXPECT_EQ(builder.bytes.at(at), block & 0xFF);
    return builder;
}

TEST(ExtDamagedBitmapLocation, OfZeroTakesTheBootBlock) {
    ExtBuilder builder = withLocationOfGroup1(0);
    std::fill_n(builder.bytes.begin(), 1024, std::uint8_t{0x3C});
    ExtOutcome const outcome = runGroup1(builder);
    EXPECT_EQ(outcome.result, 8184);
    EXPECT_THAT(outcome.buffer, Each(0x3C));
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(2048), readCall(512), seekCall(0), readCall(1024)));
}

TEST(ExtDamagedBitmapLocation, InTheTableTakesItsBytes) {
    ExtBuilder const builder = withLocationOfGroup1(2);
    EXPECT_EQ(runGroup1(builder).buffer,
              std::vector<std::uint8_t>(builder.bytes.begin() + 2048, builder.bytes.begin() + 3071));
}

class ExtBitmapOutside : public testing::TestWithParam<std::uint32_t> {};

TEST_P(ExtBitmapOutside, DeliversNothingAndLeavesWhatWasThere) {
    ExtBuilder const builder = withLocationOfGroup1(GetParam());
    ExtOutcome const alone = runGroup1(builder);
    EXPECT_EQ(alone.result, 8184);
    EXPECT_THAT(alone.buffer, Each(0));
    EXPECT_THAT(alone.entries, IsEmpty());
    EXPECT_EQ(alone.calls.at(2), seekCall(static_cast<long>(GetParam()) * 1024));

    ExtOutcome const afterGroup0 = runAsReference(builder, 1, kWholeVolume);
    EXPECT_EQ(afterGroup0.result, 19999);
    auto const group0 = afterGroup0.buffer.begin();
    EXPECT_TRUE(std::equal(group0, group0 + 1024, group0 + 1024)) << "group 1 repeats group 0";
}

INSTANTIATE_TEST_SUITE_P(Locations, ExtBitmapOutside, testing::Values(6U, 20000U, 0x7FFFFFFFU, 0xFFFFFFFFU));

TEST(ExtDamagedBitmapLocation, SharedByAllGroupsRepeatsItsBits) {
    ExtBuilder builder = withLocationOfGroup1(3);
    builder.setBitmapLocation(2, 3);
    ExtOutcome const outcome = runAsReference(builder, 1, kWholeVolume);
    auto const bits = outcome.buffer.begin();
    EXPECT_EQ(outcome.result, 19999);
    EXPECT_TRUE(std::equal(bits, bits + 1024, builder.bytes.begin() + 3072));
    EXPECT_TRUE(std::equal(bits, bits + 1024, bits + 1024));
    EXPECT_TRUE(std::equal(bits, bits + 451, bits + 2048)) << "the last group has 3615 blocks";
}

class ExtDamagedFlags : public testing::TestWithParam<std::uint8_t> {};

TEST_P(ExtDamagedFlags, FreeTheGroupOnBit02Only) {
    ExtBuilder builder = makeGood();
    std::uint64_t const at = builder.geometry().descriptorOffset(1) + ext_group::kFlags;
    ASSERT_EQ(builder.bytes.at(at), 0);
    builder.setFlags(1, GetParam());
    ASSERT_EQ(builder.bytes.at(at), GetParam());
    ExtOutcome const outcome = runAsReference(builder, 0, kWholeVolume);
    EXPECT_EQ(bitsOf(outcome.buffer, outcome.result), builder.map());
    bool const free = (GetParam() & 0x02) != 0;
    EXPECT_EQ(outcome.calls.size(), free ? 6U : 8U) << "an uninitialised bitmap is not read";
}

INSTANTIATE_TEST_SUITE_P(Values, ExtDamagedFlags, testing::Values(0x01, 0x02, 0x03, 0x04, 0x80, 0xFD, 0xFE, 0xFF));

TEST(ExtDamagedFlags, UninitialisedGroupClearsWhatAMissingBitmapWouldRepeat) {
    ExtBuilder builder = makeGood();
    builder.setFlags(1, ext_group::kBlocksUninitialised).setBitmapLocation(2, 0xFFFFFFFF);
    ExtOutcome const outcome = runAsReference(builder, 1, kWholeVolume);
    EXPECT_EQ(outcome.result, 19999);
    EXPECT_THAT(std::vector(outcome.buffer.begin() + 1024, outcome.buffer.end()), Each(0));
}

} // namespace
