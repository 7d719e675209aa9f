// The checks of an MFT record as a whole: its header, and the walk over its attributes.
#include "support/NtfsBench.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace tests;

constexpr std::uint64_t kNumber = 0x1B;
constexpr std::uint64_t kFirst = 0x38; // offset of the first attribute
constexpr std::uint64_t kAttrsOffset = 0x14;
constexpr std::uint64_t kBytesInUse = 0x18;
constexpr std::uint64_t kBytesAllocated = 0x1C;
constexpr char const* kSound = "";
constexpr char const* kBadEnd = "Bad end of record for 0x1b";
constexpr char const* kCorrupt = "Corrupt MFT record 0x1b";

NtfsAccess const& parser() {
    static NtfsBench const bench(NtfsBuilder::standard());
    return bench.parser;
}

/// The text of the failure, or "" where the record passes. The memory is exactly the record's.
std::string check(NtfsBytes record, std::uint64_t reference = kNumber) {
    try {
        parser().checkFileRecordConsistency(record.data(), reference);
    } catch (std::runtime_error const& failure) {
        return failure.what();
    }
    return kSound;
}

NtfsBytes const kNoValue{};

/// A record with a file's attributes: standard information (96 bytes), file name (104 bytes) and resident data.
NtfsRecord makeFile() {
    NtfsRecord record(kNumber, 1024, 4096);
    record.resident(ntfs_type::kStandardInformation, u"", ntfsStandardInformation());
    record.resident(ntfs_type::kFileName, u"", ntfsFileName(5, u"name.txt"));
    record.resident(ntfs_type::kData, u"", NtfsBytes(16, 0x55));
    return record;
}

/// The record with a change that is proved to be one.
NtfsBytes changed(NtfsBytes record, std::uint64_t offset, std::uint64_t value, std::size_t width) {
    EXPECT_NE(getNumber(record, offset, width), value) << "nothing is damaged at " << offset;
    putNumber(record, offset, value, width);
    return record;
}

NtfsBytes changedFile(std::uint64_t offset, std::uint64_t value, std::size_t width) {
    return changed(makeFile().bytes(), offset, value, width);
}

TEST(NtfsRecordCheck, AFilesRecordPassesAndNothingIsLogged) {
    NtfsBench bench(NtfsBuilder::standard());
    bench.forget();
    NtfsBytes record = makeFile().bytes();
    NtfsBytes const before = record;
    bench.parser.checkFileRecordConsistency(record.data(), kNumber);
    EXPECT_THROW(bench.parser.checkFileRecordConsistency(nullptr, kNumber), std::runtime_error);
    EXPECT_EQ(record, before);
    EXPECT_TRUE(bench.logger.entries.empty());
}

TEST(NtfsRecordCheck, EveryRecordOfTheStandardVolumePasses) {
    NtfsBuilder const builder = NtfsBuilder::standard();
    for (std::uint64_t number = 0; number < 64; ++number) {
        EXPECT_EQ(check(builder.plainRecord(number), number), kSound) << number;
    }
}

TEST(NtfsRecordCheck, ANullRecordIsRefused) {
    EXPECT_EQ(textThrown([] { parser().checkFileRecordConsistency(nullptr, kNumber); }), "Invalid record buffer.");
}

TEST(NtfsRecordCheck, OnlyTheMagicFileIsTaken) {
    for (std::uint32_t const magic : {0U, 0x44414142U, 0x58444E49U, 0x464C4946U}) {
        EXPECT_EQ(check(changedFile(0, magic, 4)), "MFT Record 0x1b has invalid file magic");
    }
}

TEST(NtfsRecordCheck, MessagesNameTheLow48BitsInLowerCase) {
    NtfsBytes const bad = changedFile(0, 0, 4);
    EXPECT_EQ(check(bad, 0), "MFT Record 0x0 has invalid file magic");
    EXPECT_EQ(check(bad, 0xFFFF0000000000AB), "MFT Record 0xab has invalid file magic");
    EXPECT_EQ(check(bad, 0x0001ABCDEF012345), "MFT Record 0xabcdef012345 has invalid file magic");
}

TEST(NtfsRecordCheck, AllocatedBytesMustBeTheVolumesRecordSize) {
    EXPECT_EQ(check(changedFile(kBytesAllocated, 0, 4)), "Record 0x1b has invalid size: 0x0");
    EXPECT_EQ(check(changedFile(kBytesAllocated, 1023, 4)), "Record 0x1b has invalid size: 0x3ff");
    EXPECT_EQ(check(changedFile(kBytesAllocated, 4096, 4)), "Record 0x1b has invalid size: 0x1000");
    EXPECT_EQ(check(changedFile(kBytesAllocated, 0xFFFFFFFF, 4)), "Record 0x1b has invalid size: 0xffffffff");
}

