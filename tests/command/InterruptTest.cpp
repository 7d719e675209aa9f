// What SIGINT does to a walk: a clean end, and an immediate one when it comes twice.
#include "command/Fsparser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <functional>
#include <thread>

namespace {

using namespace tests;
using testing::ElementsAre;

/// Waits until something holds, for half a minute at most.
bool waitUntil(std::function<bool()> const& holds) {
    for (int i = 0; i < 3000; ++i) {
        if (holds()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

TEST(CommandInterrupt, ABitmapThatIsInterruptedLeavesTheOldFileAndNoTemporaryOne) {
    TempDirectory const directory;
    std::string const path = writeSlowVolume(directory.file("volume"));
    std::string const output = writeFile(directory.file("used.bin"), {1, 2, 3});
    Process process({FSPARSER_COMMAND, "bitmap", "-o", output, path});
    ASSERT_TRUE(waitUntil([&] { return namesIn(directory).size() == 3; })) << "the temporary file never appeared";
    process.send(SIGINT);
    CommandResult const result = process.wait();
    EXPECT_EQ(result.exitCode, 130) << result;
    EXPECT_EQ(result.error, "fsparser: interrupted\n");
    EXPECT_EQ(readFile(output), (std::vector<std::uint8_t>{1, 2, 3}));
    EXPECT_THAT(namesIn(directory), ElementsAre("used.bin", "volume"));
}

TEST(CommandInterrupt, TerminationAndHangUpEndAWalkCleanlyAsWell) {
    for (int const signal : {SIGTERM, SIGHUP}) {
        TempDirectory const directory;
        std::string const path = writeSlowVolume(directory.file("volume"));
        Process process({FSPARSER_COMMAND, "bitmap", "-o", directory.file("used.bin"), path});
        ASSERT_TRUE(waitUntil([&] { return namesIn(directory).size() == 2; })) << "the temporary file never appeared";
        process.send(signal);
        CommandResult const result = process.wait();
        EXPECT_EQ(result.exitCode, 130) << result;
        EXPECT_THAT(namesIn(directory), ElementsAre("volume"));
    }
}

TEST(CommandInterrupt, EveryWalkCanBeInterrupted) {
    TempDirectory const directory;
    std::string const path = writeSlowVolume(directory.file("volume"));
    for (std::string const verb : {"info", "map", "ranges"}) {
        Process process({FSPARSER_COMMAND, verb, "-vv", path});
        // The detector's entry comes after the handler is in place and before the walk.
        ASSERT_TRUE(waitUntil([&] { return process.error().find("Invalid NTFS magic.") != std::string::npos; }));
        process.send(SIGINT);
        CommandResult const result = process.wait();
        EXPECT_EQ(result.exitCode, 130) << verb << ": " << result;
        EXPECT_TRUE(result.error.ends_with("fsparser: interrupted\n")) << verb << ": " << result;
    }
}

/// Whether a process still catches SIGINT; the command's handler is taken away when it runs.
bool catchesInterrupt(pid_t process) {
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("SigCgt:")) {
            return (std::stoull(line.substr(7), nullptr, 16) >> (SIGINT - 1) & 1U) != 0;
        }
    }
    return false;
}

TEST(CommandInterrupt, ASecondInterruptEndsTheProcessAtOnce) {
    TempDirectory const directory;
    // Small groups, so that a single chunk takes so long that the second signal comes before the first is looked at.
    std::string const path = writeSlowVolume(directory.file("volume"), 1000);
    Process process({FSPARSER_COMMAND, "info", "-vv", path});
    ASSERT_TRUE(waitUntil([&] { return process.error().find("Invalid NTFS magic.") != std::string::npos; }));
    process.send(SIGINT);
    ASSERT_TRUE(waitUntil([&] { return !catchesInterrupt(process.id()); }));
    process.send(SIGINT);
    CommandResult const result = process.wait();
    EXPECT_EQ(result.signal, SIGINT) << result;
    EXPECT_EQ(result.error.find("interrupted"), std::string::npos) << result;
}

/// Processor time that a process has used, in clock ticks.
std::uint64_t ticksOf(pid_t process) {
    std::ifstream stat("/proc/" + std::to_string(process) + "/stat");
    std::string field;
    for (int i = 0; i < 13; ++i) { // the name of the command has no spaces
        stat >> field;
    }
    std::uint64_t user = 0;
    stat >> user;
    return user;
}

TEST(CommandInterrupt, HoursOfZerosCanBeInterrupted) {
    // 4 TiB in which no file system is understood: all of it counts as used, and nothing of it needs to be read.
    TempDirectory const directory{TempDirectory::Place::Memory};
    std::string const path = writeFile(directory.file("volume"), {1});
    std::filesystem::resize_file(path, std::uint64_t{4} << 40);
    std::vector<std::vector<std::string>> const commands{{"digest", path}, {"copy", path, "-"}};
    for (std::vector<std::string> const& command : commands) {
        std::vector<std::string> arguments{FSPARSER_COMMAND};
        arguments.insert(arguments.end(), command.begin(), command.end());
        std::string line;
        for (std::string const& argument : arguments) {
            line += "'" + argument + "' ";
        }
        Process process({"/bin/sh", "-c", "exec " + line + "> /dev/null"});
        ASSERT_TRUE(waitUntil([&] { return catchesInterrupt(process.id()) && ticksOf(process.id()) > 20; }));
        process.send(SIGINT);
        EXPECT_EQ(process.wait().exitCode, 130) << line;
    }
}

} // namespace
