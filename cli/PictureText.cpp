// Titles, offsets and the legend's words.
#include "cli/PictureText.h"

#include "cli/Summary.h"

#include <algorithm>
#include <fmt/format.h>
#include <string_view>

namespace cli {

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
constexpr std::string_view kEllipsis = "\xE2\x80\xA6";

bool isContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

/// Bytes of a character by its first one; 0 for a byte that begins none.
std::size_t lengthByFirst(unsigned char first) {
    if (first < 0x80) {
        return 1;
    }
    if (first >= 0xC2 && first <= 0xDF) {
        return 2;
    }
    if ((first & 0xF0U) == 0xE0U) {
        return 3;
    }
    return first >= 0xF0 && first <= 0xF4 ? 4 : 0;
}

/// Longer forms than needed, surrogates, and what lies past the last character: well-formed in length only.
bool isOutOfRange(unsigned char first, unsigned char second) {
    return (first == 0xE0 && second < 0xA0) || (first == 0xED && second >= 0xA0) || (first == 0xF0 && second < 0x90) ||
           (first == 0xF4 && second >= 0x90);
}

/// C0, DEL, C1, and the two that XML knows not.
bool isControl(std::string_view character) {
    auto const first = static_cast<unsigned char>(character[0]);
    return first < 0x20 || first == 0x7F || (first == 0xC2 && static_cast<unsigned char>(character[1]) < 0xA0) ||
           character == "\xEF\xBF\xBE" || character == "\xEF\xBF\xBF";
}

/// Bytes of the character at the start of text that can be shown, or 0.
std::size_t printableLength(std::string_view text) {
    auto const first = static_cast<unsigned char>(text[0]);
    std::size_t const length = lengthByFirst(first);
    if (length == 0 || length > text.size() ||
        !std::all_of(text.begin() + 1, text.begin() + static_cast<long>(length), isContinuation)) {
        return 0;
    }
    bool const isWrong = length > 1 && isOutOfRange(first, static_cast<unsigned char>(text[1]));
    return isWrong || isControl(text.substr(0, length)) ? 0 : length;
}

/// "100.0 %" and "0.0 %" are said only where they are the truth.
std::string shareText(std::uint64_t used, std::uint64_t units) {
    if (used == units) {
        return "100 %";
    }
    double const share = static_cast<double>(used) * 100 / static_cast<double>(units);
    if (share >= 99.95) {
        return "over 99.9 %";
    }
    return used != 0 && share < 0.05 ? "under 0.1 %" : fmt::format("{:.1f} %", share);
}

std::string cellText(PictureContent const& content) {
    MapCells const& cells = content.cells;
    std::uint64_t const least = cells.count(cells.size() - 1);
    std::uint64_t const most = cells.count(0);
    if (most == 1) {
        return "a cell is one unit";
    }
    std::string const size = humanSize(content.geometry.units * content.geometry.unitSize / cells.size());
    return least == most ? fmt::format("a cell is {} ({} units)", size, least)
                         : fmt::format("a cell is about {} ({} or {} units)", size, least, most);
}

} // namespace

std::optional<imaging::Journal> journalInside(imaging::Geometry const& geometry) {
    auto const& journal = geometry.journal;
    if (!journal || journal->isExternal || journal->units == 0 || journal->first >= geometry.units ||
        journal->units > geometry.units - journal->first) {
        return std::nullopt;
    }
    return journal;
}

std::string pictureTitle(PictureContent const& content, std::size_t characters) {
    return fmt::format("{}  ·  {}  ·  {}", shortened(printableText(content.name), characters), content.fileSystem,
                       humanSize(content.size));
}

std::string pictureSubtitle(PictureContent const& content) {
    imaging::Geometry const& geometry = content.geometry;
    std::uint64_t const used = content.totals.used;
    return fmt::format("{} units of {}  ·  {} used ({})  ·  {}", geometry.units, humanSize(geometry.unitSize),
                       shareText(used, geometry.units), humanSize(used * geometry.unitSize), cellText(content));
}

std::string journalText(imaging::Geometry const& geometry, imaging::Journal const& journal) {
    return fmt::format("journal: {} at {}", humanSize(journal.units * geometry.unitSize),
                       humanSize(geometry.start + journal.first * geometry.unitSize));
}

std::string offsetText(PictureContent const& content, std::size_t cell) {
    std::uint64_t const offset = content.geometry.start + content.cells.first(cell) * content.geometry.unitSize;
    return offset == 0 ? "0" : humanSize(offset);
}

std::string printableText(std::string const& bytes) {
    std::string text;
    for (std::string_view rest = bytes; !rest.empty();) {
        std::size_t const length = printableLength(rest);
        text += length != 0 ? rest.substr(0, length) : kReplacement;
        rest.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return text;
}

std::string shortened(std::string const& text, std::size_t characters) {
    std::size_t seen = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (!isContinuation(text[at]) && seen++ == characters) {
            return text.substr(0, at) + std::string(kEllipsis);
        }
    }
    return text;
}

std::string escapedForXml(std::string const& text) {
    std::string escaped;
    for (char const character : text) {
        switch (character) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        default:
            escaped += character;
        }
    }
    return escaped;
}

} // namespace cli
