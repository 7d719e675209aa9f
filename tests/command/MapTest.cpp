// The verb `map`: its cells, its characters and colours, and the size it takes from the window.
#include "command/Fsparser.h"
#include "command/Terminal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <sstream>
#include <string_view>

namespace {

using namespace tests;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr char const* kAsciiLegend = ". free  - up to 1/3  + up to 2/3  % below all  # used\n";
constexpr char const* kUtf8Legend = "· free  ░ up to 1/3  ▒ up to 2/3  ▓ below all  █ used\n";

CommandOptions withEnvironment(std::map<std::string, std::string> const& variables) {
    CommandOptions options = plainOptions();
    for (auto const& [name, value] : variables) {
        options.environment[name] = value;
    }
    return options;
}

/// The title above a picture of makeThousandBlocks().
std::string titleOf(std::string const& path, std::string const& cell) {
    return path + "  ext  3.91 MiB, 20.1 % used, " + cell + " a cell\n";
}

/// Runs `map` with arguments on the volume of a thousand blocks; it must end well and say nothing beside its data.
std::string mapOf(ThousandBlocks const& volume, std::vector<std::string> arguments,
                  CommandOptions const& options = plainOptions()) {
    arguments.insert(arguments.begin(), "map");
    arguments.push_back(volume.path);
    CommandResult const result = fsparser(arguments, options);
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.error, "");
    return result.output;
}

/// The lines of the picture alone.
std::vector<std::string> pictureOf(std::string const& output) {
    std::vector<std::string> lines;
    std::istringstream stream(output);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    if (lines.size() < 2) {
        return {};
    }
    return {lines.begin() + 1, lines.end() - 1};
}

TEST(CommandMap, DrawsACellForEachShareOfTheVolume) {
    ThousandBlocks const volume;
    EXPECT_EQ(mapOf(volume, {"--width", "10", "--height", "1"}),
              titleOf(volume.path, "400 KiB") + "#....#-...\n" + kAsciiLegend);
    EXPECT_EQ(mapOf(volume, {"--width", "5", "--height", "2"}),
              titleOf(volume.path, "400 KiB") + "#....\n#-...\n" + kAsciiLegend);
}

TEST(CommandMap, TheCharacterTellsTheShare) {
    TempDirectory const directory;
    ExtBuilder builder = makeSoundExtVolume(ExtGeometry::with4KiBBlocks(1000));
    for (std::uint64_t cell = 0; cell < 10; ++cell) {
        std::array<std::uint64_t, 10> const used{3, 1, 33, 34, 50, 66, 67, 99, 100, 0};
        builder.setUsedFrom(cell * 100, used.at(cell));
    }
    std::string const path = writeExtVolume(directory.file("volume"), builder);
    CommandResult const result = fsparser({"map", "--width", "10", "--height", "1", path});
    EXPECT_THAT(pictureOf(result.output), ElementsAre("---+++%%#."));
}

TEST(CommandMap, AVolumeOfFewUnitsHasACellAUnit) {
    TempDirectory const directory;
    std::string const path =
        writeExtVolume(directory.file("volume"), makeSoundExtVolume(ExtGeometry::with4KiBBlocks(7)).setUsedFrom(0, 3));
    CommandResult const result = fsparser({"map", "--width", "4", "--height", "50", path});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_THAT(pictureOf(result.output), ElementsAre("###.", "..."));
}

TEST(CommandMap, CellsDifferByOneUnitAtMostAndCoverTheVolume) {
    ThousandBlocks const volume;
    Json const document = Json::parse(mapOf(volume, {"--json", "--width", "7", "--height", "3"}));
    EXPECT_THAT(keysOf(document), ElementsAre("schema", "file_system", "unit_size", "units", "size",
                                              "first_unit_offset", "used", "free", "cells"));
    ASSERT_EQ(document["cells"].size(), 21U);
    std::uint64_t next = 0;
    std::uint64_t used = 0;
    for (Json const& cell : document["cells"]) {
        EXPECT_THAT(keysOf(cell), ElementsAre("first", "count", "used"));
        EXPECT_EQ(cell["first"], next);
        EXPECT_THAT(cell["count"].get<int>(), testing::AnyOf(47, 48));
        EXPECT_LE(cell["used"], cell["count"]);
        next += cell["count"].get<std::uint64_t>();
        used += cell["used"].get<std::uint64_t>();
    }
    EXPECT_EQ(next, 1000U);
    EXPECT_EQ(used, 201U);
}

