// The verbs, and what they have in common.
#pragma once

#include "cli/Console.h"
#include "cli/ExitCode.h"
#include "cli/Progress.h"
#include "cli/Terminal.h"
#include "imaging/BudgetReader.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace cli {

/// The arguments of every verb; each verb looks at its own.
struct Options {
    std::string volume;                    ///< path of an image file or a block device
    std::uint64_t partition = 0;           ///< number of a partition of it; 0: none
    std::uint64_t offset = 0;              ///< bytes: where the volume begins on it
    imaging::Budget budget;                ///< what may be spent on reading the volume
    std::uint64_t alignment = 0;           ///< bytes; 0: what the device asks for
    std::uint64_t unit = 0;                ///< bytes: the unit of a volume in which nothing is understood; 0: 4096
    bool json = false;                     ///< one JSON document instead of text
    std::string output = "-";              ///< bitmap, ranges: a path, or "-" for standard output
    std::string format;                    ///< ranges: name of a format; empty: text, or JSON if that is asked for
    bool allUsedIfRefused = false;         ///< bitmap: a volume that its parser refuses counts as used
    ColorChoice color = ColorChoice::Auto; ///< map
    std::size_t columns = 0;               ///< map: width of the picture; 0: the window's
    std::size_t lines = 0;                 ///< map: height of the picture; 0: the window's
    std::string png;                       ///< map: a path for an image, or "-" for standard output; empty: none
    std::string svg;                       ///< map: as png
    std::vector<std::string> paths;        ///< stat, extents, acl: paths on the volume
    std::string pathList;                  ///< stat, extents, acl: a file of paths, or "-" for standard input
    std::optional<unsigned long> cache;    ///< stat, extents, acl: directories that the path cache keeps
    bool sddl = false;                     ///< acl: print security descriptor definition language
    std::string destination;               ///< copy: a path or "-"; verify: the image
    bool toDevice = false;                 ///< copy: the destination is a block device
    bool force = false;                    ///< copy: an existing file is replaced
    bool skipUnreadable = false;           ///< copy: go on where the volume cannot be read
    std::string rescueMap;                 ///< copy: where what could not be read is listed; empty: beside the copy
    ProgressChoice progress = ProgressChoice::Auto; ///< copy
    bool ascii = false;                             ///< map: nothing but ASCII
};

/// Each prints its data on standard output and returns kOk, kInconsistent, or kNotUnderstood where a path was not
/// found.
/// @throws imaging::VolumeError, Interrupted
ExitCode runDetect(Options const& options, Console& console);
ExitCode runInfo(Options const& options, Console& console);
ExitCode runMap(Options const& options, Console& console);
ExitCode runBitmap(Options const& options, Console& console);
ExitCode runRanges(Options const& options, Console& console);
ExitCode runCopy(Options const& options, Console& console);
/// kDifferent where the image differs.
ExitCode runVerify(Options const& options, Console& console);
ExitCode runDigest(Options const& options, Console& console);
ExitCode runStat(Options const& options, Console& console);
ExitCode runExtents(Options const& options, Console& console);
ExitCode runAcl(Options const& options, Console& console);

} // namespace cli
