// Real ext volumes that were cut off, made longer or damaged: the truth, an error with its reason, or used; never free.
#include "imaging/Error.h"
#include "support/ExtBuilder.h"
#include "support/TempDirectory.h"
#include "volumes/ExtRecipe.h"
#include "volumes/VolumeAnswers.h"

#include <filesystem>
#include <gmock/gmock.h>

namespace tests {

namespace {

constexpr std::uint64_t kBlockBytes = 1024;
constexpr std::uint64_t kKibibytes = 32768;
constexpr std::uint64_t kBytes = kKibibytes * 1024;
constexpr std::uint64_t kBlocksPerGroup = 8192;

ExtRecipe const kBitmapsTogether{"BitmapsTogether", {"-t", "ext4", "-b", "1024"}, kKibibytes, Fill::Holes};
ExtRecipe const kBitmapsInEachGroup{"BitmapsInEachGroup", {"-t", "ext3", "-b", "1024"}, kKibibytes, Fill::Holes};

class DamagedExtVolume : public testing::TestWithParam<ExtRecipe> {
protected:
    void SetUp() override {
        if (auto const reason = missingProgram({"mke2fs", "debugfs", "dumpe2fs"})) {
            GTEST_SKIP() << *reason;
        }
        volume = makeExtVolume(GetParam(), directory.path());
        expected = withKeptDifferences(dumpVolume(volume));
        ASSERT_EQ(expected.size(), kKibibytes);
    }

    void resize(std::uint64_t bytes) const { std::filesystem::resize_file(volume, bytes); }

    /// The byte where a group's bitmap stands.
    std::uint64_t bitmapOffset(std::uint64_t group) const {
        return readField(volume, descriptorOffset(group) + ext_group::kBitmapLocationLow, 4) * kBlockBytes;
    }

    std::uint64_t descriptorOffset(std::uint64_t group) const { return 2 * kBlockBytes + group * descriptorBytes(); }

    std::uint64_t descriptorBytes() const {
        std::uint64_t const features = readField(volume, kExtSuperBlockOffset + ext_super::kIncompatibleFeatures, 4);
        return (features & kExt64Bit) != 0 ? 64 : 32;
    }

