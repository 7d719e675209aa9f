// Update sequences: what stands at the end of each 512 bytes is put back, or nothing is.
#include "support/NtfsBench.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace tests;
using agent::core::fs::ntfs_record;
using testing::ElementsAre;

constexpr std::uint16_t kSequence = 0x1234;

NtfsAccess const& parser() {
    static NtfsBench const bench(NtfsBuilder::standard());
    return bench.parser;
}

/// A protected record whose byte i is i modulo 251, with the array at an offset.
NtfsBytes makeRecord(std::size_t size, std::uint16_t offset = 0x30) {
    NtfsBytes record(size);
    for (std::size_t i = 0; i < size; ++i) {
        record[i] = static_cast<std::uint8_t>(i % 251);
    }
    putNumber(record, 0, 0x454C4946, 4); // "FILE"
    putNumber(record, 4, offset, 2);
    putNumber(record, 6, size / 512 + 1, 2);
    ntfsProtect(record, kSequence);
    return record;
}

/// Fixes one record up in memory of exactly its size.
int fixUp(NtfsBytes& record) {
    return parser().post_read_fixup(reinterpret_cast<ntfs_record*>(record.data()),
                                    static_cast<unsigned>(record.size()));
}

/// Expects a refusal that leaves the record as it is.
void expectUntouched(NtfsBytes record) {
    NtfsBytes const before = record;
    EXPECT_EQ(fixUp(record), -1);
    EXPECT_EQ(record, before);
}

TEST(NtfsFixup, BothStridesAreRestoredFromTheArray) {
    NtfsBytes record = makeRecord(1024);
    putNumber(record, 0x32, 0xAAAA, 2);
    putNumber(record, 0x34, 0xBBBB, 2);
    NtfsBytes expected = record;
    putNumber(expected, 510, 0xAAAA, 2);
    putNumber(expected, 1022, 0xBBBB, 2);
    ASSERT_EQ(getNumber(record, 510, 2), kSequence);
    ASSERT_EQ(getNumber(record, 1022, 2), kSequence);
    EXPECT_EQ(fixUp(record), 0);
    EXPECT_EQ(record, expected);
}

TEST(NtfsFixup, StridesAre512BytesInRecordsOfAnySize) {
    for (std::size_t const size : {512U, 1024U, 2048U, 4096U, 65536U}) {
        NtfsBytes record = makeRecord(size);
        NtfsBytes plain = record;
        ntfsUnprotect(plain);
        EXPECT_EQ(fixUp(record), 0) << size;
        EXPECT_EQ(record, plain) << size;
    }
}

TEST(NtfsFixup, AnyTornStrideMarksTheMagicAndNoTailChanges) {
    for (std::size_t stride = 0; stride < 8; ++stride) {
        NtfsBytes record = makeRecord(4096);
        putNumber(record, 512 * stride + 510, kSequence + 1, 2);
        NtfsBytes expected = record;
        putNumber(expected, 0, 0x44414142, 4); // "BAAD"
        EXPECT_EQ(fixUp(record), -1) << stride;
        EXPECT_EQ(record, expected) << stride;
    }
}

TEST(NtfsFixup, BothBytesOfATailCount) {
    for (std::size_t const place : {510U, 511U, 1022U, 1023U}) {
        NtfsBytes record = makeRecord(1024);
        record[place] ^= 1;
        EXPECT_EQ(fixUp(record), -1) << place;
        EXPECT_THAT(std::vector(record.begin(), record.begin() + 4), ElementsAre('B', 'A', 'A', 'D'));
    }
}

TEST(NtfsFixup, TwiceIsATornRecord) {
    NtfsBytes record = makeRecord(1024);
    EXPECT_EQ(fixUp(record), 0);
    EXPECT_EQ(fixUp(record), -1);
    EXPECT_EQ(getNumber(record, 0, 4), 0x44414142U);
}

TEST(NtfsFixup, ASizeThatIsNoMultipleOf512IsRefused) {
    for (std::size_t const size : {8U, 511U, 513U, 768U, 1000U, 1023U, 1025U}) {
        NtfsBytes record(size);
        putNumber(record, 4, 0, 2);
        putNumber(record, 6, size / 512 + 1, 2);
        expectUntouched(record);
    }
}

TEST(NtfsFixup, AnOddOffsetIsRefused) {
    for (std::uint16_t const offset : std::initializer_list<std::uint16_t>{0x01, 0x31, 0x1FF, 0x3FF, 0xFFFF}) {
        NtfsBytes record = makeRecord(1024);
        putNumber(record, 4, offset, 2);
        expectUntouched(record);
    }
}

TEST(NtfsFixup, AnArrayThatPassesTheEndIsRefused) {
    for (std::uint16_t const offset : std::initializer_list<std::uint16_t>{1022, 1024, 1026, 0x8000, 0xFFFE}) {
        NtfsBytes record = makeRecord(1024);
        putNumber(record, 4, offset, 2);
        expectUntouched(record);
    }
}

