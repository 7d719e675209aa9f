// The lists of `ranges --format` in the hands of the programs that they are for, on volumes whose free space holds
// noise.
#include "imaging/ByteRange.h"
#include "support/HfsBuilder.h"
#include "support/TempDirectory.h"
#include "volumes/CopyProof.h"
#include "volumes/ExtRecipe.h"
#include "volumes/FatRecipe.h"
#include "volumes/NtfsVolume.h"
#include "volumes/VolumeAnswers.h"
#include "volumes/XfsVolume.h"

#include <algorithm>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <unistd.h>

namespace tests {

namespace {

using imaging::ByteRange;
using testing::HasSubstr;
using Ranges = std::vector<ByteRange>;
using Words = std::vector<std::string>;

constexpr std::uint64_t kMiB = std::uint64_t{1} << 20;
constexpr std::uint64_t kBmapBlock = 4096;

/// A sound volume of some file system.
struct ListedVolume {
    std::string name;                               ///< letters and digits: part of the test's name
    Words programs;                                 ///< needed to make and to check it
    std::function<void(TempDirectory const&)> make; ///< as `volume.img`
    std::vector<Words> checks;                      ///< programs that find nothing, but for the path behind
};

void PrintTo(ListedVolume const& listed, std::ostream* out) {
    *out << listed.name;
}

/// What an extent list says.
struct Extents {
    Ranges taken;
    Ranges leftOut;
};

Extents parseExtents(std::string const& text) {
    Extents extents;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::uint64_t offset = 0;
        std::uint64_t length = 0;
        std::string type;
        words >> offset >> length >> type;
        (type.empty() ? extents.taken : extents.leftOut).push_back({offset, offset + length});
    }
    return extents;
}

void overwrite(std::string const& path, Ranges const& ranges) {
    std::mt19937_64 generator(5);
    std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
    for (ByteRange const& range : ranges) {
        std::vector<std::uint64_t> words((range.size() + 7) / 8);
        std::generate(words.begin(), words.end(), [&] { return generator() | 0x0101010101010101U; }); // no byte is zero
        file.seekp(static_cast<std::streamoff>(range.begin));
        file.write(reinterpret_cast<char const*>(words.data()), static_cast<std::streamsize>(range.size()));
    }
    ASSERT_TRUE(file.flush());
}

/// The whole blocks of a block map inside ranges: those that it does not list.
Ranges wholeBlocks(Ranges const& ranges) {
    Ranges blocks;
    for (ByteRange const& range : ranges) {
        ByteRange const inside{(range.begin + kBmapBlock - 1) / kBmapBlock * kBmapBlock,
                               range.end / kBmapBlock * kBmapBlock};
        if (!inside.isEmpty()) {
            blocks.push_back(inside);
        }
    }
    return blocks;
}

/// A volume, its extent list, and noise in all that the list leaves out.
class RangesFormat : public testing::TestWithParam<ListedVolume> {
protected:
    void SetUp() override {
        for (std::string const& program : GetParam().programs) {
            if (auto const reason = missingProgram({program.c_str()})) {
                GTEST_SKIP() << *reason;
            }
        }
        static std::map<std::string, std::unique_ptr<TempDirectory>> made;
        auto& shared = made[GetParam().name];
        if (!shared) {
            ASSERT_NO_FATAL_FAILURE(make());
            shared = std::make_unique<TempDirectory>(TempDirectory::Place::Memory);
            std::filesystem::copy(directory.path(), shared->path());
        } else {
            std::filesystem::copy(shared->path(), directory.path());
        }
        size = std::filesystem::file_size(volume);
        extents = parseExtents(contentOfFile(directory.file("extentlist")));
    }

    void make() {
        GetParam().make(directory);
        extents = parseExtents(contentOfFile(list("extentlist")));
        ASSERT_GT(extents.taken.size(), 1U);
        ASSERT_GT(extents.leftOut.size(), 1U);
        ASSERT_EQ(extents.taken.back().end, std::filesystem::file_size(volume)) << "the end is always taken along";
        overwrite(volume, extents.leftOut);
        ASSERT_NO_FATAL_FAILURE(expectNothingWrong(volume)); // nothing of use was left out
    }

    /// Writes a list.
    /// @return its path
    std::string list(std::string const& format) const {
        std::string path = directory.file(format);
        CommandResult const result = runFsparser({"ranges", "--format", format, "-o", path, volume});
        EXPECT_EQ(result.exitCode, 0) << result;
        EXPECT_EQ(result.output + result.error, "");
        return path;
    }

    void expectNothingWrong(std::string const& path) const {
        for (Words arguments : GetParam().checks) {
            arguments.push_back(path);
            CommandResult const result = runTool(arguments);
            ASSERT_TRUE(result.succeeded()) << arguments.front() << result;
        }
    }

    void expectSoundCopy(std::string const& path) const {
        expectNothingWrong(path);
        CommandResult const result = runFsparser({"verify", volume, path});
        EXPECT_EQ(result.exitCode, 0) << result;
        EXPECT_THAT(result.output, testing::StartsWith("equal: "));
        EXPECT_EQ(readField(path, size - 8, 8), readField(volume, size - 8, 8));
    }

