// Copies of ext volumes, judged by e2fsck and debugfs; among them volumes whose groups were never initialised.
#include "volumes/CopyCase.h"
#include "volumes/ExtRecipe.h"

#include <gtest/gtest.h>
#include <stdexcept>

namespace tests {

namespace {

constexpr std::uint64_t kMiB = std::uint64_t{1} << 20;

/// A seed that no other content has.
constexpr unsigned kOldContentSeed = 4;

using Words = std::vector<std::string>;

/// What is formatted, and how it becomes what it is.
struct ExtCopyRecipe {
    Words options; ///< of mke2fs
    std::uint64_t mebibytes;
    bool hasUninitialised; ///< whether groups without an initialised bitmap must be among them

    /// Formatted on a device full of random bytes, which stay in every inode table that nothing initialised, and then
    /// grown to this size; 0: neither.
    std::uint64_t grownMebibytes = 0;
};

/// Features are named from none on, so that the machine's configuration decides nothing.
Words features(std::string const& names) {
    return {"-O", "none,sparse_super,large_file,filetype,dir_index,ext_attr," + names};
}

void makeVolume(ExtCopyRecipe const& recipe, std::filesystem::path const& directory) {
    std::string const volume = (directory / "volume.img").string();
    std::string const content = (directory / "content").string();
    writeContent(content);
    if (recipe.grownMebibytes != 0) {
        makeRandomFile(volume, recipe.grownMebibytes * kMiB, kOldContentSeed);
    } else {
        makeEmptyFile(volume, recipe.mebibytes * kMiB);
    }
    Words arguments{"mke2fs", "-q", "-F", "-I", "256", "-d", content};
    arguments.insert(arguments.end(), recipe.options.begin(), recipe.options.end());
    arguments.insert(arguments.end(), {volume, std::to_string(recipe.mebibytes) + "M"});
    outputOfTool(arguments, {{"MKE2FS_CONFIG", "/dev/null"}});
    Words commands;
    for (std::string const& name : removeSome(content)) {
        commands.push_back("rm /" + name);
    }
    changeWithDebugfs(volume, commands);
    if (recipe.grownMebibytes != 0) {
        outputOfTool({"resize2fs", "-f", volume, std::to_string(recipe.grownMebibytes) + "M"});
    }
    if ((dumpVolume(volume).uninitialisedGroups() > 0) != recipe.hasUninitialised) {
        throw std::runtime_error("the groups of " + volume + " are not initialised as they should");
    }
}

SpaceAnswer askDumpe2fs(std::string const& volume) {
    DumpedVolume const dumped = dumpVolume(volume);
    return {dumped.used, dumped.blockSize, 0};
}

/// The blocks of "Backup superblock at 8193, Group descriptors at ...".
Words backupSuperblocks(std::string const& listing) {
    std::string const before = "Backup superblock at ";
    Words blocks;
    for (std::size_t at = listing.find(before); at != std::string::npos; at = listing.find(before, at + 1)) {
        std::size_t const number = at + before.size();
        blocks.push_back(listing.substr(number, listing.find(',', number) - number));
    }
    if (blocks.empty()) {
        throw std::runtime_error("dumpe2fs lists no copy of the superblock");
    }
    return blocks;
}

Verdict checkExt(std::string const& volume) {
    Verdict verdict;
    addCheck(verdict, {"e2fsck", "-f", "-n", volume}, volume);
    addCheck(verdict, {"dumpe2fs", volume}, volume); // every descriptor, with its checksums
    std::string const blockSize = "blocksize=" + std::to_string(dumpVolume(volume).blockSize);
    for (std::string const& block : backupSuperblocks(verdict.text)) {
        addCheck(verdict, {"dumpe2fs", "-h", "-o", "superblock=" + block, "-o", blockSize, volume}, volume);
    }
    return verdict;
}

void extractExt(std::string const& volume, std::filesystem::path const&, std::filesystem::path const& target) {
    outputOfTool({"debugfs", "-R", "rdump / " + target.string(), volume});
}

CopyCase extCase(std::string const& name, ExtCopyRecipe const& recipe) {
    return {name,        {"mke2fs", "debugfs", "dumpe2fs", "e2fsck", "resize2fs"},
            false,       [recipe](std::filesystem::path const& directory) { makeVolume(recipe, directory); },
            askDumpe2fs, checkExt,
            extractExt};
}

Words with(Words words, Words const& more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

std::vector<CopyCase> extCases() {
    return {
        extCase("Ext2Blocks1024", {with(features("resize_inode"), {"-b", "1024"}), 24, false}),
        extCase(
            "Ext4UninitBg",
            {with(features("has_journal,extent,resize_inode,uninit_bg"), {"-b", "1024", "-J", "size=1"}), 32, true}),
        extCase("Ext4FlexBgMetadataCsum", {with(features("has_journal,extent,64bit,flex_bg,metadata_csum,resize_inode"),
                                                {"-b", "1024", "-J", "size=1"}),
                                           32, true}),
        extCase("Ext4SparseSuper2", {with(features("has_journal,extent,flex_bg,metadata_csum,sparse_super2"),
                                          {"-b", "4096", "-g", "2048", "-J", "size=4", "-E", "num_backup_sb=2"}),
                                     32, true}),
    };
}

/// Each group holds its own inode table, so that groups that count as free hold what must be kept.
CopyCase grownExt() {
    return extCase("Ext4GrownFromLazyInit", {with(features("has_journal,extent,64bit,metadata_csum,resize_inode"),
                                                  {"-b", "1024", "-J", "size=1", "-E",
                                                   "lazy_itable_init=1,lazy_journal_init=1,nodiscard,resize=65536"}),
                                             16, true, 40});
}

INSTANTIATE_TEST_SUITE_P(Ext, CopiedVolume, testing::ValuesIn(extCases()), copyCaseName);
INSTANTIATE_TEST_SUITE_P(ExtGrown, CopiedVolume, testing::Values(grownExt()), copyCaseName);
INSTANTIATE_TEST_SUITE_P(Ext, CopiedDevice, testing::Values(grownExt()), copyCaseName);

} // namespace

} // namespace tests