TEST(NtfsFixup, AnArrayWhoseLastEntryPassesTheEndIsNotFollowed) {
    // Sequence number and first entry are the record's last four bytes; the second entry would lie behind.
    NtfsBytes record = makeRecord(1024);
    putNumber(record, 4, 1020, 2);
    putNumber(record, 1020, kSequence, 2);
    expectUntouched(record);
}

TEST(NtfsFixup, ACountThatIsNotThatOfTheStridesIsRefused) {
    for (std::uint16_t const count : std::initializer_list<std::uint16_t>{0, 1, 2, 4, 5, 0x0103, 0x8003, 0xFFFF}) {
        NtfsBytes record = makeRecord(1024);
        putNumber(record, 6, count, 2);
        expectUntouched(record);
    }
}

TEST(NtfsFixup, ACountOf0IsThatOf65535Strides) {
    NtfsBytes record = makeRecord(512);
    putNumber(record, 6, 0, 2);
    expectUntouched(record);

    NtfsBytes huge(65535 * 512);
    putNumber(huge, 4, 0x30, 2); // a sequence number of 0, as all is
    EXPECT_EQ(fixUp(huge), 0);
}

TEST(NtfsFixup, AnArrayAcrossATailIsReadAsItStands) {
    NtfsBytes record(1024);
    putNumber(record, 4, 508, 2); // the first entry stands in the first tail
    putNumber(record, 6, 3, 2);
    putNumber(record, 508, kSequence, 2);
    putNumber(record, 510, kSequence, 2);
    putNumber(record, 512, 0xBBBB, 2);
    putNumber(record, 1022, kSequence, 2);
    NtfsBytes expected = record;
    putNumber(expected, 1022, 0xBBBB, 2);
    EXPECT_EQ(fixUp(record), 0);
    EXPECT_EQ(record, expected);
}

TEST(NtfsFixup, AnArrayThatBeginsInATailFeedsOnItself) {
    NtfsBytes record(1024);
    putNumber(record, 4, 510, 2); // the tail is the sequence number itself
    putNumber(record, 6, 3, 2);
    putNumber(record, 510, kSequence, 2);
    putNumber(record, 512, 0xAAAA, 2);
    putNumber(record, 514, 0xBBBB, 2);
    putNumber(record, 1022, kSequence, 2);
    EXPECT_EQ(fixUp(record), 0);
    EXPECT_EQ(getNumber(record, 510, 2), 0xAAAAU);
    EXPECT_EQ(getNumber(record, 1022, 2), 0xBBBBU);
}

int fixUpAll(NtfsBytes& records, unsigned total, unsigned recordSize) {
    return parser().post_read_fixup(records.data(), total, recordSize);
}

TEST(NtfsFixupOfMany, EveryRecordIsFixedUp) {
    NtfsBytes records;
    NtfsBytes expected;
    for (std::uint16_t const offset : std::initializer_list<std::uint16_t>{0x28, 0x30, 0x80}) {
        NtfsBytes const record = makeRecord(1024, offset);
        NtfsBytes plain = record;
        ntfsUnprotect(plain);
        records.insert(records.end(), record.begin(), record.end());
        expected.insert(expected.end(), plain.begin(), plain.end());
    }
    EXPECT_EQ(fixUpAll(records, 3072, 1024), 0);
    EXPECT_EQ(records, expected);
}

TEST(NtfsFixupOfMany, TheFirstFailureEndsItAndThoseBeforeStayFixed) {
    NtfsBytes const record = makeRecord(1024);
    NtfsBytes plain = record;
    ntfsUnprotect(plain);
    NtfsBytes torn = record;
    putNumber(torn, 1022, 0, 2);
    NtfsBytes marked = torn;
    putNumber(marked, 0, 0x44414142, 4);
    NtfsBytes records;
    NtfsBytes expected;
    for (NtfsBytes const& part : {record, torn, record}) {
        records.insert(records.end(), part.begin(), part.end());
    }
    for (NtfsBytes const& part : {plain, marked, record}) {
        expected.insert(expected.end(), part.begin(), part.end());
    }
    EXPECT_EQ(fixUpAll(records, 3072, 1024), -1);
    EXPECT_EQ(records, expected);
}

TEST(NtfsFixupOfMany, NoBytesAreFine) {
    NtfsBytes records = makeRecord(1024);
    NtfsBytes const before = records;
    EXPECT_EQ(fixUpAll(records, 0, 1024), 0);
    EXPECT_EQ(fixUpAll(records, 0, 0), 0);
    EXPECT_EQ(records, before);
}

TEST(NtfsFixupOfMany, RecordsWithoutSizeEnd) {
    NtfsBytes records = makeRecord(1024);
    EXPECT_EQ(fixUpAll(records, 1024, 0), -1);
}

} // namespace
