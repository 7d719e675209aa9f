// Attribute lists of NTFS with entries that lie: free holders, short entries, records that are not yet to be found.
#include "support/NtfsBench.h"
#include "support/NtfsListVolume.h"
#include "support/ResidentMemory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace tests;
using namespace agent::core::fs;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t kReadme = 24;

class NtfsHostileList : public NtfsListVolume {
protected:
    /// The runs of the base record's data.
    std::vector<NtfsRun> const& read() {
        runs.clear();
        for (ntfs_runlist const& run : parser->get_inode_runlist(kListBase)) {
            runs.push_back({run.lcn, run.length});
        }
        return runs;
    }

    std::vector<NtfsRun> runs;
};

TEST_F(NtfsHostileList, AnEntryShorterThanItsFixedPartIsTaken) {
    extension(41);
    extension(42);
    for (std::uint16_t const length : std::initializer_list<std::uint16_t>{0x18, 0x19, 0x1A, 0x1B}) {
        NtfsBytes list = ntfsAttributeList({dataIn(41)});
        list.resize(length); // the next entry begins inside what the first one should have
        putNumber(list, 4, length, 2);
        NtfsBytes const next = ntfsAttributeList({dataIn(42)});
        list.insert(list.end(), next.begin(), next.end());
        base().clear().resident(ntfs_type::kAttributeList, u"", list);
        open();
        EXPECT_THAT(find(), ElementsAre(hit(41), hit(42))) << length;
    }
}

TEST_F(NtfsHostileList, WhereAnEntrysNameStandsMeansNothing) {
    extension(41);
    for (std::uint64_t const offset : {0U, 0x19U, 0xFFU}) {
        NtfsBytes list = ntfsAttributeList({dataIn(41)});
        putNumber(list, 6, 255, 1);
        putNumber(list, 7, offset, 1);
        base().clear().resident(ntfs_type::kAttributeList, u"", list);
        open();
        EXPECT_THAT(find(), ElementsAre(hit(41))) << offset;
    }
}

TEST_F(NtfsHostileList, AnotherFilesBaseRecordIsSkipped) {
    base().attributeList({dataIn(kReadme)});
    open();
    EXPECT_THAT(find(), IsEmpty());
    EXPECT_EQ(logger.entries,
              starting() + found(kReadme) + reading(kReadme) + one("External inode 24 doesn't refer to base inode 40"));
}

TEST_F(NtfsHostileList, AFreeRecordIsSkippedUnlessItStillBelongsToTheFile) {
    base().attributeList({dataIn(45), dataIn(46)});
    extension(46).flags = 0;
    open();
    EXPECT_THAT(find(), ElementsAre(hit(46))) << "whether it is in use is not asked";
    EXPECT_EQ(logger.entries, starting() + found(45) + reading(45) +
                                  one("External inode 45 doesn't refer to base inode 40") + followed(46));
}

TEST_F(NtfsHostileList, RecordNumbersOfAllBitsAreReadFromNowhere) {
    base().attributeList({dataIn(std::uint64_t{1} << 47), dataIn((std::uint64_t{1} << 47) + 41), dataIn(0xFFFFFFFF)});
    extension(41);
    open();
    EXPECT_THAT(find(), IsEmpty());
    EXPECT_EQ(reader->calls.size(), 6U);
    EXPECT_EQ(reader->calls.at(0), seekCall((long{1} << 57) + 4 * 4096));
}

TEST_F(NtfsHostileList, WhatAListDoesNotNameIsNotFound) {
    extension(41);
    extension(42);
    base().attributeList({dataIn(41)});
    open();
    EXPECT_THAT(find(), ElementsAre(hit(41)));
}

TEST_F(NtfsHostileList, WhatAListNamesMayNotBeThere) {
    extension(41, 0);
    base().attributeList({dataIn(41)}).nonResident(ntfs_type::kData, u"", {{90, 1}});
    open();
    EXPECT_THAT(find(), ElementsAre(hit(kListBase)));
    EXPECT_EQ(logger.entries, starting() + followed(41));
}

