// Security descriptors whose bytes end somewhere.
#pragma once

#include "agent/core/fs/NTFSSecurity.h"

#include <cstdint>
#include <span>
#include <vector>

namespace agent::core::fs {

/// As parseSecurityDescriptor, reading nothing outside the bytes, which begin at the descriptor.
/// @throws std::runtime_error  also "Security descriptor is cut off!", "ACL is cut off!", "ACE is cut off!" and
///     "SID is cut off!"
std::vector<NTFS_ACL> parseDescriptorBytes(std::span<std::uint8_t const> descriptor);

/// As parseACEs, likewise.
std::vector<NTFS_ACE> parseAclBytes(std::span<std::uint8_t const> acl);

} // namespace agent::core::fs
