// fsparser map: a picture of used and free space that fits the window.
#include "cli/Commands.h"
#include "cli/Interrupt.h"
#include "cli/Summary.h"
#include "cli/TerminalMap.h"
#include "imaging/Detection.h"

#include <algorithm>
#include <fmt/format.h>

namespace cli {

namespace {

/// Characters of the title beside the volume's path, at most, and of the legend.
constexpr std::size_t kTitleCharacters = 64;
constexpr std::size_t kLegendCharacters = 64;

/// Lines of the window that the title above the picture, the legend below it and the returning prompt take.
std::size_t otherLines(std::string const& path, std::size_t columns) {
    return (path.size() + kTitleCharacters - 1) / columns + 1 + (kLegendCharacters - 1) / columns + 1 + 1;
}

struct Picture {
    std::size_t columns;
    std::size_t lines;
};

Picture pictureSize(Options const& options) {
    WindowSize const window = windowSize();
    std::size_t const others = otherLines(options.volume, window.columns);
    std::size_t const lines = window.lines > others ? window.lines - others : 1;
    return {options.columns != 0 ? options.columns : window.columns, options.lines != 0 ? options.lines : lines};
}

void printPicture(imaging::Volume const& volume, imaging::VolumeMap const& map, imaging::MapTotals const& totals,
                  MapCells const& cells, MapStyle const& style) {
    std::uint64_t const unitSize = map.geometry().unitSize;
    auto const share = static_cast<double>(totals.used) * 100 / static_cast<double>(map.geometry().units);
    fmt::print("{}  {}  {}, {:.1f} % used, {} a cell\n", volume.path(), imaging::fileSystemName(volume.fileSystem()),
               humanSize(volume.size()), share, humanSize(cells.count(cells.size() - 1) * unitSize));
    fmt::print("{}{}", drawMap(cells, style), drawLegend(style));
}

void printCells(imaging::Volume const& volume, imaging::VolumeMap const& map, imaging::MapTotals const& totals,
                MapCells const& cells) {
    Json document = beginDocument("map", volume);
    addGeometry(document, volume, map.geometry());
    document["used"] = totals.used;
    document["free"] = totals.free;
    Json& list = document["cells"] = Json::array();
    for (std::size_t cell = 0; cell < cells.size(); ++cell) {
        list.push_back({{"first", cells.first(cell)}, {"count", cells.count(cell)}, {"used", cells.used(cell)}});
    }
    addWarnings(document, totals.warnings);
    printDocument(document);
}

} // namespace

ExitCode runMap(Options const& options, Console& console) {
    imaging::Volume volume(options.volume, options.alignment, console);
    imaging::VolumeMap map(volume, imaging::VolumeMap::Refused::IsError, options.unit);
    noteIfUnrecognized(console, volume);
    Picture const picture = pictureSize(options);
    MapCells cells(map.geometry().units, picture.columns * picture.lines);
    imaging::MapTotals const totals = map.walk([&cells](imaging::Run const& run) { cells.add(run); }, checkInterrupt);
    if (options.json) {
        printCells(volume, map, totals, cells);
    } else {
        MapStyle const style{picture.columns, useColor(options.color), !options.ascii && isUtf8()};
        printPicture(volume, map, totals, cells, style);
    }
    console.warnings(totals.warnings);
    return totals.warnings.empty() ? kOk : kInconsistent;
}

} // namespace cli
