// The command on FAT32 volumes: each verb on a sound one, and the volumes whose map is not to be believed.
#include "command/Fsparser.h"
#include "support/FatBuilder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

namespace {

using namespace tests;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/// 204 units of 1 KiB: five up to the root directory, a chain in units 12 and 13, a cluster in unit 152.
FatBuilder makeSound() {
    FatBuilder builder(FatGeometry::tiny());
    return builder.setEntry(10, 11)
        .setEntry(11, fat_entry::kEndOfChain)
        .setEntry(100, fat_entry::kBad)
        .setEntry(150, 3);
}

struct SoundVolume {
    TempDirectory directory;
    std::string path = writeFatVolume(directory.file("volume"), makeSound());
};

/// Runs a verb that must end well and say nothing beside its data.
std::string dataOf(std::vector<std::string> const& arguments) {
    CommandResult const result = fsparser(arguments);
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.error, "");
    return result.output;
}

TEST(CommandFat, IsDetected) {
    SoundVolume const volume;
    EXPECT_EQ(dataOf({"detect", volume.path}), "fat32\n");
    EXPECT_EQ(Json::parse(dataOf({"detect", "--json", volume.path})).at("file_system"), "fat32");
}

TEST(CommandFat, InfoCountsUnitsOfAClusterFromByteZero) {
    SoundVolume const volume;
    Json const document = Json::parse(dataOf({"info", "--json", volume.path}));
    EXPECT_EQ(document.at("file_system"), "fat32");
    EXPECT_EQ(document.at("unit_size"), 1024);
    EXPECT_EQ(document.at("units"), 204);
    EXPECT_EQ(document.at("size"), 208896);
    EXPECT_EQ(document.at("used"), 8);
    EXPECT_EQ(document.at("free"), 196);
    EXPECT_THAT(dataOf({"info", volume.path}), HasSubstr("fat32"));
}

TEST(CommandFat, RangesListTheUsedUnits) {
    SoundVolume const volume;
    EXPECT_EQ(dataOf({"ranges", volume.path}), "0 5\n12 2\n152 1\n");
}

TEST(CommandFat, BitmapIsTheMap) {
    SoundVolume const volume;
    std::string const output = volume.directory.file("used.bin");
    EXPECT_EQ(dataOf({"bitmap", "-o", output, volume.path}), "");
    std::vector<std::uint8_t> expected(26);
    expected[0] = 0x1F;
    expected[1] = 0x30;
    expected[19] = 0x01;
    EXPECT_EQ(readFile(output), expected);
}

TEST(CommandFat, MapDrawsTheShares) {
    SoundVolume const volume;
    std::string const output = dataOf({"map", "--ascii", "--width", "12", "--height", "1", volume.path});
    // 17 units a cell: five and two in the first, one in the ninth.
    EXPECT_THAT(output, HasSubstr("fat32"));
    EXPECT_THAT(output, HasSubstr("\n+.......-...\n"));
}

TEST(CommandFat, LargeVolumeIsMapped) {
    TempDirectory const directory;
    FatBuilder builder({512, 8, 33, 2, 6000, 8 * 760000, 0});
    builder.fillAtRandom(61).setEntry(2, fat_entry::kEndOfChain);
    std::string const path = writeFatVolume(directory.file("volume"), builder);
    std::string const output = directory.file("used.bin");
    dataOf({"bitmap", "-o", output, path});
    std::vector<bool> const map = builder.map();
    std::vector<std::uint8_t> expected((map.size() + 7) / 8);
    for (std::size_t unit = 0; unit < map.size(); ++unit) {
        unsigned const bit = map[unit] ? 1U << (unit % 8) : 0U;
        expected[unit / 8] = static_cast<std::uint8_t>(expected[unit / 8] | bit);
    }
    EXPECT_TRUE(readFile(output) == expected);
}

struct Unbelieved {
    char const* name;
    std::uint64_t field;
    std::uint64_t value;
    unsigned width;
    char const* reason;
};

void PrintTo(Unbelieved const& unbelieved, std::ostream* out) {
    *out << unbelieved.name;
}

/// The parser would answer wrongly, or end the process: nothing counts as free, and the reason is told.
class CommandFatUnbelieved : public testing::TestWithParam<Unbelieved> {
protected:
    void SetUp() override {
        FatBuilder builder = makeSound();
        ASSERT_NE(builder.boot(GetParam().field, GetParam().width), GetParam().value) << "nothing is damaged";
        path = writeFatVolume(directory.file("volume"),
                              builder.setBoot(GetParam().field, GetParam().value, GetParam().width));
    }

