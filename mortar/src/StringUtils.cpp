// UTF-8 to UTF-16 code units.
#include "agent/StringUtils.h"

#include <cstdint>
#include <string_view>

namespace agent {

namespace {

constexpr std::uint32_t kReplacement = 0xFFFD;

struct Decoded {
    std::uint32_t character;
    std::size_t bytes;
};

/// What the first byte of a sequence promises: its length, its own bits, and the smallest character of that length.
struct Lead {
    std::size_t bytes;
    std::uint32_t bits;
    std::uint32_t smallest;
};

Lead readLead(std::uint8_t byte) {
    if (byte < 0x80) {
        return {1, byte, 0};
    }
    if (byte >= 0xC2 && byte < 0xE0) {
        return {2, byte & 0x1FU, 0x80};
    }
    if (byte >= 0xE0 && byte < 0xF0) {
        return {3, byte & 0x0FU, 0x800};
    }
    if (byte >= 0xF0 && byte < 0xF5) {
        return {4, byte & 0x07U, 0x10000};
    }
    return {0, 0, 0};
}

/// Decodes the sequence at the start of `text`, which is not empty; a malformed byte stands for itself alone.
Decoded decode(std::string_view text) {
    constexpr Decoded malformed{kReplacement, 1};
    Lead const lead = readLead(static_cast<std::uint8_t>(text.front()));
    if (lead.bytes == 0 || lead.bytes > text.size()) {
        return malformed;
    }
    std::uint32_t character = lead.bits;
    for (std::size_t i = 1; i < lead.bytes; ++i) {
        auto const byte = static_cast<std::uint8_t>(text[i]);
        if ((byte & 0xC0U) != 0x80U) {
            return malformed;
        }
        character = (character << 6) | (byte & 0x3FU);
    }
    bool const isSurrogate = character >= 0xD800 && character < 0xE000;
    if (character < lead.smallest || character > 0x10FFFF || isSurrogate) {
        return malformed;
    }
    return {character, lead.bytes};
}

} // namespace

std::wstring StringUtils::StrToWStr(std::string const& text) {
    std::wstring units;
    units.reserve(text.size());
    std::string_view rest = text;
    while (!rest.empty()) {
        auto const [character, bytes] = decode(rest);
        rest.remove_prefix(bytes);
        if (character < 0x10000) {
            units.push_back(static_cast<wchar_t>(character));
            continue;
        }
        std::uint32_t const offset = character - 0x10000;
        units.push_back(static_cast<wchar_t>(0xD800 + (offset >> 10)));
        units.push_back(static_cast<wchar_t>(0xDC00 + (offset & 0x3FF)));
    }
    return units;
}

} // namespace agent
