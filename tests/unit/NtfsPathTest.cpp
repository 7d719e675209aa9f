// Paths: how they are taken apart, what they lead to, and what they need.
#include "support/NtfsFileBench.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace tests;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

/// \readme.txt is 24, \docs 25, \docs\letter.txt 26 as always; beside letter.txt lies old (30), in which deep (31) and
/// note.txt (32) lie, and in deep the file last (33).
NtfsBuilder makeTree() {
    NtfsBuilder builder = NtfsBuilder::standard();
    NtfsRecord& docs = builder.record(25).remove(ntfs_type::kIndexRoot);
    NtfsRecord& old = builder.file(30, 25, u"old");
    NtfsRecord& deep = builder.file(31, 30, u"deep");
    NtfsRecord& note = builder.file(32, 30, u"note.txt");
    NtfsRecord& last = builder.file(33, 31, u"last");
    builder.directory(docs, {{u"letter.txt", builder.record(26).reference()}, {u"old", old.reference()}});
    builder.directory(old, {{u"deep", deep.reference()}, {u"note.txt", note.reference()}});
    builder.directory(deep, {{u"last", last.reference()}});
    builder.seal();
    return builder;
}

class NtfsPath : public testing::Test {
protected:
    NtfsPath() {
        bench.parser.read_upcase();
        bench.forget();
    }

    NtfsFileBench bench{makeTree()};
};

TEST_F(NtfsPath, SyntaxDecidesWhereAPathLeads) {
    struct Row {
        char const* path;
        unsigned long record;
    };
    for (Row const& row : std::vector<Row>{
             {"", 5},
             {"\\", 5},
             {"C:", 0},
             {"C:\\", 5},
             {"anything up to the separator\\", 5},
             {"readme.txt", 24}, // no separator: all of it
             {"\\readme.txt", 24},
             {"C:\\readme.txt", 24},
             {"docs\\readme.txt", 24}, // what stands before the first separator is no directory
             {"\\README.TXT", 24},
             {"\\docs", 25},
             {"\\docs\\", 25},
             {"C:\\docs\\letter.txt", 26},
             {"\\DOCS\\Letter.TXT", 26},
             {"\\docs\\old\\", 30},
             {"\\docs\\old\\deep\\", 31},
             {"\\docs\\old\\deep\\last", 33},
             {"\\\\", 5},            // nothing stands behind the last separator
             {"\\\\readme.txt", 24}, // an empty directory alone is no component
             {"C:\\\\readme.txt", 24},
         }) {
        NtfsFileBench fresh(makeTree());
        fresh.parser.read_upcase();
        if (row.record != 0) {
            EXPECT_EQ(fresh.parser.convert_to_inode(row.path), row.record) << row.path;
            EXPECT_EQ(fresh.parser.convert_to_inode(row.path), row.record) << row.path << ", with a warm cache";
        } else {
            EXPECT_EQ(failureOf([&] { fresh.parser.convert_to_inode(row.path); }),
                      std::string("Entry not found - between root entries for key ") + row.path);
        }
    }
}

TEST_F(NtfsPath, AnEmptyPathAndASeparatorNeedNoRead) {
    for (std::string const path : {"", "\\", "C:\\", "\\\\"}) {
        EXPECT_EQ(bench.parser.convert_to_inode(path), 5U);
    }
    EXPECT_THAT(bench.reader.calls, IsEmpty());
    EXPECT_THAT(bench.logger.entries, IsEmpty());
}

TEST_F(NtfsPath, ADoubledSeparatorInsideIsAnEmptyName) {
    for (std::string const path : {"\\docs\\\\letter.txt", "\\docs\\old\\\\deep\\last"}) {
        EXPECT_EQ(failureOf([&] { bench.parser.convert_to_inode(path); }),
                  "Entry not found - between root entries for key ");
    }
    EXPECT_EQ(failureOf([&] { bench.parser.convert_to_inode("\\docs\\\\"); }),
              "Entry not found - between root entries for key ");
}

