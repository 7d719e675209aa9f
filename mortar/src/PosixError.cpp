// The system's text for an error number.
#include "agent/PosixError.h"

#include <array>
#include <cstring>

namespace agent {

std::string PosixError::strerror(int error) {
    std::array<char, 256> storage{};
    // The GNU form: thread-safe, and returns the text wherever it stands.
    return ::strerror_r(error, storage.data(), storage.size());
}

} // namespace agent
