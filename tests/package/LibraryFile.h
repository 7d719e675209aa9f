// The two shared libraries as they were built, and what the binary tools say of them.
#pragma once

#include "support/Command.h"

#include <sstream>
#include <string>
#include <vector>

namespace tests {

constexpr char const* kMortar = "libmortar.so.1";
constexpr char const* kFsparser = "libfsparser.so.1";

/// The file of one of the libraries.
inline std::string libraryFile(std::string const& name) {
    return std::string(FSPARSER_LIBRARY_DIR) + "/" + name;
}

/// Whether this build carries a sanitizer, whose instrumentation adds symbols of its own.
constexpr bool isSanitized() {
#if defined(__SANITIZE_ADDRESS__)
    return true;
#elif defined(__has_feature)
    return __has_feature(address_sanitizer) || __has_feature(undefined_behavior_sanitizer);
#else
    return false;
#endif
}

/// The lines that a program prints; none when it fails.
inline std::vector<std::string> linesOf(std::vector<std::string> const& arguments) {
    CommandResult const result = runCommand(arguments);
    std::vector<std::string> lines;
    if (result.succeeded()) {
        std::istringstream stream(result.output);
        for (std::string line; std::getline(stream, line);) {
            lines.push_back(line);
        }
    }
    return lines;
}

} // namespace tests