TEST_F(NtfsHostileList, EntriesInAnyOrderGiveTheRunsInThatOrder) {
    // The VCNs of entries and extents are not looked at.
    extension(41, 0).nonResident(ntfs_type::kData, u"", {{141, 1}}, {}, 5);
    extension(42, 0).nonResident(ntfs_type::kData, u"", {{142, 1}}, {}, 0);
    extension(43, 0).nonResident(ntfs_type::kData, u"", {{141, 1}}, {}, 5); // an extent once more
    base().attributeList({dataIn(41, 5), dataIn(42), dataIn(43, 5)});
    open();
    EXPECT_THAT(read(), ElementsAre(NtfsRun{141, 1}, NtfsRun{142, 1}, NtfsRun{141, 1}));
}

TEST_F(NtfsHostileList, GapsAndOverlapsBetweenExtentsAreNotNoticed) {
    extension(41, 0).nonResident(ntfs_type::kData, u"", {{150, 4}}, {}, 0);
    extension(42, 0).nonResident(ntfs_type::kData, u"", {{160, 4}}, {}, 2);                // overlaps
    extension(43, 0).nonResident(ntfs_type::kData, u"", {{170, 4}}, {}, 1000);             // leaves a gap
    extension(44, 0).nonResidentRaw(ntfs_type::kData, u"", {0x21, 4, 180, 0, 0}, 1, 0, 7); // and says 8 clusters
    base().attributeList({dataIn(41), dataIn(42, 2), dataIn(43, 1000), dataIn(44)});
    open();
    EXPECT_THAT(read(), ElementsAre(NtfsRun{150, 4}, NtfsRun{160, 4}, NtfsRun{170, 4}, NtfsRun{180, 4}));
}

TEST_F(NtfsHostileList, ItsOwnRunsOutsideTheVolumeHoldNothing) {
    extension(41);
    std::size_t const before = residentBytes();
    for (std::int64_t const lcn : {std::int64_t{512}, std::int64_t{1} << 30, std::int64_t{1} << 50}) {
        base().clear().nonResident(ntfs_type::kAttributeList, u"", {{lcn, 1}}, std::uint64_t{1} << 32);
        open();
        EXPECT_THAT(find(), IsEmpty()) << lcn;
        EXPECT_EQ(logger.entries.back(), debugEntry("No more entries in ATTRIBUTE LIST"));
        EXPECT_EQ(reader->calls.size(), 2U);
    }
    EXPECT_LT(residentBytes(), before + (std::size_t{64} << 20));
}

/// $MFT, whose second run only an extension record names.
NtfsBuilder withExtension(std::uint64_t number) {
    NtfsGeometry geometry;
    geometry.mftRuns = {{4, 8}, {30, 8}};
    NtfsBuilder builder = NtfsBuilder::standard(geometry);
    NtfsRecord& mft = builder.record(0);
    mft.remove(ntfs_type::kData).nonResident(ntfs_type::kData, u"", {{4, 8}}, 65536);
    mft.attributeList({{ntfs_type::kData, 0, 0, {}}, {ntfs_type::kData, number, 8, {}}});
    NtfsRecord& extension = builder.record(number).clear();
    extension.baseReference = mft.reference();
    extension.nonResident(ntfs_type::kData, u"", {{30, 8}}, 0, 8);
    builder.seal();
    return builder;
}

TEST(NtfsHostileMftList, AnExtensionThatOnlyItselfNamesIsNotFoundAndTheRestIs) {
    // Record 40 stands at the second run; by the first one it is looked for behind that, where nothing is.
    NtfsBuilder const builder = withExtension(40);
    ASSERT_EQ(openNtfs(builder).refusal, "");
    NtfsBench bench(builder);
    EXPECT_EQ(bench.parser.extents(kReadme).size(), 2U);
    bench.forget();
    EXPECT_THAT(bench.parser.extents(41), IsEmpty()) << "which stands there as well";
    EXPECT_EQ(bench.logger.entries.back(), debugEntry("Unable to read inode 41"));
}

TEST(NtfsHostileMftList, AnExtensionInTheKnownPartTakesThePlaceOfAllRuns) {
    EXPECT_EQ(openNtfs(withExtension(28)).refusal, "Could not read MFT record for inode number 1");
}

} // namespace
