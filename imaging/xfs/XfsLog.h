// Whether an XFS journal was closed properly.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace imaging::xfs {

/// Reads bytes of the journal: offset from its start, and length.
using ReadLog = std::function<std::vector<std::uint8_t>(std::uint64_t offset, std::uint64_t length)>;

/// Looks for the journal's last record: on a volume that was unmounted cleanly it says so. What is missing then, as one
/// clause; nothing for a clean journal, and for one that was never written.
/// @param bytes  of the journal
/// @throws  whatever `read` throws
std::optional<std::string> findOpenLog(std::uint64_t bytes, ReadLog const& read);

} // namespace imaging::xfs