TEST(NtfsRecordCheck, NoMoreBytesMayBeInUseThanAllocated) {
    EXPECT_EQ(check(changedFile(kBytesInUse, 1025, 4)), "Record 0x1b has invalid BytesInUse: 0x401");
    EXPECT_EQ(check(changedFile(kBytesInUse, 0xFFFFFFFF, 4)), "Record 0x1b has invalid BytesInUse: 0xffffffff");
    EXPECT_EQ(check(changedFile(kBytesInUse, 1024, 4)), kSound);
}

TEST(NtfsRecordCheck, TheFirstAttributeMustBeAligned) {
    EXPECT_EQ(check(changedFile(kAttrsOffset, 0x39, 2)),
              "Incorrect attribute alignedment for record 0x1b. Attribute offset: 0x39");
    EXPECT_EQ(check(changedFile(kAttrsOffset, 0x3C, 2)),
              "Incorrect attribute alignedment for record 0x1b. Attribute offset: 0x3c");
    EXPECT_EQ(check(changedFile(kAttrsOffset, 0xFFFF, 2)),
              "Incorrect attribute alignedment for record 0x1b. Attribute offset: 0xffff");
}

TEST(NtfsRecordCheck, TheFirstAttributeMustBeInTheRecord) {
    EXPECT_EQ(check(changedFile(kAttrsOffset, 1032, 2)), "Record 0x1b is corrupt.");
    EXPECT_EQ(check(changedFile(kAttrsOffset, 0xFFF8, 2)), "Record 0x1b is corrupt.");
    EXPECT_EQ(check(changedFile(kAttrsOffset, 1024, 2)), kBadEnd); // allowed, but nothing can be there
    EXPECT_EQ(check(changedFile(kAttrsOffset, 1016, 2)), kBadEnd);
}

TEST(NtfsRecordCheck, TheFirstFailureIsTheOneThatIsTold) {
    NtfsBytes record = changedFile(kAttrsOffset, 0xFFFF, 2);
    record = changed(record, kBytesInUse, 2000, 4);
    EXPECT_EQ(check(record), "Record 0x1b has invalid BytesInUse: 0x7d0");
    record = changed(record, kBytesAllocated, 2048, 4);
    EXPECT_EQ(check(record), "Record 0x1b has invalid size: 0x800");
    record = changed(record, 0, 0, 4);
    EXPECT_EQ(check(record), "MFT Record 0x1b has invalid file magic");
}

/// A record whose attributes are these bytes, with so many of them in use.
std::string checkAttributes(NtfsBytes const& attributes, std::uint64_t inUse) {
    NtfsBytes record = NtfsRecord(kNumber, 1024, 4096).bytes();
    std::copy(attributes.begin(), attributes.end(), record.begin() + kFirst);
    putNumber(record, kBytesInUse, kFirst + inUse, 4);
    return check(record);
}

NtfsBytes const kMarker{0xFF, 0xFF, 0xFF, 0xFF};

TEST(NtfsRecordWalk, AFewBytesMustBeTheMarker) {
    EXPECT_EQ(checkAttributes(kMarker, 0), kBadEnd); // bytes in use end where the attributes begin
    EXPECT_EQ(checkAttributes(kMarker, 3), kBadEnd);
    EXPECT_EQ(checkAttributes(kMarker, 4), kSound);
    EXPECT_EQ(checkAttributes(kMarker, 8), kSound);
    EXPECT_EQ(checkAttributes(kMarker, 23), kSound);
    EXPECT_EQ(checkAttributes({0x80, 0, 0, 0}, 8), kBadEnd);
    EXPECT_EQ(checkAttributes({0xFE, 0xFF, 0xFF, 0xFF}, 23), kBadEnd);
}

TEST(NtfsRecordWalk, TheFirstTypeIsTheMarkerOrAtLeast10) {
    EXPECT_EQ(checkAttributes(kMarker, 24), kSound);
    EXPECT_EQ(checkAttributes({0, 0, 0, 0}, 24), kBadEnd);
    EXPECT_EQ(checkAttributes({0x0F, 0, 0, 0}, 24), kBadEnd);
    EXPECT_EQ(checkAttributes({0x10, 0, 0, 0, 0x20}, 24), kCorrupt); // longer than what is left
}

TEST(NtfsRecordWalk, TheMarkerMayStandRightBeforeTheBytesInUse) {
    NtfsBytes const record = makeFile().bytes();
    std::uint64_t const inUse = getNumber(record, kBytesInUse, 4);
    ASSERT_EQ(getNumber(record, inUse - 8, 4), 0xFFFFFFFFU);
    EXPECT_EQ(check(record), kSound);
    EXPECT_EQ(check(changed(record, kBytesInUse, inUse - 4, 4)), kSound);
    EXPECT_EQ(check(changed(record, kBytesInUse, inUse - 5, 4)), kBadEnd);
    EXPECT_EQ(check(changed(record, kBytesInUse, inUse - 8, 4)), kBadEnd);
}

