/// @file
/// A failed system call.
#pragma once

#include "agent/exception/library_error.h"

#include <string>

namespace agent {

/// A system call that failed, with its `errno`. Thrown only by the constructor of the volume reader.
class AGENT_EXPORT PosixError : public exception::generic_library_error<int> {
public:
    /// @param message  what was tried; may be empty
    /// @param error    the `errno` value, kept as the code
    PosixError(std::string const& message, int error);

    PosixError(PosixError const&) = default;
    PosixError& operator=(PosixError const&) = default;
    ~PosixError() override;

    /// The system's text for an `errno` value, in the language of the process's locale. Defined in libmortar.so.1.
    static std::string strerror(int error);
};

} // namespace agent
