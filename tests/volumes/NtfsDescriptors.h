// Security descriptors for real volumes: putting them together, and reading them the test's own way.
#pragma once

#include "agent/core/fs/NTFSSecurity.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tests {

/// A security identifier as it stands on disk.
std::string sidBytes(std::uint64_t authority, std::vector<std::uint32_t> const& subAuthorities);

/// An entry as it stands on disk.
std::string aceBytes(unsigned type, unsigned flags, std::uint32_t mask, std::string const& sid);

/// An object entry with both of its GUIDs.
std::string objectAceBytes(unsigned type, unsigned flags, std::uint32_t mask, std::string const& sid);

/// Parts of a descriptor; one without a list has its control bit clear, a null list has the bit and no list.
struct DescriptorParts {
    std::optional<std::vector<std::string>> dacl = std::nullopt; ///< entries
    std::optional<std::vector<std::string>> sacl = std::nullopt; ///< entries
    bool hasNullDacl = false;
    unsigned revision = 2;    ///< of the lists; 4 where there are object entries
    unsigned moreControl = 0; ///< such as 0x1000, the discretionary list is protected
};

/// A self-relative descriptor; owner S-1-5-32-544, group S-1-5-18.
std::string descriptorBytes(DescriptorParts const& parts);

/// What the library must say of a descriptor, taken from its bytes: trustees of object entries stand 0x34 bytes into
/// their entry, whatever that leads to.
/// @throws std::runtime_error  a trustee is no security identifier, with the library's text
std::vector<agent::core::fs::NTFS_ACL> listsOf(std::string const& descriptor);

/// One line an entry, for comparing and for messages.
std::string asText(std::vector<agent::core::fs::NTFS_ACL> const& lists);

} // namespace tests
