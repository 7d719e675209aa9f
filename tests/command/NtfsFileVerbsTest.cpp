// NTFS on the command line: stat, extents and acl by path, and the maps.
#include "command/Fsparser.h"
#include "support/NtfsBuilder.h"

#include <algorithm>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace tests;
using testing::ElementsAre;
using testing::HasSubstr;

/// \readme.txt in two runs, and \docs\letter.txt in its record.
struct StandardVolume {
    explicit StandardVolume(NtfsGeometry const& geometry = {}) : builder(NtfsBuilder::standard(geometry)) { write(); }

    void write() { writeFile(path, builder.bytes); }

    TempDirectory directory;
    NtfsBuilder builder;
    std::string path = directory.file("volume");
};

std::string dataOf(std::vector<std::string> const& arguments) {
    CommandResult const result = fsparser(arguments);
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.error, "");
    return result.output;
}

Json documentOf(std::vector<std::string> const& arguments) {
    return Json::parse(dataOf(arguments));
}

/// The paths and records of a document, or the reasons.
std::vector<std::string> recordsIn(Json const& document) {
    std::vector<std::string> records;
    for (Json const& file : document.at("files")) {
        records.push_back(file.at("path").get<std::string>() + " " +
                          (file.contains("record") ? file.at("record").dump() : file.at("error").get<std::string>()));
    }
    return records;
}

constexpr char const* kNotThere = "Entry not found - between root entries for key missing";

TEST(CommandStat, PrintsRecordTimesAndAttributes) {
    StandardVolume volume;
    std::uint64_t const information = volume.builder.record(24).offsetOf(ntfs_type::kStandardInformation) + 0x18;
    volume.builder.pokeRecord(24, information, 132'537'600'012'345'678U, 8);
    volume.builder.pokeRecord(24, information + 0x08, 0, 8);
    volume.builder.pokeRecord(24, information + 0x20, 0x80000023, 4);
    volume.builder.pokeRecord(24, information + 0x30, 77, 4);
    volume.builder.pokeRecord(24, information + 0x38, 1234567890123, 8);
    volume.write();
    EXPECT_EQ(dataOf({"stat", volume.path, "readme.txt"}), "path            readme.txt\n"
                                                           "record          24\n"
                                                           "created         2020-12-30T00:00:01.2345678Z\n"
                                                           "modified        1601-01-01T00:00:00.0000000Z\n"
                                                           "record changed  2021-01-01T00:00:00.0000000Z\n"
                                                           "accessed        2021-01-01T00:00:00.0000000Z\n"
                                                           "attributes      0x80000023 read-only hidden archive "
                                                           "0x80000000\n"
                                                           "versions        0 of 0\n"
                                                           "class id        0\n"
                                                           "security id     256\n"
                                                           "owner id        77\n"
                                                           "quota charged   1234567890123\n"
                                                           "usn             0\n");
}

TEST(CommandStat, JsonHasTheSameFacts) {
    StandardVolume const volume;
    Json const document = documentOf({"stat", "--json", volume.path, "docs/letter.txt"});
    EXPECT_EQ(document, Json::parse(R"({"schema":"fsparser.stat/1","file_system":"ntfs","unit_size":4096,"files":[
        {"path":"docs/letter.txt","record":26,"created":"2021-01-01T00:00:00.0000000Z",
         "modified":"2021-01-01T00:00:00.0000000Z","record_changed":"2021-01-01T00:00:00.0000000Z",
         "accessed":"2021-01-01T00:00:00.0000000Z","attributes":["archive"],"attributes_value":32,
         "maximum_versions":0,"version_number":0,"class_id":0,"security_id":256,"owner_id":0,"quota_charged":0,
         "usn":0}]})"));
    EXPECT_THAT(keysOf(document), ElementsAre("schema", "file_system", "unit_size", "files"));
}

TEST(CommandStat, FieldsThatAnOlderInformationDoesNotHaveAreLeftOut) {
    constexpr std::uint64_t kValueLength = 0x10;
    StandardVolume volume;
    std::uint64_t const information = volume.builder.record(24).offsetOf(ntfs_type::kStandardInformation);
    volume.builder.pokeRecord(24, information + kValueLength, 48, 4);
    volume.write();
    Json const document = documentOf({"stat", "--json", volume.path, "readme.txt"});
    EXPECT_THAT(keysOf(document["files"][0]),
                ElementsAre("path", "record", "created", "modified", "record_changed", "accessed", "attributes",
                            "attributes_value", "maximum_versions", "version_number", "class_id"));
    EXPECT_TRUE(dataOf({"stat", volume.path, "readme.txt"}).ends_with("versions        0 of 0\nclass id        0\n"));
}

