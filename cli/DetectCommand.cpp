// fsparser detect: which file system a volume holds, or what is on a disk.
#include "cli/Commands.h"
#include "cli/OpenVolume.h"
#include "cli/Summary.h"
#include "imaging/Detection.h"
#include "imaging/Error.h"
#include "imaging/disk/PartitionTable.h"

#include <algorithm>
#include <fmt/format.h>

namespace cli {

namespace {

/// What a partition holds; empty for nothing known.
std::string contentOf(Options const& options, Console& console, imaging::Partition const& partition) {
    try {
        imaging::Volume const volume(options.volume, options.alignment, console,
                                     {partition.start, partition.size, fmt::format("partition {}", partition.number)},
                                     options.budget);
        return contentName(volume);
    } catch (imaging::VolumeError const& error) {
        console.note(error.what());
        return {};
    }
}

/// Sectors are of 512 bytes, as --offset takes them, whatever the disk's are.
void printDisk(imaging::PartitionTable const& disk, std::vector<std::string> const& contents) {
    constexpr std::uint64_t kSectorBytes = 512;
    std::size_t width = 12;
    for (std::string const& content : contents) {
        width = std::max(width, content.size());
    }
    fmt::print("{} partition table, {} partitions\n", disk.kind, disk.partitions.size());
    for (std::size_t i = 0; i < contents.size(); ++i) {
        imaging::Partition const& partition = disk.partitions[i];
        std::string const content = contents[i].empty() ? "-" : contents[i];
        fmt::print("{:>3}  {:<{}}  from byte {} ({}s), {} bytes ({})  {}{}\n", partition.number, content, width,
                   partition.start, partition.start / kSectorBytes, partition.size, humanSize(partition.size),
                   partition.type, partition.name.empty() ? "" : " \"" + partition.name + "\"");
    }
}

void printDiskJson(imaging::Volume const& volume, imaging::PartitionTable const& disk,
                   std::vector<std::string> const& contents) {
    Json document = beginDocument("detect", volume);
    document["size"] = volume.size();
    document["partition_table"] = disk.kind;
    document["sector_size"] = disk.sectorSize;
    Json& list = document["partitions"] = Json::array();
    for (std::size_t i = 0; i < contents.size(); ++i) {
        imaging::Partition const& partition = disk.partitions[i];
        list.push_back({{"number", partition.number},
                        {"offset", partition.start},
                        {"size", partition.size},
                        {"content", contents[i]},
                        {"type", partition.type},
                        {"name", partition.name}});
    }
    printDocument(document);
}

ExitCode runDisk(Options const& options, Console& console, imaging::Volume const& volume,
                 imaging::PartitionTable const& disk) {
    std::vector<std::string> contents;
    for (imaging::Partition const& partition : disk.partitions) {
        contents.push_back(contentOf(options, console, partition));
    }
    if (options.json) {
        printDiskJson(volume, disk, contents);
    } else {
        printDisk(disk, contents);
    }
    return kOk;
}

} // namespace

ExitCode runDetect(Options const& options, Console& console) {
    imaging::Volume const volume = openVolume(options, console);
    bool const isRecognized = volume.fileSystem() != agent::core::fs::kUnrecognized;
    std::string const content = contentName(volume);
    if (content.empty() && options.partition == 0 && options.offset == 0) {
        auto const disk = imaging::readPartitionTable(options.volume);
        if (disk && !disk->isUnreadable) {
            return runDisk(options, console, volume, *disk);
        }
    }
    std::string const name = content.empty() ? "unrecognized" : content;
    if (options.json) {
        Json document = beginDocument("detect", volume);
        if (!isRecognized && !content.empty()) {
            document["content"] = content;
        }
        document["size"] = volume.size();
        printDocument(document);
    } else {
        fmt::print("{}\n", name);
    }
    if (!isRecognized) {
        console.error(unrecognizedReason(volume));
        return kNotUnderstood;
    }
    return kOk;
}

} // namespace cli
