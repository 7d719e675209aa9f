// Mistakes on the command line that deserve a plain answer, and output under unusual names.
#include "command/Fsparser.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace tests;
using testing::HasSubstr;

TEST(CommandMistakes, AnUnknownVerbIsNamed) {
    CommandResult const result = fsparser({"explode", "volume"});
    EXPECT_EQ(result.exitCode, 2) << result;
    EXPECT_EQ(result.error, "fsparser: explode is not a verb; fsparser --help lists them\n");
}

TEST(CommandMistakes, AColorThatIsNoneIsToldTheChoices) {
    for (char const* const color : {"blue", "1", ""}) {
        CommandResult const result = fsparser({"map", "--color", color, "volume"});
        EXPECT_EQ(result.exitCode, 2) << result;
        EXPECT_THAT(result.error, HasSubstr(std::string("it is auto, always or never, not ") + color));
    }
}

TEST(CommandMistakes, AnOutputWithoutANameIsAUsageError) {
    ThousandBlocks const volume;
    CommandResult const result = fsparser({"bitmap", "-o", "", volume.path});
    EXPECT_EQ(result.exitCode, 2) << result;
    EXPECT_THAT(result.error, HasSubstr("names no file"));
}

TEST(CommandMistakes, HelpThatCannotBeWrittenIsAnError) {
    for (char const* const option : {"--help", "--version"}) {
        CommandOptions options = plainOptions();
        options.outputPath = "/dev/full";
        EXPECT_EQ(fsparser({option}, options).exitCode, 1) << option;
    }
}

TEST(CommandOutput, GoesThroughASymbolicLinkToItsTarget) {
    ThousandBlocks const volume;
    std::string const target = volume.directory.file("target");
    std::string const link = volume.directory.file("link");
    writeFile(target, std::vector<std::uint8_t>{1});
    std::filesystem::create_symlink(target, link);
    EXPECT_EQ(fsparser({"bitmap", "-o", link, volume.path}).exitCode, 0);
    EXPECT_TRUE(std::filesystem::is_symlink(link));
    EXPECT_EQ(readFile(target).size(), 125U);
}

TEST(CommandOutput, MayHaveTheLongestNameThereIs) {
    ThousandBlocks const volume;
    std::string const longest = volume.directory.file(std::string(255, 'n'));
    EXPECT_EQ(fsparser({"bitmap", "-o", longest, volume.path}).exitCode, 0);
    EXPECT_EQ(readFile(longest).size(), 125U);
}

} // namespace