TEST(CommandStat, TakesPathsInEveryWayThatPeopleWriteThem) {
    StandardVolume const volume;
    for (char const* const path :
         {"docs/letter.txt", "/docs/letter.txt", "\\docs\\letter.txt", "docs\\letter.txt", "C:\\docs\\letter.txt",
          "c:/docs/letter.txt", "D:docs/letter.txt", "//docs//letter.txt", "/docs\\letter.txt", "/DOCS/Letter.TXT"}) {
        EXPECT_EQ(documentOf({"stat", "--json", volume.path, path})["files"][0]["record"], 26) << path;
    }
    for (char const* const path : {"/", "\\", "C:", "C:\\"}) {
        EXPECT_EQ(documentOf({"stat", "--json", volume.path, path})["files"][0]["record"], 5) << path;
    }
    EXPECT_EQ(documentOf({"stat", "--json", volume.path, "/docs/"})["files"][0]["record"], 25);
}

TEST(CommandStat, AMissingPathIsNamedAndTheOthersAreAnswered) {
    StandardVolume const volume;
    CommandResult const result = fsparser({"stat", "--json", volume.path, "docs", "missing", "readme.txt"});
    EXPECT_EQ(result.exitCode, 3) << result;
    EXPECT_THAT(recordsIn(Json::parse(result.output)),
                ElementsAre("docs 25", std::string("missing ") + kNotThere, "readme.txt 24"));
    EXPECT_EQ(result.error, "fsparser: " + volume.path + ": missing: " + kNotThere + "\n");
}

TEST(CommandStat, AMissingPathLeavesNoTextOfItself) {
    StandardVolume const volume;
    CommandResult const result = fsparser({"stat", volume.path, "missing", "readme.txt"});
    EXPECT_EQ(result.exitCode, 3) << result;
    EXPECT_TRUE(result.output.starts_with("path            readme.txt\nrecord          24\n")) << result;
    EXPECT_EQ(result.error, "fsparser: " + volume.path + ": missing: " + kNotThere + "\n");
}

TEST(CommandStat, ReadsPathsFromAFileAndFromStandardInput) {
    StandardVolume const volume;
    std::string const lines = "docs\r\n\n/docs/letter.txt\nreadme.txt";
    std::string const list = volume.directory.file("paths");
    std::ofstream(list) << lines;
    std::vector<std::string> const expected{"/ 5", "docs 25", "/docs/letter.txt 26", "readme.txt 24"};
    EXPECT_EQ(recordsIn(documentOf({"stat", "--json", volume.path, "/", "--from", list})), expected);
    CommandOptions options = plainOptions();
    options.input = lines;
    CommandResult const result = fsparser({"stat", "--json", volume.path, "/", "--from", "-"}, options);
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(recordsIn(Json::parse(result.output)), expected);
}

TEST(CommandStat, AnswersAreTheSameWhateverTheCacheHolds) {
    StandardVolume const volume;
    std::string const expected = dataOf({"stat", volume.path, "docs/letter.txt", "docs/letter.txt", "readme.txt"});
    for (char const* const capacity : {"0", "1", "100000"}) {
        EXPECT_EQ(
            dataOf({"stat", "--cache", capacity, volume.path, "docs/letter.txt", "docs/letter.txt", "readme.txt"}),
            expected)
            << capacity;
    }
}

TEST(CommandFiles, ArgumentsThatMakeNoSenseAreRefused) {
    StandardVolume const volume;
    for (char const* const verb : {"stat", "extents", "acl"}) {
        EXPECT_EQ(fsparser({verb, volume.path}).exitCode, 2) << verb;
        EXPECT_EQ(fsparser({verb, "--cache", "many", volume.path, "docs"}).exitCode, 2) << verb;
        CommandResult const result = fsparser({verb, volume.path, "--from", volume.directory.file("none")});
        EXPECT_EQ(result.exitCode, 1) << result;
        EXPECT_EQ(result.error,
                  "fsparser: " + volume.directory.file("none") + ": cannot be opened: No such file or directory\n");
    }
    EXPECT_EQ(fsparser({"stat", "--sddl", volume.path, "docs"}).exitCode, 2);
}