    TempDirectory directory{TempDirectory::Place::Memory};
    std::string volume;
    BlockMap expected;
};

std::uint64_t usedBlocks(BlockMap const& map) {
    return static_cast<std::uint64_t>(std::count(map.begin(), map.end(), true));
}

TEST_P(DamagedExtVolume, HasItsWholeMapOrAReasonWhereverItIsCut) {
    std::uint64_t const groups = expected.size() / kBlocksPerGroup;
    std::vector<std::uint64_t> cuts{2048, 2049, 3071, 3072, kBytes - 1, kBytes - 512, kBytes - kBlockBytes};
    for (std::uint64_t group = 0; group < groups; ++group) {
        std::uint64_t const bitmap = bitmapOffset(group);
        cuts.insert(cuts.end(), {bitmap - 1, bitmap, bitmap + 1, bitmap + 513, bitmap + 1023, bitmap + 1024});
        cuts.push_back(group * kBlocksPerGroup * kBlockBytes + 5 * kBlockBytes / 2 + 2048);
    }
    std::sort(cuts.rbegin(), cuts.rend());
    unsigned whole = 0;
    unsigned refused = 0;
    for (std::uint64_t const cut : cuts) {
        resize(cut);
        try {
            LibraryMap const map = readMap(volume);
            bool const isTableCut = cut < descriptorOffset(0) + groups * descriptorBytes();
            EXPECT_EQ(differences(map.used, isTableCut ? BlockMap(expected.size(), true) : expected), "")
                << "cut at " << cut;
            ASSERT_EQ(map.totals.warnings.size(), isTableCut ? 2U : 1U);
            EXPECT_EQ(map.totals.warnings.back(), volume + ": ends at byte " + std::to_string(cut) + ", " +
                                                      std::to_string(kBytes - cut) +
                                                      " bytes before the end of its ext file system");
            ++whole;
        } catch (imaging::VolumeError const& error) {
            EXPECT_EQ(error.trouble(), imaging::Trouble::Io) << error.what();
            EXPECT_THAT(std::string(error.what()),
                        testing::AllOf(testing::StartsWith(volume + ": "),
                                       testing::HasSubstr("The volume delivers nothing at byte "),
                                       testing::HasSubstr("(it has " + std::to_string(cut) + " bytes)")));
            ++refused;
        }
    }
    EXPECT_GT(whole, 0U);
    EXPECT_GT(refused, 0U);
}

TEST_P(DamagedExtVolume, IsRefusedByTheCommandWhenABitmapIsCutOff) {
    std::uint64_t const cut = bitmapOffset(0) + 512;
    resize(cut);
    std::string const output = directory.file("used.bin");
    CommandResult const bitmap = runFsparser({"bitmap", "-o", output, volume});
    EXPECT_EQ(bitmap.exitCode, 1) << bitmap;
    EXPECT_EQ(bitmap.output, "");
    EXPECT_FALSE(std::filesystem::exists(output));
    EXPECT_THAT(bitmap.error, testing::StartsWith("fsparser: " + volume + ": the map cannot be read from unit 0 on: "));
    EXPECT_THAT(bitmap.error, testing::HasSubstr(std::to_string(cut)));
    EXPECT_EQ(std::count(bitmap.error.begin(), bitmap.error.end(), '\n'), 1) << bitmap.error;

    CommandResult const ranges = runFsparser({"ranges", "--json", volume});
    EXPECT_EQ(ranges.exitCode, 1) << ranges;
    EXPECT_TRUE(nlohmann::json::parse(ranges.output, nullptr, false).is_discarded());
}

TEST_P(DamagedExtVolume, IsMappedWholeWhenOnlyItsLastBlocksAreCutOff) {
    resize(kBytes - 3 * kBlockBytes);
    CommandResult const result = runFsparser({"ranges", "--json", volume});
    EXPECT_EQ(result.exitCode, 4) << result;
    auto const document = nlohmann::json::parse(result.output);
    EXPECT_EQ(differences(mapFromRanges(document), expected), "");
    EXPECT_EQ(document.at("warnings").size(), 1U);
    EXPECT_THAT(result.error, testing::HasSubstr("3072 bytes before the end"));
}

TEST_P(DamagedExtVolume, HasBytesPastTheLastUnitWhenItIsLonger) {
    for (unsigned const more : {512U, 1U, 1000U, 5000U}) {
        resize(kBytes + more);
        CommandResult const result = runFsparser({"info", "--json", volume});
        EXPECT_EQ(result.exitCode, 0) << result;
        EXPECT_EQ(result.error, "");
        auto const document = nlohmann::json::parse(result.output);
        EXPECT_EQ(document.at("past_last_unit"), more);
        EXPECT_EQ(document.at("size"), kBytes + more);
        EXPECT_EQ(document.at("units"), expected.size());
        EXPECT_EQ(document.at("used"), usedBlocks(expected));
        EXPECT_EQ(differences(readMap(volume).used, expected), "") << more;
    }
}

TEST_P(DamagedExtVolume, CountsAsUsedWhenABitmapLiesWhereNoneCanBe) {
    std::uint64_t const lastGroup = expected.size() / kBlocksPerGroup - 1;
    for (std::uint64_t const location : {std::uint64_t{0}, kKibibytes, std::uint64_t{0xFFFFFFFF}}) {
        changeField(volume, descriptorOffset(lastGroup) + ext_group::kBitmapLocationLow, location, 4);
        CommandResult const result = runFsparser({"ranges", "--json", volume});
        EXPECT_EQ(result.exitCode, 4) << result;
        auto const document = nlohmann::json::parse(result.output);
        EXPECT_EQ(differences(mapFromRanges(document), BlockMap(expected.size(), true)), "") << location;
        EXPECT_EQ(
            document.at("warnings"),
            nlohmann::json::array({volume + ": the descriptor of group " + std::to_string(lastGroup) +
                                   " puts its block bitmap at block " + std::to_string(location) +
                                   ", where none can be (the volume has 32768 blocks); every unit counts as used"}));
    }
}

INSTANTIATE_TEST_SUITE_P(Made, DamagedExtVolume, testing::Values(kBitmapsTogether, kBitmapsInEachGroup), recipeName);

} // namespace

} // namespace tests