    TempDirectory directory;
    std::string path;
};

TEST_P(CommandFatUnbelieved, EverythingCountsAsUsedAndTheReasonIsTold) {
    for (std::string const verb : {"info", "ranges"}) {
        CommandResult const result = fsparser({verb, "--json", path});
        EXPECT_EQ(result.exitCode, 4) << verb << ": " << result;
        EXPECT_THAT(result.error, HasSubstr(GetParam().reason));
        EXPECT_THAT(result.error, HasSubstr("every unit counts as used"));
        Json const document = Json::parse(result.output);
        if (verb == "info") {
            EXPECT_EQ(document.at("used"), document.at("units"));
            EXPECT_EQ(document.at("free"), 0);
        } else {
            ASSERT_EQ(document.at("ranges").size(), 1U);
            EXPECT_EQ(document.at("ranges")[0].at("first"), 0);
            EXPECT_EQ(document.at("ranges")[0].at("count"), document.at("units"));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Fields, CommandFatUnbelieved,
    testing::Values(Unbelieved{"OtherTableIsActive", fat_boot::kExtFlags, 0x81, 2, "mirroring is off"},
                    Unbelieved{"TableThatIsNoneIsActive", fat_boot::kExtFlags, 0x8F, 2, "mirroring is off"},
                    Unbelieved{"TableTooSmall", fat_boot::kSectorsPerFat32, 1, 4, "128 entries"},
                    Unbelieved{"TableOfMoreThan16Bits", fat_boot::kSectorsPerFat32, 0x10002, 4, "sectors per FAT is"},
                    Unbelieved{"NoTables", fat_boot::kNumberOfFats, 0, 1, "there is no table"},
                    Unbelieved{"NoReservedSectors", fat_boot::kReservedSectors, 0, 2, "there is no table"},
                    Unbelieved{"EmptyTables", fat_boot::kSectorsPerFat32, 0, 4, "there is no table"},
                    Unbelieved{"SixteenBitTableSize", fat_boot::kSectorsPerFat16, 2, 2, "sectors per FAT (16 bits)"},
                    Unbelieved{"DataBehindTheEnd", fat_boot::kReservedSectors, 0xFFFF, 2, "the data area begins at"},
                    Unbelieved{"DataInsideUnitZero", fat_boot::kSectorsPerCluster, 128, 1, "the data area begins at"},
                    Unbelieved{"MoreClustersThanNumbers", fat_boot::kTotalSectors32, 0xFFFFFFFF, 4, "clusters"},
                    Unbelieved{"RootDirectoryNowhere", fat_boot::kRootCluster, 1000, 4, "the root directory"},
                    Unbelieved{"RootDirectoryFree", fat_boot::kRootCluster, 50, 4, "the root directory"},
                    Unbelieved{"OtherMedia", fat_boot::kMedia, 0xF0, 1, "the table begins with"}),
    [](auto const& instance) { return std::string(instance.param.name); });

TEST(CommandFatBitmap, HasEveryUnitsBitSetWhereTheMapIsNotBelieved) {
    TempDirectory const directory;
    std::string const output = directory.file("used.bin");
    for (auto const& builder :
         {makeSound().setBoot(fat_boot::kExtFlags, 0x81, 2), makeSound().setBoot(fat_boot::kSectorsPerFat32, 1, 4)}) {
        std::string const path = writeFatVolume(directory.file("volume"), builder);
        CommandResult const result = fsparser({"bitmap", "-o", output, path});
        EXPECT_EQ(result.exitCode, 4) << result;
        std::vector<std::uint8_t> expected(26, 0xFF);
        expected.back() = 0x0F; // 204 units
        EXPECT_EQ(readFile(output), expected);
    }
}

TEST(CommandFatFlags, FirstTableActiveOrMirroredIsBelieved) {
    TempDirectory const directory;
    for (std::uint64_t const flags : {0x80U, 0x01U}) {
        std::string const path =
            writeFatVolume(directory.file("volume"), makeSound().setBoot(fat_boot::kExtFlags, flags, 2));
        EXPECT_EQ(dataOf({"ranges", path}), "0 5\n12 2\n152 1\n") << flags;
    }
}

TEST(CommandFatLimits, TablesOf65536SectorsAreNotBelieved) {
    if (!findProgram("mkfs.fat")) {
        GTEST_SKIP() << "mkfs.fat is not installed";
    }
    TempDirectory const directory(TempDirectory::Place::Memory);
    // 8.4 million clusters of 512 bytes; the file is nearly all hole but for the table.
    std::string const path = writeFile(directory.file("volume"), {});
    std::filesystem::resize_file(path, std::uint64_t{8500000} * 512);
    CommandResult const made = runCommand({"mkfs.fat", "-F", "32", "-s", "1", "-f", "1", path});
    ASSERT_EQ(made.exitCode, 0) << made;
    CommandResult const result = fsparser({"ranges", "--json", path});
    EXPECT_EQ(result.exitCode, 4) << result;
    EXPECT_THAT(result.error, HasSubstr("the parser keeps 16 bits of it"));
    Json const document = Json::parse(result.output);
    ASSERT_EQ(document.at("ranges").size(), 1U);
    EXPECT_EQ(document.at("ranges")[0].at("count"), document.at("units"));
}

struct Refused {
    char const* name;
    std::uint64_t field;
    std::uint64_t value;
    unsigned width;
};

void PrintTo(Refused const& refused, std::ostream* out) {
    *out << refused.name;
}

/// The boot sector describes no volume at all: there is no unit to call used.
class CommandFatRefused : public testing::TestWithParam<Refused> {};

TEST_P(CommandFatRefused, IsNotUnderstood) {
    TempDirectory const directory;
    std::string const path = writeFatVolume(directory.file("volume"),
                                            makeSound().setBoot(GetParam().field, GetParam().value, GetParam().width));
    for (std::string const verb : {"info", "ranges", "map", "bitmap"}) {
        CommandResult const result = fsparser({verb, path});
        EXPECT_EQ(result.exitCode, 3) << verb << ": " << result;
        EXPECT_EQ(result.output, "");
        EXPECT_THAT(result.error, HasSubstr(path + ": the FAT boot sector at byte 0 describes no volume"));
    }
}

INSTANTIATE_TEST_SUITE_P(Fields, CommandFatRefused,
                         testing::Values(Refused{"SectorsOfNothing", fat_boot::kBytesPerSector, 0, 2},
                                         Refused{"SectorsOf1", fat_boot::kBytesPerSector, 1, 2},
                                         Refused{"SectorsOf513", fat_boot::kBytesPerSector, 513, 2},
                                         Refused{"SectorsOf32K", fat_boot::kBytesPerSector, 0x8000, 2},
                                         Refused{"ClustersOfNothing", fat_boot::kSectorsPerCluster, 0, 1},
                                         Refused{"ClustersOf3", fat_boot::kSectorsPerCluster, 3, 1},
                                         Refused{"ClustersOf255", fat_boot::kSectorsPerCluster, 255, 1},
                                         Refused{"NoSectors", fat_boot::kTotalSectors32, 0, 4}),
                         [](auto const& instance) { return std::string(instance.param.name); });

TEST(CommandFatTruncated, InsideTheTableIsAnError) {
    TempDirectory const directory;
    for (std::uint64_t const size : {std::uint64_t{2048}, std::uint64_t{2500}, std::uint64_t{2560}}) {
        std::string const path = writeFile(directory.file("volume"), makeSound().resize(size).bytes);
        CommandResult const result = fsparser({"ranges", path});
        EXPECT_EQ(result.exitCode, 1) << size << ": " << result;
        EXPECT_EQ(result.output, "") << "a part of a map must not pass for one";
        EXPECT_THAT(result.error, HasSubstr(path));
    }
}

TEST(CommandFatTruncated, InsideTheDataIsMappedWithAWarning) {
    TempDirectory const directory;
    std::string const path = writeFile(directory.file("volume"), makeSound().resize(100000).bytes);
    CommandResult const result = fsparser({"ranges", path});
    EXPECT_EQ(result.exitCode, 4) << result;
    EXPECT_EQ(result.output, "0 5\n12 2\n152 1\n");
    EXPECT_THAT(result.error, HasSubstr("ends at byte 100000, 108896 bytes before the end"));
}

TEST(CommandFatTypes, OtherFatVolumesAreNamedAndNotRead) {
    TempDirectory const directory;
    for (std::string const label : {"FAT12   ", "FAT16   "}) {
        std::string const path =
            writeFatVolume(directory.file("volume"), makeSound().setText(fat_boot::kOldLabel, label));
        CommandResult const result = fsparser({"detect", path});
        EXPECT_EQ(result.exitCode, 3) << result;
        EXPECT_EQ(result.output, "vfat\n");
        EXPECT_EQ(result.error, "fsparser: " + path + ": holds vfat, which is not read\n");
    }
}

} // namespace
