// The command line itself: help, usage errors, verbosity, alignments, exit codes, and output that cannot be written.
#include "command/Fsparser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>

namespace {

using namespace tests;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr std::array kVerbs{"detect", "info", "map", "bitmap", "ranges"};

/// A usage error: exit code 2, no data, and a message.
void expectUsageError(std::vector<std::string> const& arguments, std::string const& message) {
    CommandResult const result = fsparser(arguments);
    EXPECT_EQ(result.exitCode, 2) << testing::PrintToString(arguments) << ": " << result;
    EXPECT_EQ(result.output, "") << testing::PrintToString(arguments);
    EXPECT_THAT(result.error, AllOf(HasSubstr(message), HasSubstr("--help")));
}

TEST(CommandHelp, ListsEveryVerbAndEveryExitCodeWithExamples) {
    CommandResult const result = fsparser({"--help"});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.error, "");
    for (char const* const verb : kVerbs) {
        EXPECT_THAT(result.output, HasSubstr(std::string("\n  ") + verb + " "));
        EXPECT_THAT(result.output, HasSubstr(std::string("\n  fsparser ") + verb + " "));
    }
    EXPECT_THAT(result.output, HasSubstr("\nExit codes:\n"));
    for (char const* const code : {"0", "1", "2", "3", "4", "130"}) {
        EXPECT_THAT(result.output, testing::ContainsRegex(std::string("\n  ") + code + " +[a-zI]"));
    }
}

TEST(CommandHelp, OfAVerbNamesItsOptionsAndHasAnExample) {
    for (char const* const verb : kVerbs) {
        CommandResult const result = fsparser({verb, "--help"});
        EXPECT_EQ(result.exitCode, 0) << result;
        EXPECT_EQ(result.error, "");
        EXPECT_THAT(result.output, HasSubstr(std::string("\n  fsparser ") + verb + " ")) << "an example";
        for (char const* const option : {"VOLUME", "--json", "--align", "-q,--quiet", "-v,--verbose", "-h,--help"}) {
            EXPECT_THAT(result.output, HasSubstr(option)) << verb;
        }
    }
    EXPECT_THAT(fsparser({"map", "--help"}).output,
                AllOf(HasSubstr("--color"), HasSubstr("--width"), HasSubstr("--height"), HasSubstr("--ascii")));
    EXPECT_THAT(fsparser({"bitmap", "--help"}).output, HasSubstr("-o,--output FILE|-"));
}

TEST(CommandVersion, IsOneLine) {
    CommandResult const result = fsparser({"--version"});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_THAT(result.output, testing::MatchesRegex("fsparser [0-9]+\\.[0-9]+\\.[0-9]+\n"));
    EXPECT_EQ(result.error, "");
}

TEST(CommandUsage, WhatMakesNoSenseIsAUsageError) {
    ThousandBlocks const volume;
    expectUsageError({}, "subcommand");
    expectUsageError({"explode", volume.path}, "explode");
    expectUsageError({"--explode"}, "subcommand");
    for (char const* const verb : kVerbs) {
        expectUsageError({verb}, "VOLUME");
        expectUsageError({verb, volume.path, volume.path}, volume.path);
        expectUsageError({verb, "--explode", volume.path}, "--explode");
        expectUsageError({verb, "-q", "-v", volume.path}, "--quiet");
    }
    expectUsageError({"info", "--width", "10", volume.path}, "--width");
    expectUsageError({"bitmap", volume.path, "-o"}, "-o");
}

TEST(CommandUsage, AnAlignmentIsAPowerOfTwo) {
    ThousandBlocks const volume;
    for (char const* const alignment :
         {"0", "3", "513", "-1", "abc", "", "512x", "2147483648", "18446744073709551616"}) {
        expectUsageError({"detect", "--align", alignment, volume.path}, "--align");
    }
    for (char const* const alignment : {"512", "4096", "65536", "0x1000"}) {
        CommandResult const result = fsparser({"ranges", "--align", alignment, volume.path});
        EXPECT_EQ(result.exitCode, 0) << alignment << ": " << result;
        EXPECT_EQ(result.output, "0 100\n500 100\n650 1\n");
    }
}

TEST(CommandVerbosity, TheLibrarysLogIsShownByLevels) {
    ThousandBlocks const volume;
    std::filesystem::resize_file(volume.path, 4096000 + 100);
    // The aligned read of the whole file comes short at its end, which the library warns of.
    std::vector<std::string> const info{"info", "--align", "8388608", volume.path};
    auto const errorWith = [&info](std::vector<std::string> options) {
        options.insert(options.begin(), info.begin(), info.end());
        CommandResult const result = fsparser(options);
        EXPECT_EQ(result.exitCode, 0) << result;
        EXPECT_THAT(result.output, testing::StartsWith("volume "));
        return result.error;
    };
    std::string const warning =
        "[warning] Failed to read 4194304 on device " + volume.path + " at offset 0, only read 4096100\n";
    std::string const debug = "[debug] Invalid NTFS magic.\n";
    EXPECT_EQ(errorWith({}), "");
    EXPECT_EQ(errorWith({"-q"}), "");
    EXPECT_THAT(errorWith({"-v"}), AllOf(HasSubstr(warning), Not(HasSubstr("[debug]"))));
    EXPECT_THAT(errorWith({"-vv"}), AllOf(HasSubstr(warning), HasSubstr(debug)));
    EXPECT_THAT(errorWith({"-v", "--verbose"}), AllOf(HasSubstr(warning), HasSubstr(debug)));
}

