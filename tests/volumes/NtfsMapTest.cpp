// The maps of real NTFS volumes, cluster by cluster against what independent tools say.
#include "support/TempDirectory.h"
#include "volumes/ExtRecipe.h"
#include "volumes/NtfsFill.h"
#include "volumes/NtfsOracles.h"
#include "volumes/NtfsVolume.h"
#include "volumes/VolumeAnswers.h"

#include <gmock/gmock.h>

namespace tests {

namespace {

/// Whether a record has an attribute list of its own, as its owner's tool prints it.
bool hasAttributeList(std::string const& volume, std::uint64_t record) {
    return runTool({"istat", "-f", "ntfs", volume, std::to_string(record)}).output.find("$ATTRIBUTE_LIST (32-") !=
           std::string::npos;
}

void expectMapOfNtfscat(std::string const& volume, NtfsRecipe const& recipe) {
    LibraryMap const map = readMap(volume);
    EXPECT_EQ(map.geometry.unitSize, recipe.clusterBytes);
    // The last sector holds the copy of the boot sector and belongs to no cluster.
    EXPECT_EQ(map.geometry.units, ((recipe.mebibytes << 20) - recipe.sectorBytes) / recipe.clusterBytes);
    EXPECT_EQ(differences(map.used, mapFromNtfscat(volume, map.geometry.units)), "");
    EXPECT_THAT(map.totals.warnings, testing::IsEmpty());
    EXPECT_EQ(map.bytesPastLastUnit, (recipe.mebibytes << 20) - map.geometry.units * recipe.clusterBytes);

    CommandResult const ranges = runFsparser({"ranges", "--json", volume});
    ASSERT_EQ(ranges.exitCode, 0) << ranges;
    EXPECT_EQ(differences(mapFromRanges(nlohmann::json::parse(ranges.output)), map.used), "");
    CommandResult const bitmap = runFsparser({"bitmap", volume});
    ASSERT_EQ(bitmap.exitCode, 0);
    EXPECT_TRUE(bitmap.output == bitmapOf(map.used));
}

class CopiedIntoNtfs : public testing::TestWithParam<NtfsRecipe> {};

TEST_P(CopiedIntoNtfs, IsMappedAsNtfscatSays) {
    if (auto const reason = missingProgram({"mkfs.ntfs", "ntfscp", "ntfscat"})) {
        GTEST_SKIP() << *reason;
    }
    TempDirectory const directory;
    std::string const volume = makeNtfsVolume(GetParam(), directory.file("volume.img"));
    for (unsigned i = 0; i < 12; ++i) {
        std::string const source = directory.file("source");
        std::filesystem::remove(source);
        writeLetters(source, std::size_t{37} * i * i * i);
        copyIntoNtfs(volume, source, "/file" + std::to_string(i));
    }
    expectMapOfNtfscat(volume, GetParam());
}

INSTANTIATE_TEST_SUITE_P(Volumes, CopiedIntoNtfs,
                         testing::Values(NtfsRecipe{"Clusters512", 512, 16}, NtfsRecipe{"Clusters1024", 1024, 8},
                                         NtfsRecipe{"Clusters2048", 2048, 9}, NtfsRecipe{"Clusters4096", 4096, 16},
                                         NtfsRecipe{"Clusters8192", 8192, 17}, NtfsRecipe{"Clusters16384", 16384, 32},
                                         NtfsRecipe{"Clusters65536", 65536, 64},
                                         NtfsRecipe{"Records4096", 4096, 16, 4096},
                                         NtfsRecipe{"Records4096Clusters65536", 65536, 64, 4096}),
                         ntfsRecipeName);

class FilledNtfs : public testing::TestWithParam<NtfsRecipe> {
protected:
    void SetUp() override {
        if (auto const reason = missingNtfsMount()) {
            GTEST_SKIP() << *reason;
        }
        volume = makeNtfsVolume(GetParam(), directory.file("volume.img"));
        std::filesystem::create_directory(directory.path() / "mount");
        NtfsMount mount(volume, directory.path() / "mount");
        fillWithVariety(mount.path(), GetParam().clusterBytes <= 4096);
        mount.unmount();
    }

    TempDirectory directory;
    std::string volume;
};

TEST_P(FilledNtfs, IsMappedAsNtfscatSays) {
    expectMapOfNtfscat(volume, GetParam());
}

TEST_P(FilledNtfs, IsMappedAsPartcloneSays) {
    if (auto const reason = missingProgram({"partclone.ntfs"})) {
        GTEST_SKIP() << *reason;
    }
    LibraryMap const map = readMap(volume);
    BlockMap const other =
        mapFromPartcloneNtfs(volume, directory.file("domain"), GetParam().clusterBytes, map.geometry.units);
    EXPECT_EQ(differences(map.used, other), "");
}

INSTANTIATE_TEST_SUITE_P(Volumes, FilledNtfs,
                         testing::Values(NtfsRecipe{"Clusters512", 512, 64}, NtfsRecipe{"Clusters1024", 1024, 64},
                                         NtfsRecipe{"Clusters4096", 4096, 64}, NtfsRecipe{"Clusters65536", 65536, 160},
                                         NtfsRecipe{"Records4096", 4096, 64, 4096}),
                         ntfsRecipeName);

/// A volume whose $MFT is in so many pieces that its record needs an attribute list.
class NtfsWithMftInPieces : public testing::Test {
protected:
    void SetUp() override {
        if (auto const reason = missingNtfsMount()) {
            GTEST_SKIP() << *reason;
        }
        volume = makeNtfsVolume({"", 512, 12}, directory.file("volume.img"));
        std::filesystem::create_directory(directory.path() / "mount");
        NtfsMount mount(volume, directory.path() / "mount");
        breakUpMft(mount.path());
        mount.unmount();
        ASSERT_TRUE(hasAttributeList(volume, 0));
    }

    TempDirectory directory;
    std::string volume;
};

TEST_F(NtfsWithMftInPieces, IsRefusedInOneSentence) {
    for (auto const& arguments :
         std::vector<std::vector<std::string>>{{"info", volume}, {"ranges", volume}, {"stat", volume, "/rest"}}) {
        CommandResult const result = runFsparser(arguments);
        EXPECT_EQ(result.exitCode, 1) << result;
        EXPECT_EQ(result.output, "");
        EXPECT_EQ(result.error, "fsparser: " + volume + ": Could not read MFT record for inode number 1\n");
    }
}

TEST_F(NtfsWithMftInPieces, CountsAsUsedWhereThatIsAskedFor) {
    std::string const output = directory.file("used.bin");
    CommandResult const result = runFsparser({"bitmap", "--all-used-if-refused", "-o", output, volume});
    EXPECT_EQ(result.exitCode, 4) << result;
    EXPECT_THAT(result.error, testing::HasSubstr("every unit counts as used"));
    EXPECT_TRUE(contentOfFile(output) == std::string((12U << 20) / 4096 / 8, '\xFF'));
}

} // namespace

} // namespace tests
