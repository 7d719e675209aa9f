// The verbs, and what they have in common.
#pragma once

#include "cli/Console.h"
#include "cli/ExitCode.h"
#include "cli/Terminal.h"

#include <cstdint>
#include <string>

namespace cli {

/// The arguments of every verb; each verb looks at its own.
struct Options {
    std::string volume;                    ///< path of an image file or a block device
    std::uint64_t alignment = 0;           ///< bytes; 0: what the device asks for
    bool json = false;                     ///< one JSON document instead of text
    std::string output = "-";              ///< bitmap: a path, or "-" for standard output
    ColorChoice color = ColorChoice::Auto; ///< map
    std::size_t columns = 0;               ///< map: width of the picture; 0: the window's
    std::size_t lines = 0;                 ///< map: height of the picture; 0: the window's
    bool ascii = false;                    ///< map: nothing but ASCII
};

/// Each prints its data on standard output and returns kOk or kInconsistent.
/// @throws imaging::VolumeError, Interrupted
ExitCode runDetect(Options const& options, Console& console);
ExitCode runInfo(Options const& options, Console& console);
ExitCode runMap(Options const& options, Console& console);
ExitCode runBitmap(Options const& options, Console& console);
ExitCode runRanges(Options const& options, Console& console);

} // namespace cli
