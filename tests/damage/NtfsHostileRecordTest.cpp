// MFT records whose headers lie about their place, size and owner; and the oddities that are legal.
#include "support/NtfsBench.h"
#include "support/NtfsMapRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace tests;
using testing::SizeIs;

constexpr char const* kProof = "Could not read MFT record for inode number 1";
constexpr std::uint64_t kReadme = 24;
constexpr std::uint64_t kDocs = 25;
constexpr std::uint64_t kLetter = 26;

/// The extents of a file by its path, on a volume.
std::vector<agent::BlockRange> extentsOf(NtfsBuilder const& builder, std::string const& path) {
    NtfsBench bench(builder);
    return bench.parser.extents(path);
}

TEST(NtfsHostileRecord, AttributesThatBeginBehindTheBytesInUseAreNone) {
    for (std::uint64_t const number : {0U, 1U}) {
        NtfsBuilder builder = NtfsBuilder::standard();
        std::uint64_t const inUse = builder.peekRecord(number, 0x18, 4);
        ASSERT_LT(inUse, 1016U);
        for (std::uint64_t const offset : {inUse, std::uint64_t{1016}}) {
            builder.pokeRecord(number, 0x14, offset, 2);
            EXPECT_EQ(openNtfs(builder).refusal, "Bad end of record for 0x" + std::to_string(number)) << offset;
        }
    }
}

TEST(NtfsHostileRecord, BytesInUseNeedNotBeAligned) {
    NtfsBuilder const good = NtfsBuilder::standard();
    std::uint64_t const inUse = good.peekRecord(0, 0x18, 4);
    for (std::uint64_t less = 1; less <= 12; ++less) {
        NtfsBuilder builder = good;
        builder.pokeRecord(0, 0x18, inUse - less, 4);
        // Four bytes of the marker are enough; after more than eight, the last attribute passes the end.
        std::string const text = less > 8 ? "Corrupt MFT record 0x0" : "Bad end of record for 0x0";
        EXPECT_EQ(openNtfs(builder).refusal, less <= 4 ? "" : text) << less;
    }
}

TEST(NtfsHostileRecord, WhoseExtensionARecordIsIsNotAskedOfAPath) {
    for (std::uint64_t const base : {kReadme, kLetter, std::uint64_t{0xFFFFFFFFFFFFFFFF}}) {
        NtfsBuilder builder = NtfsBuilder::standard();
        builder.pokeRecord(kReadme, 0x20, base, 8);
        EXPECT_THAT(extentsOf(builder, "\\readme.txt"), SizeIs(2)) << base;
    }
}

TEST(NtfsHostileRecord, TheSizesOfTheMftAreNotHeldAgainstRecordNumbers) {
    for (std::uint64_t const field : {0x28U, 0x30U, 0x38U}) { // allocated, data, initialized
        for (std::uint64_t const size : {std::uint64_t{0}, std::uint64_t{1024}, std::uint64_t{1} << 63}) {
            NtfsBuilder builder = NtfsBuilder::standard();
            builder.pokeRecord(0, builder.record(0).offsetOf(ntfs_type::kData) + field, size, 8);
            EXPECT_THAT(extentsOf(builder, "\\readme.txt"), SizeIs(2)) << field << ' ' << size;
        }
    }
}

TEST(NtfsHostileRecord, ADirectoryIsWhatHasAnIndexWhateverItsFlag) {
    NtfsBuilder withoutIndex = NtfsBuilder::standard();
    withoutIndex.record(kDocs).remove(ntfs_type::kIndexRoot);
    withoutIndex.seal();
    ASSERT_EQ(withoutIndex.peekRecord(kDocs, 0x16, 2), 3U);
    EXPECT_EQ(textThrown([&] { extentsOf(withoutIndex, "\\docs\\letter.txt"); }),
              "Could not find INDEX_ROOT for key letter.txt in parent inode 25");
    EXPECT_THAT(extentsOf(withoutIndex, "\\docs"), SizeIs(0));

    NtfsBuilder withoutFlag = NtfsBuilder::standard();
    withoutFlag.pokeRecord(kDocs, 0x16, 1, 2);
    NtfsBench bench(withoutFlag);
    bench.parser.read_upcase();
    EXPECT_EQ(bench.parser.convert_to_inode("\\docs\\letter.txt"), kLetter);
}

