// Partitions and offsets.
#include "cli/OpenVolume.h"

#include "cli/Summary.h"
#include "imaging/Error.h"
#include "imaging/disk/PartitionTable.h"

#include <algorithm>
#include <fmt/format.h>

namespace cli {

namespace {

using imaging::Place;
using imaging::Trouble;
using imaging::VolumeError;

Place findPartition(std::string const& path, std::uint64_t number) {
    auto const disk = imaging::readPartitionTable(path);
    if (!disk) {
        throw VolumeError(Trouble::NotUnderstood, path + ": has no partition table");
    }
    if (disk->isUnreadable) {
        throw VolumeError(Trouble::NotUnderstood, unreadableTableSentence(path));
    }
    auto const found = std::find_if(disk->partitions.begin(), disk->partitions.end(),
                                    [number](imaging::Partition const& each) { return each.number == number; });
    if (found == disk->partitions.end()) {
        throw VolumeError(Trouble::NotUnderstood,
                          fmt::format("{}: has no partition {}; fsparser detect lists them", path, number));
    }
    return {found->start, found->size, fmt::format("partition {}", number)};
}

} // namespace

imaging::Volume openVolume(Options const& options, Console& console) {
    Place place;
    if (options.partition != 0) {
        place = findPartition(options.volume, options.partition);
    } else if (options.offset != 0) {
        place = {options.offset, std::nullopt, fmt::format("from byte {}", options.offset)};
    }
    return imaging::Volume(options.volume, options.alignment, console, place, options.budget);
}

} // namespace cli
