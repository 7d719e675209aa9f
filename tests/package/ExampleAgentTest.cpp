// The program of the page on embedding: its map is that of the volume, whatever file system it holds.
#include "support/Command.h"
#include "support/CopyVolumes.h"
#include "support/Files.h"
#include "support/TempDirectory.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

namespace {

using tests::CommandResult;
using tests::CopyVolume;
using tests::TempDirectory;

CommandResult runAgent(std::vector<std::string> arguments) {
    std::filesystem::path const commands = std::filesystem::path(FSPARSER_COMMAND).parent_path();
    arguments.insert(arguments.begin(), (commands / "agent_example").string());
    return tests::runCommand(arguments);
}

/// The used runs as the program prints them: first unit and count.
std::string runsOf(std::vector<bool> const& used) {
    std::ostringstream text;
    for (std::size_t unit = 0; unit < used.size();) {
        std::size_t const first = unit;
        while (unit < used.size() && used[unit]) {
            ++unit;
        }
        if (unit != first) {
            text << first << ' ' << unit - first << '\n';
        } else {
            ++unit;
        }
    }
    return text.str();
}

class ExampleAgent : public testing::TestWithParam<std::size_t> {
protected:
    TempDirectory directory_;
};

TEST_P(ExampleAgent, PrintsTheUsedRunsOfTheVolume) {
    CopyVolume const& volume = tests::copyVolume(GetParam());
    std::string const path = tests::writeFile(directory_.file("volume"), volume.bytes);
    CommandResult const result = runAgent({path});
    ASSERT_TRUE(result.succeeded()) << result;
    ASSERT_NE(result.output, "");
    EXPECT_EQ(result.output, runsOf(volume.used));
    EXPECT_NE(result.error.find(" units of " + std::to_string(volume.unitSize) + " bytes are used\n"),
              std::string::npos)
        << result.error;
}

INSTANTIATE_TEST_SUITE_P(EveryFileSystem, ExampleAgent, testing::Range(std::size_t{0}, tests::copyVolumeNames().size()),
                         [](auto const& instance) { return tests::copyVolumeNames().at(instance.param); });

TEST(ExampleAgentAlone, TakesWhatItDoesNotUnderstandAsUsed) {
    TempDirectory const directory;
    CommandResult const result =
        runAgent({tests::writeFile(directory.file("volume"), std::vector<std::uint8_t>(5 * 4096 + 1, 0x5A))});
    EXPECT_TRUE(result.succeeded()) << result;
    EXPECT_EQ(result.output, "0 5\n");
    EXPECT_EQ(result.error, "unrecognized: 5 units of 4096 bytes are used\n");
}

TEST(ExampleAgentAlone, EndsWhereTheMapCannotBeRead) {
    TempDirectory const directory;
    std::vector<std::uint8_t> bytes = tests::makeSoundExtVolume().bytes;
    bytes.resize(4096); // the superblock, and no descriptors
    CommandResult const result = runAgent({tests::writeFile(directory.file("volume"), bytes)});
    EXPECT_EQ(result.exitCode, 1) << result;
    EXPECT_NE(result.error.find("agent: the map cannot be read: code -1\n"), std::string::npos) << result.error;
}

TEST(ExampleAgentAlone, SaysWhyAVolumeCannotBeOpened) {
    TempDirectory const directory;
    CommandResult const result = runAgent({directory.file("missing")});
    EXPECT_EQ(result.exitCode, 1) << result;
    EXPECT_NE(result.error.find("agent: Unable to open block device to calculate size: "), std::string::npos)
        << result.error;
}

} // namespace
