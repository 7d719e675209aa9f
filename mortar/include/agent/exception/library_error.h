/// @file
/// The base of the exceptions that carry a code.
#pragma once

#include "agent/Export.h"

#include <functional>
#include <stdexcept>
#include <string>

namespace agent::exception {

/// Any error of the libraries that is more than a text. Errors that are only a text are std::runtime_error itself.
class AGENT_EXPORT library_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
    library_error(library_error const&) = default;
    library_error& operator=(library_error const&) = default;
    ~library_error() override;
};

/// An error with a code and a way to put that code into words. Built for `int`, in libfsparser.so.1.
///
/// @code
/// try {
///     agent::core::backup::VolumeReader const volume(logger, "/dev/sdb1");
///     use(volume);
/// } catch (agent::exception::generic_library_error<int> const& error) { // PosixError is one
///     use(error.what(), error.code());
/// }
/// @endcode
template <typename Code>
class AGENT_EXPORT generic_library_error : public library_error {
public:
    /// Turns a code into text. Empty text stands for "Unknown error".
    using Describer = std::function<std::string(Code)>;

    /// Fixes what() as format() gives it, and keeps the code and the describer beside it. Any thread that the describer
    /// allows.
    /// @param library    name of the library
    /// @param message    what was tried; may be empty
    /// @param code       kept
    /// @param describer  kept
    /// @throws std::bad_function_call  the describer is empty
    generic_library_error(std::string const& library, std::string const& message, Code code, Describer const& describer)
        : library_error(format(library, message, code, describer)), code_(code), describer_(describer) {}

    generic_library_error(generic_library_error const&) = default;
    generic_library_error& operator=(generic_library_error const&) = default;
    ~generic_library_error() override;

    /// The code given to the constructor. Any thread.
    Code code() const noexcept { return code_; }

    /// The text of what(): "MESSAGE: DESCRIPTION | ERROR(LIBRARY) : CODE (0xHEX)". The code is written in decimal,
    /// signed, and in lower-case hexadecimal of at least 8 digits as its two's complement. An empty message drops
    /// "MESSAGE: ". Any thread that the describer allows.
    /// @param library    LIBRARY
    /// @param message    MESSAGE
    /// @param code       CODE
    /// @param describer  gives DESCRIPTION; "Unknown error" where that is empty
    /// @return the text
    /// @throws std::bad_function_call  the describer is empty
    static std::string format(std::string const& library, std::string const& message, Code code,
                              Describer const& describer);

private:
    Code code_;
    Describer describer_;
};

extern template class generic_library_error<int>;

} // namespace agent::exception
