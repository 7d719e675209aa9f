// How the command ends.
#pragma once

namespace cli {

/// The exit codes of every verb; documented in the README and in --help.
enum ExitCode : int {
    kOk = 0,
    kFailure = 1,       ///< an I/O or internal error
    kUsage = 2,         ///< the arguments make no sense
    kNotUnderstood = 3, ///< not found, or not a file system that is understood
    kInconsistent = 4,  ///< done, but the volume is inconsistent or its map is not to be believed
    kDifferent = 5,     ///< verification failed
    kInterrupted = 130, ///< stopped by SIGINT, SIGTERM or SIGHUP
};

} // namespace cli