TEST(CommandVerbosity, TheLibrarysErrorsAreShownBeforeTheSentence) {
    TempDirectory const directory;
    std::string const path = writeBrokenVolume(directory.file("volume"));
    CommandResult const result = fsparser({"info", "-v", path});
    EXPECT_EQ(result.exitCode, 1) << result;
    EXPECT_THAT(result.error, HasSubstr("[error] Can't read bitmap\n"));
    EXPECT_THAT(result.error, HasSubstr("\nfsparser: " + path + ": "));
    CommandResult const quiet = fsparser({"info", "-q", path});
    EXPECT_EQ(quiet.exitCode, 1) << quiet;
    EXPECT_EQ(quiet.error, brokenVolumeSentence(path)) << "errors are said quietly, too";
}

TEST(CommandWarnings, ATruncatedVolumeIsMappedWithAWarningAndExitCode4) {
    ThousandBlocks const volume;
    std::filesystem::resize_file(volume.path, 4096000 - 1000);
    std::string const sentence = volume.path + ": ends at byte 4095000, 1000 bytes before the end of its ext file "
                                               "system";
    for (char const* const verb : {"info", "map", "bitmap", "ranges"}) {
        CommandResult const result = fsparser({verb, volume.path});
        EXPECT_EQ(result.exitCode, 4) << verb << ": " << result;
        EXPECT_EQ(result.error, "fsparser: warning: " + sentence + "\n");
        EXPECT_THAT(result.output, Not(IsEmpty()));
        CommandResult const quiet = fsparser({verb, "-q", volume.path});
        EXPECT_EQ(quiet.exitCode, 4) << verb << ": " << quiet;
        EXPECT_EQ(quiet.error, "");
        EXPECT_EQ(quiet.output, result.output);
    }
    for (char const* const verb : {"info", "map", "ranges"}) {
        CommandResult const json = fsparser({verb, "--json", volume.path});
        EXPECT_EQ(json.exitCode, 4) << verb << ": " << json;
        EXPECT_EQ(Json::parse(json.output)["warnings"], Json::array({sentence}));
    }
}

TEST(CommandWarnings, AMapThatIsNotBelievedIsAllUsedWithExitCode4) {
    TempDirectory const directory;
    ExtBuilder builder = makeThousandBlocks();
    builder.setSuper32(ext_super::kIncompatibleFeatures, 0x10);
    std::string const path = writeExtVolume(directory.file("volume"), builder);
    CommandResult const result = fsparser({"ranges", path});
    EXPECT_EQ(result.exitCode, 4) << result;
    EXPECT_EQ(result.output, "0 1000\n");
    EXPECT_THAT(result.error, AllOf(HasSubstr("meta_bg (0x10)"), HasSubstr("; every unit counts as used\n")));
}

TEST(CommandOutput, AFullDiskIsOneSentenceAndExitCode1) {
    ThousandBlocks const volume;
    CommandOptions full = plainOptions();
    full.outputPath = "/dev/full";
    for (auto const& arguments : std::vector<std::vector<std::string>>{{"detect", volume.path},
                                                                       {"detect", "--json", volume.path},
                                                                       {"info", volume.path},
                                                                       {"info", "--json", volume.path},
                                                                       {"map", volume.path},
                                                                       {"bitmap", volume.path},
                                                                       {"ranges", volume.path},
                                                                       {"ranges", "--json", volume.path}}) {
        CommandResult const result = fsparser(arguments, full);
        EXPECT_EQ(result.exitCode, 1) << arguments[0] << ": " << result;
        EXPECT_EQ(result.error, "fsparser: standard output: cannot be written: No space left on device\n");
    }
}

TEST(CommandOutput, AFullDiskIsNotBlamedOnTheVolumeWhenThereIsMuchToWrite) {
    TempDirectory const directory;
    ExtBuilder const builder =
        makeSoundExtVolume(ExtGeometry::with4KiBBlocks(100000)).fillBitmapsAtRandom(3).markOwnBlocks();
    std::string const path = writeExtVolume(directory.file("volume"), builder);
    CommandOptions full = plainOptions();
    full.outputPath = "/dev/full";
    for (auto const& arguments :
         std::vector<std::vector<std::string>>{{"ranges", path},
                                               {"ranges", "--json", path},
                                               {"map", "--json", path},
                                               {"map", "--width", "500", "--height", "200", path},
                                               {"bitmap", path}}) {
        CommandResult const result = fsparser(arguments, full);
        EXPECT_EQ(result.exitCode, 1) << arguments[0] << ": " << result;
        EXPECT_EQ(result.error, "fsparser: standard output: cannot be written: No space left on device\n");
    }
}

TEST(CommandUsage, NumbersThatAreNoneAreRefusedInOneSentence) {
    for (std::string const text : {"-1", "abc", "99999999999999999999999", "1x", ""}) {
        for (std::string const option : {"--max-reads", "--cache"}) {
            CommandResult const result = fsparser({"stat", option, text, "/nowhere", "/file"});
            EXPECT_EQ(result.exitCode, 2) << option << " " << text << ": " << result;
            EXPECT_THAT(result.error, HasSubstr("is no whole number from")) << option << " " << text;
        }
    }
    EXPECT_EQ(fsparser({"info", "--max-reads", "0", "/nowhere"}).exitCode, 2);
}

} // namespace