TEST_F(NtfsPath, SlashesAndDotsAreNames) {
    EXPECT_EQ(failureOf([&] { bench.parser.convert_to_inode("\\docs/letter.txt"); }),
              "Entry not found - between root entries for key docs/letter.txt");
    EXPECT_EQ(failureOf([&] { bench.parser.convert_to_inode("\\docs\\..\\readme.txt"); }),
              "Entry not found - between root entries for key ..");
}

TEST_F(NtfsPath, WhatDoesNotExistIsNamedByItsComponent) {
    EXPECT_EQ(failureOf([&] { bench.parser.convert_to_inode("\\nowhere\\letter.txt"); }),
              "Entry not found - between root entries for key nowhere");
    EXPECT_EQ(failureOf([&] { bench.parser.convert_to_inode("\\docs\\nothing"); }),
              "Entry not found - between root entries for key nothing");
    EXPECT_EQ(failureOf([&] { bench.parser.convert_to_inode("\\readme.txt\\x"); }),
              "Could not find INDEX_ROOT for key x in parent inode 24");
}

TEST_F(NtfsPath, TheSequenceNumberIsTakenOffAReference) {
    ASSERT_EQ(bench.referenceOf(5, "docs") >> 48, 1U) << "the entry holds one";
    EXPECT_EQ(bench.parser.convert_to_inode("\\docs"), 25U);
}

TEST_F(NtfsPath, VeryLongPathsEnd) {
    std::string const name(40000, 'x');
    EXPECT_EQ(failureOf([&] { bench.parser.convert_to_inode("\\" + name); }),
              "Entry not found - between root entries for key " + name);
    EXPECT_EQ(failureOf([&] { bench.parser.convert_to_inode(std::string(4000, '\\')); }),
              "Entry not found - between root entries for key ");
    std::string deep;
    for (unsigned i = 0; i < 4000; ++i) {
        deep += "\\d" + std::to_string(i);
    }
    EXPECT_EQ(failureOf([&] { bench.parser.convert_to_inode(deep); }),
              "Entry not found - between root entries for key d0");
}

TEST_F(NtfsPath, ALookupAComponentReadsARecordEach) {
    EXPECT_EQ(bench.parser.convert_to_inode("\\docs\\old\\note.txt"), 32U);
    std::vector<VolumeRead> expected;
    for (std::uint64_t const number : {5U, 25U, 30U}) {
        expected.push_back({static_cast<long>(makeTree().byteOffsetOf(number)), 1024});
    }
    EXPECT_EQ(bench.reads(), expected);
}

TEST(NtfsPathTable, WithoutTheUpcaseTableNoNameIsResolved) {
    NtfsFileBench bench(makeTree());
    for (int i = 0; i < 2; ++i) {
        EXPECT_THROW(bench.parser.convert_to_inode("\\readme.txt"), std::invalid_argument);
        EXPECT_THROW(bench.parser.getStandardInfo("\\readme.txt"), std::invalid_argument);
    }
    EXPECT_EQ(failureOf([&] { bench.parser.getStandardInfo("\\readme.txt"); }), "Upcase file is not read.");
    EXPECT_EQ(bench.parser.convert_to_inode("\\"), 5U);
    EXPECT_EQ(bench.parser.getStandardInfo("\\").file_attributes.value(), 6U);
    EXPECT_THAT(bench.parser.extents("\\readme.txt"), SizeIs(2));
    EXPECT_EQ(bench.parser.convert_to_inode("\\readme.txt"), 24U);
    EXPECT_EQ(bench.parser.getStandardInfo("\\readme.txt").file_attributes.value(), 0x20U);
}

TEST(NtfsPathTable, TheTableIsReadAlsoByAnAccessListAndByANameOfAnAttribute) {
    NtfsFileBench withAcl;
    EXPECT_THAT(withAcl.parser.readACLFromFile("\\readme.txt"), SizeIs(1));
    EXPECT_EQ(withAcl.parser.convert_to_inode("\\readme.txt"), 24U);
    NtfsFileBench withName;
    withName.lookupIdentifier(0x100);
    EXPECT_EQ(withName.parser.convert_to_inode("\\readme.txt"), 24U);
}

