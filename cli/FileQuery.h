// What stat, extents and acl have in common: many paths, one answer or one reason each.
#pragma once

#include "cli/Commands.h"
#include "cli/Summary.h"
#include "imaging/ntfs/NtfsFiles.h"

#include <functional>
#include <string>

namespace cli {

/// Answers one path as a JSON object; the path itself is added by the caller. Throws std::runtime_error with the reason
/// when there is no answer.
using FileAnswer = std::function<Json(imaging::ntfs::Files& files, std::string const& path)>;

/// Prints one answer as text.
using FilePrinter = std::function<void(std::string const& path, Json const& answer)>;

/// Asks for every path. Answers go to standard output, one after the other or as one document; the reason of each that
/// fails to standard error, and the others are still answered.
/// @return kOk, or kNotUnderstood when a path was not answered
ExitCode queryFiles(Options const& options, Console& console, std::string const& verb, FileAnswer const& answer,
                    FilePrinter const& print);

} // namespace cli
