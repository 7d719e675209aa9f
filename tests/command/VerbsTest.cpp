// What each verb prints of a sound volume, as text and as JSON.
#include "command/Fsparser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

namespace {

using namespace tests;
using testing::ElementsAre;
using testing::IsEmpty;

/// Runs a verb that must end well and say nothing beside its data.
std::string dataOf(std::vector<std::string> const& arguments) {
    CommandResult const result = fsparser(arguments);
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.error, "");
    return result.output;
}

Json documentOf(std::vector<std::string> const& arguments) {
    std::string const text = dataOf(arguments);
    EXPECT_TRUE(text.ends_with("\n"));
    return Json::parse(text);
}

/// The used runs of a map as `ranges` lists them.
Json usedRuns(std::vector<bool> const& units) {
    Json runs = Json::array();
    for (std::size_t unit = 0; unit < units.size(); ++unit) {
        if (!units[unit]) {
            continue;
        }
        if (unit == 0 || !units[unit - 1]) {
            runs.push_back({{"first", unit}, {"count", 0}});
        }
        runs.back()["count"] = runs.back()["count"].get<int>() + 1;
    }
    return runs;
}

TEST(CommandDetect, PrintsTheFileSystemsName) {
    ThousandBlocks const volume;
    EXPECT_EQ(dataOf({"detect", volume.path}), "ext\n");
}

TEST(CommandDetect, JsonHasTheNameAndTheSize) {
    ThousandBlocks const volume;
    EXPECT_EQ(documentOf({"detect", "--json", volume.path}),
              Json::parse(R"({"schema":"fsparser.detect/1","file_system":"ext","size":4096000})"));
}

TEST(CommandDetect, AnUnrecognisedVolumeIsNamedSoAndExplained) {
    TempDirectory const directory;
    std::string const path = writeFile(directory.file("zeros"), std::vector<std::uint8_t>(8192));
    std::string const sentence = "fsparser: " + path +
                                 ": holds no file system that is understood: neither the first sector (byte 0) nor "
                                 "the header at byte 1024 is recognised\n";
    CommandResult const text = fsparser({"detect", path});
    EXPECT_EQ(text.exitCode, 3) << text;
    EXPECT_EQ(text.output, "unrecognized\n");
    EXPECT_EQ(text.error, sentence);
    CommandResult const json = fsparser({"detect", "--json", path});
    EXPECT_EQ(json.exitCode, 3) << json;
    EXPECT_EQ(Json::parse(json.output),
              Json::parse(R"({"schema":"fsparser.detect/1","file_system":"unrecognized","size":8192})"));
    EXPECT_EQ(json.error, sentence);
}

TEST(CommandInfo, PrintsTheSummary) {
    ThousandBlocks const volume;
    EXPECT_EQ(dataOf({"info", volume.path}), "volume          " + volume.path +
                                                 "\n"
                                                 "file system     ext\n"
                                                 "size            4096000 bytes (3.91 MiB)\n"
                                                 "unit size       4096 bytes\n"
                                                 "units           1000 (3.91 MiB)\n"
                                                 "used            201 units (804 KiB, 20.1 %)\n"
                                                 "free            799 units (3.12 MiB)\n"
                                                 "past last unit  0 bytes\n");
}

TEST(CommandInfo, JsonHasTheSameNumbers) {
    ThousandBlocks const volume;
    Json const document = documentOf({"info", "--json", volume.path});
    EXPECT_EQ(document, Json::parse(
                            R"({"schema":"fsparser.info/1","file_system":"ext","unit_size":4096,"units":1000,
                                        "size":4096000,"first_unit_offset":0,"used":201,"free":799,"past_last_unit":0})"));
    EXPECT_THAT(keysOf(document), ElementsAre("schema", "file_system", "unit_size", "units", "size",
                                              "first_unit_offset", "used", "free", "past_last_unit"));
}

TEST(CommandInfo, BytesPastTheLastUnitAreCounted) {
    ThousandBlocks const volume;
    std::filesystem::resize_file(volume.path, 4096000 + 1536);
    EXPECT_EQ(documentOf({"info", "--json", volume.path})["past_last_unit"], 1536);
}

TEST(CommandRanges, ListsTheUsedRunsMergedAndInOrder) {
    ThousandBlocks const volume;
    EXPECT_EQ(dataOf({"ranges", volume.path}), "0 100\n500 100\n650 1\n");
}

TEST(CommandRanges, JsonHasTheSameRuns) {
    ThousandBlocks const volume;
    Json const document = documentOf({"ranges", "--json", volume.path});
    EXPECT_EQ(document, Json::parse(
                            R"({"schema":"fsparser.ranges/1","file_system":"ext","unit_size":4096,"units":1000,
                              "size":4096000,"first_unit_offset":0,"ranges":[{"first":0,"count":100},{"first":500,"count":100},
                              {"first":650,"count":1}]})"));
    EXPECT_THAT(keysOf(document),
                ElementsAre("schema", "file_system", "unit_size", "units", "size", "first_unit_offset", "ranges"));
    EXPECT_THAT(keysOf(document["ranges"][0]), ElementsAre("first", "count"));
}

