// Attribute lists of NTFS: which extension records are followed, in which order, and what is told of the others.
#include "support/NtfsListVolume.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace tests;
using namespace agent::core::fs;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t kOther = 50; // another file

class NtfsAttributeList : public NtfsListVolume {};

TEST_F(NtfsAttributeList, HitsComeInTheOrderOfTheEntriesWhereTheListStands) {
    extension(42, 2);
    extension(41);
    base().attributeList({dataIn(42), dataIn(41)}).nonResident(ntfs_type::kData, u"", {{90, 1}});
    open();
    EXPECT_THAT(find(), ElementsAre(hit(42, 0), hit(42, 1), hit(41), hit(kListBase)));
    EXPECT_EQ(logger.entries, starting() + followed(42) + followed(41));
}

TEST_F(NtfsAttributeList, AListBehindAnAttributeHasItsHitsBehindIt) {
    extension(41);
    base()
        .append(ntfsResident(ntfs_type::kData, u"", {1}))
        .append(ntfsResident(ntfs_type::kAttributeList, u"", ntfsAttributeList({dataIn(41)})))
        .append(ntfsResident(ntfs_type::kData, u"", {2}));
    open();
    EXPECT_THAT(find(), ElementsAre(hit(kListBase, 0), hit(41), hit(kListBase, 1)));
}

TEST_F(NtfsAttributeList, EntriesOfOtherTypesArePassedOver) {
    extension(41);
    base().attributeList({{0x10, kListBase, 0, {}}, {0x30, 41, 0, {}}, dataIn(41), {0xA0, 42, 0, u"$I30"}});
    open();
    EXPECT_THAT(find(), ElementsAre(hit(41)));
    EXPECT_EQ(logger.entries, starting() + followed(41));
}

TEST_F(NtfsAttributeList, TwoEntriesForOneHolderReadItOnce) {
    extension(41, 2);
    base().attributeList({dataIn(41), dataIn(41, 1)});
    open();
    EXPECT_THAT(find(), ElementsAre(hit(41, 0), hit(41, 1)));
    EXPECT_EQ(logger.entries, starting() + followed(41) + found(41) + one("Already seen inode 41, skipping."));
    EXPECT_THAT(reader->calls, ElementsAre(seekCall(static_cast<long>(builder.byteOffsetOf(41))), readCall(1024)));
}

TEST_F(NtfsAttributeList, TheSequenceNumberOfAReferenceMeansNothing) {
    extension(41);
    base().attributeList({dataIn(41 | 7UL << 48), dataIn(41 | 9UL << 48)});
    open();
    EXPECT_THAT(find(), ElementsAre(hit(41)));
    EXPECT_EQ(logger.entries, starting() + followed(41) + found(41) + one("Already seen inode 41, skipping."));
}

TEST_F(NtfsAttributeList, EntriesForTheBaseRecordAreNeverFollowed) {
    base().attributeList({dataIn(kListBase), dataIn(kListBase, 1)}).resident(ntfs_type::kData, u"", {1});
    open();
    EXPECT_THAT(find(), ElementsAre(hit(kListBase))) << "the walk finds it once";
    EXPECT_EQ(logger.entries, starting() + found(kListBase) + one("Already seen inode 40, skipping.") +
                                  found(kListBase) + one("Already seen inode 40, skipping."));
    EXPECT_THAT(reader->calls, IsEmpty());
}

TEST_F(NtfsAttributeList, AHolderOfAnotherFileIsSkipped) {
    extension(41).baseReference = kOther;
    extension(42);
    base().attributeList({dataIn(41), dataIn(42)});
    open();
    EXPECT_THAT(find(), ElementsAre(hit(42)));
    EXPECT_EQ(logger.entries, starting() + found(41) + reading(41) +
                                  one("External inode 41 doesn't refer to base inode 40") + followed(42));
}

TEST_F(NtfsAttributeList, TheSequenceNumberOfTheBaseReferenceMeansNothing) {
    extension(41).baseReference = kListBase | 0xBEEFUL << 48;
    base().attributeList({dataIn(41)});
    open();
    EXPECT_THAT(find(), ElementsAre(hit(41)));
}

TEST_F(NtfsAttributeList, AHolderThatCannotBeReadIsSkippedSilently) {
    extension(41);
    extension(42);
    base().attributeList({dataIn(41), dataIn(42)});
    open();
    builder.poke(builder.byteOffsetOf(41, 510), 0xDEAD, 2); // torn
    volume->bytes = builder.bytes;
    EXPECT_THAT(find(), ElementsAre(hit(42)));
    EXPECT_EQ(logger.entries, starting() + found(41) + reading(41) + followed(42));
}

