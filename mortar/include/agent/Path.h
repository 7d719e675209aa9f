/// @file
/// Paths of the host system.
#pragma once

#include "agent/Export.h"

#include <string>

namespace agent {

/// Helpers for paths of the host system (separator '/').
///
/// @code
/// std::string const device = agent::Path::concat("/dev/", "sdb1"); // "/dev/sdb1"
/// @endcode
class AGENT_EXPORT Path {
public:
    Path() = delete;

    /// The path of one component: itself, unchanged, so that the name of a device stays the name it was opened by. Any
    /// thread.
    /// @param path  any text
    /// @return `path`
    static std::string concat(std::string path);

    /// Joins two components with exactly one '/' between them. An empty component adds nothing. Nothing is looked up or
    /// normalised. Any thread.
    /// @param first   may end in '/'
    /// @param second  may begin with '/'
    /// @return "a/b" for "a" and "b", "a/" and "b", "a" and "/b", "a/" and "/b"
    static std::string concat(std::string const& first, std::string const& second);
};

} // namespace agent
