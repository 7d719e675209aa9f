// Writing content, overwriting free space, hashing, attaching and mounting.
#include "volumes/CopyProof.h"

#include "volumes/ExtRecipe.h"
#include "volumes/VolumeAnswers.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/stat.h>

namespace tests {

namespace {

constexpr unsigned kFiles = 80;

std::string randomBytes(std::uint64_t count, std::mt19937_64& generator) {
    std::string bytes(count, '\0');
    for (std::size_t at = 0; at < bytes.size(); at += sizeof(std::uint64_t)) {
        std::uint64_t const number = generator();
        std::memcpy(bytes.data() + at, &number, std::min(sizeof number, bytes.size() - at));
    }
    return bytes;
}

void writeBytes(std::filesystem::path const& path, std::string const& bytes) {
    std::ofstream file(path, std::ios::binary);
    file << bytes;
    if (!file.flush()) {
        throw std::runtime_error("cannot write " + path.string());
    }
}

std::string nameOf(unsigned number) {
    return "f" + std::to_string(100 + number);
}

/// Everything in a file or device, read at once: volumes are large.
std::string wholeContent(std::string const& path) {
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    std::string content(static_cast<std::size_t>(file.tellg()), '\0');
    file.seekg(0);
    file.read(content.data(), static_cast<std::streamsize>(content.size()));
    if (!file) {
        throw std::runtime_error("cannot read " + path);
    }
    return content;
}

/// Calls a function with each run of free units, as bytes from and to.
template <typename Function>
void forEachFreeRun(SpaceAnswer const& space, Function const& function) {
    auto const& used = space.used;
    for (auto at = std::find(used.begin(), used.end(), false); at != used.end();) {
        auto const end = std::find(at, used.end(), true);
        function(space.offsetOf(static_cast<std::uint64_t>(at - used.begin())),
                 space.offsetOf(static_cast<std::uint64_t>(end - used.begin())));
        at = std::find(end, used.end(), false);
    }
}

} // namespace

std::string outputOfTool(std::vector<std::string> const& arguments, Environment const& more) {
    CommandResult result = runTool(arguments, more);
    if (!result.succeeded()) {
        std::ostringstream text;
        text << arguments.front() << ": " << result;
        throw std::runtime_error(text.str());
    }
    return std::move(result.output);
}

void makeEmptyFile(std::filesystem::path const& path, std::uint64_t bytes) {
    writeBytes(path, {});
    std::filesystem::resize_file(path, bytes);
}

void makeRandomFile(std::filesystem::path const& path, std::uint64_t bytes, unsigned seed) {
    std::mt19937_64 generator(seed);
    writeBytes(path, randomBytes(bytes, generator));
}

std::string copyMarker() {
    return "This sentence stands once in the volume.";
}

void writeContent(std::filesystem::path const& directory, bool isFlat) {
    std::filesystem::path const below = isFlat ? directory : directory / "d" / "e";
    std::filesystem::create_directories(below);
    std::mt19937_64 generator(1);
    for (unsigned i = 0; i < kFiles; ++i) {
        writeBytes(directory / nameOf(i), randomBytes((i * 7919 % 40 + 1) * 1024 - i % 700, generator));
    }
    writeBytes(below / "large", randomBytes(std::uint64_t{700} * 1024, generator));
    writeBytes(below / "marked", copyMarker() + randomBytes(20000, generator));
    writeBytes(below / "empty", {});
}

std::vector<std::string> removeSome(std::filesystem::path const& directory) {
    std::vector<std::string> removed;
    for (unsigned i = 0; i < kFiles; i += 2) {
        removed.push_back(nameOf(i));
        std::filesystem::remove(directory / nameOf(i));
    }
    return removed;
}

std::map<std::string, std::string> hashesOf(std::filesystem::path const& directory) {
    std::vector<std::string> arguments{"sha256sum", "--binary", "--"};
    for (auto const& entry : std::filesystem::recursive_directory_iterator(directory)) {
        if (entry.is_regular_file() && !entry.is_symlink()) {
            arguments.push_back(entry.path().string());
        }
    }
    if (arguments.size() == 3) {
        throw std::runtime_error("there is no file below " + directory.string());
    }
    std::map<std::string, std::string> hashes;
    std::istringstream lines(outputOfTool(arguments));
    for (std::string line; std::getline(lines, line);) {
        std::size_t const space = line.find(" *");
        hashes[std::filesystem::path(line.substr(space + 2)).lexically_relative(directory).string()] =
            line.substr(0, space);
    }
    return hashes;
}

std::uint64_t overwriteFreeSpace(std::string const& volume, SpaceAnswer const& space, unsigned seed) {
    std::mt19937_64 generator(seed);
    std::fstream file(volume, std::ios::binary | std::ios::in | std::ios::out);
    std::uint64_t const size = std::filesystem::file_size(volume);
    forEachFreeRun(space, [&](std::uint64_t from, std::uint64_t to) {
        std::string const bytes = randomBytes(std::min(to, size) - from, generator);
        file.seekp(static_cast<std::streamoff>(from));
        file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    });
    if (!file.flush()) {
        throw std::runtime_error("cannot write " + volume);
    }
    return static_cast<std::uint64_t>(std::count(space.used.begin(), space.used.end(), false));
}

std::optional<std::uint64_t> findNonZeroFreeByte(std::string const& volume, SpaceAnswer const& space) {
    std::string const content = wholeContent(volume);
    std::optional<std::uint64_t> found;
    forEachFreeRun(space, [&](std::uint64_t from, std::uint64_t to) {
        std::size_t const at = content.find_first_not_of('\0', from);
        if (!found && at < to) { // npos, too, is behind
            found = at;
        }
    });
    return found;
}

std::optional<std::uint64_t> findOtherUsedByte(std::string const& volume, std::string const& copy,
                                               SpaceAnswer const& space) {
    std::string content = wholeContent(volume);
    std::string other = wholeContent(copy);
    forEachFreeRun(space, [&](std::uint64_t from, std::uint64_t to) {
        for (std::string* const bytes : {&content, &other}) {
            std::uint64_t const end = std::min<std::uint64_t>(to, bytes->size());
            std::fill(bytes->begin() + static_cast<std::ptrdiff_t>(from),
                      bytes->begin() + static_cast<std::ptrdiff_t>(end), '\0');
        }
    });
    if (content == other) {
        return std::nullopt;
    }
    auto const differing = std::mismatch(content.begin(), content.end(), other.begin(), other.end());
    return static_cast<std::uint64_t>(differing.first - content.begin());
}

std::uint64_t findInVolume(std::string const& volume, std::string const& text) {
    std::string const content = wholeContent(volume);
    std::size_t const at = content.find(text);
    if (at == std::string::npos || content.find(text, at + 1) != std::string::npos) {
        throw std::runtime_error("the text does not stand in " + volume + " once");
    }
    return at;
}

std::uint8_t readByte(std::string const& path, std::uint64_t offset) {
    return static_cast<std::uint8_t>(readField(path, offset, 1));
}

void flipByte(std::string const& path, std::uint64_t offset) {
    changeField(path, offset, readByte(path, offset) ^ 0x10U, 1);
}

std::uint64_t allocatedBytes(std::string const& path) {
    struct stat facts {};
    if (::stat(path.c_str(), &facts) != 0) {
        throw std::runtime_error("there is no " + path);
    }
    return static_cast<std::uint64_t>(facts.st_blocks) * 512;
}

WritableLoop::WritableLoop(std::string const& file, Io io, unsigned sectorBytes) {
    std::string const direct = io == Io::Direct ? "on" : "off";
    CommandResult const result = runTool(
        {"losetup", "--direct-io=" + direct, "--sector-size", std::to_string(sectorBytes), "-f", "--show", file});
    path_ = result.output.substr(0, result.output.find('\n'));
    if (path_.empty()) {
        problem_ = "losetup: " + result.error;
        return;
    }
    // It ends well where direct I/O is refused, too.
    std::string const got = runTool({"losetup", "--noheadings", "--raw", "-O", "DIO", path_}).output;
    if (io == Io::Direct && !got.starts_with('1')) {
        problem_ = "no loop device with direct I/O here: " + result.error + got;
    }
}

WritableLoop::~WritableLoop() {
    if (!path_.empty()) {
        runTool({"losetup", "-d", path_});
    }
}

ReadOnlyMount::ReadOnlyMount(std::string const& volume, std::filesystem::path directory, std::string const& type,
                             std::string const& options)
    : directory_(std::move(directory)) {
    std::filesystem::create_directories(directory_);
    std::string all = std::filesystem::is_block_file(volume) ? "ro" : "ro,loop";
    all += options.empty() ? "" : "," + options;
    outputOfTool({"mount", "-t", type, "-o", all, volume, directory_.string()});
}

ReadOnlyMount::~ReadOnlyMount() {
    ::umount2(directory_.c_str(), MNT_DETACH);
}

} // namespace tests
