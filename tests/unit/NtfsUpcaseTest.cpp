// The upcase table of an NTFS volume: read once, from one run or several, or not there.
#include "support/NtfsBench.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace tests;
using agent::core::fs::ntfs_index_entry;
using ntfs_record_number::kUpcase;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t kExtension = 12;

/// How the parser orders a searched name and one that stands in an index, through its table.
int order(NtfsBench& bench, std::string const& searched, std::u16string const& stored) {
    NtfsBytes bytes = ntfsIndexEntry(5, ntfsFileName(5, stored));
    auto* entry = reinterpret_cast<ntfs_index_entry*>(bytes.data());
    return bench.parser.collate_index_names(&entry, searched);
}

NtfsBuilder upcaseInPieces(unsigned pieces) {
    NtfsGeometry geometry;
    geometry.upcasePieces = pieces;
    return NtfsBuilder::standard(geometry);
}

TEST(NtfsUpcase, IsReadOnce) {
    NtfsBuilder const builder = NtfsBuilder::standard();
    NtfsBench bench(builder);
    bench.forget();
    bench.parser.read_upcase();
    std::uint64_t const record = builder.byteOffsetOf(kUpcase);
    EXPECT_THAT(bench.logger.entries,
                ElementsAre(searchingDataEntry(), readingEntry(kUpcase, record), searchingDataEntry()));
    ASSERT_EQ(bench.reader.calls.size(), 4U);
    EXPECT_EQ(bench.reader.calls[0], seekCall(static_cast<long>(record)));
    EXPECT_EQ(bench.reader.calls[1], readCall(1024));
    EXPECT_EQ(bench.reader.calls[3], readCall(131072));
    bench.forget();
    bench.parser.read_upcase();
    EXPECT_THAT(bench.reader.calls, IsEmpty());
    EXPECT_THAT(bench.logger.entries, IsEmpty());
}

TEST(NtfsUpcase, NamesNeedIt) {
    NtfsBench bench(NtfsBuilder::standard());
    EXPECT_EQ(textThrown<std::invalid_argument>([&] { order(bench, "a", u"A"); }), "Upcase file is not read.");
    bench.parser.read_upcase();
    EXPECT_EQ(order(bench, "a", u"A"), 0);
    EXPECT_LT(order(bench, "a", u"B"), 0);
}

TEST(NtfsUpcase, ReadingTheVolumeAgainKeepsIt) {
    NtfsBench bench(NtfsBuilder::standard());
    bench.parser.read_upcase();
    bench.parser.reinit();
    EXPECT_EQ(order(bench, "a", u"A"), 0);
}

TEST(NtfsUpcase, InOneRunEveryCharacterCounts) {
    NtfsBench bench(upcaseInPieces(1));
    bench.parser.read_upcase();
    EXPECT_LT(order(bench, "\u9000", u"\u9001"), 0);
    EXPECT_EQ(order(bench, "\u9000", u"\u9000"), 0);
}

TEST(NtfsUpcase, ASecondRunLandsAtTwiceItsPosition) {
    NtfsBench bench(upcaseInPieces(2));
    bench.forget();
    bench.parser.read_upcase();
    ASSERT_EQ(bench.reader.calls.size(), 6U);
    EXPECT_EQ(bench.reader.calls[3], readCall(65536));
    EXPECT_EQ(bench.reader.calls[5], readCall(65536));
    EXPECT_EQ(order(bench, "\u7ffe", u"\u7fff"), -1);
    EXPECT_EQ(order(bench, "\u8000", u"\u9001"), 0); // between the runs all are zero
    EXPECT_EQ(order(bench, "\u7fff", u"\u8000"), 1);
}

TEST(NtfsUpcase, InThreeRunsTheSecondServesOtherCharacters) {
    NtfsBench bench(upcaseInPieces(3)); // of 45056, 45056 and 40960 bytes
    bench.parser.read_upcase();
    EXPECT_EQ(order(bench, "\u57ff", u"\u5800"), 1); // the last of the first run, and a zero
    EXPECT_EQ(order(bench, "\u5800", u"\uafff"), 0);
    EXPECT_EQ(order(bench, "\ub000", u"\ub001"), -1); // the second run begins at this index
    EXPECT_EQ(order(bench, "\ub000", u"\u57ff"), 1);
    EXPECT_EQ(order(bench, "\ub000", u"\u5800"), 1);
}

