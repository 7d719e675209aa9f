// What this system says of a volume: through the library, and through the command.
#pragma once

#include "imaging/VolumeMap.h"
#include "support/Command.h"
#include "support/RecordingLogger.h"
#include "volumes/ExtOracles.h"

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace tests {

/// A volume's map, taken from the library.
struct LibraryMap {
    BlockMap used;
    imaging::MapTotals totals;
    imaging::Geometry geometry;
    std::uint64_t bytesPastLastUnit = 0;
};

/// @throws imaging::VolumeError  as the library
LibraryMap readMap(std::string const& volume, std::uint64_t alignment = 0);

/// Runs the command that was built: `fsparser VERB ARGUMENTS...`.
CommandResult runFsparser(std::vector<std::string> const& arguments);

/// The map in the output of `fsparser ranges --json`. Its runs must be in order, apart from each other and inside the
/// volume.
/// @throws std::runtime_error  they are not
BlockMap mapFromRanges(nlohmann::json const& document);

/// The whole content of a file.
std::string contentOfFile(std::string const& path);

/// Changes bytes of a file in place, little-endian.
/// @throws std::runtime_error  the file does not hold the new value afterwards, or held it before
void changeField(std::string const& path, std::uint64_t offset, std::uint64_t value, unsigned bytes);

/// A little-endian number in a file.
std::uint64_t readField(std::string const& path, std::uint64_t offset, unsigned bytes);

} // namespace tests
