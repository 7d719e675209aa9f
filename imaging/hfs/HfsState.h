// Whether an HFS+ volume was unmounted cleanly.
#pragma once

#include "imaging/hfs/HfsHeader.h"

#include <optional>
#include <string>

namespace imaging::hfs {

/// What the volume header and the journal say when the volume was not unmounted cleanly, as one clause; nothing for a
/// clean volume.
/// @throws  whatever `read` throws
std::optional<std::string> uncleanReason(Header const& header, ReadBytes const& read);

/// Whether the header has the flag of a clean unmount and none of inconsistency: then its counts are up to date.
bool wasUnmounted(Header const& header);

} // namespace imaging::hfs
