// Copies of volumes that were not unmounted cleanly: the copy is made, the sentence is said, the exit code is 4.
#include "command/Fsparser.h"
#include "support/FatBuilder.h"
#include "support/HfsBuilder.h"
#include "support/NtfsBuilder.h"
#include "support/XfsBuilder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fcntl.h>
#include <fstream>
#include <sys/mount.h>
#include <unistd.h>

namespace {

using namespace tests;
using testing::HasSubstr;

/// A volume, clean or not, and the reason that must be told of it.
struct State {
    std::vector<std::uint8_t> bytes;
    std::string reason; ///< empty: it is clean
};

std::vector<State> extStates() {
    ExtBuilder clean = makeThousandBlocks();
    clean.setSuper16(0x3A, 1).resize(1000 * 4096);
    ExtBuilder open = clean;
    open.setSuper32(ext_super::kIncompatibleFeatures, 0x4);
    ExtBuilder mounted = clean;
    mounted.setSuper16(0x3A, 0);
    ExtBuilder faulty = clean;
    faulty.setSuper16(0x3A, 3);
    return {{clean.bytes, ""},
            {open.bytes, "has needs_recovery (0x4)"},
            {mounted.bytes, "s_state is 0"},
            {faulty.bytes, "s_state is 3"}};
}

std::vector<State> ntfsStates() {
    NtfsBuilder builder = NtfsBuilder::standard();
    State const clean{builder.bytes, ""};
    NtfsBytes const record = builder.plainRecord(3);
    std::array<std::uint8_t, 12> const information{0, 0, 0, 0, 0, 0, 0, 0, 3, 1, 0, 0};
    auto const at = std::search(record.begin(), record.end(), information.begin(), information.end());
    builder.pokeRecord(3, static_cast<std::uint64_t>(at - record.begin()) + 10, 1, 2);
    return {clean, {builder.bytes, "has the dirty flag (flags 1)"}};
}

std::vector<State> fatStates() {
    auto const make = [](std::uint32_t entry, std::uint8_t state) {
        FatBuilder builder(FatGeometry::tiny());
        builder.setEntry(1, entry).setBoot(0x41, state, 1);
        return builder.resize(builder.geometry().totalBytes()).bytes;
    };
    return {{make(0x0FFFFFFF, 0), ""},
            {make(0x07FFFFFF, 0), "the flag of a clean unmount cleared"},
            {make(0x0BFFFFFF, 0), "says that reading or writing it failed"},
            {make(0x0FFFFFFF, 1), "its boot sector has the dirty flag set"}};
}

std::vector<State> hfsStates() {
    auto const make = [](std::uint32_t attributes) {
        HfsBuilder builder;
        return builder.setUsedFrom(0, 3).setHeader32(hfs_header::kAttributes, attributes).image();
    };
    State open{make(0x2100), "its journal holds changes that are not in place yet"};
    putBig(open.bytes, 1024 + 12, 3000, 4);              // the block that tells of the journal
    putBig(open.bytes, std::uint64_t{3000} * 512, 1, 4); // inside the volume
    putBig(open.bytes, std::uint64_t{3000} * 512 + 36, 3100 * 512, 8);
    putBig(open.bytes, std::uint64_t{3100} * 512, 0x4A4E4C78, 4);
    putBig(open.bytes, std::uint64_t{3100} * 512 + 8, 512, 8); // start
    State closed = open;
    closed.reason = "";
    putBig(open.bytes, std::uint64_t{3100} * 512 + 16, 1024, 8); // end
    putBig(closed.bytes, std::uint64_t{3100} * 512 + 16, 512, 8);
    return {{make(0x100), ""},
            {make(0), "does not have the flag of a clean unmount"},
            {make(0x900), "says that it may be inconsistent"},
            closed,
            open};
}

std::vector<State> xfsStates() {
    XfsGeometry geometry;
    geometry.logStart = 100;
    geometry.logBlocks = 50;
    XfsBuilder builder(geometry);
    builder.plantTree(0, {{200, 250}});
    State const clean{builder.bytes, ""};
    builder.put(std::uint64_t{100} * 512, 0xFEEDBABE, 4).put(std::uint64_t{100} * 512 + 4, 1, 4);
    builder.put(std::uint64_t{100} * 512 + 12, 512, 4).put(std::uint64_t{100} * 512 + 40, 1, 4);
    builder.put(std::uint64_t{101} * 512, 1, 4);
    State const open{builder.bytes, "its journal holds changes that are not in place yet"};
    builder.put(std::uint64_t{101} * 512 + 9, 0x20, 1);
    State const closed{builder.bytes, ""};
    geometry.logStart = 0;
    XfsBuilder elsewhere(geometry);
    elsewhere.plantTree(0, {{200, 250}});
    return {clean, open, closed, {elsewhere.bytes, "its journal lies on another device"}};
}

struct Kind {
    char const* name;
    std::vector<State> (*states)();
};

void PrintTo(Kind const& kind, std::ostream* out) {
    *out << kind.name;
}

class CommandCopyUnclean : public testing::TestWithParam<Kind> {};

TEST_P(CommandCopyUnclean, IsCopiedWithTheSentenceAndExitCode4AndACleanOneWithout) {
    TempDirectory const directory;
    std::string const path = directory.file("volume");
    std::string const copy = directory.file("copy");
    for (State const& state : GetParam().states()) {
        writeFile(path, state.bytes);
        CommandResult const result = fsparser({"copy", "--force", "--json", path, copy});
        Json const document = Json::parse(result.output);
        EXPECT_EQ(std::filesystem::file_size(copy), state.bytes.size());
        if (state.reason.empty()) {
            EXPECT_EQ(result.exitCode, 0) << result;
            EXPECT_EQ(result.error, "");
            EXPECT_FALSE(document.contains("warnings"));
            continue;
        }
        EXPECT_EQ(result.exitCode, 4) << state.reason << result;
        EXPECT_TRUE(result.error.starts_with("fsparser: warning: " + path + ": was not unmounted cleanly (")) << result;
        EXPECT_THAT(result.error, HasSubstr(state.reason));
        EXPECT_EQ(document["warnings"].size(), 1U);
        EXPECT_LT(document["copied_bytes"].get<std::uint64_t>(), state.bytes.size()) << "free space is left out";
        EXPECT_EQ(fsparser({"copy", "--force", "-q", path, copy}).error, "") << "errors only";
        EXPECT_EQ(fsparser({"verify", path, copy}).exitCode, 0) << "what is compared is equal";
    }
}

INSTANTIATE_TEST_SUITE_P(FileSystems, CommandCopyUnclean,
                         testing::Values(Kind{"Ext", extStates}, Kind{"Ntfs", ntfsStates}, Kind{"Fat", fatStates},
                                         Kind{"Hfs", hfsStates}, Kind{"Xfs", xfsStates}),
                         [](testing::TestParamInfo<Kind> const& parameter) { return parameter.param.name; });

/// A volume whose map frees what cannot be free.
void expectCopiedWhole(std::vector<std::uint8_t> const& bytes, std::string const& reason) {
    TempDirectory const directory;
    std::string const path = writeFile(directory.file("volume"), bytes);
    CommandResult const result = fsparser({"copy", path, directory.file("copy")});
    EXPECT_EQ(result.exitCode, 4) << result;
    EXPECT_TRUE(readFile(directory.file("copy")) == bytes) << reason;
    EXPECT_THAT(result.error, HasSubstr("fsparser: warning: " + path + ": the map calls " + reason));
    EXPECT_THAT(result.error, HasSubstr("fsparser: warning: " + path + ": everything is copied\n"));
}

TEST(CommandCopyDoubtful, AMapThatFreesAVolumesOwnHeadersOrJournalIsToldAndEverythingIsCopied) {
    XfsGeometry geometry;
    geometry.logStart = 100;
    geometry.logBlocks = 50;
    XfsBuilder journal(geometry);
    journal.plantTree(0, {{120, 200}});
    std::fill(journal.bytes.begin() + 300 * 512, journal.bytes.begin() + 310 * 512, std::uint8_t{0x77});
    expectCopiedWhole(journal.bytes, "unit 120 free");
    XfsBuilder header(geometry);
    header.plantTree(1, {{0, 3}, {100, 200}});
    std::fill(header.bytes.begin() + 700 * 512, header.bytes.begin() + 710 * 512, std::uint8_t{0x77});
    expectCopiedWhole(header.bytes, "unit 500 free");
    HfsBuilder hfs;
    std::vector<std::uint8_t> image = hfs.setUsed(2, false).image();
    std::fill(image.begin() + 3000 * 512, image.begin() + 3010 * 512, std::uint8_t{0x77});
    expectCopiedWhole(image, "unit 2 free");
}

/// A real volume of one of the kernel's file systems, mounted and unmounted.
class CommandCopyMounted : public testing::Test {
protected:
    ~CommandCopyMounted() override { ::umount2(directory.file("mount").c_str(), MNT_DETACH); }