    void expectZeros(Ranges const& ranges) const {
        std::string const content = contentOfFile(copy);
        for (ByteRange const& range : ranges) {
            std::size_t const found = content.find_first_not_of('\0', range.begin);
            ASSERT_TRUE(found == std::string::npos || found >= range.end) << "byte " << found << " was copied";
        }
    }

    /// Runs a shell command as a client of the volume with its extent list.
    CommandResult runClient(std::string const& command) const {
        return runTool({"nbdkit", "-U", "-", "-r", "--filter=extentlist", "file", volume,
                        "extentlist=" + directory.file("extentlist"), "--run", command},
                       {{"COPY", copy}});
    }

    TempDirectory directory{TempDirectory::Place::Memory};
    std::string volume = directory.file("volume.img");
    std::string copy = directory.file("copy.img");
    std::uint64_t size = 0;
    Extents extents;
};

TEST_P(RangesFormat, BmaptoolMakesASoundCopyAndCopiesNoOtherBlock) {
    if (auto const reason = missingProgram({"bmaptool"})) {
        GTEST_SKIP() << *reason;
    }
    outputOfTool({"bmaptool", "copy", "--bmap", list("bmap"), volume, copy});
    expectSoundCopy(copy);
    expectZeros(wholeBlocks(extents.leftOut));
}

TEST_P(RangesFormat, BmaptoolMakesASoundCopyOnADeviceThatWasFullOfNoise) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "making loop devices needs root";
    }
    if (auto const reason = missingProgram({"bmaptool", "losetup"})) {
        GTEST_SKIP() << *reason;
    }
    makeRandomFile(copy, size, 6);
    WritableLoop const device(copy);
    if (!device.problem().empty()) {
        GTEST_SKIP() << device.problem();
    }
    outputOfTool({"bmaptool", "copy", "--bmap", list("bmap"), volume, device.path()});
    expectSoundCopy(device.path());
}

TEST_P(RangesFormat, BmaptoolReportsTheChecksumOfAChangedRange) {
    if (auto const reason = missingProgram({"bmaptool"})) {
        GTEST_SKIP() << *reason;
    }
    std::string const map = list("bmap");
    ByteRange const last = extents.taken.back();
    for (std::uint64_t const offset : {std::uint64_t{7}, last.begin, size - 1}) {
        flipByte(volume, offset);
        CommandResult const result = runTool({"bmaptool", "copy", "--bmap", map, volume, copy});
        EXPECT_NE(result.exitCode, 0) << result;
        EXPECT_THAT(result.error, HasSubstr("checksum mismatch")) << offset;
        flipByte(volume, offset);
    }
    EXPECT_EQ(runTool({"bmaptool", "copy", "--bmap", map, volume, copy}).exitCode, 0);
}

TEST_P(RangesFormat, BmaptoolReportsAChangedList) {
    if (auto const reason = missingProgram({"bmaptool"})) {
        GTEST_SKIP() << *reason;
    }
    std::string const map = list("bmap");
    std::size_t const at = contentOfFile(map).find("</Range>") - 1;
    changeField(map, at, readByte(map, at) == '1' ? '2' : '1', 1);
    CommandResult const result = runTool({"bmaptool", "copy", "--bmap", map, volume, copy});
    EXPECT_NE(result.exitCode, 0) << result;
    EXPECT_THAT(result.error, HasSubstr("checksum"));
}

TEST_P(RangesFormat, DdrescueCopiesTheDomainAndNothingElse) {
    if (auto const reason = missingProgram({"ddrescue"})) {
        GTEST_SKIP() << *reason;
    }
    makeEmptyFile(copy, size);
    outputOfTool({"ddrescue", "-q", "-m", list("ddrescue"), volume, copy, directory.file("rescue.map")});
    expectSoundCopy(copy);
    expectZeros(extents.leftOut);
}

TEST_P(RangesFormat, DdrescueMakesACopyAsLongAsTheVolume) {
    if (auto const reason = missingProgram({"ddrescue"})) {
        GTEST_SKIP() << *reason;
    }
    outputOfTool({"ddrescue", "-q", "-m", list("ddrescue"), volume, copy, directory.file("rescue.map")});
    EXPECT_EQ(std::filesystem::file_size(copy), size);
    expectSoundCopy(copy);
}

TEST_P(RangesFormat, NbdcopyMakesASoundCopyAndCopiesTheDataExtentsAlone) {
    if (auto const reason = missingProgram({"nbdkit", "nbdcopy"})) {
        GTEST_SKIP() << *reason;
    }
    CommandResult const quick = runClient("nbdcopy \"$uri\" \"$COPY\"");
    ASSERT_EQ(quick.exitCode, 0) << quick;
    expectSoundCopy(copy);
    std::filesystem::remove(copy);
    // Several requests at a time are as long as the client likes; one at a time, they are as long as the extents.
    CommandResult const exact = runClient("nbdcopy --synchronous \"$uri\" \"$COPY\"");
    ASSERT_EQ(exact.exitCode, 0) << exact;
    expectSoundCopy(copy);
    expectZeros(extents.leftOut);
}

