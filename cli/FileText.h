// Times and attributes of files, as people read them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace cli {

/// A time of NTFS (100 ns units since 1601-01-01 00:00 UTC) in ISO 8601 with all seven digits, such as
/// "2026-11-20T22:15:03.1234567Z".
std::string isoTime(std::uint64_t fileTime);

/// The names of the attribute bits that are set, lowest first; bits without a name as "0x...".
std::vector<std::string> attributeNames(std::uint32_t attributes);

} // namespace cli