/// A volume whose record 10 has what the test gives it instead of data.
template <typename Change>
NtfsBuilder withUpcaseRecord(Change const& change) {
    NtfsBuilder builder = NtfsBuilder::standard();
    NtfsRecord& record = builder.record(kUpcase);
    record.remove(ntfs_type::kData);
    change(builder, record);
    builder.seal();
    return builder;
}

TEST(NtfsUpcase, AResidentTableIsAnEmptyOne) {
    NtfsBench bench(withUpcaseRecord(
        [](NtfsBuilder&, NtfsRecord& record) { record.resident(ntfs_type::kData, u"", NtfsBytes(256)); }));
    bench.forget();
    bench.parser.read_upcase();
    ASSERT_EQ(bench.logger.entries.size(), 4U);
    EXPECT_EQ(bench.logger.entries.back(), debugEntry("Attribute is resident. Can't find data-runs."));
    EXPECT_EQ(order(bench, "a", u"a"), 0);
    EXPECT_EQ(order(bench, "a", u"A"), 1); // every character stands for itself
    bench.forget();
    bench.parser.read_upcase();
    EXPECT_THAT(bench.reader.calls, IsEmpty());
}

TEST(NtfsUpcase, WithoutRunsItIsEmptyToo) {
    NtfsBench bench(
        withUpcaseRecord([](NtfsBuilder&, NtfsRecord& record) { record.nonResidentRaw(ntfs_type::kData, u"", {0}); }));
    bench.parser.read_upcase();
    EXPECT_EQ(order(bench, "a", u"A"), 1);
}

TEST(NtfsUpcase, AShortTableServesAsFarAsItsBytesCount) {
    NtfsBuilder const builder = withUpcaseRecord([](NtfsBuilder& volume, NtfsRecord& record) {
        NtfsBytes table = ntfsUpcaseBytes();
        table.resize(4096);
        volume.store(record, ntfs_type::kData, u"", table);
    });
    NtfsBench bench(builder);
    bench.parser.read_upcase();
    EXPECT_EQ(order(bench, "\u044f", u"\u042f"), 0);
    EXPECT_EQ(order(bench, "\u0800", u"\u0fff"), 0);  // behind the bytes, where zeros are
    EXPECT_EQ(order(bench, "\u1000", u"\u1001"), -1); // behind the count, where characters stand for themselves
}

TEST(NtfsUpcase, ANegativeLengthIsARunThatCannotBeRead) {
    NtfsBench bench(withUpcaseRecord([](NtfsBuilder&, NtfsRecord& record) {
        record.nonResidentRaw(ntfs_type::kData, u"", {0x11, 0xFF, 0x05, 0x00});
    }));
    EXPECT_EQ(textThrown([&] { bench.parser.read_upcase(); }), "Unable to read INDEX ENTRY");
}

TEST(NtfsUpcase, ALengthWhoseBytesWrapToNoneIsAnEmptyTable) {
    NtfsBench bench(withUpcaseRecord([](NtfsBuilder&, NtfsRecord& record) {
        record.nonResidentRaw(ntfs_type::kData, u"", {0x17, 0, 0, 0, 0, 0, 0, 0x10, 0x05, 0x00}); // 2^52 clusters
    }));
    bench.parser.read_upcase();
    EXPECT_EQ(order(bench, "a", u"A"), 1);
}

TEST(NtfsUpcase, ATableOfMoreThanAllCharactersServesThem) {
    NtfsBench bench(withUpcaseRecord([](NtfsBuilder& volume, NtfsRecord& record) {
        NtfsBytes table = ntfsUpcaseBytes();
        table.resize(300000, 0xEE);
        volume.store(record, ntfs_type::kData, u"", table);
    }));
    bench.parser.read_upcase();
    EXPECT_EQ(order(bench, "\u044f", u"\u042f"), 0);
    EXPECT_EQ(order(bench, "\ufffe", u"\uffff"), -1);
}