TEST_P(RangesFormat, QemuImgSeesTheSameExtentsAndCopiesThemAlone) {
    if (auto const reason = missingProgram({"nbdkit", "qemu-img"})) {
        GTEST_SKIP() << *reason;
    }
    CommandResult const map = runClient("qemu-img map -f raw --output=json \"$uri\"");
    ASSERT_EQ(map.exitCode, 0) << map;
    Ranges data;
    for (auto const& extent : nlohmann::json::parse(map.output)) {
        auto const start = extent.at("start").get<std::uint64_t>();
        if (extent.at("data").get<bool>()) {
            data.push_back({start, start + extent.at("length").get<std::uint64_t>()});
        }
    }
    EXPECT_EQ(imaging::normalized(data, size), extents.taken);
    CommandResult const convert = runClient("qemu-img convert -f raw -O raw \"$uri\" \"$COPY\"");
    ASSERT_EQ(convert.exitCode, 0) << convert;
    expectSoundCopy(copy);
    expectZeros(extents.leftOut);
}

TEST_P(RangesFormat, ThePunchedFullCopyIsSparseAndSound) {
    if (auto const reason = missingProgram({"fallocate"})) {
        GTEST_SKIP() << *reason;
    }
    std::ofstream(copy, std::ios::binary) << contentOfFile(volume); // without holes
    std::uint64_t const before = allocatedBytes(copy);
    outputOfTool({"sh", list("fallocate"), copy});
    EXPECT_LT(allocatedBytes(copy), before * 3 / 4);
    expectSoundCopy(copy);
    expectZeros(extents.leftOut);
}

/// Something past the last unit, for file systems that have nothing of their own there.
void appendTail(std::string const& volume) {
    std::ofstream(volume, std::ios::app | std::ios::binary) << std::string(1536, 't');
}

ListedVolume listedExt() {
    ExtRecipe const recipe{"", {"-t", "ext4", "-b", "1024"}, 49152, Fill::Holes, {}, {}, true};
    auto const make = [recipe](TempDirectory const& directory) {
        std::string const volume = makeExtVolume(recipe, directory.path());
        appendTail(volume);
    };
    return {"Ext", {"mke2fs", "debugfs", "e2fsck"}, make, {{"e2fsck", "-f", "-n"}}};
}

ListedVolume listedFat() {
    FatRecipe const recipe{"", {"-s", "2", "-a", "-R", "33"}, 80 * kMiB, FatFill::Holes};
    auto const make = [recipe](TempDirectory const& directory) { makeFatVolume(recipe, directory.path()); };
    return {"Fat", {"mkfs.fat", "mcopy", "mdel", "fsck.fat"}, make, {{"fsck.fat", "-n"}}};
}

ListedVolume listedNtfs() {
    auto const make = [](TempDirectory const& directory) {
        std::string const volume = makeNtfsVolume({"", 512, 12}, directory.file("volume.img"));
        makeRandomFile(directory.file("content"), 700000, 8);
        for (char const* const name : {"/a", "/b"}) {
            copyIntoNtfs(volume, directory.file("content"), name);
        }
    };
    return {"Ntfs",
            {"mkfs.ntfs", "ntfscp", "ntfsfix", "ntfsresize"},
            make,
            {{"ntfsfix", "-n"}, {"ntfsresize", "--info", "--no-progress-bar"}}};
}

ListedVolume listedXfs() {
    XfsRecipe const recipe{"", {"-b", "size=1024", "-d", "agcount=2"}, 65536, 500};
    auto const make = [recipe](TempDirectory const& directory) {
        std::string const volume = makeXfsVolume(recipe, directory.path());
        punchHolesIntoXfs(volume);
        appendTail(volume);
    };
    return {"Xfs", {"mkfs.xfs", "xfs_db", "xfs_repair"}, make, {{"xfs_repair", "-n"}}};
}

ListedVolume listedHfs() {
    auto const make = [](TempDirectory const& directory) {
        HfsGeometry geometry;
        geometry.blockSize = 1024;
        geometry.totalBlocks = 16000;
        HfsBuilder builder(geometry);
        builder.useBlocksAtRandom(9).setUsedFrom(4000, 2000);
        for (std::uint32_t block = 8000; block < 15990; ++block) {
            builder.setUsed(block, false);
        }
        writeHfsVolume(directory.file("volume.img"), builder);
    };
    return {"Hfs",
            {"fsstat", "fls", "fshfsinfo"},
            make,
            {{"fsstat", "-f", "hfs"}, {"fls", "-f", "hfs", "-r"}, {"fshfsinfo", "-H"}}};
}

INSTANTIATE_TEST_SUITE_P(Made, RangesFormat,
                         testing::Values(listedExt(), listedFat(), listedNtfs(), listedXfs(), listedHfs()),
                         [](auto const& parameter) { return parameter.param.name; });

} // namespace

} // namespace tests