TEST(NtfsRecordWalk, BytesInUseThatEndBeforeTheAttributesWrapAround) {
    EXPECT_EQ(check(changedFile(kBytesInUse, 0, 4)), kSound);
    EXPECT_EQ(check(changedFile(kBytesInUse, kFirst - 1, 4)), kSound);
    EXPECT_EQ(check(changedFile(kBytesInUse, kFirst, 4)), kBadEnd);
}

TEST(NtfsRecordWalk, WithoutAMarkerTheRecordIsBad) {
    NtfsRecord const file = makeFile();
    NtfsBytes record = file.bytes();
    std::uint64_t const end = getNumber(record, kBytesInUse, 4) - 8;
    EXPECT_EQ(check(changed(record, end, 0, 4)), kBadEnd);
    EXPECT_EQ(check(changed(record, end, 0x90, 4)), kBadEnd);
    record = changed(record, end, 0x90, 4); // with room in use for one more attribute, whose length is 0
    EXPECT_EQ(check(changed(record, kBytesInUse, end + 24, 4)), "Corrupt resident attribute 0x90 in MFT record 0x1b");
}

TEST(NtfsRecordWalk, LengthsMustStayInsideAndBeMultiplesOf8) {
    std::uint64_t const data = makeFile().offsetOf(ntfs_type::kData);
    std::uint64_t const remaining = getNumber(makeFile().bytes(), kBytesInUse, 4) - data;
    ASSERT_EQ(remaining, 48U);
    EXPECT_EQ(check(changedFile(data + 4, remaining + 8, 4)), kCorrupt);
    EXPECT_EQ(check(changedFile(data + 4, 0xFFFFFFF8, 4)), kCorrupt);
    for (std::uint64_t const length : {1U, 4U, 41U, 44U, 47U}) {
        EXPECT_EQ(check(changedFile(data + 4, length, 4)), kCorrupt) << length;
    }
    EXPECT_EQ(check(changedFile(data + 4, remaining, 4)), kBadEnd); // the attribute takes the marker's place
    EXPECT_EQ(check(changedFile(data + 4, 0, 4)), "Corrupt resident attribute 0x80 in MFT record 0x1b");
    EXPECT_EQ(check(changedFile(data + 4, 16, 4)), "Corrupt resident attribute 0x80 in MFT record 0x1b");
}

TEST(NtfsRecordWalk, TypesMayRepeatButNotDescend) {
    NtfsRecord record = makeFile();
    record.resident(ntfs_type::kData, u"second", kNoValue);
    EXPECT_EQ(check(record.bytes()), kSound);
    record.append(ntfsResident(ntfs_type::kFileName, u"", ntfsFileName(5, u"late")));
    EXPECT_EQ(check(record.bytes()), kBadEnd);
}

TEST(NtfsRecordWalk, EveryAttributeIsChecked) {
    NtfsRecord const file = makeFile();
    std::uint64_t const standard = file.offsetOf(ntfs_type::kStandardInformation);
    std::uint64_t const name = file.offsetOf(ntfs_type::kFileName);
    std::uint64_t const data = file.offsetOf(ntfs_type::kData);
    EXPECT_EQ(check(changedFile(standard + 0x10, 47, 4)), "Corrupt standard information in MFT record 0x1b");
    EXPECT_EQ(check(changedFile(name + 0x18 + 0x40, 0, 1)), "Corrupt file name attribute in MFT record 0x1b");
    EXPECT_EQ(check(changedFile(data + 8, 1, 1)), "Corrupt non resident attribute80 in MFT record 0x1b");
}

TEST(NtfsRecordWalk, OffsetsAreKeptTo16Bits) {
    // Records of 128 KiB, in which an attribute of 64 KiB is followed by itself.
    NtfsGeometry geometry;
    geometry.recordBytes = 131072;
    geometry.clusters = 4096;
    NtfsBuilder builder = NtfsBuilder::standard(geometry);
    for (std::uint64_t const number : {0U, 1U}) { // the array is so long that it covers the first tail
        std::uint64_t const sequence = builder.peek(builder.byteOffsetOf(number, 0x30), 2);
        builder.poke(builder.byteOffsetOf(number, 510), sequence, 2);
    }
    NtfsBench const bench(builder);
    NtfsRecord record(kNumber, geometry.recordBytes, 4096);
    record.resident(ntfs_type::kData, u"", NtfsBytes(65536 - 0x18));
    NtfsBytes bytes = record.bytes();
    ASSERT_EQ(getNumber(bytes, record.firstAttribute() + 4, 4), 65536U);
    EXPECT_EQ(textThrown([&] { bench.parser.checkFileRecordConsistency(bytes.data(), kNumber); }), kBadEnd);
    putNumber(bytes, kBytesInUse, 131072, 4);
    EXPECT_EQ(textThrown([&] { bench.parser.checkFileRecordConsistency(bytes.data(), kNumber); }), kCorrupt);
}

} // namespace