    bool mount() const { return runCommand({"mount", "-o", "loop", path, directory.file("mount")}).succeeded(); }
    bool unmount() const { return runCommand({"umount", directory.file("mount")}).succeeded(); }

    /// Why real volumes cannot be mounted here; empty where they can.
    std::string makeVolume(std::vector<std::string> arguments) {
        if (::geteuid() != 0) {
            return "mounting needs root";
        }
        std::filesystem::create_directory(directory.file("mount"));
        std::ofstream(path).flush();
        std::filesystem::resize_file(path, std::uint64_t{320} << 20);
        arguments.push_back(path);
        if (!findProgram(arguments.front()) || !runCommand(arguments).succeeded()) {
            return "no volume can be made with " + arguments.front();
        }
        return "";
    }

    /// Puts files into the mounted volume, so that its journal holds them.
    void change(char letter) const {
        for (unsigned i = 0; i < 40; ++i) {
            std::ofstream(directory.file("mount") + "/" + letter + std::to_string(i)) << std::string(5000, letter);
        }
        int const descriptor = ::open(directory.file("mount").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::syncfs(descriptor);
        ::close(descriptor);
    }

    void expectCopy(int exitCode, std::string const& why) const {
        CommandResult const result = fsparser({"copy", "--force", path, directory.file("copy")});
        EXPECT_EQ(result.exitCode, exitCode) << why << ": " << result;
        EXPECT_EQ(result.error.find("was not unmounted cleanly") != std::string::npos, exitCode == 4) << why << result;
    }

    /// Mounts, changes and unmounts again and again, so that the journal's end comes to lie in many places.
    void expectTruthThroughMounts(unsigned rounds) {
        expectCopy(0, "new");
        for (unsigned round = 0; round < rounds; ++round) {
            if (!mount()) {
                GTEST_SKIP() << "this system does not mount the volume";
            }
            change(static_cast<char>('a' + round));
            expectCopy(4, "mounted");
            ASSERT_TRUE(unmount());
            expectCopy(0, "unmounted");
        }
    }

    TempDirectory directory;
    std::string path = directory.file("volume");
};

TEST_F(CommandCopyMounted, AnXfsVolumeIsUncleanWhileMountedAndCleanAfterwards) {
    if (std::string const problem = makeVolume({"mkfs.xfs", "-q", "-f"}); !problem.empty()) {
        GTEST_SKIP() << problem;
    }
    expectTruthThroughMounts(4);
}

TEST_F(CommandCopyMounted, AnXfsVolumeWhoseJournalIsWrittenInStripesIsToldTheSameWay) {
    if (std::string const problem = makeVolume({"mkfs.xfs", "-q", "-f", "-l", "su=32k"}); !problem.empty()) {
        GTEST_SKIP() << problem;
    }
    expectTruthThroughMounts(3);
}

TEST_F(CommandCopyMounted, AnExtVolumeIsUncleanWhileMountedAndCleanAfterwards) {
    if (std::string const problem = makeVolume({"mke2fs", "-q", "-F", "-t", "ext4"}); !problem.empty()) {
        GTEST_SKIP() << problem;
    }
    expectTruthThroughMounts(2);
}

} // namespace
