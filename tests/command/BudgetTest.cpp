// The command on volumes whose structures lead in circles: it ends, with one sentence and exit code 4.
#include "command/Fsparser.h"
#include "support/XfsBuilder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace tests;
using testing::HasSubstr;
using testing::StartsWith;

/// An XFS volume in whose tree each of 40 levels leads to the next one twice: walking it would take for ever.
std::string writeEndlessVolume(std::string const& path) {
    XfsGeometry geometry;
    geometry.totalBlocks = 1000;
    XfsBuilder builder(geometry);
    for (std::uint32_t level = 0; level < 40; ++level) {
        std::uint32_t const left = 10 + 2 * level;
        builder.makeNode(0, left, 1, 1, kXfsNoBlock, left + 1).setChild(0, left, 0, left + 2);
        builder.makeNode(0, left + 1, 1, 1, left).setChild(0, left + 1, 0, left + 2);
    }
    builder.makeNode(0, 90, 0, 0);
    builder.setHeader32(0, xfs_header::kRoot, 10);
    return writeFile(path, builder.bytes);
}

TEST(CommandBudget, ATreeWithoutEndIsGivenUpAfterSoManyReads) {
    TempDirectory const directory;
    std::string const path = writeEndlessVolume(directory.file("volume"));
    for (char const* const verb : {"info", "map", "ranges"}) {
        CommandResult const result = fsparser({verb, "--max-reads", "20000", path});
        EXPECT_EQ(result.exitCode, 4) << verb << ": " << result;
        EXPECT_EQ(result.output, "") << verb;
        EXPECT_THAT(result.error, StartsWith("fsparser: " + path +
                                             ": the map cannot be read from unit 0 on: The volume is read no further "
                                             "after 20000 reads; "))
            << verb;
    }
    CommandResult const copy = fsparser({"copy", "--max-reads", "20000", path, directory.file("copy")});
    EXPECT_EQ(copy.exitCode, 4) << copy;
    EXPECT_FALSE(std::filesystem::exists(directory.file("copy")));
}

TEST(CommandBudget, ATreeWithoutEndIsGivenUpAfterSomeTime) {
    TempDirectory const directory;
    std::string const path = writeEndlessVolume(directory.file("volume"));
    CommandResult const result = fsparser({"info", "--max-time", "1", path});
    EXPECT_EQ(result.exitCode, 4) << result;
    EXPECT_THAT(result.error, HasSubstr("The volume is read no further after 1 seconds"));
}

TEST(CommandBudget, AHealthyVolumeNeedsNoneOfIt) {
    ThousandBlocks const volume;
    CommandResult const result = fsparser({"ranges", "--max-reads", "50", "--max-time", "60", volume.path});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.output, "0 100\n500 100\n650 1\n");
}

TEST(CommandBudget, LimitsAreNumbersFromOneOn) {
    ThousandBlocks const volume;
    for (char const* const option : {"--max-reads", "--max-time"}) {
        for (char const* const value : {"0", "-1", "x", ""}) {
            EXPECT_EQ(fsparser({"info", option, value, volume.path}).exitCode, 2) << option << " " << value;
        }
    }
}

} // namespace
