// Walking the attributes of an MFT record in memory: order, ends, bounds, and what is looked for by name.
#include "support/NtfsAccess.h"
#include "support/NtfsBuilder.h"
#include "support/Readers.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace tests;
using namespace agent::core::fs;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

constexpr std::size_t kRecordBytes = 1024;
constexpr std::size_t kFirst = 0x38; // where attributes begin, as genuine volumes have it
constexpr unsigned long kRecord = 77;

/// A record of exactly its size, so that the sanitizer sees a read behind it. Attributes are appended.
class Record {
public:
    Record() : bytes_(std::make_unique<std::uint8_t[]>(kRecordBytes)) { set(0x14, kFirst, 2); }

    Record& set(std::size_t offset, std::uint64_t value, std::size_t width) {
        putNumber({bytes_.get(), kRecordBytes}, offset, value, width);
        return *this;
    }
    Record& put(NtfsBytes const& attribute) {
        std::copy(attribute.begin(), attribute.end(), bytes_.get() + end);
        end += attribute.size();
        return *this;
    }
    Record& endMark() { return set(end, 0xFFFFFFFF, 4); }

    ntfs_mft_record_t* get() const { return reinterpret_cast<ntfs_mft_record_t*>(bytes_.get()); }

    std::size_t end = kFirst;

private:
    std::unique_ptr<std::uint8_t[]> bytes_;
};

/// An attribute of a type and a length of at least 24, without a value.
NtfsBytes plain(std::uint32_t type, std::size_t length) {
    NtfsBytes bytes(std::max<std::size_t>(length, 24));
    putNumber(bytes, 0, type, 4);
    putNumber(bytes, 4, length, 4);
    return bytes;
}

class NtfsAttributes : public testing::Test {
protected:
    NtfsAttributes() : volume(NtfsBuilder::standard().bytes), parser(logger, 512, volume) { logger.entries.clear(); }

    std::vector<std::pair<unsigned long, long>> find(Record const& record, NtfsAttrTypes type) const {
        return parser.get_attributes(kRecord, record.get(), type);
    }

    std::string refusal(Record const& record, NtfsAttrTypes type) const {
        try {
            parser.get_attributes(kRecord, record.get(), type);
            return "walked";
        } catch (std::runtime_error const& error) {
            return error.what();
        }
    }

    RecordingLogger logger;
    MemoryReader volume;
    NtfsAccess parser;
};

char const* const kOutside = "Invalid buffer passed in to traverse attribute record for inode: 77";

TEST_F(NtfsAttributes, AHitIsTheRecordAndTheOffsetInIt) {
    Record record;
    record.put(plain(0x10, 0x60)).put(plain(0x30, 0x68)).put(plain(0x80, 0x48)).endMark();
    EXPECT_THAT(find(record, kData), ElementsAre(Pair(kRecord, 0x38 + 0x60 + 0x68)));
    EXPECT_THAT(find(record, kStandardInformation), ElementsAre(Pair(kRecord, 0x38)));
    EXPECT_THAT(logger.entries,
                ElementsAre(debugEntry("Searching for attribute 128"), debugEntry("Searching for attribute 16")));
}

TEST_F(NtfsAttributes, AllOfATypeAreFoundInTheirOrder) {
    Record record;
    record.put(plain(0x10, 0x60)).put(plain(0x80, 0x48)).put(plain(0x80, 0x20)).put(plain(0x80, 0x30)).endMark();
    EXPECT_THAT(find(record, kData), ElementsAre(Pair(kRecord, 0x98), Pair(kRecord, 0xE0), Pair(kRecord, 0x100)));
}

TEST_F(NtfsAttributes, AHigherTypeEndsTheWalk) {
    Record record;
    record.put(plain(0x10, 0x60)).put(plain(0x90, 0x48)).put(plain(0x80, 0x48)).endMark();
    EXPECT_THAT(find(record, kData), IsEmpty());
    EXPECT_THAT(find(record, kIndexRoot), ElementsAre(Pair(kRecord, 0x98)))
        << "a lower one does not: types are taken to ascend";
}

