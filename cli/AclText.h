// Access-control lists in words and as SDDL.
#pragma once

#include "agent/core/fs/NTFSSecurity.h"

#include <cstdint>
#include <string>
#include <vector>

namespace cli {

/// What a list is for. The library gives the system list before the discretionary one and does not say which is which.
enum class ListKind { System, Discretionary };

/// Tells the lists apart: of two the first is the system list; one alone is discretionary when it grants or denies.
std::vector<ListKind> listKinds(std::vector<agent::core::fs::NTFS_ACL> const& lists);

/// "grant", "deny", "audit success", "audit failure" or "other" for an access mode.
char const* modeName(std::uint8_t mode);

/// The names of the rights in a mask, lowest bit first; bits without a name as "0x...".
std::vector<std::string> rightNames(std::uint64_t mask);

/// The names of an entry's flags, lowest bit first; bits without a name as "0x...".
std::vector<std::string> flagNames(std::uint64_t flags);

/// The name of a well-known security identifier, or an empty string.
std::string wellKnownName(std::string const& sid);

/// The lists as SDDL, the discretionary one first: "D:P(A;OICI;0x1f01ff;;;BA)S:(AU;SA;0x1f01ff;;;WD)". Entries of a
/// type that the library does not tell (labels, attributes) are written as a label when their trustee is one, and are
/// left out otherwise; the GUIDs of object entries are not known and so not written.
std::string toSddl(std::vector<agent::core::fs::NTFS_ACL> const& lists);

} // namespace cli
