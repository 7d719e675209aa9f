// $UpCase that is no table of capitals, and $Bitmap that is no map: comparisons end, and nothing becomes free.
#include "support/NtfsFileBench.h"
#include "support/NtfsMapRun.h"
#include "support/ResidentMemory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

namespace {

using namespace tests;

constexpr std::uint64_t kUpcase = ntfs_record_number::kUpcase;
constexpr std::uint64_t kBitmapRecord = ntfs_record_number::kBitmap;

/// A volume whose table maps some characters elsewhere, and whose root holds these names in this order.
NtfsBuilder withTable(std::vector<std::pair<char16_t, char16_t>> const& changes,
                      std::vector<std::pair<std::u16string, std::uint64_t>> const& names) {
    NtfsBuilder builder = NtfsBuilder::standard();
    NtfsBytes table = ntfsUpcaseBytes();
    for (auto const& [from, to] : changes) {
        putNumber(table, std::uint64_t{2} * from, to, 2);
    }
    builder.store(builder.record(kUpcase).remove(ntfs_type::kData), ntfs_type::kData, u"", table);
    std::vector<NtfsBytes> entries;
    for (auto const& [name, reference] : names) {
        entries.push_back(ntfsIndexEntry(reference, ntfsFileName(5, name)));
    }
    builder.index(builder.record(5).remove(ntfs_type::kIndexRoot), u"$I30", builder.directoryShape(), entries);
    builder.seal();
    return builder;
}

std::string find(NtfsBuilder const& builder, std::string const& name) {
    NtfsFileBench bench(builder);
    std::string number;
    std::string const failure = failureOf([&] {
        bench.parser.read_upcase();
        number = std::to_string(bench.parser.convert_to_inode("\\" + name));
    });
    return number.empty() ? failure : number;
}

TEST(NtfsHostileUpcase, ATableThatMapsOneLetterToAnotherDecidesWhatIsEqual) {
    NtfsBuilder const builder = withTable({{u'a', u'b'}, {u'B', u'b'}}, {{u"B", 40}, {u"c", 41}});
    EXPECT_EQ(find(builder, "a"), "40");
    EXPECT_EQ(find(builder, "B"), "40");
    EXPECT_EQ(find(builder, "b"), "Entry not found - between root entries for key b") << "its capital is still B";
}

TEST(NtfsHostileUpcase, ATableInACircleIsAppliedOnce) {
    NtfsBuilder const builder =
        withTable({{u'a', u'b'}, {u'b', u'c'}, {u'c', u'a'}}, {{u"c", 40}, {u"a", 41}, {u"b", 42}});
    EXPECT_EQ(find(builder, "c"), "40"); // as a
    EXPECT_EQ(find(builder, "a"), "41"); // as b
    EXPECT_EQ(find(builder, "b"), "42"); // as c
}

TEST(NtfsHostileUpcase, ATableOfZerosMakesNamesOfOneLengthEqual) {
    NtfsBuilder builder = withTable({}, {{u"readme.txt", 40}, {u"somewhat longer", 41}});
    NtfsBytes const zeros(131072);
    builder.store(builder.record(kUpcase).remove(ntfs_type::kData), ntfs_type::kData, u"", zeros);
    builder.seal();
    EXPECT_EQ(find(builder, "0123456789"), "40");
    EXPECT_EQ(find(builder, "012345678901234"), "41");
    EXPECT_EQ(find(builder, "0"), "Entry not found - between root entries for key 0");
}

TEST(NtfsHostileUpcase, TheSizesOfTheTableAreNotAskedWhereItsRunsHoldAll) {
    for (std::uint64_t const size : {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{131071}, std::uint64_t{131073},
                                     std::uint64_t{1} << 40, ~std::uint64_t{0}}) {
        NtfsBuilder builder = NtfsBuilder::standard();
        std::uint64_t const data = builder.record(kUpcase).offsetOf(ntfs_type::kData);
        for (std::uint64_t const field : {0x28U, 0x30U, 0x38U}) {
            builder.pokeRecord(kUpcase, data + field, size, 8);
        }
        EXPECT_EQ(find(builder, "README.TXT"), "24") << size;
    }
}

TEST(NtfsHostileUpcase, AHoleIsReadAtAnotherPlace) {
    // Without a place of its own, the table is read where its length says: clusters 32 to 63.
    NtfsBuilder builder = NtfsBuilder::standard();
    builder.record(kUpcase).remove(ntfs_type::kData).nonResidentRaw(ntfs_type::kData, u"", {0x01, 32, 0}, 131072);
    builder.seal();
    NtfsFileBench bench(builder);
    bench.parser.read_upcase();
    EXPECT_EQ(bench.reads().back(), (VolumeRead{32 * 4096, 131072}));
    // Where zeros stand, all names of a length are one: the first that is as long answers.
    std::fill_n(bench.volume.bytes.begin() + 32 * 4096, 131072, std::uint8_t{0});
    NtfsBuilder zeros = builder;
    zeros.bytes = bench.volume.bytes;
    EXPECT_EQ(find(zeros, "0123456789"), "24");
}

TEST(NtfsHostileUpcase, RunsThatNoVolumeHoldsTakeNoMemory) {
    std::size_t const before = residentBytes();
    for (unsigned bit = 8; bit < 52; ++bit) {
        NtfsBuilder builder = NtfsBuilder::standard();
        std::vector<NtfsRun> const runs{{200, std::int64_t{1} << bit}};
        builder.record(kUpcase).remove(ntfs_type::kData).nonResident(ntfs_type::kData, u"", runs);
        builder.seal();
        NtfsFileBench bench(builder);
        std::string const failure = failureOf([&] { bench.parser.read_upcase(); });
        EXPECT_TRUE(failure == "nothing was thrown" || failure == "Unable to read INDEX ENTRY" ||
                    failure == "std::bad_alloc")
            << failure << " of 2 to the power of " << bit;
        EXPECT_LT(residentBytes(), before + (std::size_t{64} << 20)) << bit;
    }
}

TEST(NtfsHostileUpcase, WithoutItsRecordNoNameIsFoundAndTheMapStays) {
    for (std::uint64_t const magic : {0U, 0x44414142U}) {
        NtfsBuilder builder = NtfsBuilder::standard();
        builder.poke(builder.byteOffsetOf(kUpcase), magic, 4);
        EXPECT_EQ(find(builder, "readme.txt"), "Could not read MFT record for inode number 10");
        expectRightMap(builder);
    }
}

TEST(NtfsHostileBitmap, ABitShortOfTheClustersIsTooShort) {
    NtfsGeometry geometry = NtfsGeometry::withClusters(512);
    geometry.clusters = 4096; // exactly the bits of a cluster
    NtfsBuilder const exact = NtfsBuilder::standard(geometry);
    ASSERT_EQ(exact.bitmapRuns.size(), 1U);
    expectRightMap(exact);
    NtfsBuilder tooShort = exact;
    tooShort.setBoot(ntfs_boot::kTotalSectors, 4097, 8);
    NtfsFileBench bench(tooShort);
    std::vector<char> buffer(8);
    EXPECT_EQ(bench.parser.getChunk(0, buffer.data(), buffer.size()), -559);
    expectAllUsed(tooShort, "$Bitmap holds 512 bytes, and the volume's 4097 clusters need 513");
}

TEST(NtfsHostileBitmap, LongerThanTheVolumeIsCut) {
    NtfsBuilder builder = NtfsBuilder::standard();
    NtfsRun const run = builder.allocate(3);
    builder.bitmapRuns = {run};
    builder.record(kBitmapRecord).remove(ntfs_type::kData).nonResident(ntfs_type::kData, u"", {run});
    builder.seal();
    expectRightMap(builder);
}

TEST(NtfsHostileBitmap, InitialisedOnlyInPartIsNotBelieved) {
    for (std::uint64_t const size : {0U, 1U, 63U}) {
        NtfsBuilder builder = NtfsBuilder::standard();
        builder.pokeRecord(kBitmapRecord, builder.record(kBitmapRecord).offsetOf(ntfs_type::kData) + 0x38, size, 8);
        expectAllUsed(builder,
                      "$Bitmap holds " + std::to_string(size) + " bytes, and the volume's 512 clusters need 64");
    }
}

TEST(NtfsHostileBitmap, TornRecordsOfTheMftBetweenDoNotMatterButItsOwn) {
    NtfsBuilder builder = NtfsBuilder::standard();
    for (std::uint64_t number = 4; number < 64; ++number) {
        if (number != kBitmapRecord) {
            builder.poke(builder.byteOffsetOf(number, 510), 0xDEAD, 2);
        }
    }
    expectRightMap(builder);
    builder.poke(builder.byteOffsetOf(kBitmapRecord, 510), 0xDEAD, 2);
    expectNoMap(builder, "$Bitmap (record 6) cannot be read: Could not read MFT record 6");
    NtfsFileBench bench(builder);
    std::vector<char> buffer(64, 'x');
    EXPECT_EQ(bench.parser.getChunk(0, buffer.data(), buffer.size()), -559);
    EXPECT_EQ(buffer, std::vector<char>(64, 'x'));
}

} // namespace
