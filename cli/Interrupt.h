// Stopping cleanly at SIGINT.
#pragma once

#include <cstdint>

namespace cli {

/// Thrown by checkInterrupt() once SIGINT has come.
struct Interrupted {};

/// From now on the first SIGINT only sets a flag; a second one ends the process at once.
void catchInterrupt();

/// The progress function of every walk: throws Interrupted when SIGINT has come.
void checkInterrupt(std::uint64_t units);

} // namespace cli
