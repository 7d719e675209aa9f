// Runs of NTFS files that no volume can have: of the map's file, of many extents, over the MFT, without end.
#include "support/NtfsBench.h"
#include "support/NtfsMapRun.h"
#include "support/ResidentMemory.h"
#include "support/Sanitized.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

namespace {

using namespace tests;
using testing::ElementsAre;
using testing::SizeIs;

constexpr std::uint64_t kBitmapRecord = ntfs_record_number::kBitmap;
constexpr std::uint64_t kBoot = 7;
constexpr std::uint64_t kReadme = 24;
constexpr std::uint64_t kLetter = 26;
constexpr std::size_t kMostGrowth = std::size_t{64} << 20;

/// The standard volume whose record has these mapping pairs.
NtfsBuilder withPairs(std::uint64_t number, NtfsBytes const& pairs) {
    NtfsBuilder builder = NtfsBuilder::standard();
    builder.record(number).remove(ntfs_type::kData).nonResidentRaw(ntfs_type::kData, u"", pairs, 4096);
    builder.bitmapRuns.clear();
    builder.seal();
    return builder;
}

std::vector<NtfsRun> runsOf(NtfsBuilder const& builder, std::uint64_t number) {
    NtfsBench bench(builder);
    std::vector<NtfsRun> runs;
    for (auto const& run : bench.parser.get_inode_runlist(number)) {
        runs.push_back({run.lcn, run.length});
    }
    return runs;
}

/// Pairs of $Bitmap, and what comes of them.
struct BitmapPairs {
    char const* name;
    NtfsBytes pairs;
    long result;             ///< of a request of 64 bytes from cluster 0
    std::string notBelieved; ///< by imaging; or its refusal
};

class NtfsHostileBitmapRuns : public testing::TestWithParam<BitmapPairs> {};

TEST_P(NtfsHostileBitmapRuns, AreNeverFreeSpace) {
    BitmapPairs const& damage = GetParam();
    NtfsBuilder const builder = withPairs(kBitmapRecord, damage.pairs);
    std::size_t const before = residentBytes();
    NtfsBench bench(builder);
    std::vector<char> buffer(64);
    try {
        EXPECT_EQ(bench.parser.getChunk(0, buffer.data(), buffer.size()), damage.result);
    } catch (std::runtime_error const& error) {
        EXPECT_EQ("$Bitmap (record 6) cannot be read: " + std::string(error.what()), damage.notBelieved);
    }
    HostileAnswer const answer = askForMap(builder.bytes);
    EXPECT_EQ(answer.geometry.notBelieved.value_or(answer.error), damage.notBelieved);
    EXPECT_TRUE(answer.isAllUsed() || !answer.error.empty());
    EXPECT_LT(residentBytes(), before + kMostGrowth);
}

std::string outside(std::string const& run) {
    return "$Bitmap has a run of " + run + ", where none can be (the volume holds 512 clusters)";
}

constexpr char const* kHole = "$Bitmap (record 6) has a hole, which holds no map";

INSTANTIATE_TEST_SUITE_P(
    Pairs, NtfsHostileBitmapRuns,
    testing::Values(
        BitmapPairs{"NoneAtAll", {0}, -559, "$Bitmap (record 6) has no runs, and so holds no map"},
        BitmapPairs{"NoLengthBytes", {0x40, 0, 0, 0, 0, 0}, -1, outside("-1 clusters at cluster -1")},
        BitmapPairs{"NoOffsetBytes", {0x01, 100, 0}, 512, kHole},
        BitmapPairs{"AHoleBehindARun", {0x21, 1, 144, 1, 0x01, 1, 0}, 512, kHole},
        BitmapPairs{"ALengthOfZero", {0x21, 0, 144, 1, 0}, -559, outside("0 clusters at cluster 400")},
        BitmapPairs{"ALengthBelowZero", {0x21, 0xFF, 144, 1, 0}, 512, outside("-1 clusters at cluster 400")},
        BitmapPairs{"ALengthOf2To63",
                    {0x28, 0, 0, 0, 0, 0, 0, 0, 0x80, 144, 1, 0},
                    -559, // its bits wrap around to none
                    outside("-9223372036854775808 clusters at cluster 400")},
        BitmapPairs{"ALengthOf2To62",
                    {0x28, 0, 0, 0, 0, 0, 0, 0, 0x40, 144, 1, 0},
                    -559,
                    outside("4611686018427387904 clusters at cluster 400")},
        BitmapPairs{"FieldsPastEightBytes", {0x9F, 1, 0}, 0, "$Bitmap (record 6) cannot be read: Invalid runlist"},
        BitmapPairs{"AnOffsetPastTheAttribute", {0xF1, 1, 0}, 0, "$Bitmap (record 6) cannot be read: Corrupt runlist"},
        BitmapPairs{
            "ASumBelowZero", {0x21, 1, 144, 1, 0x21, 1, 0, 0x80, 0}, 512, outside("1 clusters at cluster -32368")},
        BitmapPairs{"ASumThatWrapsAround",
                    {0x81, 1, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 0x11, 1, 1, 0},
                    -1,
                    outside("1 clusters at cluster -9223372036854775808")},
        BitmapPairs{"InsideAndThenOutside", {0x21, 100, 200, 1, 0}, 512, outside("100 clusters at cluster 456")}),
    [](auto const& row) { return row.param.name; });

TEST(NtfsHostileRuns, WithoutAnEndMarkTheAttributeEndsThem) {
    EXPECT_THAT(runsOf(withPairs(kReadme, {0x11, 1, 50, 0x11, 1, 50, 0x11, 1, 50, 0x11, 1, 50,
                                           0x11, 1, 50, 0x11, 1, 50, 0x11, 1, 50, 0x11, 1, 50}),
                       kReadme),
                SizeIs(8));
}

TEST(NtfsHostileRuns, TheBootFileMayBeAnything) {
    for (NtfsBytes const& pairs : {NtfsBytes{0}, NtfsBytes{0x01, 2, 0}, NtfsBytes{0x40, 0, 0, 0, 0, 0}}) {
        NtfsBuilder builder = NtfsBuilder::standard();
        builder.record(kBoot).remove(ntfs_type::kData).nonResidentRaw(ntfs_type::kData, u"", pairs, 8192);
        builder.seal();
        expectRightMap(builder); // nobody reads it
    }
    EXPECT_THAT(runsOf(withPairs(kBoot, {0x01, 2, 0}), kBoot), ElementsAre(NtfsRun{2, 2}));
}

TEST(NtfsHostileRuns, FilesMayShareClustersAndLieOverTheMft) {
    NtfsBuilder builder = NtfsBuilder::standard();
    NtfsRun const mft = builder.geometry().mftRuns.front();
    for (std::uint64_t const number : {kReadme, kLetter}) {
        builder.record(number).remove(ntfs_type::kData).nonResident(ntfs_type::kData, u"", {mft, {100, 3}});
    }
    builder.seal();
    EXPECT_THAT(runsOf(builder, kReadme), ElementsAre(mft, NtfsRun{100, 3}));
    EXPECT_EQ(runsOf(builder, kLetter), runsOf(builder, kReadme));
    expectRightMap(builder);
}

TEST(NtfsHostileRuns, SparseRunsOfACompressionUnitAreNotCounted) {
    NtfsBytes pairs{0x11, 1, 50};
    for (int i = 0; i < 17; ++i) { // one more than a unit of 16 clusters can have
        pairs.insert(pairs.end(), {0x01, 1});
    }
    pairs.push_back(0);
    NtfsBuilder builder = withPairs(kReadme, pairs);
    std::uint64_t const data = builder.record(kReadme).offsetOf(ntfs_type::kData);
    builder.pokeRecord(kReadme, data + 0x0C, 1, 2).pokeRecord(kReadme, data + 0x22, 4, 1); // compressed, by 16
    auto const runs = runsOf(builder, kReadme);
    ASSERT_THAT(runs, SizeIs(18));
    EXPECT_EQ(runs.back(), (NtfsRun{67, 1})) << "each takes its length for its distance";
}

/// A volume with records of 64 KiB, so that an attribute holds tens of thousands of runs.
class NtfsHostileManyRuns : public testing::Test {
protected:
    static constexpr std::size_t kRunsEach = 32000;
    static constexpr std::uint64_t kFirst = 32;

