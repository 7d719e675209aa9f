// HFS+ volumes with one field of the header changed: one exact result, entries and reads for each.
#include "support/HfsReference.h"
#include "support/ResidentMemory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

using namespace tests;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t kWholeMap = 600; // bytes: more than the map of 4096 blocks has

HfsBuilder makeGood() {
    return HfsBuilder().fillBitmapAtRandom(41);
}

/// Changes a field and proves that the change took.
HfsBuilder withHeader32(std::uint64_t field, std::uint32_t value, HfsBuilder builder = makeGood()) {
    EXPECT_NE(builder.header32(field), value) << "the field already holds the value: nothing is damaged";
    builder.setHeader32(field, value);
    EXPECT_EQ(builder.header32(field), value);
    return builder;
}

HfsBuilder withMap(HfsExtents const& extents) {
    HfsBuilder builder = makeGood();
    return builder.setForkExtents(hfs_header::kAllocationFile, extents);
}

/// Runs a request and expects what the slow account gives, to the last call.
HfsOutcome runAsReference(HfsBuilder const& builder, std::uint64_t offset, std::uint64_t length) {
    HfsOutcome const outcome = HfsBench(builder).chunk(offset, length);
    auto const header = builder.bytes.begin() + kHfsHeaderOffset;
    MemoryReader const volume(builder.bytes);
    HfsFrontReader const front(volume);
    HfsReference reference(front, {header, header + kHfsHeaderBytes});
    EXPECT_EQ(outcome, reference.chunk(offset, length));
    return outcome;
}

void expectFailure(HfsOutcome const& outcome, char const* cause) {
    EXPECT_EQ(outcome.result, -1);
    EXPECT_THAT(outcome.entries, ElementsAre(errorEntry(cause), hfsWrapperEntry()));
    EXPECT_THAT(outcome.buffer, Each(kHfsUntouched));
}

/// Passes calls on and keeps the most memory that was there at any of them.
class MeasuringReader : public agent::core::IVolumeReader {
public:
    explicit MeasuringReader(agent::core::IVolumeReader const& inner) : inner_(inner) {}

    long read(void* buffer, long length) const override {
        long const result = inner_.read(buffer, length);
        most = std::max(most, residentBytes());
        return result;
    }

    long seek(long offset, int whence) const override { return inner_.seek(offset, whence); }

    mutable std::size_t most = 0;

private:
    agent::core::IVolumeReader const& inner_;
};

constexpr std::size_t kMostMemory = std::size_t{64} << 20;

TEST(HfsDamage, UndamagedVolumeGivesItsMap) {
    HfsBuilder const builder = makeGood();
    HfsOutcome const outcome = runAsReference(builder, 0, kWholeMap);
    EXPECT_EQ(outcome.result, 4096);
    EXPECT_EQ(hfsBitsOf(outcome.buffer, 4096), builder.map());
    EXPECT_THAT(outcome.entries, IsEmpty());
}

class HfsDamagedBlockSize : public testing::TestWithParam<std::uint32_t> {};

TEST_P(HfsDamagedBlockSize, ThatIsNoPowerOfTwoCannotBeReadIn) {
    HfsBuilder const builder = withHeader32(hfs_header::kBlockSize, GetParam());
    HfsOutcome const outcome = runAsReference(builder, 0, kWholeMap);
    expectFailure(outcome, "Error in HFS+ parsing read.");
    EXPECT_THAT(outcome.calls, IsEmpty());
    EXPECT_EQ(runAsReference(builder, 4096, 1).result, 0) << "the end is where it was";
    HfsBuilder const needing = withHeader32(hfs_header::kAllocationFile + hfs_fork::kTotalBlocks, 2, builder);
    EXPECT_EQ(runAsReference(needing, 0, kWholeMap).entries, hfsFailedSearchEntries("Could not read B-Tree header"));
}

INSTANTIATE_TEST_SUITE_P(Values, HfsDamagedBlockSize,
                         testing::Values(3U, 511U, 513U, 1536U, 0x7FFFFFFFU, 0x80000001U, 0xFFFFFFFFU));

TEST(HfsDamagedBlockSizeOf, ZeroMakesEveryExtentEmptySoThatThereIsNoMap) {
    HfsOutcome const outcome = runAsReference(withHeader32(hfs_header::kBlockSize, 0), 0, kWholeMap);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_THAT(outcome.entries, IsEmpty());
    EXPECT_THAT(outcome.calls, IsEmpty());
}

