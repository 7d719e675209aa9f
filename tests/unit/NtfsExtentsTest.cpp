// The runs of a file's data from all its records, and its extents.
#include "support/NtfsListVolume.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

namespace {

using namespace tests;
using namespace agent::core::fs;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned long kNotFound = std::numeric_limits<unsigned long>::max();
constexpr std::uint64_t kReadme = 24;
constexpr std::uint64_t kLetter = 26;

class NtfsExtents : public NtfsListVolume {
protected:
    std::vector<NtfsRun> runsOf(std::uint64_t number) {
        forget();
        std::vector<NtfsRun> runs;
        for (ntfs_runlist const& run : parser->get_inode_runlist(number)) {
            runs.push_back({run.lcn, run.length});
        }
        return runs;
    }

    std::vector<NtfsRun> extentsOf(std::uint64_t number) {
        forget();
        std::vector<NtfsRun> ranges;
        for (agent::BlockRange const& range : parser->extents(number)) {
            ranges.push_back({range.first, range.count});
        }
        return ranges;
    }

    std::string runsRefusal(std::uint64_t number) {
        try {
            runsOf(number);
            return "decoded";
        } catch (std::runtime_error const& error) {
            return error.what();
        }
    }

    /// The records that were read, in their order.
    std::vector<std::string> readRecords() const {
        std::vector<std::string> records;
        std::string const begin = "Reading $MFT for inode ";
        for (LogEntry const& entry : logger.entries) {
            if (entry.text.starts_with(begin)) {
                records.push_back(entry.text.substr(begin.size(), entry.text.find(' ', begin.size()) - begin.size()));
            }
        }
        return records;
    }
};

NtfsRun run(std::int64_t lcn, std::int64_t length) {
    return {lcn, length};
}

TEST_F(NtfsExtents, RunsAreGivenInTheFilesOrderAndExtentsInTheVolumes) {
    open();
    auto const runs = runsOf(kReadme);
    ASSERT_EQ(runs.size(), 2U);
    ASSERT_GT(runs[0].lcn, runs[1].lcn) << "the second run lies before the first";
    EXPECT_EQ(logger.entries,
              reading(kReadme) + one("Searching for attribute 128") + one("Searching for attribute 32"));
    EXPECT_THAT(reader->calls, ElementsAre(seekCall(static_cast<long>(builder.byteOffsetOf(kReadme))), readCall(1024)));
    EXPECT_THAT(extentsOf(kReadme), ElementsAre(runs[1], runs[0]));
}

TEST_F(NtfsExtents, AFileThatWasNotFoundHasNone) {
    open();
    EXPECT_THAT(extentsOf(kNotFound), IsEmpty());
    EXPECT_THAT(logger.entries, IsEmpty());
    EXPECT_THAT(reader->calls, IsEmpty());
}

TEST_F(NtfsExtents, ARecordThatCannotBeReadHasNone) {
    open();
    EXPECT_THAT(extentsOf(1000000), IsEmpty());
    EXPECT_EQ(logger.entries.back(), debugEntry("Unable to read inode 1000000"));
    EXPECT_THAT(extentsOf(kNotFound - 1), IsEmpty());
    EXPECT_EQ(logger.entries.back(), debugEntry("Unable to read inode 18446744073709551614"));
}

TEST_F(NtfsExtents, ResidentDataHaveNone) {
    open();
    EXPECT_THAT(extentsOf(kLetter), IsEmpty());
    EXPECT_EQ(logger.entries, reading(kLetter) + one("Searching for attribute 128") +
                                  one("Searching for attribute 32") +
                                  one("Attribute is resident. Can't find data-runs."));
}

TEST_F(NtfsExtents, ADirectoryHasNone) {
    open();
    EXPECT_THAT(extentsOf(5), IsEmpty()) << "only data count";
}

TEST_F(NtfsExtents, AllDataOfARecordCountAlsoNamedOnes) {
    base().nonResident(ntfs_type::kData, u"", {{300, 2}}).nonResident(ntfs_type::kData, u"stream", {{290, 1}});
    open();
    EXPECT_THAT(runsOf(kListBase), ElementsAre(run(300, 2), run(290, 1)));
}

TEST_F(NtfsExtents, ExtensionRecordsComeFirstAndEachIsReadForItsHits) {
    extension(41, 2);
    extension(42);
    base().attributeList({dataIn(42), dataIn(41)}).nonResident(ntfs_type::kData, u"", {{90, 1}});
    open();
    EXPECT_THAT(runsOf(kListBase), ElementsAre(run(142, 1), run(141, 1), run(142, 1), run(90, 1)))
        << "a cluster that two attributes name is given twice";
    EXPECT_THAT(readRecords(), ElementsAre("40", "42", "41", "42", "41", "40"))
        << "once to find the attributes, once for their runs, and the base record again";
    EXPECT_EQ(logger.entries.back(), debugEntry("Attribute is resident. Can't find data-runs.")) << "the list";
    EXPECT_THAT(extentsOf(kListBase), ElementsAre(run(90, 1), run(141, 1), run(142, 1), run(142, 1)));
}

TEST_F(NtfsExtents, AListsOwnRunsStandBehindThoseOfTheData) {
    extension(41);
    auto const list = builder.store(base(), ntfs_type::kAttributeList, u"", ntfsAttributeList({dataIn(41)}));
    base().nonResident(ntfs_type::kData, u"", {{600, 3}});
    ASSERT_LT(list.front().lcn, 600);
    open();
    EXPECT_THAT(runsOf(kListBase), ElementsAre(run(141, 1), run(600, 3), list.front()));
    EXPECT_THAT(extentsOf(kListBase), ElementsAre(list.front(), run(141, 1), run(600, 3)));
}

TEST_F(NtfsExtents, ExtentsOfOneStartAreSortedByTheirLength) {
    base().nonResidentRaw(ntfs_type::kData, u"", {0x11, 9, 50, 0x11, 3, 0, 0x11, 0xFF, 0, 0x11, 7, 0xF0, 0});
    open();
    EXPECT_THAT(runsOf(kListBase), ElementsAre(run(50, 9), run(50, 3), run(50, -1), run(34, 7)));
    EXPECT_THAT(extentsOf(kListBase), ElementsAre(run(34, 7), run(50, -1), run(50, 3), run(50, 9)));
}

TEST_F(NtfsExtents, SparseRunsAndMarkersAreGivenAsTheyAreDecoded) {
    base().nonResidentRaw(ntfs_type::kData, u"", {0x11, 4, 100, 0x01, 8, 0x40, 0, 0, 0, 0, 0x11, 2, 11, 0});
    open();
    EXPECT_THAT(extentsOf(kListBase), ElementsAre(run(-1, -1), run(10, 2), run(100, 4), run(108, 8)));
}

TEST_F(NtfsExtents, ARecordThatIsLostBetweenGivesWhatWasGathered) {
    extension(41);
    extension(42);
    base().attributeList({dataIn(41), dataIn(42)});
    open();
    // Reads: 40, then 41 and 42 for their attributes, then 41 and 42 for the runs; the list's type finds none more.
    FaultyReader const faulty(*volume, Fault::ReadFails, 2 + 4); // behind the boot sector, record 0 and record 1
    NtfsAccess other(logger, 512, faulty);
    ASSERT_FALSE(faulty.fired);
    logger.entries.clear();
    auto const runs = other.get_inode_runlist(kListBase);
    ASSERT_TRUE(faulty.fired);
    EXPECT_THAT(readRecords(), ElementsAre("40", "41", "42", "41"));
    EXPECT_THAT(runs, IsEmpty());
    EXPECT_EQ(logger.entries.back(), debugEntry("Unable to read inode 41"));
}

TEST_F(NtfsExtents, ALaterRecordThatIsLostKeepsTheRunsBeforeIt) {
    extension(41);
    extension(42);
    base().attributeList({dataIn(41), dataIn(42)});
    open();
    FaultyReader const faulty(*volume, Fault::ReadShort, 3 + 4);
    NtfsAccess other(logger, 512, faulty);
    logger.entries.clear();
    auto const runs = other.get_inode_runlist(kListBase);
    ASSERT_TRUE(faulty.fired);
    ASSERT_EQ(runs.size(), 1U);
    EXPECT_EQ(runs[0].lcn, 141);
    EXPECT_EQ(logger.entries.back(), debugEntry("Unable to read inode 42"));
}

TEST_F(NtfsExtents, DamagedRunsAreAnError) {
    base().nonResidentRaw(ntfs_type::kData, u"", {0x11, 4, 100, 0x1F, 0, 0, 0, 0});
    open();
    EXPECT_EQ(runsRefusal(kListBase), "Invalid runlist");
    builder.pokeRecord(kListBase, builder.record(kListBase).offsetOf(ntfs_type::kData) + 0x43, 0xF1, 1);
    volume->bytes = builder.bytes;
    EXPECT_EQ(runsRefusal(kListBase), "Corrupt runlist");
    builder.pokeRecord(kListBase, builder.record(kListBase).offsetOf(ntfs_type::kData) + 0x20, 0x49, 2);
    volume->bytes = builder.bytes;
    EXPECT_EQ(runsRefusal(kListBase), "No run list can be found");
}

TEST_F(NtfsExtents, AFieldMayEndOneByteBehindItsAttribute) {
    // Nine bytes of a pair in the eight that the attribute has; the ninth is the lowest byte of the end mark.
    base().nonResidentRaw(ntfs_type::kData, u"", {0x44, 1, 0, 0, 0, 0x34, 0x12, 0x01});
    open();
    EXPECT_THAT(runsOf(kListBase), ElementsAre(run(static_cast<std::int32_t>(0xFF011234), 1)));
    builder.pokeRecord(kListBase, builder.record(kListBase).offsetOf(ntfs_type::kData) + 0x40, 0x54, 1);
    volume->bytes = builder.bytes;
    EXPECT_EQ(runsRefusal(kListBase), "Corrupt runlist") << "but no more";
}

TEST_F(NtfsExtents, ALengthMayEndOneByteBehindItsAttribute) {
    base().nonResidentRaw(ntfs_type::kData, u"", {0x08, 1, 0, 0, 0, 0, 0, 0});
    open();
    // The end mark's lowest byte is the length's highest, and the distance of a sparse run.
    EXPECT_THAT(runsOf(kListBase), ElementsAre(run(-1, static_cast<std::int64_t>(0xFF00000000000001))));
    builder.pokeRecord(kListBase, builder.record(kListBase).offsetOf(ntfs_type::kData) + 0x40, 0x09, 1);
    volume->bytes = builder.bytes;
    EXPECT_EQ(runsRefusal(kListBase), "Invalid runlist") << "but no more";
}

TEST_F(NtfsExtents, AttributesOutsideTheRecordAreAnError) {
    base().nonResident(ntfs_type::kData, u"", {{300, 2}});
    open();
    builder.pokeRecord(kListBase, 0x14, 0x400, 2);
    volume->bytes = builder.bytes;
    EXPECT_EQ(runsRefusal(kListBase), "Invalid buffer passed in to traverse attribute record for inode: 40");
    builder.pokeRecord(kListBase, 0x14, 0x408, 2);
    volume->bytes = builder.bytes;
    EXPECT_EQ(runsRefusal(kListBase), "Invalid buffer passed in to traverse attributes for inode: 40");
}

TEST_F(NtfsExtents, AnAttributeIsFoundByItsNameInAnExtensionRecord) {
    extension(41).resident(ntfs_type::kData, u"other", {1}).resident(ntfs_type::kData, u"wanted", {2});
    base()
        .resident(ntfs_type::kStandardInformation, u"", ntfsStandardInformation())
        .attributeList({dataIn(41)})
        .resident(ntfs_type::kData, u"", {3});
    open();
    NtfsHits const hits = find();
    ASSERT_EQ(hits.size(), 4U);
    auto* const own = reinterpret_cast<ntfs_mft_record_t*>(record.data());
    EXPECT_EQ(parser->findAttributeByName(kListBase, own, hits, "wanted"), hit(41, 2));
    EXPECT_THROW(parser->findAttributeByName(kListBase, own, hits, "neither"), std::runtime_error);
}

TEST_F(NtfsExtents, AnExtensionRecordThatIsInconsistentEndsTheSearchByName) {
    extension(41).resident(ntfs_type::kData, u"wanted", {2});
    base().attributeList({dataIn(41)});
    open();
    NtfsHits const hits = find();
    builder.pokeRecord(41, 0x1C, 2048, 4); // bytes allocated
    volume->bytes = builder.bytes;
    auto* const own = reinterpret_cast<ntfs_mft_record_t*>(record.data());
    try {
        parser->findAttributeByName(kListBase, own, hits, "wanted");
        FAIL() << "accepted";
    } catch (std::runtime_error const& error) {
        EXPECT_STREQ(error.what(), "Record 0x29 has invalid size: 0x800");
    }
}

} // namespace