    NtfsHostileManyRuns() {
        NtfsGeometry geometry;
        geometry.recordBytes = 65536;
        geometry.records = kFirst + kExtents;
        geometry.clusters = geometry.records * 16 + 256;
        builder = NtfsBuilder::standard(geometry);
        NtfsBytes pairs;
        for (std::size_t i = 0; i < kRunsEach; ++i) {
            pairs.insert(pairs.end(), {0x01, 1}); // a cluster, right behind the one before
        }
        pairs.push_back(0);
        std::vector<NtfsListEntry> entries;
        for (std::uint64_t number = kFirst; number < kFirst + kExtents; ++number) {
            builder.record(number).baseReference = builder.record(kReadme).reference();
            builder.record(number).nonResidentRaw(ntfs_type::kData, u"", pairs);
            entries.push_back({ntfs_type::kData, number, 0, {}});
        }
        builder.record(kReadme).remove(ntfs_type::kData).attributeList(entries);
        builder.seal();
    }

    /// 2^24 runs and some more; under the sanitizer fewer.
    static constexpr std::uint64_t kExtents = kIsSanitized ? 40 : 525;

    NtfsBuilder builder;
};

TEST_F(NtfsHostileManyRuns, AreDecodedInOnePass) {
    ASSERT_TRUE(kIsSanitized || kExtents * kRunsEach > std::size_t{1} << 24);
    MemoryReader const volume(std::move(builder.bytes));
    RecordingReader const reader(volume);
    SilentLogger logger;
    NtfsAccess parser(logger, 4096, reader);
    reader.calls.clear();
    auto const begin = std::chrono::steady_clock::now();
    auto const runs = parser.get_inode_runlist(kReadme);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(60));
    EXPECT_EQ(runs.size(), kExtents * kRunsEach);
    EXPECT_EQ(runs.back().lcn, static_cast<std::int64_t>(kRunsEach)) << "each extent begins anew";
    // The record, each extension to find its data and to decode them, and the record again for its list.
    EXPECT_EQ(reader.calls.size(), 2 * (2 + 2 * kExtents));
}

} // namespace
