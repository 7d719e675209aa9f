// Cells and their characters.
#include "cli/TerminalMap.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>

namespace cli {

namespace {

/// Entirely free, three shades between, entirely used.
constexpr std::size_t kShades = 5;
constexpr std::array<char const*, kShades> kBlocks{"·", "░", "▒", "▓", "█"};
constexpr std::array<char const*, kShades> kAscii{".", "-", "+", "%", "#"};

/// Colours of the 256-colour palette, from dim grey through green and yellow to red.
constexpr std::array<int, kShades> kColors{240, 71, 142, 172, 160};

constexpr std::array<char const*, kShades> kMeaning{"free", "up to 1/3", "up to 2/3", "below all", "used"};

/// A cell is shown as entirely free or used only when it is.
std::size_t shadeOf(std::uint64_t used, std::uint64_t count) {
    if (used == 0) {
        return 0;
    }
    if (used == count) {
        return kShades - 1;
    }
    auto const third = static_cast<std::size_t>(static_cast<double>(used) * 3 / static_cast<double>(count));
    return 1 + std::min<std::size_t>(third, 2);
}

std::string drawShade(std::size_t shade, MapStyle const& style) {
    return style.utf8 ? kBlocks.at(shade) : kAscii.at(shade);
}

} // namespace

MapCells::MapCells(std::uint64_t units, std::uint64_t cells) : units_(units), used_(std::min(units, cells)) {}

std::uint64_t MapCells::first(std::size_t cell) const {
    // The first cells take one unit more each, until the remainder of the division is spent.
    return cell * (units_ / used_.size()) + std::min<std::uint64_t>(cell, units_ % used_.size());
}

std::size_t MapCells::cellOf(std::uint64_t unit) const {
    std::uint64_t const base = units_ / used_.size();
    std::uint64_t const larger = units_ % used_.size();
    std::uint64_t const inLarger = larger * (base + 1);
    return unit < inLarger ? unit / (base + 1) : larger + (unit - inLarger) / base;
}

void MapCells::add(imaging::Run const& run) {
    if (!run.used) {
        return;
    }
    std::uint64_t const end = run.first + run.count;
    std::uint64_t unit = run.first;
    for (std::size_t cell = cellOf(unit); unit < end; ++cell) {
        std::uint64_t const next = std::min(end, first(cell + 1));
        used_[cell] += next - unit;
        unit = next;
    }
}

std::string drawMap(MapCells const& cells, MapStyle const& style) {
    std::string picture;
    std::size_t lastShade = kShades;
    for (std::size_t cell = 0; cell < cells.size(); ++cell) {
        std::size_t const shade = shadeOf(cells.used(cell), cells.count(cell));
        if (style.color && shade != lastShade) {
            picture += fmt::format("\x1b[38;5;{}m", kColors.at(shade));
            lastShade = shade;
        }
        picture += drawShade(shade, style);
        bool const endsLine = (cell + 1) % style.columns == 0 || cell + 1 == cells.size();
        if (endsLine) {
            picture += style.color ? "\x1b[0m\n" : "\n";
            lastShade = kShades;
        }
    }
    return picture;
}

std::string drawLegend(MapStyle const& style) {
    std::string legend;
    for (std::size_t shade = 0; shade < kShades; ++shade) {
        std::string const sample = drawShade(shade, style);
        legend += shade == 0 ? "" : "  ";
        legend += style.color ? fmt::format("\x1b[38;5;{}m{}\x1b[0m", kColors.at(shade), sample) : sample;
        legend += fmt::format(" {}", kMeaning.at(shade));
    }
    return legend + "\n";
}

} // namespace cli