TEST_F(NtfsAttributes, TheEndMarkEndsTheWalk) {
    Record record;
    record.put(plain(0x10, 0x60)).put(plain(0xFFFFFFFF, 0x20)).put(plain(0x80, 0x48)).endMark();
    EXPECT_THAT(find(record, kData), IsEmpty());
    EXPECT_THAT(find(record, kEndOfAttributes), IsEmpty()) << "and is no attribute itself";
}

TEST_F(NtfsAttributes, TypesAreComparedUnsigned) {
    Record record;
    record.put(plain(0x10, 0x60)).put(plain(0x80000000, 0x48)).put(plain(0x80, 0x48)).endMark();
    EXPECT_THAT(find(record, kData), IsEmpty());
}

TEST_F(NtfsAttributes, NoTypeFindsNothingAndStopsAtTheFirst) {
    Record record;
    record.put(plain(0x10, 0x60)).put(plain(0, 0x48)).endMark();
    EXPECT_THAT(find(record, kNoAttribute), IsEmpty());
    Record damaged;
    damaged.put(plain(0x10, 0x60)).set(kFirst + 4, 0xFFFFFFFF, 4);
    EXPECT_THAT(find(damaged, kNoAttribute), IsEmpty()) << "the length of the first is not looked at";
    EXPECT_THAT(logger.entries,
                ElementsAre(debugEntry("Searching for attribute 0"), debugEntry("Searching for attribute 0")));
}

TEST_F(NtfsAttributes, NoTypeAsksAListThatStandsInFrontOfAllElse) {
    Record record;
    record.put(ntfsResident(0x20, u"", ntfsAttributeList({{0, 9999, 0, {}}}))).put(plain(0x80, 0x48)).endMark();
    EXPECT_THAT(find(record, kNoAttribute), IsEmpty());
    ASSERT_GE(logger.entries.size(), 4U);
    EXPECT_EQ(logger.entries[1], debugEntry("Searching for attribute 0x0 in ATTRIBUTE LIST"));
    EXPECT_EQ(logger.entries[2], debugEntry("Found the type 0x0 in ATTRIBUTE_LIST."));
    EXPECT_EQ(logger.entries[3], debugEntry("Found attribute 0x0 in inode 9999 for base inode 77"));
}

TEST_F(NtfsAttributes, AStartPastTheRecordIsRefused) {
    Record record;
    record.put(plain(0x80, 0x48)).endMark();
    EXPECT_EQ(refusal(record.set(0x14, kRecordBytes + 1, 2), kData),
              "Invalid buffer passed in to traverse attributes for inode: 77");
    EXPECT_EQ(refusal(record.set(0x14, 0xFFFF, 2), kNoAttribute),
              "Invalid buffer passed in to traverse attributes for inode: 77");
    EXPECT_EQ(refusal(record.set(0x14, kRecordBytes, 2), kData), kOutside) << "nothing stands there to be read";
    EXPECT_EQ(refusal(record.set(0x14, kRecordBytes - 3, 2), kData), kOutside);
}

TEST_F(NtfsAttributes, AStartInsideTheHeaderIsWalkedAsItStands) {
    Record record;
    record.set(0x14, 0, 2).set(0, 0xFFFFFFFF, 4);
    EXPECT_THAT(find(record, kData), IsEmpty());
}

TEST_F(NtfsAttributes, WhatWasSteppedOverMayLeave72BytesWithoutTheHeader) {
    Record record;
    record.put(plain(0x30, 952)).endMark(); // 952 + 72 = 1024; the mark stands at 0x38 + 952 = 1008
    EXPECT_THAT(find(record, kFileName), ElementsAre(Pair(kRecord, 0x38)));
    Record longer;
    longer.put(plain(0x30, 953));
    EXPECT_EQ(refusal(longer, kFileName), kOutside) << "the hit is lost then";
}