TEST(CommandRanges, AVolumeWithoutUsedUnitsHasNone) {
    TempDirectory const directory;
    ExtBuilder builder = makeSoundExtVolume(ExtGeometry::with4KiBBlocks(500));
    builder.setFlags(0, ext_group::kBlocksUninitialised); // the map calls such a group free, its own blocks included
    std::string const path = writeExtVolume(directory.file("volume"), builder);
    EXPECT_EQ(dataOf({"ranges", path}), "");
    EXPECT_THAT(documentOf({"ranges", "--json", path})["ranges"], IsEmpty());
}

TEST(CommandRanges, RandomBitmapsOfSeveralGroupsAreWhole) {
    TempDirectory const directory;
    ExtBuilder const builder =
        makeSoundExtVolume(ExtGeometry::with4KiBBlocks(100000)).fillBitmapsAtRandom(11).markOwnBlocks();
    std::string const path = writeExtVolume(directory.file("volume"), builder);
    Json const expected = usedRuns(builder.map());
    EXPECT_TRUE(documentOf({"ranges", "--json", path})["ranges"] == expected);
    std::string lines;
    for (Json const& run : expected) {
        lines += run["first"].dump() + " " + run["count"].dump() + "\n";
    }
    EXPECT_TRUE(dataOf({"ranges", path}) == lines);
}

TEST(CommandJson, EveryVerbNamesItsSchema) {
    ThousandBlocks const volume;
    std::string const output = volume.directory.file("used.bin");
    EXPECT_EQ(documentOf({"detect", "--json", volume.path})["schema"], "fsparser.detect/1");
    EXPECT_EQ(documentOf({"info", "--json", volume.path})["schema"], "fsparser.info/1");
    EXPECT_EQ(documentOf({"map", "--json", volume.path})["schema"], "fsparser.map/1");
    EXPECT_EQ(documentOf({"bitmap", "--json", "-o", output, volume.path})["schema"], "fsparser.bitmap/1");
    EXPECT_EQ(documentOf({"ranges", "--json", volume.path})["schema"], "fsparser.ranges/1");
}

TEST(CommandJson, TheVerbsCallTheSameThingTheSame) {
    ThousandBlocks const volume;
    std::string const output = volume.directory.file("used.bin");
    Json const info = documentOf({"info", "--json", volume.path});
    for (auto const& arguments : std::vector<std::vector<std::string>>{
             {"detect", "--json", volume.path},
             {"map", "--json", volume.path},
             {"ranges", "--json", volume.path},
             {"bitmap", "--json", "-o", output, volume.path},
         }) {
        Json const document = documentOf(arguments);
        for (auto const& [key, value] : info.items()) {
            if (key != "schema" && document.contains(key)) {
                EXPECT_EQ(document[key], value) << arguments[0] << ": " << key;
            }
        }
        EXPECT_TRUE(document.contains("file_system") && document.contains("size")) << arguments[0];
    }
}

/// A number that dumpe2fs prints behind a title.
std::uint64_t dumpedNumber(std::string const& dump, std::string const& title) {
    std::smatch match;
    return std::regex_search(dump, match, std::regex(title + ": +([0-9]+)")) ? std::stoull(match[1]) : 0;
}

TEST(CommandOnRealVolume, CountsWhatTheFileSystemsOwnToolCounts) {
    if (!findProgram("mke2fs") || !findProgram("dumpe2fs")) {
        GTEST_SKIP() << "mke2fs and dumpe2fs are not both installed";
    }
    TempDirectory const directory;
    std::string const path = directory.file("volume");
    // Every bitmap written out: one that is only promised counts as free on purpose, which is not what is shown here.
    auto const made =
        runCommand({"mke2fs", "-q", "-t", "ext4", "-b", "4096", "-O", "^uninit_bg,^metadata_csum", path, "200M"});
    ASSERT_TRUE(made.succeeded()) << made;
    std::string const dump = runCommand({"dumpe2fs", "-h", path}).output;
    Json const info = documentOf({"info", "--json", path});
    EXPECT_EQ(info["file_system"], "ext");
    EXPECT_EQ(info["unit_size"], 4096);
    EXPECT_EQ(info["units"], dumpedNumber(dump, "Block count"));
    EXPECT_EQ(info["free"], dumpedNumber(dump, "Free blocks"));
    EXPECT_EQ(info["used"].get<std::uint64_t>() + info["free"].get<std::uint64_t>(), 51200U);
    std::uint64_t used = 0;
    Json const ranges = documentOf({"ranges", "--json", path});
    for (Json const& run : ranges["ranges"]) {
        used += run["count"].get<std::uint64_t>();
    }
    EXPECT_EQ(used, info["used"].get<std::uint64_t>());
}

} // namespace
