// Paths for the library, and the order in which it wants to be asked.
#include "imaging/ntfs/NtfsFiles.h"

#include "agent/IConfig.h"
#include "imaging/Answerer.h"
#include "imaging/Detection.h"
#include "imaging/Error.h"
#include "imaging/LittleEndian.h"

#include <cctype>

namespace imaging::ntfs {

using agent::core::fs::NTFSParser;

namespace {

/// The one value that the parser asks for.
class CacheConfig : public agent::IConfig {
public:
    explicit CacheConfig(std::optional<unsigned long> capacity) : capacity_(capacity) {}

    bool get(std::string const& key, unsigned long& value) const override {
        if (!capacity_ || key != "ntfsparser.cache.capacity") {
            return false;
        }
        value = *capacity_;
        return true;
    }

private:
    std::optional<unsigned long> capacity_;
};

std::unique_ptr<NTFSParser> openParser(Volume& volume, std::optional<unsigned long> capacity) {
    if (volume.fileSystem() != agent::core::fs::kNtfs) {
        throw VolumeError(Trouble::NotUnderstood, volume.path() + ": holds " + fileSystemName(volume.fileSystem()) +
                                                      "; files by path are answered for ntfs alone");
    }
    CacheConfig const config(capacity);
    auto parser = makeParser<NTFSParser>(volume, config);
    try {
        parser->extents(std::string()); // names can be compared only once this has loaded the upcase table
    } catch (std::runtime_error const& error) {
        throw VolumeError(Trouble::Io, volume.path() + ": " + error.what());
    }
    return parser;
}

bool isSeparator(char character) {
    return character == '/' || character == '\\';
}

} // namespace

std::string toLibraryPath(std::string const& path) {
    bool const hasDrive = path.size() >= 2 && path[1] == ':' && std::isalpha(static_cast<unsigned char>(path[0])) != 0;
    std::string result;
    bool begins = true; // the next character begins a component
    for (std::size_t i = hasDrive ? 2 : 0; i < path.size(); ++i) {
        if (isSeparator(path[i])) {
            begins = true;
            continue;
        }
        if (begins) {
            result += agent::core::fs::SEPARATOR;
            begins = false;
        }
        result += path[i];
    }
    return result;
}

Files::Files(Volume& volume, std::optional<unsigned long> cacheCapacity) : parser_(openParser(volume, cacheCapacity)) {
    std::vector<std::uint8_t> const boot = volume.readBytes(0, kSectorBytes);
    std::uint64_t const stored = boot[0x0D];
    clusterSize_ = load(boot, 0x0B, 2) * (stored <= 0x80 ? stored : std::uint64_t{1} << (256 - stored));
}

FileFacts Files::stat(std::string const& path) {
    std::string const own = toLibraryPath(path);
    return {parser_->convert_to_inode(own), parser_->getStandardInfo(own)};
}

std::vector<agent::BlockRange> Files::extents(std::string const& path) {
    return parser_->extents(toLibraryPath(path));
}

std::vector<agent::core::fs::NTFS_ACL> Files::accessLists(std::string const& path) {
    return parser_->readACLFromFile(toLibraryPath(path));
}

} // namespace imaging::ntfs