TEST_F(NtfsPath, ExtentsAreSortedByTheirFirstCluster) {
    auto const extents = bench.parser.extents("\\readme.txt");
    ASSERT_THAT(extents, SizeIs(2));
    EXPECT_LT(extents[0].first, extents[1].first);
    EXPECT_EQ(extents[0].count + extents[1].count, 5U);
    auto const runs = bench.parser.get_inode_runlist(24);
    ASSERT_THAT(runs, SizeIs(2));
    EXPECT_GT(runs[0].lcn, runs[1].lcn) << "they are not so on disk";
    EXPECT_THAT(bench.parser.extents("\\docs\\letter.txt"), IsEmpty()) << "its data are in its record";
}

TEST_F(NtfsPath, ExtentsOfWhatDoesNotExistFail) {
    EXPECT_EQ(failureOf([&] { bench.parser.extents("\\nothing"); }),
              "Entry not found - between root entries for key nothing");
}

class NtfsStandardInfo : public testing::Test {
protected:
    NtfsStandardInfo() {
        for (std::size_t i = 0; i < value.size(); ++i) {
            value[i] = static_cast<std::uint8_t>(0x11 * (i + 1));
        }
    }

    NtfsBytes valueOf(NtfsBuilder const& sealed) {
        NtfsFileBench bench(sealed);
        bench.parser.read_upcase();
        auto const info = bench.parser.getStandardInfo("\\readme.txt");
        NtfsBytes bytes(sizeof info);
        std::memcpy(bytes.data(), &info, sizeof info);
        return bytes;
    }

    static std::string failure(NtfsBuilder const& sealed) {
        NtfsFileBench bench(sealed);
        bench.parser.read_upcase();
        return failureOf([&] { bench.parser.getStandardInfo("\\readme.txt"); });
    }

    NtfsBytes value = NtfsBytes(72);
    NtfsBuilder builder = NtfsBuilder::standard();
    NtfsRecord& record = builder.record(24).remove(ntfs_type::kStandardInformation);
};

TEST_F(NtfsStandardInfo, AllBytesComeAsTheyStandOnDisk) {
    record.resident(ntfs_type::kStandardInformation, u"", value);
    EXPECT_EQ(valueOf(builder.seal()), value);
}

TEST_F(NtfsStandardInfo, InAnExtensionRecordItIsNotFound) {
    // The walk along a record ends at the first type above the wanted one, and that is the list already.
    NtfsRecord& extension = builder.record(40);
    extension.baseReference = record.reference();
    extension.resident(ntfs_type::kStandardInformation, u"", value);
    record.attributeList({{ntfs_type::kStandardInformation, extension.reference(), 0, u""}});
    EXPECT_EQ(failure(builder.seal()), "Could not find STANDARD_INFORMATION for file \\readme.txt");
}

TEST_F(NtfsStandardInfo, WithoutItThePathIsNamed) {
    EXPECT_EQ(failure(builder.seal()), "Could not find STANDARD_INFORMATION for file \\readme.txt");
}

TEST_F(NtfsStandardInfo, AnOlderOneOf48BytesComesWithWhatFollowsIt) {
    value.resize(48);
    record.resident(ntfs_type::kStandardInformation, u"", value);
    NtfsBytes const result = valueOf(builder.seal());
    EXPECT_EQ(NtfsBytes(result.begin(), result.begin() + 48), value);
    EXPECT_EQ(getNumber(result, 48, 4), ntfs_type::kFileName) << "the next attribute";
}

TEST_F(NtfsStandardInfo, OneOfWhichTheRecordHoldsTooLittleIsMissing) {
    std::uint64_t const first = record.firstAttribute();
    for (std::uint64_t const room : {71U, 72U}) {
        NtfsBytes attribute(952); // the most that a record of 1 KiB takes
        putNumber(attribute, 0x00, ntfs_type::kStandardInformation, 4);
        putNumber(attribute, 0x04, attribute.size(), 4);
        putNumber(attribute, 0x10, 48, 4);
        putNumber(attribute, 0x14, 1024 - first - room, 2);
        record.clear().append(attribute);
        EXPECT_EQ(failure(builder.seal()),
                  room == 72 ? "nothing was thrown" : "Could not find STANDARD_INFORMATION for file \\readme.txt");
    }
}

} // namespace
