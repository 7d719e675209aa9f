/// @file
/// A failed system call.
#pragma once

#include "agent/exception/library_error.h"

#include <string>

namespace agent {

/// A system call that failed, with its `errno`. Thrown only by the constructor of the volume reader.
///
/// what() is the text of generic_library_error with the library "Posix": code 13 and "Unable to open block device to
/// calculate size" give, in the C locale, "Unable to open block device to calculate size: Permission denied |
/// ERROR(Posix) : 13 (0x0000000d)". Defined in libfsparser.so.1, but for strerror(). Made, copied and read on any
/// thread.
///
/// @code
/// try {
///     agent::core::backup::VolumeReader const volume(logger, "/dev/sdb1");
///     use(volume);
/// } catch (agent::PosixError const& error) {
///     use(error.code() == EACCES ? "no permission" : error.what());
/// }
/// @endcode
class AGENT_EXPORT PosixError : public exception::generic_library_error<int> {
public:
    /// Fixes the text and keeps the code. Any thread.
    /// @param message  what was tried; may be empty
    /// @param error    the `errno` value, kept as the code
    PosixError(std::string const& message, int error);

    PosixError(PosixError const&) = default;
    PosixError& operator=(PosixError const&) = default;
    ~PosixError() override;

    /// The system's text for an `errno` value, in the language of the process's locale. Any thread. Defined in
    /// libmortar.so.1.
    /// @param error  an `errno` value; an unknown one has a text, too
    /// @return the text
    static std::string strerror(int error);
};

} // namespace agent
