// Copies of FAT32 volumes, judged by fsck.fat and mtools.
#include "volumes/CopyCase.h"
#include "volumes/ExtRecipe.h"
#include "volumes/FatRecipe.h"
#include "volumes/VolumeAnswers.h"

#include <gtest/gtest.h>
#include <sstream>

namespace tests {

namespace {

constexpr std::uint64_t kMiB = std::uint64_t{1} << 20;

Environment withoutDoubts() {
    return {{"MTOOLS_SKIP_CHECK", "1"}};
}

void makeVolume(FatRecipe const& recipe, std::filesystem::path const& directory) {
    std::string const volume = makeFatVolume(recipe, directory);
    std::filesystem::path const content = directory / "content";
    writeContent(content);
    std::vector<std::string> copying{"mcopy", "-Q", "-s", "-i", volume};
    for (auto const& entry : std::filesystem::directory_iterator(content)) {
        copying.push_back(entry.path().string());
    }
    copying.push_back("::/");
    outputOfTool(copying, withoutDoubts());
    std::vector<std::string> removing{"mdel", "-i", volume};
    for (std::string const& name : removeSome(content)) {
        removing.push_back("::/" + name);
    }
    outputOfTool(removing, withoutDoubts());
}

std::uint64_t endOfClusters(FatGeometry const& geometry) {
    return geometry.dataStart() + geometry.clusters() * geometry.clusterBytes();
}

/// Sector by sector. Those behind the last cluster belong to none, and are none's free space.
SpaceAnswer askBlkls(std::string const& volume) {
    FatGeometry const geometry = readFatGeometry(volume);
    SpaceAnswer answer{BlockMap(geometry.sectors(), true), geometry.bytesPerSector, 0};
    std::istringstream listing(outputOfTool({"blkls", "-f", "fat", "-A", "-l", volume}));
    for (std::string line; std::getline(listing, line);) {
        if (line.ends_with("|f")) {
            answer.used.at(std::stoull(line)) = std::stoull(line) * geometry.bytesPerSector >= endOfClusters(geometry);
        }
    }
    return answer;
}

Verdict checkFat(std::string const& volume) {
    Verdict verdict;
    addCheck(verdict, {"fsck.fat", "-n", "-v", volume}, volume);
    return verdict;
}

void extractFat(std::string const& volume, std::filesystem::path const&, std::filesystem::path const& target) {
    outputOfTool({"mcopy", "-s", "-n", "-i", volume, "::/*", target.string()}, withoutDoubts());
}

CopyCase fatCase(FatRecipe const& recipe) {
    return {recipe.name, {"mkfs.fat", "fsck.fat", "mcopy", "mdel", "blkls"},
            false,       [recipe](std::filesystem::path const& directory) { makeVolume(recipe, directory); },
            askBlkls,    checkFat,
            extractFat};
}

FatRecipe const& smallFat() {
    static FatRecipe const recipe{"Clusters512", {"-s", "1"}, 40 * kMiB};
    return recipe;
}

INSTANTIATE_TEST_SUITE_P(Fat, CopiedVolume,
                         testing::Values(fatCase(smallFat()),
                                         fatCase({"UnalignedClusters1024", {"-s", "2", "-a", "-R", "33"}, 80 * kMiB}),
                                         fatCase({"OneTable", {"-s", "1", "-f", "1"}, 40 * kMiB})),
                         copyCaseName);
INSTANTIATE_TEST_SUITE_P(Fat, CopiedDevice, testing::Values(fatCase(smallFat())), copyCaseName);

/// What lies there is no file's, but other programs have been seen to put something there.
TEST(CopyOfFat, HoldsTheSectorsBehindTheLastCluster) {
    if (auto const reason = missingProgram({"mkfs.fat"})) {
        GTEST_SKIP() << *reason;
    }
    TempDirectory const directory(TempDirectory::Place::Memory);
    std::string const volume = makeFatVolume({"", {"-s", "2", "-a", "-R", "33"}, 80 * kMiB}, directory.path());
    std::string const image = directory.file("image.img");
    std::uint64_t const tail = endOfClusters(readFatGeometry(volume));
    ASSERT_LT(tail, 80 * kMiB);
    changeField(volume, tail, 0x1234567890ABCDEF, 8);
    changeField(volume, 80 * kMiB - 8, 0xFEDCBA0987654321, 8);
    CommandResult const result = runFsparser({"copy", volume, image});
    ASSERT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(contentOfFile(image).substr(tail), contentOfFile(volume).substr(tail));
    flipByte(image, tail);
    EXPECT_EQ(runFsparser({"verify", volume, image}).exitCode, 5);
}

} // namespace

} // namespace tests
