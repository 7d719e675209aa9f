// Formatting, filling, mounting.
#include "volumes/NtfsVolume.h"

#include "volumes/ExtRecipe.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <thread>
#include <unistd.h>

namespace tests {

namespace {

constexpr std::chrono::seconds kMountPatience{20};
constexpr std::chrono::minutes kMountLife{5};
constexpr std::chrono::milliseconds kPause{5};

/// The largest extended attribute that Linux gives.
constexpr std::size_t kLargestAttribute = 65536;

void mustSucceed(std::string const& tool, CommandResult const& result) {
    if (!result.succeeded()) {
        throw std::runtime_error(tool + " failed: " + result.error + result.output.substr(0, 500));
    }
}

dev_t deviceOf(std::filesystem::path const& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_dev : dev_t{0};
}

[[noreturn]] void failWithErrno(std::filesystem::path const& path, std::string const& what) {
    throw std::runtime_error(path.string() + ": " + what + ": " + std::strerror(errno));
}

} // namespace

std::string makeNtfsVolume(NtfsRecipe const& recipe, std::string const& path) {
    std::ofstream(path, std::ios::binary | std::ios::trunc).close();
    std::filesystem::resize_file(path, recipe.mebibytes << 20);
    mustSucceed("mkfs.ntfs",
                runTool({"mkfs.ntfs", "-F", "-Q", "-q", "-p", "0", "-H", "0", "-S", "0", "-c",
                         std::to_string(recipe.clusterBytes), "-s", std::to_string(recipe.sectorBytes), path}));
    return path;
}

void copyIntoNtfs(std::string const& volume, std::string const& source, std::string const& path,
                  std::string const& stream) {
    std::vector<std::string> arguments{"ntfscp"};
    if (!stream.empty()) {
        arguments.insert(arguments.end(), {"-N", stream});
    }
    arguments.insert(arguments.end(), {volume, source, path});
    mustSucceed("ntfscp", runTool(arguments));
}

std::optional<std::string> missingNtfsMount() {
    if (::geteuid() != 0) {
        return "mounting needs root";
    }
    if (::access("/dev/fuse", R_OK | W_OK) != 0) {
        return "there is no /dev/fuse here";
    }
    return missingProgram({"mkfs.ntfs", "ntfs-3g", "ntfsinfo", "ntfscat", "fls"});
}

NtfsMount::NtfsMount(std::string const& volume, std::filesystem::path directory) : directory_(std::move(directory)) {
    CommandOptions options;
    options.timeout = kMountLife;
    dev_t const before = deviceOf(directory_);
    // In the foreground: only the driver's end tells that all is written.
    driver_ = std::make_unique<Process>(
        std::vector<std::string>{"ntfs-3g", "-o", "no_detach,noatime,permissions,streams_interface=xattr,compression",
                                 volume, directory_.string()},
        options);
    auto const deadline = std::chrono::steady_clock::now() + kMountPatience;
    while (deviceOf(directory_) == before) {
        if (std::chrono::steady_clock::now() > deadline) {
            std::string const said = driver_->error();
            driver_.reset();
            throw std::runtime_error("ntfs-3g does not mount " + volume + ": " + said);
        }
        std::this_thread::sleep_for(kPause);
    }
}

NtfsMount::~NtfsMount() {
    if (driver_) {
        ::umount2(directory_.c_str(), MNT_DETACH);
        driver_->wait();
    }
}

void NtfsMount::unmount() {
    if (::umount2(directory_.c_str(), 0) != 0) {
        failWithErrno(directory_, "cannot be unmounted");
    }
    std::unique_ptr<Process> const driver = std::move(driver_);
    mustSucceed("ntfs-3g", driver->wait());
}

void setAttribute(std::filesystem::path const& path, std::string const& name, std::string const& value) {
    if (::lsetxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0) != 0) {
        failWithErrno(path, name + " cannot be set");
    }
}

std::string readAttribute(std::filesystem::path const& path, std::string const& name) {
    std::string value(kLargestAttribute, '\0');
    ssize_t const size = ::lgetxattr(path.c_str(), name.c_str(), value.data(), value.size());
    if (size < 0) {
        failWithErrno(path, name + " cannot be read");
    }
    value.resize(static_cast<std::size_t>(size));
    return value;
}

std::string backslashed(std::string path) {
    std::replace(path.begin(), path.end(), '/', '\\');
    return "\\" + path;
}

} // namespace tests
