// The verb `map` with --png and --svg: what the images show, and where they go.
#include "cli/Picture.h"
#include "command/Fsparser.h"
#include "command/Terminal.h"
#include "support/VolumeFiles.h"
#include "support/XfsBuilder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cairo.h>
#include <memory>
#include <stdexcept>
#include <sys/mount.h>

namespace {

using namespace tests;
using cli::kGridLeft;
using cli::kGridTop;
using testing::ElementsAre;
using testing::HasSubstr;

using Color = std::uint32_t;

constexpr Color kBackground = 0xFFFFFF;
constexpr Color kFree = 0xF1F3F4;
constexpr Color kQuarter = 0xC7E9B4;
constexpr Color kHalf = 0x7FCDBB;
constexpr Color kThreeQuarters = 0x41B0CE;
constexpr Color kBelowAll = 0x2E75C4;
constexpr Color kUsed = 0x081D58;
constexpr Color kJournal = 0xD55E00;

/// A decoded PNG.
class Image {
public:
    explicit Image(std::string const& path)
        : surface_(cairo_image_surface_create_from_png(path.c_str()), cairo_surface_destroy) {
        if (cairo_surface_status(surface_.get()) != CAIRO_STATUS_SUCCESS) {
            throw std::runtime_error(path + " is no PNG");
        }
    }

    std::size_t width() const { return static_cast<std::size_t>(cairo_image_surface_get_width(surface_.get())); }
    std::size_t height() const { return static_cast<std::size_t>(cairo_image_surface_get_height(surface_.get())); }

    Color pixel(std::size_t x, std::size_t y) const {
        auto const stride = static_cast<std::size_t>(cairo_image_surface_get_stride(surface_.get()));
        std::uint8_t const* const at = cairo_image_surface_get_data(surface_.get()) + y * stride + x * 4;
        return static_cast<Color>(at[2]) << 16U | static_cast<Color>(at[1]) << 8U | at[0]; // little-endian words
    }

    /// The colour in the middle of a cell.
    Color cell(std::size_t index, std::size_t columns, std::size_t side) const {
        return pixel(kGridLeft + index % columns * side + side / 2, kGridTop + index / columns * side + side / 2);
    }

    std::vector<Color> cells(std::size_t count, std::size_t columns, std::size_t side) const {
        std::vector<Color> colors;
        for (std::size_t index = 0; index < count; ++index) {
            colors.push_back(cell(index, columns, side));
        }
        return colors;
    }

    bool has(Color color) const {
        for (std::size_t y = 0; y < height(); ++y) {
            for (std::size_t x = 0; x < width(); ++x) {
                if (pixel(x, y) == color) {
                    return true;
                }
            }
        }
        return false;
    }

private:
    std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)> surface_;
};

/// Runs `map --png` with arguments; nothing may go to standard output.
Image drawn(TempDirectory const& directory, std::vector<std::string> arguments, int exitCode = 0) {
    std::string const path = directory.file("map.png");
    arguments.insert(arguments.begin(), {"map", "--png", path});
    CommandResult const result = fsparser(arguments);
    EXPECT_EQ(result.exitCode, exitCode) << result;
    EXPECT_EQ(result.output, "");
    return Image(path);
}

std::string textOf(std::string const& path) {
    std::vector<std::uint8_t> const bytes = readFile(path);
    return {bytes.begin(), bytes.end()};
}

TEST(CommandPicture, OfASmallVolumeHasACellAUnit) {
    ThousandBlocks const volume;
    Image const image = drawn(volume.directory, {volume.path});
    std::vector<bool> const used = makeThousandBlocks().map();
    for (std::size_t unit = 0; unit < used.size(); ++unit) {
        ASSERT_EQ(image.cell(unit, 64, 16), used[unit] ? kUsed : kFree) << unit;
    }
    EXPECT_EQ(image.cell(1000, 64, 16), kBackground) << "past the last unit";
    EXPECT_LE(image.width(), 1200U);
    EXPECT_LE(image.height(), 800U);
}

