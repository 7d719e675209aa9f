// The one entry that a failed aligned allocation leaves.
#pragma once

#include "agent/info/Logger.h"

#include <exception>
#include <string_view>

namespace agent::core::fs {

/// Logs at `Debug` that an aligned buffer could not be made.
/// @param sourcePath  path of the source file, of which the base name is shown
inline void logFailedAllocation(agent::info::Logger& logger, unsigned long size, unsigned long alignment, int line,
                                std::string_view sourcePath, std::exception const& error) {
    std::string_view const baseName = sourcePath.substr(sourcePath.find_last_of("/\\") + 1);
    try {
        agent::info::Logger::Entry(logger, agent::info::Level::Debug)
            << "Failed to create aligned memory of size: " << size << ", alignment: " << alignment
            << " from line: " << line << " in file: " << baseName << ", error: " << error.what();
    } catch (...) { // NOLINT(bugprone-empty-catch): the failed allocation is what the caller must hear of
    }
}

} // namespace agent::core::fs
