// Copies of NTFS volumes, judged by ntfsfix, ntfsresize and ntfscat.
#include "volumes/CopyCase.h"
#include "volumes/ExtRecipe.h"
#include "volumes/NtfsOracles.h"
#include "volumes/NtfsVolume.h"
#include "volumes/VolumeAnswers.h"

#include <fstream>
#include <gmock/gmock.h>

namespace tests {

namespace {

/// Compresses what is made in a directory.
constexpr std::string_view kCompressedDirectory("\x10\x08\x00\x00", 4);

void makeCopiedIn(NtfsRecipe const& recipe, std::filesystem::path const& directory) {
    std::string const volume = makeNtfsVolume(recipe, (directory / "volume.img").string());
    std::filesystem::path const content = directory / "content";
    writeContent(content, true);
    removeSome(content); // nothing can be deleted without mounting: they are not put in
    for (auto const& entry : std::filesystem::directory_iterator(content)) {
        copyIntoNtfs(volume, entry.path().string(), "/" + entry.path().filename().string());
    }
}

/// Text that compresses, and a hole.
void addNtfsContent(std::filesystem::path const& content) {
    std::filesystem::create_directories(content / "compressed");
    std::ofstream text(content / "compressed" / "text", std::ios::binary);
    for (unsigned i = 0; i < 20000; ++i) {
        text << "line " << i << '\n';
    }
    std::ofstream(content / "sparse", std::ios::binary) << "begin";
    std::filesystem::resize_file(content / "sparse", 3000000);
}

void makeMounted(NtfsRecipe const& recipe, std::filesystem::path const& directory) {
    if (auto const reason = missingNtfsMount()) {
        throw CannotBeMadeHere(*reason);
    }
    std::string const volume = makeNtfsVolume(recipe, (directory / "volume.img").string());
    std::filesystem::path const content = directory / "content";
    writeContent(content);
    addNtfsContent(content);
    std::filesystem::create_directory(directory / "mount");
    NtfsMount mount(volume, directory / "mount");
    std::filesystem::create_directory(mount.path() / "compressed");
    setAttribute(mount.path() / "compressed", "system.ntfs_attrib", std::string(kCompressedDirectory));
    outputOfTool({"cp", "-r", "--sparse=always", content.string() + "/.", mount.path().string()});
    for (std::string const& name : removeSome(content)) {
        std::filesystem::remove(mount.path() / name);
    }
    mount.unmount();
}

SpaceAnswer askNtfscat(std::string const& volume, NtfsRecipe const& recipe) {
    std::uint64_t const clusters = ((recipe.mebibytes << 20) - recipe.sectorBytes) / recipe.clusterBytes;
    return {mapFromNtfscat(volume, clusters), recipe.clusterBytes, 0};
}

Verdict checkNtfs(std::string const& volume) {
    Verdict verdict;
    addCheck(verdict, {"ntfsfix", "-n", volume}, volume);
    addCheck(verdict, {"ntfsresize", "--info", "--no-progress-bar", volume}, volume);
    return verdict;
}

void extractNtfs(std::string const& volume, std::filesystem::path const& content, std::filesystem::path const& target) {
    for (auto const& entry : std::filesystem::recursive_directory_iterator(content)) {
        std::filesystem::path const name = entry.path().lexically_relative(content);
        if (entry.is_directory()) {
            std::filesystem::create_directories(target / name);
            continue;
        }
        std::ofstream file(target / name, std::ios::binary);
        file << outputOfTool({"ntfscat", volume, "/" + name.string()});
    }
}

CopyCase ntfsCase(NtfsRecipe const& recipe, bool isMounted) {
    auto const make = isMounted ? makeMounted : makeCopiedIn;
    return {recipe.name,
            {"mkfs.ntfs", "ntfscp", "ntfscat", "ntfsfix", "ntfsresize"},
            isMounted,
            [recipe, make](std::filesystem::path const& directory) { make(recipe, directory); },
            [recipe](std::string const& volume) { return askNtfscat(volume, recipe); },
            checkNtfs,
            extractNtfs};
}

INSTANTIATE_TEST_SUITE_P(Ntfs, CopiedVolume,
                         testing::Values(ntfsCase({"CopiedInto", 512, 12}, false),
                                         ntfsCase({"Mounted", 4096, 16}, true),
                                         ntfsCase({"MountedRecords4096", 4096, 16, 4096}, true)),
                         copyCaseName);
INSTANTIATE_TEST_SUITE_P(Ntfs, CopiedDevice, testing::Values(ntfsCase({"Mounted", 4096, 16}, true)), copyCaseName);

/// The last sector belongs to no cluster and holds the copy of the boot sector.
TEST(CopyOfNtfs, HoldsTheCopyOfTheBootSectorAndNoticesItsChange) {
    if (auto const reason = missingProgram({"mkfs.ntfs"})) {
        GTEST_SKIP() << *reason;
    }
    TempDirectory const directory;
    std::string const volume = makeNtfsVolume({"", 4096, 8}, directory.file("volume.img"));
    std::string const image = directory.file("image.img");
    std::uint64_t const last = (std::uint64_t{8} << 20) - 512;
    std::string const boot = contentOfFile(volume).substr(last);
    ASSERT_EQ(boot.substr(3, 8), "NTFS    ");
    ASSERT_EQ(runFsparser({"copy", volume, image}).exitCode, 0);
    EXPECT_EQ(contentOfFile(image).substr(last), boot);

    flipByte(image, last + 3);
    CommandResult const result = runFsparser({"verify", volume, image});
    EXPECT_EQ(result.exitCode, 5) << result;
    EXPECT_THAT(result.error, testing::HasSubstr("at byte " + std::to_string(last + 3) + " (in no unit)"));
}

} // namespace

} // namespace tests