TEST_F(NtfsAttributeList, AHolderWithoutTheMagicIsSkippedWithTheReadersEntry) {
    extension(41);
    base().attributeList({dataIn(41)});
    open();
    builder.poke(builder.byteOffsetOf(41), 0x44414142, 4);
    volume->bytes = builder.bytes;
    EXPECT_THAT(find(), IsEmpty());
    EXPECT_EQ(logger.entries, starting() + found(41) + reading(41) + one("MFT record 41 is invalid."));
}

TEST_F(NtfsAttributeList, AHolderFarBehindTheMftIsSkipped) {
    base().attributeList({dataIn(0xFFFFFFFFFFFF), dataIn(0x7FFFFFFFFFFF), dataIn(1UL << 40)});
    open();
    EXPECT_THAT(find(), IsEmpty());
}

TEST_F(NtfsAttributeList, AnEndMarkEndsTheList) {
    extension(41);
    extension(42);
    base().attributeList({dataIn(41), {0xFFFFFFFF, 0, 0, {}}, dataIn(42)});
    open();
    EXPECT_THAT(find(), ElementsAre(hit(41)));
    EXPECT_EQ(logger.entries,
              starting() + followed(41) + one("Found End attribute in ATTRIBUTE LIST, nothing more to traverse"));
}

TEST_F(NtfsAttributeList, AnEntryOfLengthZeroEndsTheList) {
    extension(41);
    extension(42);
    NtfsBytes list = ntfsAttributeList({dataIn(41), dataIn(42), dataIn(42)});
    putNumber(list, 32 + 4, 0, 2);
    base().resident(ntfs_type::kAttributeList, u"", list);
    open();
    EXPECT_THAT(find(), ElementsAre(hit(41)));
    EXPECT_EQ(logger.entries, starting() + followed(41) + one("No more entries in ATTRIBUTE LIST"));
}

TEST_F(NtfsAttributeList, LengthZeroIsSeenBeforeTheEndMark) {
    NtfsBytes list = ntfsAttributeList({{0xFFFFFFFF, 0, 0, {}}});
    putNumber(list, 4, 0, 2);
    base().resident(ntfs_type::kAttributeList, u"", list);
    open();
    EXPECT_THAT(find(), IsEmpty());
    EXPECT_EQ(logger.entries, starting() + one("No more entries in ATTRIBUTE LIST"));
}

TEST_F(NtfsAttributeList, EntriesNeedNotBeLongNorAligned) {
    extension(41);
    NtfsBytes list(7 + 26);
    putNumber(list, 0, 0x30, 4);
    putNumber(list, 4, 7, 2); // of another type: only type and length are looked at
    putNumber(list, 7, 0x80, 4);
    putNumber(list, 7 + 4, 26, 2);
    putNumber(list, 7 + 0x10, 41, 8);
    base().resident(ntfs_type::kAttributeList, u"", list);
    open();
    EXPECT_THAT(find(), ElementsAre(hit(41)));
}

TEST_F(NtfsAttributeList, AnEmptyListHasNoHits) {
    base().resident(ntfs_type::kAttributeList, u"", {});
    open();
    EXPECT_THAT(find(), IsEmpty());
    EXPECT_EQ(logger.entries, starting());
}

TEST_F(NtfsAttributeList, AnAttributeListListedInTheListIsFollowedAndReportedToo) {
    extension(41).resident(ntfs_type::kAttributeList, u"", {});
    base().attributeList({{0x20, 41, 0, {}}});
    open();
    EXPECT_THAT(find(kAttributeList),
                ElementsAre(hit(41, 0, ntfs_type::kAttributeList), hit(kListBase, 0, ntfs_type::kAttributeList)));
}

TEST_F(NtfsAttributeList, TraversingAListInMemoryGivesTheSame) {
    extension(41, 2);
    NtfsBytes list = ntfsAttributeList({dataIn(41)});
    open();
    EXPECT_THAT(parser->traverse_attr_list(kListBase, kData, list.size(), list.data()),
                ElementsAre(hit(41, 0), hit(41, 1)));
    EXPECT_EQ(logger.entries, followed(41));
    forget();
    EXPECT_THAT(parser->traverse_attr_list(kListBase, kData, 0, list.data()), IsEmpty());
    EXPECT_THAT(parser->traverse_attr_list(kListBase, kData, 0, nullptr), IsEmpty());
    EXPECT_THAT(logger.entries, IsEmpty());
}

} // namespace
