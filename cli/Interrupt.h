// Stopping cleanly at SIGINT, SIGTERM and SIGHUP.
#pragma once

#include <cstdint>

namespace cli {

/// Thrown by checkInterrupt() once a signal has come.
struct Interrupted {};

/// From now on the first signal of a kind only sets a flag; a second one ends the process at once. Ignored ones stay
/// so.
void catchInterrupt();

/// The progress function of every walk: throws Interrupted when a signal has come.
void checkInterrupt(std::uint64_t units);

} // namespace cli