TEST_F(NtfsAttributes, TheStepsAddUp) {
    Record record;
    record.put(plain(0x30, 480)).put(plain(0x30, 472)).endMark();
    EXPECT_EQ(find(record, kFileName).size(), 2U);
    Record longer;
    longer.put(plain(0x30, 480)).put(plain(0x30, 480)).endMark();
    EXPECT_EQ(refusal(longer, kFileName), kOutside);
}

TEST_F(NtfsAttributes, TheHeadersLengthIsNotCountedSoTheWalkMayReachPastTheRecord) {
    Record record;
    record.set(0x14, 0x78, 2);
    record.end = 0x78;
    record.put(plain(0x30, 904)); // 904 + 72 < 1024, but the next one would stand at 1024
    EXPECT_EQ(refusal(record, kFileName), kOutside);
}

TEST_F(NtfsAttributes, AnEndMarkInTheLastFourBytesIsSeen) {
    Record record;
    record.set(0x14, 0x78, 2).set(kRecordBytes - 4, 0xFFFFFFFF, 4);
    record.end = 0x78;
    record.put(plain(0x30, 900));
    EXPECT_THAT(find(record, kFileName), ElementsAre(Pair(kRecord, 0x78)));
}

TEST_F(NtfsAttributes, AHigherTypeInTheLastFourBytesEndsTheWalk) {
    Record record;
    record.set(0x14, 0x78, 2).set(kRecordBytes - 4, 0x90, 4);
    record.end = 0x78;
    record.put(plain(0x30, 900));
    EXPECT_THAT(find(record, kData), IsEmpty());
    EXPECT_EQ(refusal(record, kIndexRoot), kOutside) << "looked for, it is cut off";
}

TEST_F(NtfsAttributes, ALengthOfZeroEndsTheWalkWithWhatWasFound) {
    Record record;
    record.put(plain(0x30, 0x40)).put(plain(0x80, 0x48));
    std::size_t const stalled = record.end;
    record.put(plain(0x80, 0)).put(plain(0x80, 0x48)).endMark();
    EXPECT_THAT(find(record, kData), ElementsAre(Pair(kRecord, 0x78), Pair(kRecord, static_cast<long>(stalled))));
    EXPECT_THAT(find(Record(), kData), IsEmpty()) << "an empty record";
}

TEST_F(NtfsAttributes, AnyOtherLengthIsAStep) {
    for (std::size_t const length : {25U, 26U, 27U, 31U}) {
        Record record;
        record.put(plain(0x30, length)).put(plain(0x80, 0x48)).endMark();
        EXPECT_THAT(find(record, kData), ElementsAre(Pair(kRecord, static_cast<long>(0x38 + length)))) << length;
    }
}