TEST(NtfsUpcase, WithoutDataNothingIsLoaded) {
    NtfsBench bench(withUpcaseRecord([](NtfsBuilder&, NtfsRecord&) {}));
    bench.forget();
    bench.parser.read_upcase();
    EXPECT_EQ(bench.logger.entries.size(), 3U);
    EXPECT_EQ(bench.reader.calls.size(), 2U);
    EXPECT_EQ(textThrown<std::invalid_argument>([&] { order(bench, "a", u"A"); }), "Upcase file is not read.");
    bench.parser.read_upcase();
    EXPECT_EQ(bench.reader.calls.size(), 4U) << "what is not there is looked for again";
}

NtfsBuilder upcaseInExtension() {
    return withUpcaseRecord([](NtfsBuilder& volume, NtfsRecord& record) {
        NtfsRecord& extension = volume.record(kExtension).clear();
        extension.baseReference = record.reference();
        volume.store(extension, ntfs_type::kData, u"", ntfsUpcaseBytes());
        record.attributeList({{ntfs_type::kStandardInformation, record.reference(), 0, u""},
                              {ntfs_type::kFileName, record.reference(), 0, u""},
                              {ntfs_type::kData, extension.reference(), 0, u""}});
    });
}

TEST(NtfsUpcase, MayLieInAnExtensionRecord) {
    NtfsBench bench(upcaseInExtension());
    bench.forget();
    bench.parser.read_upcase();
    EXPECT_EQ(bench.reader.calls.size(), 8U); // the record, the extension twice, the run
    EXPECT_EQ(order(bench, "a", u"A"), 0);
}

TEST(NtfsUpcase, AnExtensionThatCannotBeReadAgainLeavesNothing) {
    NtfsBuilder const builder = upcaseInExtension();
    MemoryReader const volume(builder.bytes);
    constexpr unsigned kBefore = 3; // reads at construction; then the record and the extension come, and again it
    for (Fault const fault : {Fault::SeekFails, Fault::ReadFails, Fault::ReadShort, Fault::ReadEmpty}) {
        FaultyReader const reader(volume, fault, kBefore + 2);
        RecordingLogger logger;
        NtfsAccess parser(logger, 512, reader);
        parser.read_upcase();
        EXPECT_TRUE(reader.fired);
        NtfsBytes bytes = ntfsIndexEntry(5, ntfsFileName(5, u"A"));
        auto* entry = reinterpret_cast<ntfs_index_entry*>(bytes.data());
        EXPECT_THROW(parser.collate_index_names(&entry, "a"), std::invalid_argument);
        parser.read_upcase();
        EXPECT_EQ(parser.collate_index_names(&entry, "a"), 0);
    }
}

TEST(NtfsUpcase, ARecordThatCannotBeReadIsNamed) {
    NtfsBuilder builder = NtfsBuilder::standard();
    builder.poke(builder.byteOffsetOf(kUpcase), 0x44414142, 4); // "BAAD"
    NtfsBench bench(builder);
    EXPECT_EQ(textThrown([&] { bench.parser.read_upcase(); }), "Could not read MFT record for inode number 10");
}

TEST(NtfsUpcase, ARecordThatIsDamagedIsNamed) {
    NtfsBuilder builder = NtfsBuilder::standard();
    builder.pokeRecord(kUpcase, 0x1C, 2048, 4);
    NtfsBench bench(builder);
    EXPECT_EQ(textThrown([&] { bench.parser.read_upcase(); }), "Record 0xa has invalid size: 0x800");
}

TEST(NtfsUpcase, ARunThatCannotBeReadIsAnErrorAndLeavesAnEmptyTable) {
    NtfsBuilder const builder = NtfsBuilder::standard();
    MemoryReader const volume(builder.bytes);
    for (Fault const fault : {Fault::SeekFails, Fault::ReadFails}) {
        FaultyReader const reader(volume, fault, 4);
        RecordingLogger logger;
        NtfsAccess parser(logger, 512, reader);
        EXPECT_EQ(textThrown([&] { parser.read_upcase(); }), "Unable to read INDEX ENTRY");
        EXPECT_TRUE(reader.fired);
        parser.read_upcase(); // the table is there, so it is not read again
        NtfsBytes bytes = ntfsIndexEntry(5, ntfsFileName(5, u"A"));
        auto* entry = reinterpret_cast<ntfs_index_entry*>(bytes.data());
        EXPECT_EQ(parser.collate_index_names(&entry, "a"), 1);
    }
}

} // namespace
