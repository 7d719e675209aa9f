// The exception types that carry a code, and the text they show.
#include "agent/PosixError.h"
#include "agent/exception/library_error.h"

#include <iomanip>
#include <locale>
#include <sstream>

namespace agent {

namespace exception {

library_error::~library_error() = default;

template <typename Code>
generic_library_error<Code>::~generic_library_error() = default;

template <typename Code>
std::string generic_library_error<Code>::format(std::string const& library, std::string const& message, Code code,
                                                Describer const& describer) {
    std::ostringstream text;
    text.imbue(std::locale::classic());
    if (!message.empty()) {
        text << message << ": ";
    }
    std::string const description = describer(code);
    text << (description.empty() ? "Unknown error" : description) << " | ERROR(" << library << ") : " << code << " (0x"
         << std::hex << std::setw(8) << std::setfill('0') << code << ")";
    return text.str();
}

template class generic_library_error<int>;

} // namespace exception

PosixError::PosixError(std::string const& message, int error)
    : generic_library_error<int>("Posix", message, error, &PosixError::strerror) {}

PosixError::~PosixError() = default;

} // namespace agent
