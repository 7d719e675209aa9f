// The runs of $MFT: which of them holds a VCN, and what happens where $MFT needs itself to be found.
#include "support/NtfsBench.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <pthread.h>

namespace {

using namespace tests;
using agent::core::fs::ntfs_runlist;
using testing::ElementsAre;
using testing::IsEmpty;

/// The run that holds a VCN, and where it begins.
struct Found {
    std::int64_t lcn;
    std::int64_t length;
    long start;

    bool operator==(Found const&) const = default;
};

void PrintTo(Found const& found, std::ostream* out) {
    *out << found.length << " clusters at " << found.lcn << " from VCN " << found.start;
}

Found findRun(std::vector<ntfs_runlist> const& runs, long vcn) {
    static NtfsBench const bench(NtfsBuilder::standard());
    ntfs_runlist const run = bench.parser.runlist_from_vcn(runs, vcn);
    return {run.lcn, run.length, vcn};
}

TEST(NtfsRunFromVcn, AnEmptyListGivesNothingAndKeepsTheVcn) {
    EXPECT_EQ(findRun({}, 0), (Found{0, 0, 0}));
    EXPECT_EQ(findRun({}, 77), (Found{0, 0, 77}));
    EXPECT_EQ(findRun({}, -3), (Found{0, 0, -3}));
}

TEST(NtfsRunFromVcn, TheRunThatEndsBehindTheVcn) {
    std::vector<ntfs_runlist> const runs{{100, 4}, {50, 1}, {200, 8}};
    EXPECT_EQ(findRun(runs, 0), (Found{100, 4, 0}));
    EXPECT_EQ(findRun(runs, 3), (Found{100, 4, 0}));
    EXPECT_EQ(findRun(runs, 4), (Found{50, 1, 4}));
    EXPECT_EQ(findRun(runs, 5), (Found{200, 8, 5}));
    EXPECT_EQ(findRun(runs, 12), (Found{200, 8, 5}));
}

TEST(NtfsRunFromVcn, BehindAllItIsTheLast) {
    std::vector<ntfs_runlist> const runs{{100, 4}, {50, 1}, {200, 8}};
    EXPECT_EQ(findRun(runs, 13), (Found{200, 8, 5}));
    EXPECT_EQ(findRun(runs, std::numeric_limits<long>::max()), (Found{200, 8, 5}));
}

TEST(NtfsRunFromVcn, ANegativeVcnIsInTheFirst) {
    EXPECT_EQ(findRun({{100, 4}, {50, 1}}, -1), (Found{100, 4, 0}));
}

TEST(NtfsRunFromVcn, HolesAreRunsLikeOthers) {
    std::vector<ntfs_runlist> const runs{{100, 4}, {-1, 6}, {200, 8}};
    EXPECT_EQ(findRun(runs, 4), (Found{-1, 6, 4}));
    EXPECT_EQ(findRun(runs, 9), (Found{-1, 6, 4}));
    EXPECT_EQ(findRun(runs, 10), (Found{200, 8, 10}));
}

TEST(NtfsRunFromVcn, MarkersArePassedOverAndCount) {
    std::vector<ntfs_runlist> const runs{{-2, 5}, {100, 4}, {std::numeric_limits<std::int64_t>::min(), 6}, {200, 8}};
    EXPECT_EQ(findRun(runs, 0), (Found{100, 4, 5})); // the first that ends behind, though it begins behind too
    EXPECT_EQ(findRun(runs, 8), (Found{100, 4, 5}));
    EXPECT_EQ(findRun(runs, 9), (Found{200, 8, 15}));
    EXPECT_EQ(findRun(runs, 15), (Found{200, 8, 15}));
}

TEST(NtfsRunFromVcn, RunsOfNoLengthHoldNothing) {
    EXPECT_EQ(findRun({{100, 0}, {200, 3}}, 0), (Found{200, 3, 0}));
    EXPECT_EQ(findRun({{100, 0}}, 0), (Found{100, 0, 0}));
}

TEST(NtfsRunFromVcn, LengthsThatWrapAroundEnd) {
    constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
    EXPECT_EQ(findRun({{1, kMost}, {2, kMost}, {3, 2}}, 5), (Found{1, kMost, 0}));
    EXPECT_EQ(findRun({{1, -4}, {2, 3}, {3, 10}}, 5), (Found{3, 10, -1}));
}

std::vector<std::pair<std::int64_t, std::int64_t>> mftRuns(NtfsBench& bench) {
    std::vector<std::pair<std::int64_t, std::int64_t>> runs;
    for (ntfs_runlist const& run : bench.parser.get_mft_runlist()) {
        runs.emplace_back(run.lcn, run.length);
    }
    return runs;
}

TEST(NtfsMftRunlist, IsDecodedFromTheKeptRecordEachTime) {
    NtfsGeometry geometry;
    geometry.mftRuns = {{4, 2}, {40, 6}, {30, 8}};
    NtfsBench bench(NtfsBuilder::standard(geometry));
    bench.volume.bytes.clear(); // nothing is read
    bench.forget();
    for (int i = 0; i < 2; ++i) {
        EXPECT_THAT(mftRuns(bench), ElementsAre(std::pair(4L, 2L), std::pair(40L, 6L), std::pair(30L, 8L)));
    }
    EXPECT_THAT(bench.logger.entries, ElementsAre(searchingDataEntry(), searchingDataEntry()));
    EXPECT_THAT(bench.reader.calls, IsEmpty());
}

TEST(NtfsMftRunlist, WithoutDataTheProofIsReadFromTheVolumesStart) {
    NtfsBuilder builder = NtfsBuilder::standard();
    builder.record(0).remove(ntfs_type::kData);
    builder.seal();
    EXPECT_EQ(openNtfs(builder), (NtfsOpening{"Could not read MFT record for inode number 1",
                                              {readingEntry(0, 16384), searchingDataEntry(), readingEntry(1, 1024),
                                               debugEntry("MFT record 1 is invalid.")},
                                              {seekCall(0), readCall(512), seekCall(16384), readCall(1024),
                                               seekCall(1024), readCall(1024)}}));
}

TEST(NtfsMftRunlist, ResidentDataHaveNoRuns) {
    NtfsBuilder builder = NtfsBuilder::standard();
    builder.record(0).remove(ntfs_type::kData).resident(ntfs_type::kData, u"", NtfsBytes(16));
    builder.seal();
    NtfsOpening const opening = openNtfs(builder);
    EXPECT_EQ(opening.refusal, "Could not read MFT record for inode number 1");
    EXPECT_THAT(opening.entries, ElementsAre(readingEntry(0, 16384), searchingDataEntry(),
                                             debugEntry("Attribute is resident. Can't find data-runs."),
                                             readingEntry(1, 1024), debugEntry("MFT record 1 is invalid.")));
}

constexpr std::uint64_t kExtension = 15;

/// $MFT in three runs, of which the last stands in an extension record that an attribute list names.
NtfsBuilder withExtendedMft() {
    NtfsGeometry geometry;
    geometry.mftRuns = {{4, 2}, {40, 6}, {30, 8}};
    NtfsBuilder builder = NtfsBuilder::standard(geometry);
    NtfsRecord& mft = builder.record(0);
    NtfsRecord& extension = builder.record(kExtension).clear();
    mft.remove(ntfs_type::kData).nonResident(ntfs_type::kData, u"", {{4, 2}, {40, 6}}, 65536);
    extension.baseReference = mft.reference();
    extension.nonResident(ntfs_type::kData, u"", {{30, 8}}, 0, 8);
    mft.attributeList({{ntfs_type::kStandardInformation, mft.reference(), 0, u""},
                       {ntfs_type::kFileName, mft.reference(), 0, u""},
                       {ntfs_type::kData, mft.reference(), 0, u""},
                       {ntfs_type::kData, extension.reference(), 8, u""}});
    builder.seal();
    return builder;
}

TEST(NtfsExtendedMft, IsRefusedWithTheProofsText) {
    NtfsBuilder const builder = withExtendedMft();
    NtfsOpening const opening = openNtfs(builder);
    EXPECT_EQ(opening.refusal, "Could not read MFT record for inode number 1");
    std::uint64_t const place = builder.byteOffsetOf(kExtension);
    LogEntry const foundType = debugEntry("Found the type 0x80 in ATTRIBUTE_LIST.");
    EXPECT_THAT(opening.entries,
                ElementsAre(readingEntry(0, 16384), searchingDataEntry(),
                            debugEntry("Searching for attribute 0x80 in ATTRIBUTE LIST"), foundType,
                            debugEntry("Found attribute 0x80 in inode 0 for base inode 0"),
                            debugEntry("Already seen inode 0, skipping."), foundType,
                            debugEntry("Found attribute 0x80 in inode 15 for base inode 0"),
                            readingEntry(kExtension, place), searchingDataEntry(), // reading it needs no list again
                            readingEntry(kExtension, place),
                            readingEntry(1, 30 * 4096 + 1024))); // by the extension's runs, which begin later
}

TEST(NtfsExtendedMft, AnExtensionThatCannotBeReadLeavesTheDirectRuns) {
    NtfsBuilder builder = withExtendedMft();
    builder.poke(builder.byteOffsetOf(kExtension), 0, 4);
    NtfsBench bench(builder);
    EXPECT_THAT(mftRuns(bench), ElementsAre(std::pair(4L, 2L), std::pair(40L, 6L)));
}

TEST(NtfsExtendedMft, AListThatNamesOnlyTheMftItselfIsHarmless) {
    NtfsBuilder builder = NtfsBuilder::standard();
    NtfsRecord& mft = builder.record(0);
    mft.attributeList({{ntfs_type::kData, mft.reference(), 0, u""}, {ntfs_type::kData, 0, 0, u""}});
    builder.seal();
    EXPECT_EQ(openNtfs(builder).refusal, "");
}

/// Runs something where little stack is left to waste.
template <typename Call>
void onSmallStack(Call const& call) {
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, 128 << 10), 0);
    pthread_t thread{};
    auto const body = [](void* argument) -> void* {
        (*static_cast<Call const*>(argument))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, body, const_cast<Call*>(&call)), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    pthread_attr_destroy(&attributes);
}

