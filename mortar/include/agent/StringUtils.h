/// @file
/// Narrow and wide strings.
#pragma once

#include "agent/Export.h"

#include <string>

namespace agent {

/// Conversions of strings.
class AGENT_EXPORT StringUtils {
public:
    StringUtils() = delete;

    /// Turns UTF-8 into UTF-16 code units, one to a wide character, so that the result compares unit by unit with names
    /// as NTFS stores them: a character beyond the basic plane becomes its two surrogates.
    ///
    /// Each byte that is not part of a well-formed sequence (RFC 3629: no overlong form, no encoded surrogate, nothing
    /// above U+10FFFF) becomes one U+FFFD. A null byte is a character like any other. Independent of the locale; any
    /// thread.
    ///
    /// @code
    /// std::wstring const name = agent::StringUtils::StrToWStr("caf\xC3\xA9"); // 4 units, the last one 0x00E9
    /// std::wstring const pair = agent::StringUtils::StrToWStr("\xF0\x9F\x93\x81"); // 2: 0xD83D and 0xDCC1
    /// @endcode
    /// @param text  bytes
    /// @return one wide character, none above 0xFFFF, for each UTF-16 unit
    static std::wstring StrToWStr(std::string const& text);
};

} // namespace agent
