// Formatting, filling, punching holes, mounting.
#include "volumes/XfsVolume.h"

#include "volumes/ExtRecipe.h"

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/mount.h>
#include <unistd.h>

namespace tests {

namespace {

/// What makes mkfs.xfs take volumes below 300 MB: it thinks that its own tests ask.
Environment smallVolumes() {
    return {{"TEST_DIR", "1"}, {"TEST_DEV", "1"}, {"QA_CHECK_FS", "1"}};
}

void mustSucceed(std::string const& tool, CommandResult const& result) {
    if (!result.succeeded()) {
        throw std::runtime_error(tool + " failed: " + result.error + result.output.substr(0, 500));
    }
}

void writeText(std::filesystem::path const& path, std::string const& text) {
    std::ofstream file(path, std::ios::binary);
    file << text;
    if (!file.flush()) {
        throw std::runtime_error("cannot write " + path.string());
    }
}

/// The list that mkfs fills a volume by: files one behind the other in the root, and some in a directory.
std::string writeList(unsigned files, std::filesystem::path const& directory) {
    std::string const small = (directory / "small").string();
    std::string const large = (directory / "large").string();
    writeText(small, std::string(400, 'x')); // below the smallest block
    writeText(large, std::string(300000, 'y'));
    std::string list = "/dev/null\n0 0\nd--755 0 0\n";
    for (unsigned i = 0; i < files; ++i) {
        list += "f" + std::to_string(i) + " ---644 0 0 " + (i % 500 == 250 ? large : small) + "\n";
    }
    list += "dir d--755 0 0\nlarge ---644 0 0 " + large + "\n$\n$\n";
    std::string const path = (directory / "list").string();
    writeText(path, list);
    return path;
}

/// The inodes of the regular files in the root directory, in its order.
std::vector<std::string> filesOfRoot(std::string const& volume) {
    CommandResult const result = runTool({"xfs_db", "-r", "-c", "path /", "-c", "ls", volume});
    mustSucceed("xfs_db", result);
    std::vector<std::string> inodes;
    std::istringstream lines(result.output);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string offset;
        std::string inode;
        std::string type;
        if (words >> offset >> inode >> type && type == "regular") {
            inodes.push_back(inode);
        }
    }
    return inodes;
}

bool hasChecksums(std::string const& volume) {
    return runTool({"xfs_db", "-r", "-c", "version", volume}).output.find("V5") != std::string::npos;
}

} // namespace

std::string makeXfsVolume(XfsRecipe const& recipe, std::filesystem::path const& directory) {
    std::string const volume = (directory / "volume.img").string();
    writeText(volume, "");
    std::filesystem::resize_file(volume, recipe.kibibytes * 1024);
    std::vector<std::string> arguments{"mkfs.xfs", "-q", "-f"};
    arguments.insert(arguments.end(), recipe.options.begin(), recipe.options.end());
    if (recipe.files != 0) {
        arguments.insert(arguments.end(), {"-p", writeList(recipe.files, directory)});
    }
    arguments.push_back(volume);
    mustSucceed("mkfs.xfs", runTool(arguments, smallVolumes()));
    return volume;
}

void changeWithXfsDb(std::string const& volume, std::vector<std::string> const& commands) {
    CommandOptions options;
    for (std::string const& command : commands) {
        options.input += command + "\n";
    }
    CommandResult const result = runCommand({"xfs_db", "-x", volume}, options);
    mustSucceed("xfs_db", result);
    if (!result.error.empty()) { // it ends with 0 whatever happened to its commands
        throw std::runtime_error("xfs_db: " + result.error.substr(0, 500));
    }
}

bool isSoundXfs(std::string const& volume) {
    return runTool({"xfs_repair", "-n", volume}).succeeded();
}

void punchHolesIntoXfs(std::string const& volume) {
    std::string const write = hasChecksums(volume) ? "write -d core.mode 0" : "write core.mode 0";
    std::vector<std::string> const inodes = filesOfRoot(volume);
    std::vector<std::string> commands;
    for (std::size_t i = 0; i < inodes.size(); i += 2) {
        commands.push_back("inode " + inodes[i]);
        commands.push_back(write);
    }
    changeWithXfsDb(volume, commands);
    mustSucceed("xfs_repair", runTool({"xfs_repair", volume}));
    if (!isSoundXfs(volume) || filesOfRoot(volume).size() != inodes.size() / 2) {
        throw std::runtime_error("xfs_repair did not take the files out of " + volume);
    }
}

XfsMount::XfsMount(std::string const& volume, std::filesystem::path directory) : directory_(std::move(directory)) {
    if (::geteuid() != 0) {
        refusal_ = "mounting needs root";
        return;
    }
    CommandResult const result = runTool({"mount", "-t", "xfs", "-o", "loop", volume, directory_.string()});
    isMounted_ = result.succeeded();
    if (!isMounted_) {
        refusal_ = "this system does not mount the volume: " + result.error;
    }
}

XfsMount::~XfsMount() {
    if (isMounted_) {
        ::umount2(directory_.c_str(), MNT_DETACH);
    }
}

void XfsMount::unmount() {
    mustSucceed("umount", runTool({"umount", directory_.string()}));
    isMounted_ = false;
}

} // namespace tests
