// A picture of used and free space, in characters.
#pragma once

#include "imaging/Runs.h"

#include <cstdint>
#include <string>
#include <vector>

namespace cli {

/// Divides the units of a volume evenly among cells, each of which learns how many of its units are used.
class MapCells {
public:
    /// @param units  units of the volume, at least 1
    /// @param cells  most cells, at least 1; a volume of fewer units has one cell a unit
    MapCells(std::uint64_t units, std::uint64_t cells);

    /// Counts a run in.
    void add(imaging::Run const& run);

    std::size_t size() const { return used_.size(); }

    /// First unit of a cell; of the cell past the last one, the number of units.
    std::uint64_t first(std::size_t cell) const;

    /// Used units of a cell.
    std::uint64_t used(std::size_t cell) const { return used_[cell]; }

    /// Units of a cell, at least 1.
    std::uint64_t count(std::size_t cell) const { return first(cell + 1) - first(cell); }

private:
    std::size_t cellOf(std::uint64_t unit) const;

    std::uint64_t units_;
    std::vector<std::uint64_t> used_;
};

/// How a picture is drawn.
struct MapStyle {
    std::size_t columns; ///< cells in a line
    bool color;
    bool utf8; ///< shades of grey as block characters instead of ASCII
};

/// The picture, one line of cells after the other, each ended by a newline.
std::string drawMap(MapCells const& cells, MapStyle const& style);

/// The line that explains the characters, with a newline.
std::string drawLegend(MapStyle const& style);

} // namespace cli