TEST(HfsDamagedBlockSizeOf, ZeroInASearchIsAFailedRead) {
    HfsBuilder const builder =
        withHeader32(hfs_header::kAllocationFile + hfs_fork::kTotalBlocks, 2, withHeader32(hfs_header::kBlockSize, 0));
    HfsOutcome const outcome = runAsReference(builder, 0, kWholeMap);
    EXPECT_EQ(outcome.result, -1);
    EXPECT_EQ(outcome.entries, hfsFailedSearchEntries("Could not read B-Tree header"));
}

TEST(HfsDamagedBlockSizeOf, AnotherPowerOfTwoReadsElsewhere) {
    HfsBuilder const builder = withHeader32(hfs_header::kBlockSize, 256);
    HfsOutcome const outcome = runAsReference(builder, 0, kWholeMap);
    EXPECT_EQ(outcome.result, 2048) << "one block of 256 bytes";
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(3L * 256), readCall(256)));
    EXPECT_EQ(runAsReference(withHeader32(hfs_header::kBlockSize, 1), 0, kWholeMap).result, 8);
}

TEST(HfsDamagedBlockSizeOf, TwoGiBTakesAddressesButNoMemory) {
    HfsBuilder const builder = withHeader32(hfs_header::kBlockSize, 0x80000000);
    MemoryReader const volume(builder.bytes);
    HfsFrontReader const front(volume);
    MeasuringReader const measuring(front);
    RecordingReader const reader(measuring);
    RecordingLogger logger;
    ExposedHfsParser const parser(logger, 512, reader);
    std::vector<char> buffer(kWholeMap, 'x');
    std::size_t const before = residentBytes();
    reader.calls.clear();
    EXPECT_EQ(parser.getChunk(0, buffer.data(), buffer.size()), 4096);
    EXPECT_THAT(buffer, Each('x')) << "nothing was delivered so far behind the volume's end";
    ASSERT_EQ(reader.calls.size(), 513U);
    EXPECT_EQ(reader.calls.front(), seekCall(3L << 31));
    EXPECT_EQ(reader.calls.back(), readCall(4194304));
    EXPECT_THAT(logger.entries, IsEmpty());
    EXPECT_LT(measuring.most, before + kMostMemory);
}

TEST(HfsDamagedTotalBlocks, OfZeroIsTheEndAtOnce) {
    HfsBuilder const builder = withHeader32(hfs_header::kTotalBlocks, 0);
    for (std::uint64_t const offset : {0U, 12U, 4096U}) {
        HfsOutcome const outcome = runAsReference(builder, offset, kWholeMap);
        EXPECT_EQ(outcome.result, 0);
        EXPECT_THAT(outcome.entries, IsEmpty());
        EXPECT_THAT(outcome.calls, IsEmpty());
    }
}

TEST(HfsDamagedTotalBlocks, OfAllOnesIsCutByTheFile) {
    HfsBuilder const builder = withHeader32(hfs_header::kTotalBlocks, 0xFFFFFFFF);
    HfsOutcome const outcome = runAsReference(builder, 0, kWholeMap);
    EXPECT_EQ(outcome.result, 4096);
    EXPECT_EQ(hfsBitsOf(outcome.buffer, 4096), makeGood().map());
    EXPECT_EQ(runAsReference(builder, 4096, kWholeMap).result, 0);
    EXPECT_EQ(runAsReference(builder, 0xFFFFFFF8, kWholeMap).result, 0);
    EXPECT_EQ(runAsReference(builder, 0xFFFFFFFF, kWholeMap).result, 0);
}

TEST(HfsDamagedFork, OfMoreBlocksThanItsExtentsNeedsATreeThatIsNotThere) {
    for (std::uint32_t const blocks : {2U, 8U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
        HfsBuilder const builder = withHeader32(hfs_header::kAllocationFile + hfs_fork::kTotalBlocks, blocks);
        HfsOutcome const outcome = runAsReference(builder, 0, kWholeMap);
        EXPECT_EQ(outcome.result, -1);
        EXPECT_EQ(outcome.entries, hfsFailedSearchEntries("First node is not an index node"));
    }
}

TEST(HfsDamagedFork, OfFewerBlocksThanItsExtentsIsReadByTheExtents) {
    HfsBuilder const builder = withHeader32(hfs_header::kAllocationFile + hfs_fork::kTotalBlocks, 0);
    EXPECT_EQ(runAsReference(builder, 0, kWholeMap), runAsReference(makeGood(), 0, kWholeMap));
}

TEST(HfsDamagedExtent, OutsideTheVolumeDeliversNothing) {
    for (HfsExtent const& extent : {HfsExtent{4096, 1}, HfsExtent{0xFFFFFFFF, 1}, HfsExtent{0x80000000, 0x80000000}}) {
        HfsOutcome const outcome = runAsReference(withMap({extent}), 0, kWholeMap);
        EXPECT_EQ(outcome.result, 4096);
        EXPECT_THAT(outcome.buffer, Each(kHfsUntouched));
        EXPECT_THAT(outcome.entries, IsEmpty()) << "the reader reports short reads, not the parser";
    }
}

TEST(HfsDamagedExtent, ThatWrapsIsReadFromItsStart) {
    HfsBuilder builder = withMap({{3, 0xFFFFFFFF}});
    HfsOutcome const outcome = runAsReference(builder, 0, kWholeMap);
    EXPECT_EQ(outcome.result, 4096) << "512 bytes: the map has no more";
    EXPECT_EQ(hfsBitsOf(outcome.buffer, 4096), makeGood().map());
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(3L * 512), readCall(512)));
}

