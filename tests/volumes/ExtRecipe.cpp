// Making ext volumes as an ordinary user, without mounting anything.
#include "volumes/ExtRecipe.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>

namespace tests {

namespace {

constexpr unsigned kFiles = 300;

/// A day in 2020: every time stamp that the tools write is this one.
constexpr char const* kClock = "1600000000";

/// What mke2fs chooses when nothing is asked for, so that a machine's own configuration does not matter.
constexpr char const* kConfiguration = R"([defaults]
    base_features = sparse_super,large_file,filetype,resize_inode,dir_index,ext_attr
    default_mntopts = acl,user_xattr
    enable_periodic_fsck = 0
    blocksize = 4096
    inode_size = 256
    inode_ratio = 16384
[fs_types]
    ext3 = {
        features = has_journal
    }
    ext4 = {
        features = has_journal,extent,huge_file,flex_bg,metadata_csum,64bit,dir_nlink,extra_isize
    }
)";

void writeFile(std::filesystem::path const& path, std::string const& content) {
    std::ofstream file(path, std::ios::binary);
    file << content;
    if (!file.flush()) {
        throw std::runtime_error("cannot write " + path.string());
    }
}

std::string fileName(unsigned number) {
    return "f" + std::to_string(number);
}

/// Files of 1 to 24 KiB, none of zeros: the tools would make holes of those.
void makeFiles(std::filesystem::path const& directory) {
    std::filesystem::create_directories(directory);
    for (unsigned i = 0; i < kFiles; ++i) {
        writeFile(directory / fileName(i), std::string((i * 7919 % 24 + 1) * 1024 - i % 700, 'x'));
    }
}

void makeTree(std::filesystem::path const& directory) {
    makeFiles(directory / "a");
    std::filesystem::create_directories(directory / "b" / "c");
    writeFile(directory / "b" / "c" / "large", std::string(std::size_t{1500} * 1024, 'y'));
}

/// Written one by one and with debugfs's clock, unlike a tree that mke2fs copies: the bytes are the same each time.
void fillWithHoles(std::string const& volume, std::filesystem::path const& source) {
    makeFiles(source);
    std::vector<std::string> commands;
    for (unsigned i = 0; i < kFiles; ++i) {
        commands.push_back("write " + (source / fileName(i)).string() + " " + fileName(i));
    }
    for (unsigned i = 0; i < kFiles; i += 2) {
        commands.push_back("rm " + fileName(i));
    }
    changeWithDebugfs(volume, commands);
}

/// The call of mke2fs with fixed identifiers. It takes the last -E alone, so the recipe's own is joined to ours.
std::vector<std::string> withFixedIdentity(std::vector<std::string> const& options) {
    std::vector<std::string> arguments{"mke2fs", "-q", "-F", "-U", "6a1f0c52-3f0e-4c57-9d0e-2b8f5a7c9e11"};
    std::string extended = "hash_seed=5d5a3a86-7c2d-4a3f-8a55-0f3c9b1e7d24";
    for (std::size_t i = 0; i < options.size(); ++i) {
        if (options[i] == "-E" && i + 1 < options.size()) {
            extended += "," + options[++i];
        } else {
            arguments.push_back(options[i]);
        }
    }
    arguments.insert(arguments.end(), {"-E", extended});
    return arguments;
}

[[noreturn]] void fail(std::string const& tool, CommandResult const& result) {
    throw std::runtime_error(tool + " failed: " + result.error + result.output.substr(0, 500));
}

} // namespace

std::optional<std::string> missingProgram(std::initializer_list<char const*> names) {
    for (char const* const name : names) {
        if (!findProgram(name)) {
            return std::string(name) + " is not installed";
        }
    }
    return std::nullopt;
}

CommandResult runTool(std::vector<std::string> const& arguments, Environment const& more) {
    CommandOptions options;
    options.environment = {
        {"LC_ALL", "C"}, {"E2FSPROGS_FAKE_TIME", kClock}, {"SOURCE_DATE_EPOCH", kClock}, {"DEBUGFS_PAGER", "__none__"}};
    options.environment.insert(more.begin(), more.end());
    return runCommand(arguments, options);
}

std::string makeExtVolume(ExtRecipe const& recipe, std::filesystem::path const& directory) {
    std::string volume = (directory / "volume.img").string();
    std::filesystem::path const source = directory / "source";
    writeFile(volume, {});
    std::filesystem::resize_file(volume, recipe.kibibytes * 1024);
    writeFile(directory / "mke2fs.conf", kConfiguration);
    std::vector<std::string> arguments = withFixedIdentity(recipe.options);
    if (recipe.fill == Fill::Tree) {
        makeTree(source);
        arguments.insert(arguments.end(), {"-d", source.string()});
    }
    arguments.push_back(volume);
    CommandResult const made = runTool(arguments, {{"MKE2FS_CONFIG", (directory / "mke2fs.conf").string()}});
    if (!made.succeeded()) {
        fail("mke2fs", made);
    }
    if (recipe.fill == Fill::Holes) {
        fillWithHoles(volume, source);
    }
    return volume;
}

void changeWithDebugfs(std::string const& volume, std::vector<std::string> const& commands) {
    std::string script;
    for (std::string const& command : commands) {
        script += command + "\n";
    }
    std::string const path = volume + ".commands";
    writeFile(path, script);
    CommandResult const result = runTool({"debugfs", "-w", "-f", path, volume});
    // debugfs ends with 0 whatever happened to its commands; beside its version it prints only failures there.
    if (!result.succeeded() || std::count(result.error.begin(), result.error.end(), '\n') != 1) {
        fail("debugfs", result);
    }
}

int checkWithE2fsck(std::string const& volume) {
    return runTool({"e2fsck", "-f", "-n", volume}).exitCode;
}

} // namespace tests