TEST(CommandMap, TheLocaleDecidesTheCharacters) {
    ThousandBlocks const volume;
    std::vector<std::string> const size{"--width", "10", "--height", "1"};
    std::string const ascii = titleOf(volume.path, "400 KiB") + "#....#-...\n" + kAsciiLegend;
    std::string const blocks = titleOf(volume.path, "400 KiB") + "█····█░···\n" + kUtf8Legend;
    EXPECT_EQ(mapOf(volume, size, withEnvironment({{"LANG", "C"}})), ascii);
    EXPECT_EQ(mapOf(volume, size, withEnvironment({{"LANG", "de_DE.ISO-8859-1"}})), ascii);
    EXPECT_EQ(mapOf(volume, size, withEnvironment({{"LANG", "C.UTF-8"}})), blocks);
    EXPECT_EQ(mapOf(volume, size, withEnvironment({{"LANG", "en_GB.utf8"}})), blocks);
    EXPECT_EQ(mapOf(volume, size, withEnvironment({{"LANG", "C.UTF-8"}, {"LC_ALL", "C"}})), ascii);
    EXPECT_EQ(mapOf(volume, size, withEnvironment({{"LANG", "C"}, {"LC_CTYPE", "C.UTF-8"}})), blocks);
    EXPECT_EQ(mapOf(volume, size, withEnvironment({{"LANG", "C.UTF-8"}, {"LC_ALL", ""}})), blocks);
}

TEST(CommandMap, AsciiIsKeptInEveryLocale) {
    ThousandBlocks const volume;
    EXPECT_EQ(mapOf(volume, {"--ascii", "--width", "10", "--height", "1"}, withEnvironment({{"LANG", "C.UTF-8"}})),
              titleOf(volume.path, "400 KiB") + "#....#-...\n" + kAsciiLegend);
}

TEST(CommandMap, ColourIsSetWhereTheShadeChangesAndEndedOnEachLine) {
    ThousandBlocks const volume;
    std::string const output = mapOf(volume, {"--color", "always", "--width", "5", "--height", "2"});
    EXPECT_THAT(pictureOf(output), ElementsAre("\x1b[38;5;160m#\x1b[38;5;240m....\x1b[0m",
                                               "\x1b[38;5;160m#\x1b[38;5;71m-\x1b[38;5;240m...\x1b[0m"));
    EXPECT_THAT(output, HasSubstr("\n\x1b[38;5;240m.\x1b[0m free  "));
}

TEST(CommandMap, ColourFollowsTheOptionBeforeTheEnvironment) {
    ThousandBlocks const volume;
    CommandOptions const noColor = withEnvironment({{"NO_COLOR", "1"}});
    EXPECT_THAT(mapOf(volume, {}), Not(HasSubstr("\x1b"))) << "not a terminal";
    EXPECT_THAT(mapOf(volume, {"--color", "auto"}), Not(HasSubstr("\x1b")));
    EXPECT_THAT(mapOf(volume, {"--color=never"}), Not(HasSubstr("\x1b")));
    EXPECT_THAT(mapOf(volume, {"--color=always"}, noColor), HasSubstr("\x1b[38;5;160m"));
}

TEST(CommandMap, WithoutATerminalColumnsAndLinesGiveTheSize) {
    ThousandBlocks const volume;
    auto const usual = pictureOf(mapOf(volume, {}));
    ASSERT_EQ(usual.size(), 13U) << "1000 cells, 80 in a line";
    EXPECT_EQ(usual.front().size(), 80U);
    // Wide enough that title and legend have a line each; the third is the prompt's.
    auto const lines = pictureOf(mapOf(volume, {}, withEnvironment({{"COLUMNS", "200"}, {"LINES", "7"}})));
    EXPECT_EQ(lines.size(), 4U);
    EXPECT_THAT(lines, Each(testing::SizeIs(200)));
    EXPECT_EQ(pictureOf(mapOf(volume, {}, withEnvironment({{"COLUMNS", "abc"}, {"LINES", "0"}}))), usual);
    EXPECT_EQ(pictureOf(mapOf(volume, {}, withEnvironment({{"COLUMNS", "-3"}, {"LINES", "99999999999999999999"}}))),
              usual);
    EXPECT_EQ(pictureOf(mapOf(volume, {}, withEnvironment({{"COLUMNS", "10"}, {"LINES", "2"}}))).size(), 1U);
}

