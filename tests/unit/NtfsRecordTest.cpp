// MFT records by number: where they are read, and every code that tells what is wrong with one.
#include "support/NtfsBench.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace tests;
using testing::ElementsAre;

constexpr std::uint64_t kRecord = 24;
constexpr std::uint64_t kPlace = 16384 + 24 * 1024; // of record 24 in the standard volume
constexpr int kGood = 0;
constexpr int kReadFailed = -638;
constexpr int kShort = -642;
constexpr int kWrongMagic = -650;
constexpr int kFixupFailed = -654;
constexpr int kWrongNumber = -661;

/// One read by place, with what it left in the buffer.
struct Read {
    int code;
    NtfsBytes buffer;
    std::vector<LogEntry> entries;
};

Read readAtPlace(NtfsAccess& parser, RecordingLogger& logger, std::uint64_t number, std::uint64_t place) {
    logger.entries.clear();
    Read read{0, NtfsBytes(1024, 0xAA), {}};
    read.code = parser.read_record(number, place, read.buffer.data());
    read.entries = logger.entries;
    return read;
}

Read readRecord24(NtfsBuilder const& builder, std::uint64_t number = kRecord) {
    NtfsBench bench(builder);
    return readAtPlace(bench.parser, bench.logger, number, kPlace);
}

/// The same where a call goes wrong.
Read readWith(Fault fault, unsigned alignment, std::uint64_t number) {
    NtfsBuilder const builder = NtfsBuilder::standard();
    MemoryReader const volume(builder.bytes);
    FaultyReader const reader(volume, fault, 3); // three seeks and reads make the parser
    RecordingLogger logger;
    NtfsAccess parser(logger, alignment, reader);
    Read read = readAtPlace(parser, logger, number, builder.byteOffsetOf(number));
    EXPECT_TRUE(reader.fired);
    return read;
}

TEST(NtfsRecordByPlace, AGoodOneIsFixedUp) {
    NtfsBuilder const builder = NtfsBuilder::standard();
    NtfsBench bench(builder);
    bench.forget();
    NtfsBytes buffer(1024);
    EXPECT_EQ(bench.parser.read_record(kRecord, kPlace, buffer.data()), kGood);
    EXPECT_EQ(buffer, builder.plainRecord(kRecord));
    EXPECT_NE(buffer, builder.protectedRecord(kRecord));
    EXPECT_THAT(bench.logger.entries, ElementsAre(readingEntry(kRecord, kPlace)));
    EXPECT_THAT(bench.reader.calls, ElementsAre(seekCall(kPlace), readCall(1024)));
}

TEST(NtfsRecordByPlace, AFailedSeekIsMinus638) {
    Read const read = readWith(Fault::SeekFails, 512, kRecord);
    EXPECT_EQ(read.code, kReadFailed);
    EXPECT_EQ(read.buffer, NtfsBytes(1024, 0xAA));
    EXPECT_THAT(read.entries, ElementsAre(readingEntry(kRecord, kPlace)));
}

TEST(NtfsRecordByPlace, AFailedReadIsMinus638) {
    Read const read = readWith(Fault::ReadFails, 512, kRecord);
    EXPECT_EQ(read.code, kReadFailed);
    EXPECT_EQ(read.buffer, NtfsBytes(1024, 0xAA));
    EXPECT_THAT(read.entries, ElementsAre(readingEntry(kRecord, kPlace),
                                          debugEntry("CHUNK READ FILE FAILED: OFFSET: 40960 - 1024 BYTES")));
}

TEST(NtfsRecordByPlace, AShortOneIsMinus642AndKeepsWhatCame) {
    Read const read = readWith(Fault::ReadShort, 512, kRecord);
    EXPECT_EQ(read.code, kShort);
    EXPECT_THAT(read.entries, ElementsAre(readingEntry(kRecord, kPlace)));
    NtfsBytes expected = NtfsBuilder::standard().protectedRecord(kRecord);
    std::fill(expected.begin() + 512, expected.end(), std::uint8_t{0xAA});
    EXPECT_EQ(read.buffer, expected);
}

TEST(NtfsRecordByPlace, NothingAtAllIsMinus642) {
    Read const read = readWith(Fault::ReadEmpty, 512, kRecord);
    EXPECT_EQ(read.code, kShort);
    EXPECT_EQ(read.buffer, NtfsBytes(1024, 0xAA));
}

TEST(NtfsRecordByPlace, WhatAShortReadDeliversIsCountedFromTheUnitsStart) {
    // Half of a unit of four records comes: the second record is whole, the third is zeros and counts as there.
    EXPECT_EQ(readWith(Fault::ReadShort, 4096, kRecord + 1).code, kGood);
    Read const third = readWith(Fault::ReadShort, 4096, kRecord + 2);
    EXPECT_EQ(third.code, kWrongMagic);
    EXPECT_EQ(third.buffer, NtfsBytes(1024));
}

class NtfsRecordMagic : public testing::TestWithParam<std::uint32_t> {};

