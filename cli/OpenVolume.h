// The volume that the arguments name.
#pragma once

#include "cli/Commands.h"
#include "imaging/Volume.h"

namespace cli {

/// Opens the volume: the whole path, one of its partitions, or what begins at an offset.
/// @throws imaging::VolumeError  it cannot be opened, or there is no such partition
imaging::Volume openVolume(Options const& options, Console& console);

} // namespace cli
