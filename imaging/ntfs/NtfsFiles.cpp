// Paths for the library, and the order in which it wants to be asked.
#include "imaging/ntfs/NtfsFiles.h"

#include "agent/IConfig.h"
#include "imaging/Answerer.h"
#include "imaging/Detection.h"
#include "imaging/Error.h"

#include <cctype>

namespace imaging::ntfs {

namespace {

/// Of a resident attribute: its header's length, and where the length of its value stands.
constexpr std::size_t kResidentHeader = 0x18;
constexpr std::size_t kValueLength = 0x10;

/// A standard information of NTFS 3 has 72 bytes; an older one ends after 48.
constexpr std::uint64_t kWholeValue = 72;

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

OpenProbe openParser(Volume& volume, std::optional<unsigned long> capacity) {
    if (volume.fileSystem() != agent::core::fs::kNtfs) {
        throw VolumeError(Trouble::NotUnderstood, volume.path() + ": holds " + fileSystemName(volume.fileSystem()) +
                                                      "; files by path are answered for ntfs alone");
    }
    volume.keepMoreReads();
    CacheConfig const config(capacity);
    auto opened = openProbe(volume, config);
    try {
        opened.parser->extents(std::string()); // names can be compared only once this has loaded the upcase table
    } catch (std::runtime_error const& error) {
        throw VolumeError(volume.readTrouble(), volume.path() + ": " + error.what());
    }
    return opened;
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

Files::Files(Volume& volume, std::optional<unsigned long> cacheCapacity) : Files(openParser(volume, cacheCapacity)) {}

Files::Files(OpenProbe opened) : parser_(std::move(opened.parser)), boot_(opened.boot) {}

bool Files::isInformationWhole(unsigned long record) const {
    Probe::Attributes const stored = parser_->attributesOf(record, agent::core::fs::kStandardInformation, boot_);
    // Where there is none, the library says so in its own words.
    return stored.first.size() < kResidentHeader || load(stored.first, kValueLength, 4) >= kWholeValue;
}

FileFacts Files::stat(std::string const& path) {
    std::string const own = toLibraryPath(path);
    unsigned long const record = parser_->convert_to_inode(own);
    return {record, parser_->getStandardInfo(own), isInformationWhole(record)};
}

std::vector<agent::BlockRange> Files::extents(std::string const& path) {
    std::string const own = toLibraryPath(path);
    std::vector<agent::BlockRange> ranges = parser_->extents(own);
    if (ranges.empty()) {
        // The library says nothing of a record that it cannot read.
        parser_->attributesOf(parser_->convert_to_inode(own), agent::core::fs::kData, boot_);
    }
    return ranges;
}

std::vector<agent::core::fs::NTFS_ACL> Files::accessLists(std::string const& path) {
    std::string const own = toLibraryPath(path);
    if (!isInformationWhole(parser_->convert_to_inode(own))) {
        throw std::runtime_error("its standard information has 48 bytes, as an older NTFS writes it, and names no "
                                 "security descriptor in $Secure");
    }
    return parser_->readACLFromFile(own);
}

} // namespace imaging::ntfs