TEST(HfsDamagedExtent, TwiceOrOverlappingIsReadAsOftenAsItIsNamed) {
    HfsBuilder const builder = withHeader32(hfs_header::kTotalBlocks, 3 * 4096, withMap({{3, 1}, {3, 1}, {3, 1}}));
    HfsOutcome const outcome = runAsReference(builder, 0, 1536);
    EXPECT_EQ(outcome.result, 3 * 4096);
    for (std::uint64_t i = 0; i < 1536; ++i) {
        ASSERT_EQ(outcome.buffer[i], makeGood().bitmapByte(i % 512));
    }
    EXPECT_EQ(
        runAsReference(withHeader32(hfs_header::kTotalBlocks, 12288, withMap({{2, 3}, {3, 2}})), 4096, 900).result,
        7200);
}

TEST(HfsDamagedExtent, BeforeTheBlocksThatComeBeforeItIsFound) {
    // The start is smaller than the blocks before: the difference wraps, and the sum wraps back.
    HfsBuilder const builder = withHeader32(hfs_header::kTotalBlocks, 20 * 4096, withMap({{40, 10}, {3, 1}}));
    HfsOutcome const outcome = runAsReference(builder, 10 * 4096, 512);
    EXPECT_EQ(outcome.result, 4096);
    EXPECT_EQ(hfsBitsOf(outcome.buffer, 4096), makeGood().map());
    EXPECT_THAT(outcome.calls, ElementsAre(seekCall(3L * 512), readCall(512)));
}

TEST(HfsDamagedExtent, OfTheLargestCountsEndsWhereTheMapEnds) {
    HfsExtents const huge(7, {3, 0xFFFFFFFF});
    HfsBuilder const builder = withHeader32(hfs_header::kTotalBlocks, 0xFFFFFFFF, withMap(huge));
    EXPECT_EQ(runAsReference(builder, 0, kWholeMap).result, 4800);
    EXPECT_EQ(runAsReference(builder, 0xFFFFFFF8, kWholeMap).result, 7);
}

class HfsHugeRequest : public testing::TestWithParam<unsigned long> {};

TEST_P(HfsHugeRequest, IsBoundedByTheMap) {
    // The caller vouches for its buffer; only what the map has is written.
    HfsBench bench(makeGood());
    std::vector<char> buffer(512);
    EXPECT_EQ(bench.parser.getChunk(0, buffer.data(), GetParam()), 4096);
    std::vector<std::uint8_t> const bytes(buffer.begin(), buffer.end());
    EXPECT_EQ(hfsBitsOf(bytes, 4096), makeGood().map());
    EXPECT_EQ(bench.parser.getChunk(4096, buffer.data(), GetParam()), 0);
    EXPECT_THAT(bench.logger.entries, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Lengths, HfsHugeRequest, testing::Values(513UL, 1UL << 32, 1UL << 62, 1UL << 63, ~0UL));

TEST(HfsHugeMap, TakesAddressesButNoMemory) {
    // A map of 512 MiB in one extent, of which the volume holds a few kilobytes.
    HfsBuilder const builder = withHeader32(hfs_header::kTotalBlocks, 0xFFFFFFFF, withMap({{3, 0x100000}}));
    MemoryReader const volume(builder.bytes);
    HfsFrontReader const front(volume);
    MeasuringReader const reader(front);
    RecordingLogger logger;
    ExposedHfsParser const parser(logger, 512, reader);
    constexpr std::size_t kLength = std::size_t{1} << 29;
    std::unique_ptr<char[]> const buffer(new char[kLength]); // not touched before
    std::size_t const before = residentBytes();
    EXPECT_EQ(parser.getChunk(0, buffer.get(), kLength), 0xFFFFFFFF);
    EXPECT_LT(reader.most, before + kMostMemory);
    EXPECT_EQ(static_cast<std::uint8_t>(buffer[0]), builder.bitmapByte(0));
}

} // namespace
