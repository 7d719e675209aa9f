// Decoding of mapping pairs.
#pragma once

#include "agent/core/fs/NTFSTypes.h"

#include <span>
#include <vector>

namespace agent::core::fs {

/// The runs of a non-resident attribute.
/// @param attribute  the bytes from the attribute on, up to the end of what is at hand
/// @throws std::runtime_error  "No run list can be found", "Invalid runlist" or "Corrupt runlist"
std::vector<ntfs_runlist> decodeMappingPairs(std::span<std::uint8_t const> attribute);

} // namespace agent::core::fs
