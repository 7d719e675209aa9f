// The map of a volume as an image: PNG or SVG.
#pragma once

#include "cli/TerminalMap.h"
#include "imaging/VolumeMap.h"

#include <cstdint>
#include <string>
#include <vector>

namespace cli {

/// Where the first cell begins, in pixels of the picture.
inline constexpr std::size_t kGridLeft = 90;
inline constexpr std::size_t kGridTop = 80;

/// The cells of a picture. Each is a square; its last line and column of pixels are the gap to the next one.
struct PictureGrid {
    std::size_t columns; ///< cells in a line
    std::size_t lines;
    std::size_t side; ///< pixels of a cell, gap included

    std::size_t cells() const { return columns * lines; }
};

/// Chooses a grid that can be read: cells that are neither tiny nor huge, in a picture that fits a screen.
/// @param units    of the volume, at least 1; it has no more cells than these
/// @param columns  cells in a line, 0 to choose
/// @param lines    0 to choose
PictureGrid choosePictureGrid(std::uint64_t units, std::size_t columns, std::size_t lines);

/// What a picture shows.
struct PictureContent {
    std::string name; ///< of the volume; bytes that are no text are replaced
    std::string fileSystem;
    std::uint64_t size; ///< bytes of the volume
    imaging::Geometry const& geometry;
    imaging::MapTotals const& totals;
    MapCells const& cells; ///< as many as the grid has, or as there are units
    PictureGrid grid;
};

/// Frees at its end the fonts that drawing keeps for the next picture, so that memory checkers find nothing left. No
/// picture may be under way then.
class FontsInUse {
public:
    FontsInUse() = default;
    FontsInUse(FontsInUse const&) = delete;
    FontsInUse& operator=(FontsInUse const&) = delete;
    ~FontsInUse();
};

/// The bytes of a whole file.
/// @throws std::bad_alloc, std::runtime_error  it cannot be drawn
std::vector<std::uint8_t> drawPng(PictureContent const& content);

/// As drawPng(). Title and legend are also there as text, for those who do not see the picture.
std::vector<std::uint8_t> drawSvg(PictureContent const& content);

} // namespace cli