TEST(CommandPicture, CellsAreSquaresWithAGapOfAPixel) {
    ThousandBlocks const volume;
    Image const image = drawn(volume.directory, {volume.path});
    for (std::size_t const offset : {0U, 7U, 14U}) {
        EXPECT_EQ(image.pixel(kGridLeft + offset, kGridTop + 5), kUsed);
        EXPECT_EQ(image.pixel(kGridLeft + 5, kGridTop + offset), kUsed);
    }
    EXPECT_NE(image.pixel(kGridLeft + 15, kGridTop + 5), kUsed);
    EXPECT_NE(image.pixel(kGridLeft + 5, kGridTop + 15), kUsed);
    EXPECT_EQ(image.pixel(kGridLeft + 16, kGridTop + 5), kUsed);
}

TEST(CommandPicture, TheColourTellsTheShare) {
    TempDirectory const directory;
    ExtBuilder builder = makeSoundExtVolume(ExtGeometry::with4KiBBlocks(1000));
    constexpr std::array<std::uint64_t, 10> kUsedUnits{100, 1, 25, 26, 50, 51, 75, 76, 99, 0};
    for (std::uint64_t cell = 0; cell < 10; ++cell) {
        builder.setUsedFrom(cell * 100, kUsedUnits.at(cell));
    }
    std::string const path = writeExtVolume(directory.file("volume"), builder);
    Image const image = drawn(directory, {"--width", "10", "--height", "1", path});
    EXPECT_THAT(image.cells(10, 10, 32), ElementsAre(kUsed, kQuarter, kQuarter, kHalf, kHalf, kThreeQuarters,
                                                     kThreeQuarters, kBelowAll, kBelowAll, kFree));
}

/// 10^9 blocks: the first 10000 groups are full, the next 10000 have three blocks of eight, the others are free. The
/// groups of a kind share a bitmap.
std::string writeBillionBlocks(std::string const& path) {
    constexpr std::uint32_t kBlocks = 1'000'000'000;
    ExtBuilder builder = makeSoundExtVolume(ExtGeometry::with4KiBBlocks(32768));
    builder.setSuper32(ext_super::kBlocksCountLow, kBlocks);
    std::uint64_t const groups = (std::uint64_t{kBlocks} + 32767) / 32768;
    std::uint32_t const bitmaps = static_cast<std::uint32_t>((4096 + groups * 32) / 4096 + 1);
    builder.resize((std::uint64_t{bitmaps} + 3) * 4096);
    for (std::uint64_t group = 0; group < groups; ++group) {
        std::uint32_t const kind = group < 10000 ? 0 : group < 20000 ? 1 : 2;
        for (unsigned i = 0; i < 4; ++i) {
            builder.bytes[4096 + group * 32 + i] = static_cast<std::uint8_t>((bitmaps + kind) >> (8 * i));
        }
    }
    auto const first = builder.bytes.begin() + static_cast<std::ptrdiff_t>(bitmaps) * 4096;
    std::fill(first, first + 4096, std::uint8_t{0xFF});
    std::fill(first + 4096, first + 8192, std::uint8_t{0x07});
    writeFile(path, builder.bytes);
    std::filesystem::resize_file(path, std::uint64_t{kBlocks} * 4096);
    return path;
}

