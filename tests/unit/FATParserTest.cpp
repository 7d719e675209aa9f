// The FAT parser on sound volumes: recognition, construction, the reads that reach the volume.
#include "support/FatRun.h"

#include "fat/FatLayout.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace tests;
using agent::core::fs::fat_boot_sector;
using agent::core::fs::FATParser;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::StrEq;
using testing::ThrowsMessage;

/// A sector with nothing but labels at the places of the FAT12/FAT16 one and of the FAT32 one.
std::vector<std::uint8_t> makeLabels(std::string_view old, std::string_view fat32) {
    std::vector<std::uint8_t> sector(512);
    std::copy(old.begin(), old.end(), sector.begin() + 0x36);
    std::copy(fat32.begin(), fat32.end(), sector.begin() + 0x52);
    return sector;
}

struct LabelCase {
    char const* name;
    std::string_view old;
    std::string_view fat32;
    int type;
};

void PrintTo(LabelCase const& labels, std::ostream* out) {
    *out << labels.name;
}

class FATParserRecognition : public testing::TestWithParam<LabelCase> {};

TEST_P(FATParserRecognition, TypeFollowsTheLabels) {
    auto sector = makeLabels(GetParam().old, GetParam().fat32);
    EXPECT_EQ(FATParser::fat_get_type(reinterpret_cast<fat_boot_sector*>(sector.data())), GetParam().type);
    EXPECT_EQ(FATParser::isFATFileSystem(sector.data()), GetParam().type == 2);
}

INSTANTIATE_TEST_SUITE_P(
    Labels, FATParserRecognition,
    testing::Values(LabelCase{"Fat12", "FAT12   ", "", 0}, LabelCase{"Fat16", "FAT16   ", "", 1},
                    LabelCase{"Fat32", "", "FAT32   ", 2}, LabelCase{"None", "", "", 3},
                    LabelCase{"Fat12BeatsFat32", "FAT12", "FAT32", 0},
                    LabelCase{"Fat16BeatsFat32", "FAT16", "FAT32", 1},
                    LabelCase{"NothingBehindTheFiveBytesCounts", "", "FAT32\xFF\xFF\xFF", 2},
                    LabelCase{"NothingBehindTheOldFiveBytesCounts", "FAT16\xFF\xFF\xFF", "FAT32", 1},
                    LabelCase{"Fat32AtTheOldPlace", "FAT32   ", "", 3},
                    LabelCase{"Fat16AtTheNewPlace", "", "FAT16   ", 3}, LabelCase{"LowerCase", "", "fat32   ", 3},
                    LabelCase{"OneByteAway", "", " FAT32", 3}, LabelCase{"CutShort", "", "FAT3", 3},
                    LabelCase{"OldCutShort", "FAT1", "FAT32", 2}, LabelCase{"PlainFat", "FAT     ", "FAT32", 2}),
    [](auto const& instance) { return std::string(instance.param.name); });

TEST(FATParserRecognitionOfBuffers, NullIsNotFat) {
    EXPECT_FALSE(FATParser::isFATFileSystem(nullptr));
}

TEST(FATParserRecognitionOfBuffers, NothingBehindTheFat32LabelIsLookedAt) {
    auto sector = makeLabels("", "FAT32");
    std::vector<std::uint8_t> shortest(sector.begin(), sector.begin() + 0x57);
    EXPECT_TRUE(FATParser::isFATFileSystem(shortest.data()));
}

struct ConstructionReads {
    unsigned alignment;
    long read;
};

class FATParserConstruction : public testing::TestWithParam<ConstructionReads> {};

