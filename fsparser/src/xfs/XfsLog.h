// Entries of the XFS parser's trace.
#pragma once

#include "agent/info/Logger.h"

#include <cstdint>
#include <iomanip>
#include <ios>

namespace agent::core::fs {

/// Logs one entry at `Debug`, made of the pieces as they stand.
template <typename... Pieces>
void logDebug(agent::info::Logger& logger, Pieces const&... pieces) {
    agent::info::Logger::Entry entry(logger, agent::info::Level::Debug);
    (entry << ... << pieces);
}

/// Logs a magic number at `Debug`, in eight hexadecimal digits.
inline void logMagic(agent::info::Logger& logger, std::uint32_t magic) {
    logDebug(logger, "magic 0x", std::hex, std::setfill('0'), std::setw(8), magic, std::dec);
}

} // namespace agent::core::fs