TEST(CommandFiles, OtherFileSystemsAreNotAskedForFiles) {
    ThousandBlocks const volume;
    for (char const* const verb : {"stat", "extents", "acl"}) {
        CommandResult const result = fsparser({verb, volume.path, "/"});
        EXPECT_EQ(result.exitCode, 3) << result;
        EXPECT_EQ(result.output, "");
        EXPECT_EQ(result.error,
                  "fsparser: " + volume.path + ": holds ext; files by path are answered for ntfs alone\n");
    }
}

TEST(CommandExtents, ListsRunsInClustersAndBytes) {
    StandardVolume const volume;
    EXPECT_EQ(dataOf({"extents", volume.path, "readme.txt", "docs/letter.txt"}),
              "readme.txt\n"
              "  clusters 122 + 3  bytes 499712 + 12288\n"
              "  clusters 126 + 2  bytes 516096 + 8192\n"
              "docs/letter.txt\n"
              "  no clusters: empty, or kept in its record\n");
    Json const document = documentOf({"extents", "--json", volume.path, "readme.txt", "docs/letter.txt"});
    EXPECT_EQ(document, Json::parse(R"({"schema":"fsparser.extents/1","file_system":"ntfs","unit_size":4096,"files":[
        {"path":"readme.txt","extents":[{"cluster":122,"count":3,"offset":499712,"bytes":12288},
                                        {"cluster":126,"count":2,"offset":516096,"bytes":8192}]},
        {"path":"docs/letter.txt","extents":[]}]})"));
}

TEST(CommandExtents, TheBytesOnTheVolumeAreTheFiles) {
    StandardVolume const volume;
    std::uint64_t bytes = 0;
    Json const document = documentOf({"extents", "--json", volume.path, "readme.txt"});
    for (Json const& run : document["files"][0]["extents"]) {
        auto const first = volume.builder.bytes.begin() + run["offset"].get<std::ptrdiff_t>();
        auto const count = run["bytes"].get<std::ptrdiff_t>();
        EXPECT_EQ(std::count(first, first + count, 0x52), count);
        bytes += run["bytes"].get<std::uint64_t>();
    }
    EXPECT_EQ(bytes, std::uint64_t{5} * 4096);
}

TEST(CommandAcl, PrintsListsInWords) {
    StandardVolume const volume;
    EXPECT_EQ(dataOf({"acl", volume.path, "readme.txt"}),
              "readme.txt\n"
              "  discretionary list, revision 2, inheritance allowed\n"
              "    grant          S-1-5-18 (Local System)\n"
              "      mask   0x1f01ff read-data,write-data,append-data,read-ea,write-ea,execute,delete-child,"
              "read-attributes,write-attributes,delete,read-control,write-dac,write-owner,synchronize\n"
              "      flags  0x0 \n"
              "    grant          S-1-1-0 (Everyone)\n"
              "      mask   0x1200a9 read-data,read-ea,execute,read-attributes,read-control,synchronize\n"
              "      flags  0x0 \n");
}

TEST(CommandAcl, PrintsSddl) {
    StandardVolume const volume;
    EXPECT_EQ(dataOf({"acl", "--sddl", volume.path, "readme.txt", "/"}),
              "D:(A;;0x1f01ff;;;SY)(A;;0x1200a9;;;WD)\treadme.txt\nD:(A;;0x1f01ff;;;SY)(A;;0x1200a9;;;WD)\t/\n");
}

TEST(CommandAcl, JsonHasNumbersAndWords) {
    StandardVolume const volume;
    Json const document = documentOf({"acl", "--json", volume.path, "readme.txt"});
    Json const& file = document["files"][0];
    EXPECT_EQ(file["sddl"], "D:(A;;0x1f01ff;;;SY)(A;;0x1200a9;;;WD)");
    ASSERT_EQ(file["lists"].size(), 1U);
    EXPECT_EQ(file["lists"][0]["list"], "discretionary");
    EXPECT_EQ(file["lists"][0]["revision"], 2);
    EXPECT_EQ(file["lists"][0]["inheritance_allowed"], true);
    EXPECT_EQ(file["lists"][0]["entries"][1],
              Json::parse(R"({"sid":"S-1-1-0","name":"Everyone","mode":"grant","mode_value":2,"mask":"0x1200a9",
        "mask_value":1179817,"rights":["read-data","read-ea","execute","read-attributes","read-control","synchronize"],
        "flags":[],"flags_value":0})"));
}