TEST_P(FATParserConstruction, ReadsTheUnitsOfTheBootSectorOnce) {
    FatBench bench(FatBuilder{FatGeometry::tiny()}, GetParam().alignment);
    EXPECT_THAT(bench.reader.calls, ElementsAre(seekCall(0), readCall(GetParam().read)));
    EXPECT_THAT(bench.logger.entries, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Alignments, FATParserConstruction,
                         testing::Values(ConstructionReads{512, 512}, ConstructionReads{1024, 1024},
                                         ConstructionReads{4096, 4096}, ConstructionReads{1, 512}),
                         [](auto const& instance) { return "By" + std::to_string(instance.param.alignment); });

/// Expects the construction on these bytes to fail with a text, and to leave nothing in the log.
void expectRefusal(std::vector<std::uint8_t> const& bytes, char const* text, unsigned alignment = 512) {
    MemoryReader const volume(bytes);
    RecordingLogger logger;
    EXPECT_THAT([&] { FATParser(logger, alignment, volume); }, ThrowsMessage<std::runtime_error>(StrEq(text)));
    EXPECT_THAT(logger.entries, IsEmpty());
}

TEST(FATParserConstructionFailure, OtherTypesAreNamed) {
    expectRefusal(makeLabels("FAT12   ", ""), "FAT12 is not supported");
    expectRefusal(makeLabels("FAT16   ", ""), "FAT16 is not supported");
    expectRefusal(makeLabels("", ""), "Not a FAT filesystem");
}

TEST(FATParserConstructionFailure, OldLabelsAreLookedAtFirst) {
    expectRefusal(makeLabels("FAT16   ", "FAT32   "), "FAT16 is not supported");
    expectRefusal(makeLabels("FAT12   ", "FAT32   "), "FAT12 is not supported");
}

TEST(FATParserConstructionFailure, VolumeThatEndsInsideTheBootSectorIsUnreadable) {
    auto bytes = FatBuilder(FatGeometry::tiny()).bytes;
    for (std::size_t const size : {std::size_t{0}, std::size_t{1}, std::size_t{87}, std::size_t{511}}) {
        bytes.resize(size);
        expectRefusal(bytes, "Can't read fat boot sector");
        expectRefusal(bytes, "Can't read fat boot sector", 4096);
    }
}

TEST(FATParserConstructionFailure, VolumeOfOneSectorIsLongEnough) {
    auto bytes = FatBuilder(FatGeometry::tiny()).bytes;
    bytes.resize(512);
    EXPECT_NO_THROW(FatBench(bytes, 512));
    EXPECT_NO_THROW(FatBench(bytes, 4096));
}

TEST(FATParserConstructionFailure, UnreadableBootSectorIsNamed) {
    MemoryReader const volume = FatBuilder(FatGeometry::tiny()).reader();
    FaultyReader const faulty(volume, Fault::ReadFails, 0);
    RecordingLogger logger;
    EXPECT_THAT([&] { FATParser(logger, 512, faulty); },
                ThrowsMessage<std::runtime_error>(StrEq("Can't read fat boot sector")));
    EXPECT_THAT(logger.entries, ElementsAre(debugEntry("CHUNK READ FILE FAILED: OFFSET: 0 - 512 BYTES")));
}

TEST(FATParserConstructionFailure, AlignmentOfZeroReadsNothing) {
    MemoryReader const volume = FatBuilder(FatGeometry::tiny()).reader();
    RecordingReader const recording(volume);
    RecordingLogger logger;
    EXPECT_THAT([&] { FATParser(logger, 0, recording); },
                ThrowsMessage<std::runtime_error>(StrEq("Can't read fat boot sector")));
    EXPECT_THAT(recording.calls, IsEmpty());
}

TEST(FATParserConstructionFailure, AlignmentThatIsNoPowerOfTwoIsRefused) {
    MemoryReader const volume = FatBuilder(FatGeometry::tiny()).reader();
    RecordingLogger logger;
    EXPECT_THROW(FATParser(logger, 768, volume), std::invalid_argument);
    ASSERT_EQ(logger.entries.size(), 1U);
    EXPECT_THAT(logger.entries[0].text,
                testing::StartsWith("Failed to create aligned memory of size: 768, alignment: 768 from line: "));
}

TEST(FATParserBootSector, IsReadAgainWithTheParsersAlignment) {
    FatBuilder const builder(FatGeometry::tiny());
    FatBench bench(builder, 1024);
    bench.reader.calls.clear();
    fat_boot_sector boot{};
    EXPECT_EQ(bench.parser.fat_read_bootsector(boot), 0);
    EXPECT_THAT(bench.reader.calls, ElementsAre(seekCall(0), readCall(1024)));
    auto const* const first = reinterpret_cast<std::uint8_t const*>(&boot);
    EXPECT_THAT(std::vector(first, first + sizeof boot),
                ElementsAreArray(builder.bytes.begin(), builder.bytes.begin() + 512));
}

TEST(FATParserBootSector, FailedReadIsMinusOneAndShortOneMinusFive) {
    FatBench bench(FatBuilder{FatGeometry::tiny()});
    fat_boot_sector boot{};
    bench.volume.bytes.resize(511);
    EXPECT_EQ(bench.parser.fat_read_bootsector(boot), -5);
    bench.volume.bytes.clear();
    EXPECT_EQ(bench.parser.fat_read_bootsector(boot), -5);

    MemoryReader const volume = FatBuilder(FatGeometry::tiny()).reader();
    for (Fault const fault : {Fault::SeekFails, Fault::ReadFails}) {
        FaultyReader const faulty(volume, fault, 1);
        RecordingLogger logger;
        ExposedFatParser const parser(logger, 512, faulty);
        EXPECT_EQ(parser.fat_read_bootsector(boot), -1);
    }
}

TEST(FATParserOrder, LeastSignificantBitComesFirst) {
    EXPECT_FALSE(FatBench(FatBuilder(FatGeometry::tiny())).parser.isMostSignificantBitFirst());
}

struct TableReads {
    char const* name;
    FatGeometry geometry;
    std::vector<ReaderCall> calls;
};

void PrintTo(TableReads const& reads, std::ostream* out) {
    *out << reads.name;
}

/// The stretch is read in whole clusters, whatever the parser's own alignment is.
class FATParserTableReads : public testing::TestWithParam<TableReads> {};

TEST_P(FATParserTableReads, AreInWholeClusters) {
    FatBuilder const builder(GetParam().geometry);
    for (unsigned const alignment : {512U, 1024U, 4096U}) {
        FatBench bench(builder, alignment);
        FatOutcome const outcome = bench.chunk(0, builder.geometry().mapBytes());
        EXPECT_EQ(outcome.calls, GetParam().calls) << "alignment " << alignment;
        EXPECT_EQ(outcome.result, static_cast<long>(builder.geometry().units()));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, FATParserTableReads,
    testing::Values(
        // 125001 entries are 500004 bytes: 123 clusters of 4096.
        TableReads{"TableAtAClustersStart", {}, {seekCall(16384), readCall(503808)}},
        // The table stands one sector into a cluster: 512 + 500004 bytes.
        TableReads{"TableInsideACluster", FatGeometry::unaligned(), {seekCall(16384), readCall(503808)}},
        TableReads{"Tiny", FatGeometry::tiny(), {seekCall(2048), readCall(1024)}},
        // The table at byte 2048 lies inside the one cluster of 32 KiB.
        TableReads{"LargeClusters", {512, 64, 4, 2, 600, 64 * 3000, 0}, {seekCall(0), readCall(32768)}},
        // 2,500,001 entries of 4 bytes are read in pieces of 4 MiB.
        TableReads{"LargeTable",
                   {512, 1, 32, 1, 20000, 2500000, 0},
                   {seekCall(16384), readCall(4194304), readCall(4194304), readCall(1611776)}}),
    [](auto const& instance) { return std::string(instance.param.name); });

TEST(FATParserReads, SmallRequestReadsOneEntryMoreThanItsUnits) {
    FatBench bench(FatBuilder{});
    EXPECT_THAT(bench.chunk(0, 128).calls, ElementsAre(seekCall(16384), readCall(8192))) << "1025 entries";
    EXPECT_THAT(bench.chunk(0, 127).calls, ElementsAre(seekCall(16384), readCall(4096))) << "1017 entries";
    EXPECT_THAT(bench.chunk(0, 1).calls, ElementsAre(seekCall(16384), readCall(4096)));
}

TEST(FATParserReads, NothingIsKeptBetweenRequests) {
    FatBuilder const builder(FatGeometry::tiny());
    FatBench bench(builder);
    FatOutcome const first = bench.chunk(0, 26);
    EXPECT_EQ(bench.chunk(0, 26), first);
    FatBuilder changed = builder;
    changed.setEntry(100, fat_entry::kEndOfChain);
    bench.volume.bytes = changed.bytes;
    FatOutcome const second = bench.chunk(0, 26);
    EXPECT_EQ(fatUnits(second.buffer, 204), changed.map());
    EXPECT_NE(second.buffer, first.buffer);
}

} // namespace
