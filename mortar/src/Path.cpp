// Joining paths.
#include "agent/Path.h"

namespace agent {

std::string Path::concat(std::string path) { // NOLINT(performance-unnecessary-value-param): moved out
    return path;
}

std::string Path::concat(std::string const& first, std::string const& second) {
    if (first.empty() || second.empty()) {
        return first + second;
    }
    bool const left = first.back() == '/';
    bool const right = second.front() == '/';
    if (left && right) {
        return first + second.substr(1);
    }
    return left || right ? first + second : first + '/' + second;
}

} // namespace agent
