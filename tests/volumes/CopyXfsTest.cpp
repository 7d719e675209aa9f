// Copies of XFS volumes, judged by xfs_repair, and read through xfs_db or a mount.
#include "volumes/CopyCase.h"
#include "volumes/ExtRecipe.h"
#include "volumes/VolumeAnswers.h"
#include "volumes/XfsOracles.h"
#include "volumes/XfsVolume.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <gtest/gtest.h>
#include <set>
#include <sstream>
#include <utility>

namespace tests {

namespace {

using Path = std::filesystem::path;

/// The list that mkfs fills a volume by, for a directory and all below it.
std::string listOf(Path const& directory) {
    std::string list;
    for (auto const& entry : std::filesystem::directory_iterator(directory)) {
        std::string const name = entry.path().filename().string();
        list += entry.is_directory() ? name + " d--755 0 0\n" + listOf(entry.path())
                                     : name + " ---644 0 0 " + entry.path().string() + "\n";
    }
    return list + "$\n";
}

std::set<std::string> namesInRoot(std::string const& volume) {
    std::istringstream lines(outputOfTool({"xfs_db", "-r", "-c", "path /", "-c", "ls", volume}));
    std::set<std::string> names;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string word;
        for (unsigned i = 0; i < 6 && words >> word; ++i) { // offset, inode, type, hash, length, name
        }
        names.insert(word);
    }
    return names;
}

void makeFromList(XfsRecipe recipe, Path const& directory) {
    Path const content = directory / "content";
    writeContent(content);
    Path const list = directory / "content.list";
    std::ofstream(list) << "/dev/null\n0 0\nd--755 0 0\n" << listOf(content);
    recipe.options.insert(recipe.options.end(), {"-p", list.string()});
    std::string const volume = makeXfsVolume(recipe, directory);
    punchHolesIntoXfs(volume);
    std::set<std::string> const left = namesInRoot(volume);
    for (auto const& entry : std::filesystem::directory_iterator(content)) {
        if (entry.is_regular_file() && !left.contains(entry.path().filename().string())) {
            std::filesystem::remove(entry.path());
        }
    }
}

void makeMounted(XfsRecipe const& recipe, Path const& directory) {
    std::string const volume = makeXfsVolume(recipe, directory);
    Path const content = directory / "content";
    writeContent(content);
    std::filesystem::create_directory(directory / "mount");
    XfsMount mount(volume, directory / "mount");
    if (mount.refusal()) {
        throw CannotBeMadeHere(*mount.refusal());
    }
    outputOfTool({"cp", "-r", content.string() + "/.", mount.path().string()});
    for (std::string const& name : removeSome(content)) {
        std::filesystem::remove(mount.path() / name);
    }
    mount.unmount();
}

SpaceAnswer askXfs(std::string const& volume) {
    XfsAnswers answers = askXfsDb(volume);
    // xfs_db lists the blocks of the free lists as free; a copy keeps them.
    for (std::size_t group = 0; group < answers.groups.size(); ++group) {
        for (std::uint64_t const block : answers.groups[group].listEntries) {
            answers.used.at(group * answers.groupBlocks + block) = true;
        }
    }
    return {answers.used, answers.blockSize, 0};
}

Verdict checkXfs(std::string const& volume) {
    Verdict verdict;
    addCheck(verdict, {"xfs_repair", "-n", volume}, volume);
    std::istringstream lines(std::exchange(verdict.text, {}));
    for (std::string line; std::getline(lines, line);) {
        bool const isOfImagesOnly = line.starts_with("Cannot get host filesystem") ||
                                    line.starts_with("Repair may fail if there is a sector size") ||
                                    line.starts_with("the image and the host filesystem");
        bool const isOfAThread = line.find("- agno = ") != std::string::npos; // in no fixed order
        if (!isOfImagesOnly && !isOfAThread) {
            verdict.text += line + "\n";
        }
    }
    return verdict;
}

/// The file's bytes, from where xfs_db says that they lie.
std::string contentByXfsDb(std::string const& volume, std::string const& name, XfsAnswers const& answers) {
    std::istringstream lines(
        outputOfTool({"xfs_db", "-r", "-c", "path /" + name, "-c", "p core.size", "-c", "bmap", volume}));
    std::string content;
    std::ifstream file(volume, std::ios::binary);
    for (std::string line; std::getline(lines, line);) {
        unsigned long long offset = 0;
        unsigned long long group = 0;
        unsigned long long block = 0;
        unsigned long long count = 0;
        if (std::sscanf(line.c_str(), "core.size = %llu", &count) == 1) {
            content.resize(count);
        } else if (std::sscanf(line.c_str(), "data offset %llu startblock %*u (%llu/%llu) count %llu", &offset, &group,
                               &block, &count) == 4) {
            std::uint64_t const from = offset * answers.blockSize;
            std::uint64_t const length = std::min<std::uint64_t>(count * answers.blockSize, content.size() - from);
            file.seekg(static_cast<std::streamoff>((group * answers.groupBlocks + block) * answers.blockSize));
            file.read(content.data() + from, static_cast<std::streamsize>(length));
        }
    }
    return content;
}

void extractByXfsDb(std::string const& volume, Path const& content, Path const& target) {
    XfsAnswers const answers = askXfsDb(volume);
    for (auto const& entry : std::filesystem::recursive_directory_iterator(content)) {
        Path const name = entry.path().lexically_relative(content);
        if (entry.is_directory()) {
            std::filesystem::create_directories(target / name);
        } else {
            std::ofstream(target / name, std::ios::binary) << contentByXfsDb(volume, name.string(), answers);
        }
    }
}

/// As the kernel reads it. The log is not replayed, so that an unclean one would show.
void extractByMount(std::string const& volume, Path const&, Path const& target) {
    TempDirectory const directory;
    ReadOnlyMount const mount(volume, directory.path() / "mount", "xfs", "norecovery,nouuid");
    std::filesystem::copy(mount.path(), target, std::filesystem::copy_options::recursive);
}

CopyCase xfsCase(XfsRecipe const& recipe, bool isMounted) {
    return {recipe.name,
            {"mkfs.xfs", "xfs_db", "xfs_repair"},
            isMounted,
            [recipe, isMounted](Path const& directory) {
                isMounted ? makeMounted(recipe, directory) : makeFromList(recipe, directory);
            },
            askXfs,
            checkXfs,
            isMounted ? extractByMount : extractByXfsDb};
}

XfsRecipe const& withReverseMap() {
    static XfsRecipe const recipe{"Mounted", {"-d", "agcount=2", "-m", "reflink=1,rmapbt=1"}, 32768};
    return recipe;
}

INSTANTIATE_TEST_SUITE_P(
    Xfs, CopiedVolume,
    testing::Values(xfsCase({"FromList", {"-d", "agcount=2"}, 32768}, false),
                    xfsCase({"FromListVersion4", {"-m", "crc=0", "-b", "size=1024", "-d", "agcount=2"}, 32768}, false),
                    xfsCase(withReverseMap(), true)),
    copyCaseName);
INSTANTIATE_TEST_SUITE_P(Xfs, CopiedDevice, testing::Values(xfsCase(withReverseMap(), true)), copyCaseName);

} // namespace

} // namespace tests