TEST(CommandAcl, AnUnknownSecurityIdentifierIsTheFilesOwnTrouble) {
    StandardVolume volume;
    std::uint64_t const information = volume.builder.record(24).offsetOf(ntfs_type::kStandardInformation) + 0x18;
    volume.builder.pokeRecord(24, information + 0x34, 999, 4);
    volume.write();
    CommandResult const result = fsparser({"acl", "--sddl", volume.path, "readme.txt", "docs"});
    EXPECT_EQ(result.exitCode, 3) << result;
    EXPECT_EQ(result.output, "D:(A;;0x1f01ff;;;SY)(A;;0x1200a9;;;WD)\tdocs\n");
    EXPECT_EQ(result.error, "fsparser: " + volume.path +
                                ": readme.txt: Failed to read ACLs for \"\\readme.txt\": Entry not found - between "
                                "root entries for key 999\n");
}

TEST(CommandOnNtfs, NamesSummarisesAndListsTheVolume) {
    StandardVolume const volume;
    EXPECT_EQ(dataOf({"detect", volume.path}), "ntfs\n");
    EXPECT_EQ(documentOf({"info", "--json", volume.path}),
              Json::parse(
                  R"({"schema":"fsparser.info/1","file_system":"ntfs","unit_size":4096,"units":512,
                              "size":2097664,"first_unit_offset":0,"used":125,"free":387,"past_last_unit":512})"));
    EXPECT_EQ(dataOf({"ranges", volume.path}), "0 2\n4 121\n126 2\n");
    EXPECT_THAT(dataOf({"map", "--ascii", "--width", "32", "--height", "2", volume.path}), HasSubstr("ntfs"));
}

/// The whole map, from the ranges that the command lists.
std::vector<bool> rangesOf(std::string const& path, std::uint64_t units) {
    std::vector<bool> map(units);
    Json const document = documentOf({"ranges", "--json", path});
    for (Json const& run : document["ranges"]) {
        for (std::uint64_t i = 0; i < run["count"].get<std::uint64_t>(); ++i) {
            map.at(run["first"].get<std::uint64_t>() + i) = true;
        }
    }
    return map;
}

TEST(CommandOnNtfs, ABitmapInPiecesIsReadWhole) {
    NtfsGeometry geometry = NtfsGeometry::withClusters(512);
    geometry.clusters = 40000; // ten clusters of bitmap
    geometry.bitmapPieces = 5;
    StandardVolume volume(geometry);
    ASSERT_EQ(volume.builder.bitmapRuns.size(), 5U);
    for (std::int64_t const cluster : {9000, 17001, 25002, 33003, 39999}) {
        volume.builder.markUsed({cluster, 1});
    }
    volume.builder.seal();
    volume.write();
    std::vector<bool> expected(geometry.clusters);
    for (std::uint64_t cluster = 0; cluster < geometry.clusters; ++cluster) {
        expected[cluster] = volume.builder.isUsed(cluster);
    }
    EXPECT_TRUE(rangesOf(volume.path, geometry.clusters) == expected);
}

TEST(CommandOnNtfs, ARefusedVolumeCountsAsUsedOnlyWhereThatIsAskedFor) {
    StandardVolume volume;
    volume.builder.poke(volume.builder.byteOffsetOf(1), 0, 4);
    volume.write();
    std::string const reason = volume.path + ": Could not read MFT record for inode number 1";
    std::string const output = volume.directory.file("used.bin");
    CommandResult const refused = fsparser({"bitmap", "-o", output, volume.path});
    EXPECT_EQ(refused.exitCode, 1) << refused;
    EXPECT_THAT(refused.error, testing::StartsWith("fsparser: " + reason));
    EXPECT_FALSE(std::filesystem::exists(output));

    CommandResult const used = fsparser({"bitmap", "--all-used-if-refused", "-o", output, volume.path});
    EXPECT_EQ(used.exitCode, 4) << used;
    EXPECT_THAT(used.error, HasSubstr("the volume is refused (" + reason));
    EXPECT_THAT(used.error, HasSubstr("every unit counts as used"));
    EXPECT_EQ(readFile(output), std::vector<std::uint8_t>(64, 0xFF));
}

TEST(CommandOnNtfs, AllUsedIfRefusedChangesNothingForAGoodVolume) {
    StandardVolume const volume;
    EXPECT_EQ(dataOf({"bitmap", "--all-used-if-refused", volume.path}), dataOf({"bitmap", volume.path}));
}

} // namespace
