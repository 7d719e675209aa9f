// NTFS attributes whose sizes, flags, names and VCNs contradict each other: what counts is the runs, or nothing.
#include "support/NtfsFileBench.h"
#include "support/NtfsMapRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>

namespace {

using namespace tests;
using agent::BlockRange;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::uint64_t kReadme = 24;
constexpr std::uint64_t kBitmapRecord = ntfs_record_number::kBitmap;

/// Of a non-resident attribute.
constexpr std::uint64_t kFlags = 0x0C;
constexpr std::uint64_t kLowestVcn = 0x10;
constexpr std::uint64_t kHighestVcn = 0x18;
constexpr std::uint64_t kCompressionUnit = 0x22;
constexpr std::uint64_t kAllocatedSize = 0x28;
constexpr std::uint64_t kDataSize = 0x30;
constexpr std::uint64_t kInitializedSize = 0x38;

/// Flags: compressed, encrypted and sparse.
constexpr std::uint64_t kEveryFlag = 0xC001;

std::vector<std::pair<std::int64_t, std::int64_t>> extentsOf(NtfsBuilder const& builder, std::uint64_t number) {
    NtfsFileBench bench(builder);
    std::vector<std::pair<std::int64_t, std::int64_t>> extents;
    for (BlockRange const& range : bench.parser.extents(number)) {
        extents.emplace_back(range.first, range.count);
    }
    return extents;
}

/// The standard volume with one field of the data of a record changed; proves that the change took.
NtfsBuilder withDataField(std::uint64_t number, std::uint64_t field, std::uint64_t value, std::size_t width) {
    NtfsBuilder builder = NtfsBuilder::standard();
    std::uint64_t const place = builder.record(number).offsetOf(ntfs_type::kData) + field;
    EXPECT_NE(builder.peekRecord(number, place, width), value) << "nothing is damaged";
    builder.pokeRecord(number, place, value, width);
    return builder;
}

TEST(NtfsHostileAttribute, ACompressionUnitAloneMeansNothing) {
    auto const sound = extentsOf(NtfsBuilder::standard(), kReadme);
    ASSERT_THAT(sound, SizeIs(2));
    for (std::uint64_t unit = 1; unit < 256; ++unit) {
        EXPECT_EQ(extentsOf(withDataField(kReadme, kCompressionUnit, unit, 1), kReadme), sound) << unit;
    }
    for (std::uint64_t const unit : {1U, 4U, 64U, 255U}) {
        expectRightMap(withDataField(kBitmapRecord, kCompressionUnit, unit, 1));
    }
}

TEST(NtfsHostileAttribute, EncryptedSparseAndCompressedDataHaveTheirRuns) {
    auto const sound = extentsOf(NtfsBuilder::standard(), kReadme);
    for (std::uint64_t const flags :
         {std::uint64_t{0x4000}, std::uint64_t{0x8000}, kEveryFlag, std::uint64_t{0xFFFF}}) {
        EXPECT_EQ(extentsOf(withDataField(kReadme, kFlags, flags, 2), kReadme), sound) << flags;
        expectAllUsed(withDataField(kBitmapRecord, kFlags, flags, 2),
                      "the data of $Bitmap (record 6) have the attribute flags " + std::to_string(flags) +
                          ": they are compressed, sparse or encrypted");
    }
}

/// Allocated, data and initialized size.
using Sizes = std::array<std::uint64_t, 3>;

NtfsBuilder withSizes(std::uint64_t number, Sizes const& sizes) {
    NtfsBuilder builder = NtfsBuilder::standard();
    std::uint64_t const data = builder.record(number).offsetOf(ntfs_type::kData);
    builder.pokeRecord(number, data + kAllocatedSize, sizes[0], 8);
    builder.pokeRecord(number, data + kDataSize, sizes[1], 8);
    builder.pokeRecord(number, data + kInitializedSize, sizes[2], 8);
    return builder;
}

TEST(NtfsHostileAttribute, SizesInAnyOrderLeaveTheRunsAsTheyAre) {
    auto const sound = extentsOf(NtfsBuilder::standard(), kReadme);
    Sizes sizes{1024, 4096, 1 << 20};
    do {
        EXPECT_EQ(extentsOf(withSizes(kReadme, sizes), kReadme), sound);
    } while (std::next_permutation(sizes.begin(), sizes.end()));
    for (std::uint64_t const negative : {std::uint64_t{1} << 63, ~std::uint64_t{0}}) {
        EXPECT_EQ(extentsOf(withSizes(kReadme, {negative, negative, negative}), kReadme), sound);
    }
}

TEST(NtfsHostileAttribute, TheSmallestSizeOfABitmapIsWhatItHolds) {
    Sizes sizes{63, 64, 4096}; // the volume's 512 clusters need 64 bytes
    do {
        NtfsBuilder const builder = withSizes(kBitmapRecord, sizes);
        if (sizes[0] == 63) { // what is allocated is not asked for: the runs are what is read
            expectRightMap(builder);
        } else {
            expectAllUsed(builder, "$Bitmap holds 63 bytes, and the volume's 512 clusters need 64");
        }
    } while (std::next_permutation(sizes.begin(), sizes.end()));
    for (Sizes const& negative : {Sizes{64, ~std::uint64_t{0}, 64}, Sizes{64, 64, std::uint64_t{1} << 63}}) {
        expectRightMap(withSizes(kBitmapRecord, negative)); // the other size holds all
    }
}

TEST(NtfsHostileAttribute, ALowestVcnWithoutAListIsNoBeginning) {
    auto const sound = extentsOf(NtfsBuilder::standard(), kReadme);
    EXPECT_EQ(extentsOf(withDataField(kReadme, kLowestVcn, 1, 8), kReadme), sound) << "the runs alone count";
    for (std::uint64_t const vcn : {std::uint64_t{1}, ~std::uint64_t{0}}) {
        expectAllUsed(
            withDataField(kBitmapRecord, kLowestVcn, vcn, 8),
            "the data of $Bitmap (record 6) stand in 1 parts, and not in one that stands whole in that record: "
            "their order cannot be told");
    }
}

TEST(NtfsHostileAttribute, AHighestVcnDoesNotCutTheRuns) {
    auto const sound = extentsOf(NtfsBuilder::standard(), kReadme);
    for (std::uint64_t const vcn : {std::uint64_t{0}, ~std::uint64_t{0}, ~std::uint64_t{0} >> 1}) {
        EXPECT_EQ(extentsOf(withDataField(kReadme, kHighestVcn, vcn, 8), kReadme), sound) << vcn;
    }
    // Of a record that is checked, an empty range is refused where there are no VCNs below it; 0 passes.
    NtfsFileBench refused(withDataField(ntfs_record_number::kUpcase, kHighestVcn, ~std::uint64_t{0}, 8));
    EXPECT_EQ(failureOf([&] { refused.parser.read_upcase(); }), "Corrupt non resident attribute80 in MFT record 0xa");
    NtfsFileBench taken(withDataField(ntfs_record_number::kUpcase, kHighestVcn, 0, 8));
    taken.parser.read_upcase();
    EXPECT_EQ(taken.referenceOf(5, "README.TXT") & 0xFFFFFFFFFFFF, kReadme) << "the table is whole";
}

TEST(NtfsHostileAttribute, AFlippedResidentFlagIsNoRunsOrAnError) {
    NtfsFileBench resident(withDataField(kReadme, 0x08, 0, 1));
    EXPECT_THAT(resident.parser.extents(kReadme), IsEmpty());
    EXPECT_EQ(resident.logger.entries.back(), debugEntry("Attribute is resident. Can't find data-runs."));
    expectAllUsed(withDataField(kBitmapRecord, 0x08, 0, 1),
                  "the data of $Bitmap (record 6) are kept in the record itself, where the parser does not look");

    // What was a resident value ("Dear all") has no mapping pairs inside the attribute.
    NtfsFileBench nonResident(withDataField(26, 0x08, 1, 1));
    EXPECT_EQ(failureOf([&] { nonResident.parser.extents(26); }), "No run list can be found");
}

TEST(NtfsHostileAttribute, ANameMayLieInTheMappingPairs) {
    NtfsBuilder builder = NtfsBuilder::standard();
    NtfsRecord& readme = builder.record(kReadme).remove(ntfs_type::kData);
    readme.nonResidentRaw(ntfs_type::kData, u"", {0x41, 5, 'a', 0, 'b', 0, 0, 0}, 20480);
    std::uint64_t const data = readme.offsetOf(ntfs_type::kData);
    builder.seal().pokeRecord(kReadme, data + 0x09, 2, 1).pokeRecord(kReadme, data + 0x0A, 0x42, 2);
    EXPECT_EQ(extentsOf(builder, kReadme), (std::vector{std::pair(std::int64_t{0x00620061}, std::int64_t{5})}));
    NtfsFileBench bench(builder);
    NtfsBytes record(1024);
    bench.parser.read_mft_record_throw(kReadme, record.data(), "");
    auto* const header = reinterpret_cast<agent::core::fs::ntfs_mft_record_t*>(record.data());
    auto const hits = bench.parser.get_attributes(kReadme, header, agent::core::fs::kData);
    EXPECT_EQ(bench.parser.findAttributeByName(kReadme, header, hits, "ab"), hits.at(0));
}

TEST(NtfsHostileAttribute, InstancesMayBeAlike) {
    NtfsBuilder builder = NtfsBuilder::standard();
    for (std::uint64_t const number : {std::uint64_t{0}, kBitmapRecord, kReadme}) {
        std::uint64_t offset = builder.record(number).firstAttribute();
        for (NtfsBytes const& attribute : builder.record(number).attributes) {
            builder.pokeRecord(number, offset + 0x0E, 7, 2);
            offset += attribute.size();
        }
    }
    EXPECT_EQ(extentsOf(builder, kReadme), extentsOf(NtfsBuilder::standard(), kReadme));
    expectRightMap(builder);
}

/// The standard volume whose record has its runs under a name.
NtfsBuilder withNamedData(std::uint64_t number, std::vector<NtfsRun> const& runs) {
    NtfsBuilder builder = NtfsBuilder::standard();
    builder.record(number).remove(ntfs_type::kData).nonResident(ntfs_type::kData, u"named", runs);
    builder.seal();
    return builder;
}

TEST(NtfsHostileAttribute, TheMftsDataMayHaveAName) {
    NtfsBuilder const builder = withNamedData(0, NtfsBuilder::standard().geometry().mftRuns);
    EXPECT_THAT(extentsOf(builder, kReadme), SizeIs(2));
    expectRightMap(builder);
}

TEST(NtfsHostileAttribute, ABitmapUnderANameIsNotBelieved) {
    NtfsBuilder const builder = withNamedData(kBitmapRecord, NtfsBuilder::standard().bitmapRuns);
    expectAllUsed(builder, "the data of $Bitmap (record 6) stand in 0 parts, and not in one that stands whole in that "
                           "record: their order cannot be told");
    NtfsFileBench bench(builder); // the parser does not look at names
    std::vector<char> buffer(64);
    EXPECT_EQ(bench.parser.getChunk(0, buffer.data(), buffer.size()), 512);
}

TEST(NtfsHostileAttribute, AnEmptyValueMayStandAtTheRecordsEnd) {
    NtfsBuilder builder = NtfsBuilder::standard();
    NtfsRecord& readme = builder.record(kReadme).remove(ntfs_type::kData);
    readme.resident(ntfs_type::kData, u"", {});
    std::uint64_t const data = readme.offsetOf(ntfs_type::kData);
    builder.seal();
    for (std::uint64_t const offset : {0x18U, 0x3FFU, 0x400U, 0xFFFFU}) {
        builder.pokeRecord(kReadme, data + 0x14, offset, 2);
        EXPECT_THAT(extentsOf(builder, kReadme), IsEmpty()) << offset;
        NtfsFileBench bench(builder);
        bench.parser.read_upcase();
        EXPECT_EQ(failureOf([&] { bench.parser.getStandardInfo("\\readme.txt"); }), "nothing was thrown") << offset;
    }
    // With a single byte of value the place counts.
    builder.pokeRecord(kReadme, data + 0x10, 1, 4);
    NtfsFileBench bench(builder);
    bench.parser.read_upcase();
    EXPECT_EQ(failureOf([&] { bench.parser.getStandardInfo("\\readme.txt"); }),
              "Corrupt resident attribute 0x80 in MFT record 0x18");
}

TEST(NtfsHostileAttribute, AnEmptyIndexRootAtTheRecordsEndIsCorrupt) {
    NtfsBuilder builder = NtfsBuilder::standard();
    std::uint64_t const root = builder.record(25).offsetOf(ntfs_type::kIndexRoot);
    for (std::uint64_t const offset : {0x400U, 0xFFFFU}) {
        builder.pokeRecord(25, root + 0x10, 0, 4).pokeRecord(25, root + 0x14, offset, 2);
        NtfsFileBench bench(builder);
        bench.parser.read_upcase();
        EXPECT_EQ(failureOf([&] { bench.lookupName(25, "letter.txt"); }), "Corrupt index root in MFT record 0x19");
    }
}

} // namespace