/// Records 12 to 23, which volumes keep for what the first record of $MFT cannot hold.
class NtfsHostileMftExtension : public testing::TestWithParam<std::uint64_t> {
protected:
    /// The record is in the second run of $MFT, which the first record names itself.
    NtfsHostileMftExtension() {
        NtfsGeometry geometry;
        geometry.mftRuns = {{4, 2}, {40, 6}, {30, 8}};
        builder = NtfsBuilder::standard(geometry);
        extension().baseReference = mft().reference();
    }

    NtfsRecord& mft() { return builder.record(0); }
    NtfsRecord& extension() { return builder.record(GetParam()).clear(); }

    NtfsBuilder builder = NtfsBuilder::standard();
};

TEST_P(NtfsHostileMftExtension, MayHoldTheMftsOwnBitmap) {
    NtfsBytes const inUse(8, 0xFF);
    mft()
        .remove(ntfs_type::kBitmap)
        .attributeList({{ntfs_type::kStandardInformation, 0, 0, {}},
                        {ntfs_type::kFileName, 0, 0, {}},
                        {ntfs_type::kData, 0, 0, {}},
                        {ntfs_type::kBitmap, GetParam(), 0, {}}});
    builder.store(extension(), ntfs_type::kBitmap, u"", inUse);
    builder.seal();
    EXPECT_THAT(extentsOf(builder, "\\readme.txt"), SizeIs(2));
    expectRightMap(builder);
}

TEST_P(NtfsHostileMftExtension, WithTheMftsLastRunsIsRefused) {
    NtfsRecord& first = mft().remove(ntfs_type::kData).nonResident(ntfs_type::kData, u"", {{4, 2}, {40, 6}}, 65536);
    first.attributeList({{ntfs_type::kData, 0, 0, {}}, {ntfs_type::kData, GetParam(), 8, {}}});
    extension().nonResident(ntfs_type::kData, u"", {{30, 8}}, 0, 8);
    builder.seal();
    EXPECT_EQ(openNtfs(builder).refusal, kProof) << "the runs of the extension take the place of all others";
    expectNoMap(builder, kProof);
}

INSTANTIATE_TEST_SUITE_P(Kept, NtfsHostileMftExtension, testing::Range(std::uint64_t{12}, std::uint64_t{24}));

/// A volume whose sectors, clusters and records all have 4096 bytes.
NtfsBuilder largeSectors() {
    NtfsGeometry geometry;
    geometry.bytesPerSector = 4096;
    geometry.recordBytes = 4096;
    return NtfsBuilder::standard(geometry);
}

TEST(NtfsHostileFixup, LargeSectorsAreStillProtectedBy512Bytes) {
    NtfsBuilder const good = largeSectors();
    EXPECT_THAT(extentsOf(good, "\\readme.txt"), SizeIs(2));
    for (std::uint64_t stride = 1; stride <= 8; ++stride) {
        NtfsBuilder torn = good;
        torn.poke(torn.byteOffsetOf(1, 512 * stride - 2), 0xDEAD, 2);
        EXPECT_EQ(openNtfs(torn).refusal, kProof) << stride;
    }
    NtfsBuilder oneForEachSector = good;
    ASSERT_EQ(oneForEachSector.peek(good.byteOffsetOf(1, 6), 2), 9U);
    oneForEachSector.poke(good.byteOffsetOf(1, 6), 2, 2);
    EXPECT_EQ(openNtfs(oneForEachSector).refusal, kProof);
}

TEST(NtfsHostileFixup, SectorsOf256BytesAreProtectedBy512Bytes) {
    NtfsGeometry geometry;
    geometry.bytesPerSector = 256;
    NtfsBuilder const good = NtfsBuilder::standard(geometry);
    ASSERT_EQ(good.boot(ntfs_boot::kSectorsPerCluster, 1), 16U);
    EXPECT_THAT(extentsOf(good, "\\readme.txt"), SizeIs(2));
    expectRightMap(good);
    NtfsBuilder oneForEachSector = good;
    oneForEachSector.poke(good.byteOffsetOf(1, 6), 5, 2);
    EXPECT_EQ(openNtfs(oneForEachSector).refusal, kProof);
}

TEST(NtfsHostileFixup, AnArrayWithOtherBytesIsPutBackAsItStands) {
    // The sequence number is right everywhere, so that nothing tells.
    NtfsBuilder builder = NtfsBuilder::standard();
    builder.poke(builder.byteOffsetOf(kReadme, 0x32), 0xBEEF, 2);
    NtfsBench bench(builder);
    NtfsBytes record(1024);
    EXPECT_EQ(bench.parser.read_mft_record(kReadme, record.data()), 0);
    EXPECT_EQ(getNumber(record, 510, 2), 0xBEEFU);
}

} // namespace