TEST_P(NtfsRecordMagic, OtherThanFileIsMinus650AndNothingIsFixedUp) {
    NtfsBuilder builder = NtfsBuilder::standard();
    builder.poke(kPlace, GetParam(), 4);
    Read const read = readRecord24(builder);
    EXPECT_EQ(read.code, kWrongMagic);
    EXPECT_EQ(read.buffer, builder.protectedRecord(kRecord));
    EXPECT_THAT(read.entries, ElementsAre(readingEntry(kRecord, kPlace), debugEntry("MFT record 24 is invalid.")));
}

INSTANTIATE_TEST_SUITE_P(Values, NtfsRecordMagic,
                         testing::Values(0U, 0x44414142U /* BAAD */, 0x58444E49U /* INDX */, 0x454C4966U /* fILE */,
                                         0x464C4946U /* FILF */, 0xFFFFFFFFU));

TEST(NtfsRecordByPlace, ATornStrideIsMinus654AndMarksTheMagic) {
    for (std::uint64_t const tail : {510U, 1022U}) {
        NtfsBuilder builder = NtfsBuilder::standard();
        builder.poke(kPlace + tail, 0xBEEF, 2);
        Read const read = readRecord24(builder);
        EXPECT_EQ(read.code, kFixupFailed);
        NtfsBytes expected = builder.protectedRecord(kRecord);
        putNumber(expected, 0, 0x44414142, 4); // "BAAD"
        EXPECT_EQ(read.buffer, expected) << "every tail stays as it was read";
        EXPECT_THAT(read.entries, ElementsAre(readingEntry(kRecord, kPlace)));
    }
}

class NtfsRecordArrayCount : public testing::TestWithParam<std::uint16_t> {};

TEST_P(NtfsRecordArrayCount, OtherThan3IsMinus654AndNothingChanges) {
    NtfsBuilder builder = NtfsBuilder::standard();
    ASSERT_EQ(builder.peek(kPlace + 0x06, 2), 3U);
    builder.poke(kPlace + 0x06, GetParam(), 2);
    Read const read = readRecord24(builder);
    EXPECT_EQ(read.code, kFixupFailed);
    EXPECT_EQ(read.buffer, builder.protectedRecord(kRecord));
}

INSTANTIATE_TEST_SUITE_P(Values, NtfsRecordArrayCount, testing::Values(0, 1, 2, 4, 0x103, 0x8003, 0xFFFF));

TEST(NtfsRecordByPlace, AnotherNumberThanAskedForIsMinus661) {
    NtfsBuilder builder = NtfsBuilder::standard();
    builder.pokeRecord(8, 0x2C, 7, 4);
    NtfsBench bench(builder);
    NtfsBytes buffer(1024);
    EXPECT_EQ(bench.parser.read_mft_record(8, buffer.data()), kWrongNumber);
    EXPECT_EQ(buffer, builder.plainRecord(8)) << "fixed up before the number is looked at";
    EXPECT_EQ(bench.parser.read_record(7, builder.byteOffsetOf(8), buffer.data()), kGood);
}

TEST(NtfsRecordByPlace, TheNumberIsComparedInAllItsBits) {
    EXPECT_EQ(readRecord24(NtfsBuilder::standard(), kRecord + (1UL << 32)).code, kWrongNumber);
    EXPECT_EQ(readRecord24(NtfsBuilder::standard(), 23).code, kWrongNumber);
}

TEST(NtfsRecordByPlace, TheOlderLayoutHasNoNumber) {
    NtfsBuilder builder = NtfsBuilder::standard();
    builder.record(kRecord).usaOffset = 0x28;
    builder.seal();
    ASSERT_NE(builder.peekRecord(kRecord, 0x2C, 4), kRecord);
    EXPECT_EQ(readRecord24(builder).code, kGood);
    EXPECT_EQ(readRecord24(builder, 8).code, kGood);
}

TEST(NtfsRecordByPlace, OnlyTheArrayAt30CarriesANumber) {
    for (std::uint16_t const offset : std::initializer_list<std::uint16_t>{0x2C, 0x2E, 0x32, 0x40}) {
        NtfsBuilder builder = NtfsBuilder::standard();
        builder.record(kRecord).usaOffset = offset;
        builder.seal();
        EXPECT_EQ(readRecord24(builder, 8).code, kGood) << offset;
    }
}

/// $MFT in three runs that do not ascend: records 0 to 7, 8 to 31, 32 to 63.
NtfsBuilder fragmented() {
    NtfsGeometry geometry;
    geometry.mftRuns = {{4, 2}, {40, 6}, {30, 8}};
    return NtfsBuilder::standard(geometry);
}

/// Code, and the place that was read.
std::pair<int, long> readByNumber(NtfsBench& bench, std::uint64_t number) {
    bench.forget();
    NtfsBytes buffer(1024);
    int const code = bench.parser.read_mft_record(number, buffer.data());
    EXPECT_EQ(bench.reader.calls.size(), 2U);
    EXPECT_THAT(bench.logger.entries, testing::Contains(searchingDataEntry()).Times(1)) << "decoded for each record";
    return {code, bench.reader.calls.at(0).argument};
}

