// fsparser map: a picture of used and free space, in characters that fit the window or as an image.
#include "cli/Commands.h"
#include "cli/Interrupt.h"
#include "cli/OpenVolume.h"
#include "cli/Picture.h"
#include "cli/Summary.h"
#include "cli/TerminalMap.h"
#include "imaging/Detection.h"
#include "imaging/Error.h"
#include "imaging/OutputFile.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fmt/format.h>
#include <optional>
#include <span>

namespace cli {

namespace {

/// Characters of the title beside the volume's path, at most, and of the legend.
constexpr std::size_t kTitleCharacters = 64;
constexpr std::size_t kLegendCharacters = 64;

/// Lines of the window that the title above the picture, the legend below it and the returning prompt take.
std::size_t otherLines(std::string const& path, std::size_t columns) {
    return (path.size() + kTitleCharacters - 1) / columns + 1 + (kLegendCharacters - 1) / columns + 1 + 1;
}

struct TextSize {
    std::size_t columns;
    std::size_t lines;
};

TextSize textSize(Options const& options) {
    WindowSize const window = windowSize();
    std::size_t const others = otherLines(options.volume, window.columns);
    std::size_t const lines = window.lines > others ? window.lines - others : 1;
    return {options.columns != 0 ? options.columns : window.columns, options.lines != 0 ? options.lines : lines};
}

void printText(imaging::Volume const& volume, imaging::VolumeMap const& map, imaging::MapTotals const& totals,
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

/// Where an image goes. A place that cannot be written to is told before the walk; a file appears under its name only
/// at commit().
class ImageDestination {
public:
    /// @param path  a file, "-" for standard output, or empty for none
    ImageDestination(std::string const& path, imaging::Volume const& volume) : isWanted_(!path.empty()) {
        if (isWanted_ && path != "-") {
            file_.emplace(path, volume.filePath());
        }
    }

    bool isWanted() const { return isWanted_; }

    void write(std::span<std::uint8_t const> bytes) {
        if (file_) {
            file_->write(bytes);
        } else if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size() || std::fflush(stdout) != 0) {
            throw imaging::VolumeError(imaging::Trouble::Io,
                                       std::string("standard output: cannot be written: ") + std::strerror(errno));
        }
    }

    void commit() {
        if (file_) {
            file_->commit();
        }
    }

private:
    bool isWanted_;
    std::optional<imaging::OutputFile> file_;
};

/// The path without its directories, with the partition if it is one.
std::string baseName(imaging::Volume const& volume) {
    auto const slash = volume.filePath().find_last_of('/');
    return slash == std::string::npos ? volume.path() : volume.path().substr(slash + 1);
}

MapCells countCells(imaging::VolumeMap& map, std::size_t most, imaging::MapTotals& totals) {
    MapCells cells(map.geometry().units, most);
    totals = map.walk([&cells](imaging::Run const& run) { cells.add(run); }, checkInterrupt);
    return cells;
}

imaging::MapTotals drawImages(Options const& options, imaging::Volume const& volume, imaging::VolumeMap& map) {
    ImageDestination png(options.png, volume);
    ImageDestination svg(options.svg, volume);
    PictureGrid const grid = choosePictureGrid(map.geometry().units, options.columns, options.lines);
    imaging::MapTotals totals;
    MapCells const cells = countCells(map, grid.cells(), totals);
    PictureContent const content{baseName(volume),
                                 imaging::fileSystemName(volume.fileSystem()),
                                 volume.size(),
                                 map.geometry(),
                                 totals,
                                 cells,
                                 grid};
    FontsInUse const fonts;
    if (png.isWanted()) {
        png.write(drawPng(content));
    }
    if (svg.isWanted()) {
        svg.write(drawSvg(content));
    }
    png.commit();
    svg.commit();
    if (options.json) {
        printCells(volume, map, totals, cells);
    }
    return totals;
}

imaging::MapTotals printMap(Options const& options, imaging::Volume const& volume, imaging::VolumeMap& map) {
    TextSize const size = textSize(options);
    imaging::MapTotals totals;
    MapCells const cells = countCells(map, size.columns * size.lines, totals);
    if (options.json) {
        printCells(volume, map, totals, cells);
    } else {
        MapStyle const style{size.columns, useColor(options.color), !options.ascii && isUtf8()};
        printText(volume, map, totals, cells, style);
    }
    return totals;
}

} // namespace

ExitCode runMap(Options const& options, Console& console) {
    imaging::Volume volume = openVolume(options, console);
    imaging::VolumeMap map(volume, imaging::VolumeMap::Refused::IsError, options.unit);
    noteIfUnrecognized(console, volume);
    bool const isImage = !options.png.empty() || !options.svg.empty();
    imaging::MapTotals const totals = isImage ? drawImages(options, volume, map) : printMap(options, volume, map);
    console.warnings(totals.warnings);
    return totals.warnings.empty() ? kOk : kInconsistent;
}

} // namespace cli