TEST(CommandMap, SizesThatMakeNoSenseAreUsageErrors) {
    ThousandBlocks const volume;
    for (std::string const option : {"--width", "--height"}) {
        for (std::string const value : {"0", "-1", "501", "abc", "", "18446744073709551616"}) {
            CommandResult const result = fsparser({"map", option, value, volume.path});
            EXPECT_EQ(result.exitCode, 2) << option << " " << value << ": " << result;
            EXPECT_EQ(result.output, "");
            EXPECT_THAT(result.error, HasSubstr(option));
        }
    }
    for (std::string const value : {"blue", "ALWAYS", "yes"}) {
        CommandResult const result = fsparser({"map", "--color", value, volume.path});
        EXPECT_EQ(result.exitCode, 2) << value << ": " << result;
        EXPECT_THAT(result.error, HasSubstr("--color"));
    }
}

TEST(CommandMapInTerminal, TakesSizeAndColourFromTheTerminal) {
    ThousandBlocks const volume;
    Terminal const terminal(150, 10);
    // What the terminal says counts, not these.
    CommandOptions const options = withEnvironment({{"COLUMNS", "77"}, {"LINES", "33"}});
    CommandResult const result = terminal.run({FSPARSER_COMMAND, "map", volume.path}, options);
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.error, "");
    auto lines = pictureOf(result.output);
    ASSERT_EQ(lines.size(), 7U) << "10 without title, legend and prompt";
    for (std::size_t i = 0; i < lines.size(); ++i) {
        std::string const& line = lines[i];
        EXPECT_TRUE(line.starts_with("\x1b[38;5;") && line.ends_with("\x1b[0m")) << line;
        auto const isShade = [](char c) { return std::string_view(".-+%#").find(c) != std::string_view::npos; };
        EXPECT_EQ(std::count_if(line.begin(), line.end(), isShade), i < 6 ? 150 : 100);
    }
}

TEST(CommandMapInTerminal, APictureWithItsWrappedTitleAndLegendFitsTheWindow) {
    ThousandBlocks const volume;
    constexpr std::size_t kColumns = 30;
    constexpr std::size_t kLines = 12;
    Terminal const terminal(kColumns, kLines);
    CommandResult const result = terminal.run({FSPARSER_COMMAND, "map", "--color=never", volume.path}, plainOptions());
    std::size_t rows = 1; // the prompt's
    std::istringstream stream(result.output);
    for (std::string line; std::getline(stream, line);) {
        rows += (line.size() + kColumns - 1) / kColumns;
    }
    EXPECT_LE(rows, kLines);
    EXPECT_GE(rows, kLines - 2) << "the estimate of the title's length is a line or two on the safe side";
}

TEST(CommandMapInTerminal, NoColorIsHonouredUnlessItIsEmpty) {
    ThousandBlocks const volume;
    Terminal const terminal(30, 10);
    std::vector<std::string> const map{FSPARSER_COMMAND, "map", volume.path};
    EXPECT_THAT(terminal.run(map, withEnvironment({{"NO_COLOR", "1"}})).output, Not(HasSubstr("\x1b")));
    EXPECT_THAT(terminal.run(map, withEnvironment({{"NO_COLOR", ""}})).output, HasSubstr("\x1b[38;5;160m"));
    std::vector<std::string> const never{FSPARSER_COMMAND, "map", "--color", "never", volume.path};
    EXPECT_THAT(terminal.run(never, plainOptions()).output, Not(HasSubstr("\x1b")));
}

TEST(CommandMapInTerminal, OptionsOverrideTheTerminalsSize) {
    ThousandBlocks const volume;
    Terminal const terminal(30, 10);
    CommandResult const result = terminal.run(
        {FSPARSER_COMMAND, "map", "--color=never", "--width", "10", "--height", "1", volume.path}, plainOptions());
    EXPECT_THAT(pictureOf(result.output), ElementsAre("#....#-..."));
}

TEST(CommandBitmapInTerminal, IsRefusedThere) {
    ThousandBlocks const volume;
    Terminal const terminal(80, 24);
    CommandResult const result = terminal.run({FSPARSER_COMMAND, "bitmap", volume.path}, plainOptions());
    EXPECT_EQ(result.exitCode, 2) << result;
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.error, HasSubstr("the bitmap is binary and standard output is a terminal; name a FILE"));
    std::string const output = volume.directory.file("used.bin");
    EXPECT_EQ(terminal.run({FSPARSER_COMMAND, "bitmap", "-o", output, volume.path}, plainOptions()).exitCode, 0);
    EXPECT_EQ(readFile(output).size(), 125U);
}

} // namespace