TEST(NtfsRecordByNumber, FollowsTheRunsOfTheMft) {
    NtfsBench bench(fragmented());
    EXPECT_EQ(readByNumber(bench, 0), (std::pair<int, long>{kGood, 4 * 4096}));
    EXPECT_EQ(readByNumber(bench, 7), (std::pair<int, long>{kGood, 4 * 4096 + 7 * 1024}));
    EXPECT_EQ(readByNumber(bench, 8), (std::pair<int, long>{kGood, 40 * 4096}));
    EXPECT_EQ(readByNumber(bench, 31), (std::pair<int, long>{kGood, 40 * 4096 + 23 * 1024}));
    EXPECT_EQ(readByNumber(bench, 32), (std::pair<int, long>{kGood, 30 * 4096}));
    EXPECT_EQ(readByNumber(bench, 63), (std::pair<int, long>{kGood, 30 * 4096 + 31 * 1024}));
}

TEST(NtfsRecordByNumber, BehindTheLastRunIsExtrapolatedFromIt) {
    NtfsBench bench(fragmented());
    EXPECT_EQ(readByNumber(bench, 64).second, 30 * 4096 + 32 * 1024);
    EXPECT_EQ(readByNumber(bench, 64 + 400).second, 30 * 4096 + 432 * 1024);
    EXPECT_EQ(readByNumber(bench, 1UL << 40), (std::pair<int, long>{kShort, (1L << 50) + (30 - 8) * 4096}));
}

TEST(NtfsRecordByNumber, ANumberThatLosesItsUpperBitsIsNotTakenForAnother) {
    NtfsBench bench(fragmented());
    EXPECT_EQ(readByNumber(bench, (1UL << 54) + 24), (std::pair<int, long>{kWrongNumber, 40 * 4096 + 16 * 1024}));
}

TEST(NtfsRecordByNumber, RecordsMayTakeSeveralClusters) {
    NtfsGeometry geometry = NtfsGeometry::withClusters(512);
    geometry.mftRuns = {{100, 20}, {300, 108}};
    NtfsBench bench(NtfsBuilder::standard(geometry));
    EXPECT_EQ(readByNumber(bench, 9), (std::pair<int, long>{kGood, 118 * 512}));
    EXPECT_EQ(readByNumber(bench, 10), (std::pair<int, long>{kGood, 300 * 512}));
}

TEST(NtfsRecordByNumber, FourKibibyteRecords) {
    NtfsGeometry geometry;
    geometry.recordBytes = 4096;
    geometry.mftRuns = {{10, 3}, {200, 61}};
    NtfsBuilder const builder = NtfsBuilder::standard(geometry);
    NtfsBench bench(builder);
    NtfsBytes buffer(4096);
    EXPECT_EQ(bench.parser.read_mft_record(24, buffer.data()), kGood);
    EXPECT_EQ(buffer, builder.plainRecord(24));
}

TEST(NtfsRecordOrThrow, SaysWhichRecordAndWhatFor) {
    NtfsBuilder builder = NtfsBuilder::standard();
    builder.poke(builder.byteOffsetOf(10), 0, 4);
    NtfsBench bench(builder);
    NtfsBytes buffer(1024);
    EXPECT_EQ(textThrown([&] { bench.parser.read_mft_record_throw(10, buffer.data(), ""); }),
              "Could not read MFT record for inode number 10");
    EXPECT_EQ(textThrown([&] { bench.parser.read_mft_record_throw(10, buffer.data(), "some file"); }),
              "Could not read MFT record 10 for some file");
}

TEST(NtfsRecordOrThrow, EveryCodeGivesTheSameText) {
    for (std::uint64_t const offset : {0x06U, 0x1FEU}) { // the array's count, and a stride's tail
        NtfsBuilder builder = NtfsBuilder::standard();
        builder.poke(builder.byteOffsetOf(kRecord, offset), 0xBEEF, 2);
        NtfsBench bench(builder);
        NtfsBytes buffer(1024);
        EXPECT_EQ(textThrown([&] { bench.parser.read_mft_record_throw(kRecord, buffer.data(), ""); }),
                  "Could not read MFT record for inode number 24");
    }
    NtfsBench bench(NtfsBuilder::standard());
    NtfsBytes buffer(1024);
    EXPECT_EQ(textThrown([&] { bench.parser.read_mft_record_throw(1UL << 40, buffer.data(), "x"); }),
              "Could not read MFT record 1099511627776 for x");
}

TEST(NtfsRecordOrThrow, AGoodOneIsCheckedToo) {
    NtfsBuilder builder = NtfsBuilder::standard();
    builder.pokeRecord(kRecord, 0x14, 0x3A, 2);
    NtfsBench bench(builder);
    NtfsBytes buffer(1024);
    EXPECT_EQ(bench.parser.read_mft_record(kRecord, buffer.data()), kGood);
    EXPECT_EQ(textThrown([&] { bench.parser.read_mft_record_throw(kRecord, buffer.data(), "x"); }),
              "Incorrect attribute alignedment for record 0x18. Attribute offset: 0x3a");
    bench.parser.read_mft_record_throw(kRecord + 1, buffer.data(), "x");
    EXPECT_EQ(buffer, builder.plainRecord(kRecord + 1));
}

} // namespace
