// Shared parts of the verbs' output.
#include "cli/Summary.h"

#include "imaging/Detection.h"
#include "imaging/disk/PartitionTable.h"
#include "imaging/disk/Signature.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>

namespace cli {

Json beginDocument(std::string const& verb, imaging::Volume const& volume) {
    Json document;
    document["schema"] = "fsparser." + verb + "/1";
    document["file_system"] = imaging::fileSystemName(volume.fileSystem());
    return document;
}

void addGeometry(Json& document, imaging::Volume const& volume, imaging::Geometry const& geometry) {
    document["unit_size"] = geometry.unitSize;
    document["units"] = geometry.units;
    document["size"] = volume.size();
    document["first_unit_offset"] = geometry.start;
    if (volume.start() != 0) {
        document["disk_offset"] = volume.start();
    }
}

std::string contentName(imaging::Volume const& volume) {
    if (volume.fileSystem() != agent::core::fs::kUnrecognized) {
        return imaging::fileSystemName(volume.fileSystem());
    }
    std::string const name = imaging::identifySignature(volume.filePath(), volume.start(), volume.size());
    // Of a file system that is read otherwise, what was found wrong with it is the better answer.
    constexpr std::array readOtherwise{"ntfs", "ext2", "ext3", "ext4", "hfsplus", "xfs"};
    bool const isReadOtherwise = std::find(readOtherwise.begin(), readOtherwise.end(), name) != readOtherwise.end();
    return isReadOtherwise ? std::string() : name;
}

std::string unreadableTableSentence(std::string const& path) {
    return path + ": has the protective MBR of a GPT, but the GPT cannot be read; an image may be cut off; "
                  "--offset takes a volume where it begins";
}

std::string unrecognizedReason(imaging::Volume const& volume) {
    std::string const content = contentName(volume);
    if (!content.empty()) {
        return volume.path() + ": holds " + content + ", which is not read";
    }
    auto const disk = volume.start() == 0 ? imaging::readPartitionTable(volume.filePath()) : std::nullopt;
    if (disk && disk->isUnreadable) {
        return unreadableTableSentence(volume.path());
    }
    if (disk) {
        return volume.path() + ": is a whole disk; fsparser detect lists its partitions, --partition N takes one";
    }
    return imaging::unrecognizedSentence(volume.path(), volume.refusal());
}

void noteIfUnrecognized(Console const& console, imaging::Volume const& volume) {
    if (volume.fileSystem() == agent::core::fs::kUnrecognized) {
        console.note(unrecognizedReason(volume) + "; every unit counts as used");
    }
}

void addWarnings(Json& document, std::vector<std::string> const& warnings) {
    if (!warnings.empty()) {
        document["warnings"] = warnings;
    }
}

std::string dumpDocument(Json const& document) {
    return document.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void printDocument(Json const& document) {
    fmt::print("{}\n", document.dump(2, ' ', false, Json::error_handler_t::replace));
}

std::string humanSize(std::uint64_t bytes) {
    constexpr std::array units{"bytes", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024) {
        return fmt::format("{} {}", bytes, units[0]);
    }
    auto size = static_cast<double>(bytes);
    std::size_t unit = 0;
    while (size >= 1024 && unit + 1 < units.size()) {
        size /= 1024;
        ++unit;
    }
    int const decimals = size < 10 ? 2 : size < 100 ? 1 : 0;
    std::string number = fmt::format("{:.{}f}", size, decimals);
    if (decimals != 0) { // "64", not "64.0"
        number.erase(number.find_last_not_of('0') + 1);
        if (number.back() == '.') {
            number.pop_back();
        }
    }
    return number + ' ' + units.at(unit);
}

} // namespace cli