TEST(NtfsExtendedMft, IsRefusedOnASmallStackToo) {
    NtfsBuilder const builder = withExtendedMft();
    NtfsOpening opening;
    onSmallStack([&] { opening = openNtfs(builder); });
    EXPECT_EQ(opening, openNtfs(builder));
}

TEST(NtfsExtendedMft, AChainOfListsEndsOnASmallStack) {
    NtfsBuilder builder = NtfsBuilder::standard();
    for (std::uint64_t number = 28; number < 63; ++number) { // each record's list names the next one
        NtfsRecord& record = builder.record(number);
        record.baseReference = number == 28 ? builder.record(0).reference() : builder.record(number - 1).reference();
        record.attributeList({{ntfs_type::kData, builder.record(number + 1).reference(), 0, u""}});
    }
    builder.record(0).attributeList({{ntfs_type::kData, builder.record(28).reference(), 0, u""}});
    builder.seal();
    NtfsOpening opening;
    onSmallStack([&] { opening = openNtfs(builder); });
    EXPECT_EQ(opening.refusal, ""); // none of the lists leads to data, so the direct ones count
    EXPECT_GT(opening.calls.size(), 6U);
}

TEST(NtfsExtendedMft, ExtensionsThatNameOneAnotherEnd) {
    NtfsBuilder builder = NtfsBuilder::standard();
    NtfsRecord& mft = builder.record(0);
    for (std::uint64_t number = 28; number < 31; ++number) { // all belong to $MFT, and each names all
        NtfsRecord& record = builder.record(number);
        record.baseReference = mft.reference();
        record.attributeList(
            {{ntfs_type::kData, 28, 0, u""}, {ntfs_type::kData, 29, 0, u""}, {ntfs_type::kData, 30, 0, u""}});
    }
    mft.attributeList({{ntfs_type::kData, 30, 0, u""}, {ntfs_type::kData, 29, 0, u""}, {ntfs_type::kData, 28, 0, u""}});
    builder.seal();
    NtfsOpening opening;
    onSmallStack([&] { opening = openNtfs(builder); });
    EXPECT_EQ(opening.refusal, "");
}

} // namespace