TEST_F(NtfsAttributes, ALengthPastTheRecordIsRefused) {
    for (std::uint32_t const length : {0x3C0U, 0x400U, 0x10000U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        Record record;
        record.put(plain(0x30, 0x40));
        record.set(kFirst + 4, length, 4);
        EXPECT_EQ(refusal(record, kData), kOutside) << length;
    }
}

TEST_F(NtfsAttributes, AListAttributeIsReportedItselfWhenItIsWhatIsLookedFor) {
    Record record;
    record.put(plain(0x10, 0x60)).put(ntfsResident(0x20, u"", {})).put(plain(0x80, 0x48)).endMark();
    EXPECT_THAT(find(record, kAttributeList), ElementsAre(Pair(kRecord, 0x98)));
    EXPECT_THAT(logger.entries, ElementsAre(debugEntry("Searching for attribute 32"),
                                            debugEntry("Searching for attribute 0x20 in ATTRIBUTE LIST")));
}

TEST_F(NtfsAttributes, AListIsNotAskedForATypeBelowIt) {
    Record record;
    record.put(plain(0x10, 0x60)).put(ntfsResident(0x20, u"", ntfsAttributeList({{0x10, 9999, 0, {}}}))).endMark();
    EXPECT_THAT(find(record, kStandardInformation), ElementsAre(Pair(kRecord, 0x38)));
    EXPECT_THAT(logger.entries, ElementsAre(debugEntry("Searching for attribute 16")));
}

TEST_F(NtfsAttributes, AListAttributeThatIsNoneIsRefused) {
    try {
        parser.get_attribute_external(kRecord, nullptr, kData);
        FAIL() << "accepted";
    } catch (std::invalid_argument const& error) {
        EXPECT_STREQ(error.what(), "Attribute record is null.");
    }
    EXPECT_THAT(logger.entries, ElementsAre(debugEntry("Searching for attribute 0x80 in ATTRIBUTE LIST"),
                                            debugEntry("Invalid attribute record.")));
}

class NtfsAttributesByName : public NtfsAttributes {
protected:
    NtfsAttributesByName() {
        record.put(plain(0x10, 0x60));
        add(u"", 8);
        add(u"$SII", 16);
        add(u"\u00C4pfel", 24);
        record.endMark();
        hits = parser.get_attributes(kRecord, record.get(), kData);
        logger.entries.clear();
    }

    void add(std::u16string const& name, std::size_t valueBytes) {
        record.put(ntfsResident(0x80, name, NtfsBytes(valueBytes)));
    }

    std::string refusal(std::string const& name) {
        try {
            parser.findAttributeByName(kRecord, record.get(), hits, name);
            return "found";
        } catch (std::runtime_error const& error) {
            return error.what();
        }
    }

    Record record;
    std::vector<std::pair<unsigned long, long>> hits;
};

TEST_F(NtfsAttributesByName, TheHitOfThatNameIsGiven) {
    ASSERT_EQ(hits.size(), 3U);
    EXPECT_EQ(parser.findAttributeByName(kRecord, record.get(), hits, "$SII"), hits[1]);
    EXPECT_EQ(parser.findAttributeByName(kRecord, record.get(), hits, "\xC3\x84pfel"), hits[2]) << "UTF-8";
}

TEST_F(NtfsAttributesByName, CaseMattersAmongNamesOfOneLength) {
    EXPECT_EQ(refusal("$sii"), "Could not find attribute with name $sii");
    EXPECT_EQ(refusal("$SIIx"), "Could not find attribute with name $SIIx");
    EXPECT_EQ(refusal("$SI"), "Could not find attribute with name $SI");
}

TEST_F(NtfsAttributesByName, AnUnnamedAttributeNeverMatches) {
    EXPECT_EQ(refusal(""), "Could not find attribute with name ");
    hits.resize(1);
    EXPECT_EQ(refusal("$SII"), "Could not find attribute with name $SII");
    hits.clear();
    EXPECT_EQ(refusal("$SII"), "Could not find attribute with name $SII");
}

TEST_F(NtfsAttributesByName, TheFirstOfSeveralIsGiven) {
    hits.insert(hits.begin() + 1, hits[1]);
    hits.push_back(hits[1]);
    EXPECT_EQ(parser.findAttributeByName(kRecord, record.get(), hits, "$SII"), hits[1]);
}

TEST_F(NtfsAttributesByName, TheUpcaseTableIsLoadedOnceByItself) {
    parser.findAttributeByName(kRecord, record.get(), hits, "$SII");
    EXPECT_THAT(logger.entries, testing::Not(IsEmpty())) << "record 10 was read";
    logger.entries.clear();
    parser.findAttributeByName(kRecord, record.get(), hits, "$SII");
    EXPECT_THAT(logger.entries, IsEmpty());
}

TEST_F(NtfsAttributesByName, ANameThatIsCutOffMatchesNothing) {
    auto const place = static_cast<std::size_t>(hits[1].second);
    record.set(place + 0x0A, kRecordBytes - place - 6, 2); // three of its four characters stand in the record
    EXPECT_EQ(refusal("$SII"), "Could not find attribute with name $SII");
    record.set(place + 0x0A, 0xFFFF, 2);
    EXPECT_EQ(refusal("$SII"), "Could not find attribute with name $SII");
}

TEST_F(NtfsAttributesByName, AnotherHoldersRecordThatCannotBeReadIsAnError) {
    hits.insert(hits.begin(), {999999, 0x38});
    EXPECT_EQ(refusal("$SII"), "Could not read MFT record for inode number 999999");
}

} // namespace