TEST(CommandPicture, OfABillionUnitsShowsWhereTheSharesChange) {
    TempDirectory const directory;
    Image const image = drawn(directory, {writeBillionBlocks(directory.file("volume"))});
    EXPECT_LE(image.width(), 1200U);
    EXPECT_LE(image.height(), 800U);
    constexpr std::uint64_t kCellUnits = 156'250; // 128 by 50 cells
    constexpr std::uint64_t kFullEnd = std::uint64_t{10'000} * 32768;
    constexpr std::uint64_t kSharedEnd = std::uint64_t{20'000} * 32768;
    for (std::size_t cell = 0; cell < std::size_t{128} * 50; ++cell) {
        std::uint64_t const first = cell * kCellUnits;
        std::uint64_t const end = first + kCellUnits;
        bool const isMixed = (first < kFullEnd && end > kFullEnd) || (first < kSharedEnd && end > kSharedEnd);
        if (!isMixed) {
            ASSERT_EQ(image.cell(cell, 128, 8), first < kFullEnd ? kUsed : first < kSharedEnd ? kHalf : kFree) << cell;
        }
    }
}

TEST(CommandPicture, OfABillionUnitsOfNothingUnderstoodIsUsedAsAWhole) {
    TempDirectory const directory;
    std::string const path = writeFile(directory.file("volume"), {});
    std::filesystem::resize_file(path, std::uint64_t{1'000'000'000} * 512);
    Image const image = drawn(directory, {"--unit", "512", path});
    EXPECT_THAT(image.cells(std::size_t{128} * 50, 128, 8), testing::Each(kUsed));
}

TEST(CommandPicture, OfANearlyFullVolumeShowsItsOneFreeUnit) {
    TempDirectory const directory;
    ExtBuilder builder = makeSoundExtVolume(ExtGeometry::with4KiBBlocks(81920));
    builder.setUsedFrom(0, 81920).setUsed(54321, false);
    std::string const path = writeExtVolume(directory.file("volume"), builder);
    Image const image = drawn(directory, {path, "--svg", directory.file("map.svg")});
    for (std::size_t cell = 0; cell < 8192; ++cell) {
        ASSERT_EQ(image.cell(cell, 128, 8), cell == 5432 ? kBelowAll : kUsed) << cell;
    }
    EXPECT_THAT(textOf(directory.file("map.svg")), HasSubstr("over 99.9 % used"));
}

TEST(CommandPicture, SaysWhatMostCellsStandFor) {
    TempDirectory const directory;
    ExtBuilder builder = makeSoundExtVolume(ExtGeometry::with4KiBBlocks(16383));
    std::string const path = writeExtVolume(directory.file("volume"), builder.setUsedFrom(0, 16383));
    std::string const svg = directory.file("map.svg");
    EXPECT_EQ(fsparser({"map", "--svg", svg, path}).exitCode, 0);
    EXPECT_THAT(textOf(svg), HasSubstr("100 % used (64 MiB)  ·  a cell is about 8 KiB (1 or 2 units)"));
}

TEST(CommandPicture, TheGridIsAsWideAndHighAsAskedFor) {
    ThousandBlocks const volume;
    std::vector<Color> const cells =
        drawn(volume.directory, {"--width", "5", "--height", "4", volume.path}).cells(20, 5, 32);
    EXPECT_THAT(cells, ElementsAre(kUsed, kUsed, kFree, kFree, kFree, kFree, kFree, kFree, kFree, kFree, kUsed, kUsed,
                                   kFree, kQuarter, kFree, kFree, kFree, kFree, kFree, kFree));
    Image const wide = drawn(volume.directory, {"--width", "500", volume.path});
    EXPECT_EQ(wide.cells(100, 500, 6), std::vector<Color>(100, kUsed)) << "cells of six pixels are the least";
    EXPECT_EQ(wide.cell(100, 500, 6), kFree);
}

TEST(CommandPicture, TheJournalIsOutlined) {
    TempDirectory const directory;
    XfsGeometry geometry;
    geometry.logStart = (std::uint64_t{1} << geometry.groupBlocksLog()) + 100; // unit 600
    geometry.logBlocks = 128;
    std::string const path = writeFile(directory.file("volume"), XfsBuilder(geometry).bytes);
    std::filesystem::resize_file(path, geometry.totalBlocks * geometry.blockSize);
    Image const image = drawn(directory, {path, "--svg", directory.file("map.svg")});
    // From cell 24 of line 9 to cell 23 of line 11.
    auto const at = [&image](std::size_t column, std::size_t line, std::size_t x, std::size_t y) {
        return image.pixel(kGridLeft + column * 16 + x, kGridTop + line * 16 + y);
    };
    EXPECT_EQ(at(23, 9, 15, 8), kJournal) << "before its first cell";
    EXPECT_EQ(at(23, 11, 15, 8), kJournal) << "behind its last cell";
    EXPECT_EQ(at(40, 8, 8, 15), kJournal) << "above its first line";
    EXPECT_EQ(at(10, 11, 8, 15), kJournal) << "below its last line";
    EXPECT_EQ(at(40, 10, 8, 15), kJournal) << "below the cells that its last line lacks";
    EXPECT_NE(at(10, 9, 8, 15), at(30, 9, 8, 15)) << "no line runs through it";
    EXPECT_EQ(image.cell(600, 64, 16), kUsed);
    EXPECT_THAT(textOf(directory.file("map.svg")), HasSubstr("Outlined journal: 64 KiB at 300 KiB."));

    ThousandBlocks const other;
    EXPECT_FALSE(drawn(directory, {other.path}).has(kJournal)) << "no journal that the header tells";
}

TEST(CommandPicture, AnSvgIsXmlWithTitleAndLegendAsText) {
    auto const python = findProgram("python3");
    if (!python) {
        GTEST_SKIP() << "python3 is not there to parse XML";
    }
    TempDirectory const directory;
    std::string const path = writeExtVolume(directory.file("a<b> & \xFF\x01\xED\xA0\x80.img"), makeThousandBlocks());
    std::string const svg = directory.file("map.svg");
    CommandResult const result = fsparser({"map", "--svg", svg, path});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.output, "");
    CommandResult const parsed = runCommand(
        {*python, "-c",
         "import sys, xml.etree.ElementTree as tree\n"
         "root = tree.parse(sys.argv[1]).getroot()\n"
         "space = '{http://www.w3.org/2000/svg}'\n"
         "print(ascii([root.tag == space + 'svg', root.find(space + 'title').text, root.find(space + 'desc').text]))\n",
         svg});
    EXPECT_EQ(parsed.output, "[True, 'a<b> & \\ufffd\\ufffd\\ufffd\\ufffd\\ufffd.img  \\xb7  ext  \\xb7  3.91 MiB', "
                             "'1000 units of 4 KiB  \\xb7  20.1 % used (804 KiB)  \\xb7  a cell is one unit. "
                             "Cells: free, up to 1/4 used, up to 1/2, up to 3/4, below all, used.']\n")
        << parsed;
}

TEST(CommandPicture, PngAndSvgAreDrawnTogether) {
    ThousandBlocks const volume;
    std::string const png = volume.directory.file("map.png");
    std::string const svg = volume.directory.file("map.svg");
    EXPECT_EQ(fsparser({"map", "--png", png, "--svg", svg, volume.path}).exitCode, 0);
    EXPECT_THAT(namesIn(volume.directory), ElementsAre("map.png", "map.svg", "volume"));
    CommandResult const alone = fsparser({"map", "--png", "-", volume.path});
    EXPECT_TRUE(alone.output == textOf(png)) << "standard output has the same bytes";
    CommandResult const both = fsparser({"map", "--png", png, "--svg", "-", volume.path});
    EXPECT_TRUE(both.output == textOf(svg));
}

TEST(CommandPicture, JsonTellsTheCellsOfThePicture) {
    ThousandBlocks const volume;
    CommandResult const result = fsparser({"map", "--json", "--png", volume.directory.file("map.png"), volume.path});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(Json::parse(result.output)["cells"].size(), 1000U);
}

TEST(CommandPicture, OfAnInconsistentVolumeIsDrawnAndSaysSo) {
    ThousandBlocks const volume;
    std::filesystem::resize_file(volume.path, std::uint64_t{900} * 4096);
    std::string const svg = volume.directory.file("map.svg");
    CommandResult const result = fsparser({"map", "--svg", svg, volume.path});
    EXPECT_EQ(result.exitCode, 4) << result;
    EXPECT_THAT(result.error, HasSubstr("warning: "));
    EXPECT_THAT(textOf(svg), HasSubstr(" Warning: " + volume.path + ": ends at byte 3686400"));
}

/// A run that must fail with one sentence and leave the directory as it was.
void expectRefusal(ThousandBlocks const& volume, std::string const& output, std::string const& sentence) {
    auto const names = namesIn(volume.directory);
    auto const content = readFile(volume.path);
    for (std::string const option : {"--png", "--svg"}) {
        CommandResult const result = fsparser({"map", option, output, volume.path});
        EXPECT_EQ(result.exitCode, 1) << result;
        EXPECT_EQ(result.output, "");
        EXPECT_EQ(result.error, "fsparser: " + output + ": " + sentence + "\n");
        EXPECT_EQ(namesIn(volume.directory), names);
        EXPECT_TRUE(readFile(volume.path) == content);
    }
}

TEST(CommandPictureFile, TheVolumeItselfAndWhatIsNoFileAreLeftAlone) {
    ThousandBlocks const volume;
    std::filesystem::create_symlink(volume.path, volume.directory.file("symbolic"));
    std::filesystem::create_hard_link(volume.path, volume.directory.file("hard"));
    for (std::string const& output : {volume.path, volume.directory.file("symbolic"), volume.directory.file("hard")}) {
        expectRefusal(volume, output, "is the volume itself; it is left alone");
    }
    expectRefusal(volume, volume.directory.path().string(), "exists and is not a regular file; it is left alone");
    expectRefusal(volume, "/dev/null", "exists and is not a regular file; it is left alone");
    expectRefusal(volume, volume.directory.file("missing/map.png"), "cannot be created: No such file or directory");
}

TEST(CommandPictureFile, IsNotThereWhenTheOtherOneCannotBe) {
    ThousandBlocks const volume;
    CommandResult const result = fsparser({"map", "--png", volume.directory.file("map.png"), "--svg",
                                           volume.directory.file("missing/map.svg"), volume.path});
    EXPECT_EQ(result.exitCode, 1) << result;
    EXPECT_THAT(namesIn(volume.directory), ElementsAre("volume"));
}

TEST(CommandPictureFile, AWalkThatFailsLeavesTheOldFileAndNoTemporaryOne) {
    TempDirectory const directory;
    std::string const path = writeBrokenVolume(directory.file("volume"));
    std::string const output = writeFile(directory.file("map.png"), {1, 2, 3});
    for (std::vector<std::string> const& images :
         std::vector<std::vector<std::string>>{{"--png", output}, {"--svg", output}, {"--png", "-"}, {"--svg", "-"}}) {
        CommandResult const result = fsparser({"map", images[0], images[1], path});
        EXPECT_EQ(result.exitCode, 1) << result;
        EXPECT_EQ(result.output, "");
        EXPECT_EQ(result.error, brokenVolumeSentence(path));
        EXPECT_EQ(readFile(output), (std::vector<std::uint8_t>{1, 2, 3}));
        EXPECT_THAT(namesIn(directory), ElementsAre("map.png", "volume"));
    }
}

TEST(CommandPictureFile, AFullDiskLeavesTheOldFileAndNoTemporaryOne) {
    ThousandBlocks const volume;
    TempDirectory const directory;
    if (::mount("tmpfs", directory.path().c_str(), "tmpfs", 0, "size=8k") != 0) {
        GTEST_SKIP() << "a small file system cannot be mounted here";
    }
    std::string const output = writeFile(directory.file("map.png"), {1, 2, 3});
    CommandResult const result = fsparser({"map", "--png", output, volume.path});
    EXPECT_EQ(result.exitCode, 1) << result;
    EXPECT_EQ(result.error, "fsparser: " + output + ": cannot be written: No space left on device\n");
    EXPECT_EQ(readFile(output), (std::vector<std::uint8_t>{1, 2, 3}));
    EXPECT_THAT(namesIn(directory), ElementsAre("map.png"));
    ::umount2(directory.path().c_str(), MNT_DETACH);
}

TEST(CommandPictureFile, AFullStandardOutputIsNamed) {
    ThousandBlocks const volume;
    CommandOptions full = plainOptions();
    full.outputPath = "/dev/full";
    std::string const svg = volume.directory.file("map.svg");
    CommandResult const result = fsparser({"map", "--png", "-", "--svg", svg, volume.path}, full);
    EXPECT_EQ(result.exitCode, 1) << result;
    EXPECT_EQ(result.error, "fsparser: standard output: cannot be written: No space left on device\n");
    EXPECT_FALSE(std::filesystem::exists(svg)) << "nothing is done by halves";
}

TEST(CommandPictureUsage, ContradictionsAreUsageErrors) {
    ThousandBlocks const volume;
    std::string const file = volume.directory.file("map");
    for (auto const& images : std::vector<std::vector<std::string>>{
             {"--png", ""},
             {"--svg", ""},
             {"--png", file, "--svg", file},
             {"--png", file, "--svg", volume.directory.file("./map")},
             {"--png", "-", "--svg", "-"},
             {"--json", "--png", "-"},
             {"--json", "--svg", "-", "--png", file},
         }) {
        std::vector<std::string> arguments{"map", volume.path};
        arguments.insert(arguments.end(), images.begin(), images.end());
        CommandResult const result = fsparser(arguments);
        EXPECT_EQ(result.exitCode, 2) << result;
        EXPECT_EQ(result.output, "");
        EXPECT_THAT(namesIn(volume.directory), ElementsAre("volume"));
    }
}

TEST(CommandPictureUsage, APngIsNotPrintedOnATerminal) {
    ThousandBlocks const volume;
    Terminal const terminal(80, 24);
    CommandResult const result = terminal.run({FSPARSER_COMMAND, "map", "--png", "-", volume.path}, plainOptions());
    EXPECT_EQ(result.exitCode, 2) << result;
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.error, HasSubstr("standard output is a terminal; name a FILE"));
}

} // namespace
