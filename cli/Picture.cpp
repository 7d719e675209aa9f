// Drawing a map with cairo.
#include "cli/Picture.h"

#include "cli/PictureText.h"

#include <algorithm>
#include <cairo-svg.h>
#include <cairo.h>
#include <fontconfig/fontconfig.h>
#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <string_view>

namespace cli {

namespace {

struct Color {
    double red;
    double green;
    double blue;
};

constexpr Color rgb(unsigned value) {
    return {static_cast<double>(value >> 16U) / 255, static_cast<double>((value >> 8U) & 0xFFU) / 255,
            static_cast<double>(value & 0xFFU) / 255};
}

constexpr Color kBackground = rgb(0xFFFFFF);
constexpr Color kInk = rgb(0x1F2933);
constexpr Color kFaintInk = rgb(0x52606D);
constexpr Color kFrame = rgb(0xC5CDD5);

/// The gaps let the cells shine through: darker than free ones, lighter than used ones, and loud beside neither.
constexpr Color kGap = rgb(0xA9B6C4);
constexpr double kGapOpacity = 0.35;

/// Ever darker, so that the order is seen without telling hues apart; wholly free and wholly used stand off.
constexpr std::array<Color, kPictureShades> kShadeColors{rgb(0xF1F3F4), rgb(0xC7E9B4), rgb(0x7FCDBB),
                                                         rgb(0x41B0CE), rgb(0x2E75C4), rgb(0x081D58)};

/// The one warm colour, seen as such whatever the eyes.
constexpr Color kJournalColor = rgb(0xD55E00);

/// Room for cells, so that the picture with its words is less than 1200 by 800.
constexpr std::size_t kCellsWidth = 1024;
constexpr std::size_t kCellsHeight = 600;
constexpr std::size_t kLeastSide = 6;
constexpr std::size_t kMostSide = 32;

/// The grid of a volume with more units than cells.
constexpr std::size_t kManyColumns = 128;
constexpr std::size_t kManySide = kCellsWidth / kManyColumns;
constexpr std::size_t kUsualManyLines = 64;
constexpr std::size_t kFewestManyLines = 48;

/// Where the journal's name stands, right of the cells.
constexpr double kJournalMargin = 76;
constexpr double kMargin = 24;
constexpr double kTitleSize = 20;
constexpr double kTextSize = 13;
constexpr double kOffsetSize = 11;
constexpr double kTitleBaseline = 34;
constexpr double kSubtitleBaseline = 58;
constexpr double kLegendBelowCells = 22;
constexpr double kLegendSwatch = 14;
constexpr double kLegendGap = 18;
constexpr double kLineHeight = 24;
constexpr std::size_t kLeastOffsetSpacing = 32;
constexpr std::size_t kTitleCharacters = 80;
constexpr std::size_t kWarningCharacters = 130;

/// The least width that legend and subtitle have room in.
constexpr std::size_t kWordsWidth = 860;

constexpr double kLeft = kGridLeft;
constexpr double kTop = kGridTop;

std::size_t sideFor(std::size_t room, std::size_t cells) {
    return std::clamp(room / cells, kLeastSide, kMostSide);
}

std::size_t linesFor(std::uint64_t units, std::size_t columns) {
    return static_cast<std::size_t>((units + columns - 1) / columns);
}

/// Lines for more units than cells: if it can be, as many as make all cells alike.
std::size_t evenLines(std::uint64_t units) {
    for (std::size_t lines = kCellsHeight / kManySide; lines >= kFewestManyLines; --lines) {
        if (units % (kManyColumns * lines) == 0) {
            return lines;
        }
    }
    return kUsualManyLines;
}

/// Powers of two, so that the lines of most volumes begin at round offsets.
PictureGrid roundGrid(std::uint64_t units) {
    for (std::size_t const columns : {kManyColumns / 4, kManyColumns / 2, kManyColumns}) {
        std::size_t const side = kCellsWidth / columns;
        if (units <= columns * (kCellsHeight / side)) {
            return {static_cast<std::size_t>(std::min<std::uint64_t>(columns, units)), linesFor(units, columns), side};
        }
    }
    return {kManyColumns, evenLines(units), kManySide};
}

/// A cell is shown as entirely free or used only when it is.
std::size_t shadeOf(std::uint64_t used, std::uint64_t count) {
    if (used == 0) {
        return 0;
    }
    if (used == count) {
        return kPictureShades - 1;
    }
    return 1 + static_cast<std::size_t>((used * 4 - 1) / count);
}

/// A context on a surface, with the few things that a map is made of.
class Canvas {
public:
    explicit Canvas(cairo_surface_t* surface) : context_(cairo_create(surface), cairo_destroy) {}

    void use(Color const& color) { cairo_set_source_rgb(get(), color.red, color.green, color.blue); }

    void rectangle(double x, double y, double width, double height) { cairo_rectangle(get(), x, y, width, height); }

    void fill(Color const& color) {
        use(color);
        cairo_fill(get());
    }

    void stroke(Color const& color, double width) {
        use(color);
        cairo_set_line_width(get(), width);
        cairo_stroke(get());
    }

    void font(double size, bool isBold = false) {
        cairo_select_font_face(get(), "sans-serif", CAIRO_FONT_SLANT_NORMAL,
                               isBold ? CAIRO_FONT_WEIGHT_BOLD : CAIRO_FONT_WEIGHT_NORMAL);
        cairo_set_font_size(get(), size);
    }

    double widthOf(std::string const& text) {
        cairo_text_extents_t extents{};
        cairo_text_extents(get(), text.c_str(), &extents);
        return extents.x_advance;
    }

    void write(double x, double baseline, std::string const& text, Color const& color) {
        use(color);
        cairo_move_to(get(), x, baseline);
        cairo_show_text(get(), text.c_str());
    }

    cairo_t* get() const { return context_.get(); }

private:
    std::unique_ptr<cairo_t, decltype(&cairo_destroy)> context_;
};

/// One picture on one canvas.
class Painter {
public:
    Painter(PictureContent const& content, cairo_surface_t* surface)
        : content_(content), grid_(content.grid), journal_(journalInside(content.geometry)), canvas_(surface) {}

    void paint() {
        canvas_.rectangle(0, 0, width(content_), height(content_));
        canvas_.fill(kBackground);
        paintTitle();
        paintCells();
        paintGaps();
        paintFrame();
        paintOffsets();
        paintJournal();
        paintLegend();
        paintWarning();
    }

    cairo_status_t status() const { return cairo_status(canvas_.get()); }

    static double width(PictureContent const& content) {
        auto const cells = static_cast<double>(content.grid.columns * content.grid.side);
        double const margin = journalInside(content.geometry) ? kJournalMargin : kMargin;
        return kLeft + std::max(cells + margin, static_cast<double>(kWordsWidth));
    }

    static double height(PictureContent const& content) {
        double const lines = content.totals.warnings.empty() ? 1 : 2;
        return kTop + static_cast<double>(content.grid.lines * content.grid.side) + kLegendBelowCells +
               lines * kLineHeight + kMargin / 2;
    }

private:
    double x(std::size_t column) const { return kLeft + static_cast<double>(column * grid_.side); }
    double y(std::size_t line) const { return kTop + static_cast<double>(line * grid_.side); }

    std::size_t shade(std::size_t cell) const { return shadeOf(content_.cells.used(cell), content_.cells.count(cell)); }

    /// Column after the last one of a line that has a cell.
    std::size_t columnsIn(std::size_t line) const {
        return std::min(grid_.columns, content_.cells.size() - line * grid_.columns);
    }

    std::size_t cellOf(std::uint64_t unit) const {
        std::size_t low = 0;
        for (std::size_t high = content_.cells.size(); high - low > 1;) {
            std::size_t const middle = low + (high - low) / 2;
            (content_.cells.first(middle) <= unit ? low : high) = middle;
        }
        return low;
    }

    void paintTitle() {
        canvas_.font(kTitleSize, true);
        std::size_t characters = kTitleCharacters;
        while (characters > 1 &&
               canvas_.widthOf(pictureTitle(content_, characters)) > width(content_) - kLeft - kMargin) {
            --characters;
        }
        canvas_.write(kLeft, kTitleBaseline, pictureTitle(content_, characters), kInk);
        canvas_.font(kTextSize);
        canvas_.write(kLeft, kSubtitleBaseline, pictureSubtitle(content_), kFaintInk);
    }

    /// Neighbours of one shade in a line are one rectangle, and a shade is filled at once: a tenth of the file.
    void paintCells() {
        for (std::size_t wanted = 0; wanted < kPictureShades; ++wanted) {
            for (std::size_t line = 0; line < grid_.lines; ++line) {
                addRuns(line, wanted);
            }
            canvas_.fill(kShadeColors.at(wanted));
        }
    }

    void addRuns(std::size_t line, std::size_t wanted) {
        std::size_t const first = line * grid_.columns;
        std::size_t const columns = columnsIn(line);
        for (std::size_t column = 0; column < columns;) {
            std::size_t end = column;
            while (end < columns && shade(first + end) == wanted) {
                ++end;
            }
            if (end > column) {
                canvas_.rectangle(x(column), y(line), x(end) - x(column), static_cast<double>(grid_.side));
            }
            column = std::max(end, column + 1);
        }
    }

    void paintGaps() {
        for (std::size_t line = 0; line < grid_.lines; ++line) {
            canvas_.rectangle(x(0), y(line + 1) - 1, x(columnsIn(line)) - x(0), 1);
        }
        std::size_t const onLastLine = columnsIn(grid_.lines - 1);
        for (std::size_t column = 1; column <= grid_.columns; ++column) {
            std::size_t const lines = column <= onLastLine ? grid_.lines : grid_.lines - 1;
            canvas_.rectangle(x(column) - 1, y(0), 1, y(lines) - y(0));
        }
        cairo_set_source_rgba(canvas_.get(), kGap.red, kGap.green, kGap.blue, kGapOpacity);
        cairo_fill(canvas_.get());
    }

    /// Free cells are nearly white: the frame shows where the volume ends.
    void paintFrame() {
        addOutline(0, content_.cells.size() - 1, 1.5);
        canvas_.stroke(kFrame, 1);
    }

    void paintOffsets() {
        canvas_.font(kOffsetSize);
        std::size_t step = 1;
        while (step * grid_.side < kLeastOffsetSpacing) {
            step *= 2;
        }
        for (std::size_t line = 0; line < grid_.lines; line += step) {
            std::string const text = offsetText(content_, line * grid_.columns);
            double const middle = y(line) + static_cast<double>(grid_.side - 1) / 2;
            canvas_.write(kLeft - 10 - canvas_.widthOf(text), middle + kOffsetSize * 0.36, text, kFaintInk);
            canvas_.rectangle(kLeft - 7, std::max(middle - 0.5, kTop), 4, 1);
            canvas_.fill(kFrame);
        }
    }

    /// The line around cells that follow each other, `away` pixels outside of them.
    void addOutline(std::size_t first, std::size_t last, double away) {
        std::size_t const firstLine = first / grid_.columns;
        std::size_t const lastLine = last / grid_.columns;
        std::size_t const begin = first % grid_.columns;
        std::size_t const end = last % grid_.columns + 1;
        if (firstLine == lastLine) {
            addBox(begin, end, firstLine, lastLine, away);
        } else if (lastLine == firstLine + 1 && end <= begin) { // they do not touch
            addBox(begin, grid_.columns, firstLine, firstLine, away);
            addBox(0, end, lastLine, lastLine, away);
        } else {
            addSteps(begin, end, firstLine, lastLine, away);
        }
    }

    void addBox(std::size_t begin, std::size_t end, std::size_t firstLine, std::size_t lastLine, double away) {
        canvas_.rectangle(x(begin) - away, y(firstLine) - away, x(end) - 1 - x(begin) + 2 * away,
                          y(lastLine + 1) - 1 - y(firstLine) + 2 * away);
    }

    void addSteps(std::size_t begin, std::size_t end, std::size_t firstLine, std::size_t lastLine, double away) {
        cairo_t* const context = canvas_.get();
        double const left = x(0) - away;
        double const right = x(grid_.columns) - 1 + away;
        double const innerTop = begin == 0 ? y(firstLine) - away : y(firstLine + 1) - away;
        double const innerBottom = end == grid_.columns ? y(lastLine + 1) - 1 + away : y(lastLine) - 1 + away;
        cairo_move_to(context, x(begin) - away, y(firstLine) - away);
        cairo_line_to(context, right, y(firstLine) - away);
        cairo_line_to(context, right, innerBottom);
        cairo_line_to(context, x(end) - 1 + away, innerBottom);
        cairo_line_to(context, x(end) - 1 + away, y(lastLine + 1) - 1 + away);
        cairo_line_to(context, left, y(lastLine + 1) - 1 + away);
        cairo_line_to(context, left, innerTop);
        cairo_line_to(context, x(begin) - away, innerTop);
        cairo_close_path(context);
    }

    /// Its name stands beside its lines, where it covers no cell.
    void paintJournal() {
        if (!journal_) {
            return;
        }
        std::size_t const first = cellOf(journal_->first);
        std::size_t const last = cellOf(journal_->first + journal_->units - 1);
        addOutline(first, last, 0.5);
        canvas_.stroke(kJournalColor, 2);
        double const top = y(first / grid_.columns);
        double const bottom = y(last / grid_.columns + 1) - 1;
        double const right = x(grid_.columns) + 5;
        canvas_.rectangle(right, top, 2, bottom - top);
        canvas_.fill(kJournalColor);
        canvas_.font(kTextSize);
        canvas_.write(right + 7, (top + bottom) / 2 + kTextSize * 0.36, "journal", kJournalColor);
    }

    double legendBaseline() const { return y(grid_.lines) + kLegendBelowCells + kLegendSwatch - 2; }

    void paintLegend() {
        canvas_.font(kTextSize);
        double at = kLeft;
        double const top = legendBaseline() - kLegendSwatch + 2;
        for (std::size_t i = 0; i < kPictureShades; ++i) {
            canvas_.rectangle(at, top, kLegendSwatch, kLegendSwatch);
            canvas_.fill(kShadeColors.at(i));
            canvas_.rectangle(at + 0.5, top + 0.5, kLegendSwatch - 1, kLegendSwatch - 1);
            canvas_.stroke(i == 0 ? kFrame : kShadeColors.at(i), 1);
            at = writeMeaning(at, kPictureMeaning.at(i));
        }
        if (journal_) {
            canvas_.rectangle(at + 1, top + 1, kLegendSwatch - 2, kLegendSwatch - 2);
            canvas_.stroke(kJournalColor, 2);
            writeMeaning(at, journalText(content_.geometry, *journal_));
        }
    }

    double writeMeaning(double swatch, std::string const& text) {
        double const at = swatch + kLegendSwatch + 6;
        canvas_.write(at, legendBaseline(), text, kInk);
        return at + canvas_.widthOf(text) + kLegendGap;
    }

    /// A picture is passed on without what was said on the terminal.
    void paintWarning() {
        if (content_.totals.warnings.empty()) {
            return;
        }
        std::string const text = printableText(content_.totals.warnings.front());
        std::size_t characters = kWarningCharacters;
        canvas_.font(kTextSize);
        while (characters > 1 && canvas_.widthOf("Warning: " + shortened(text, characters)) > width(content_) - kLeft) {
            --characters;
        }
        canvas_.write(kLeft, legendBaseline() + kLineHeight, "Warning: " + shortened(text, characters), kJournalColor);
    }

    PictureContent const& content_;
    PictureGrid grid_;
    std::optional<imaging::Journal> journal_;
    Canvas canvas_;
};

using Surface = std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)>;

void requireSuccess(cairo_status_t status) {
    if (status == CAIRO_STATUS_NO_MEMORY) {
        throw std::bad_alloc();
    }
    if (status != CAIRO_STATUS_SUCCESS) {
        throw std::runtime_error(std::string("the picture cannot be drawn: ") + cairo_status_to_string(status));
    }
}

/// The library is written in C, which no exception may cross.
cairo_status_t append(void* closure, unsigned char const* bytes, unsigned length) {
    auto& file = *static_cast<std::vector<std::uint8_t>*>(closure);
    try {
        file.insert(file.end(), bytes, bytes + length);
        return CAIRO_STATUS_SUCCESS;
    } catch (std::bad_alloc const&) {
        return CAIRO_STATUS_NO_MEMORY;
    }
}

void paintOn(cairo_surface_t* surface, PictureContent const& content) {
    requireSuccess(cairo_surface_status(surface));
    Painter painter(content, surface);
    painter.paint();
    requireSuccess(painter.status());
}

/// What screen readers read, and viewers show as the picture's name.
std::string describe(PictureContent const& content) {
    std::string legend;
    for (char const* const meaning : kPictureMeaning) {
        legend += legend.empty() ? "Cells: " : ", ";
        legend += meaning;
    }
    std::string text = pictureSubtitle(content) + ". " + legend + ".";
    if (auto const journal = journalInside(content.geometry)) {
        text += " Outlined " + journalText(content.geometry, *journal) + ".";
    }
    for (std::string const& warning : content.totals.warnings) {
        text += " Warning: " + printableText(warning) + ".";
    }
    return "\n<title>" + escapedForXml(pictureTitle(content, content.name.size())) + "</title>\n<desc>" +
           escapedForXml(text) + "</desc>";
}

} // namespace

PictureGrid choosePictureGrid(std::uint64_t units, std::size_t columns, std::size_t lines) {
    if (columns == 0 && lines == 0) {
        return roundGrid(units);
    }
    if (columns == 0) {
        columns = kCellsWidth / sideFor(kCellsHeight, lines);
    } else if (lines == 0) {
        lines = kCellsHeight / sideFor(kCellsWidth, columns);
    }
    columns = static_cast<std::size_t>(std::min<std::uint64_t>(columns, units));
    lines = static_cast<std::size_t>(std::min<std::uint64_t>(lines, (units + columns - 1) / columns));
    return {columns, lines, std::min(sideFor(kCellsWidth, columns), sideFor(kCellsHeight, lines))};
}

FontsInUse::~FontsInUse() {
    cairo_debug_reset_static_data();
    FcFini();
}

std::vector<std::uint8_t> drawPng(PictureContent const& content) {
    Surface const surface(cairo_image_surface_create(CAIRO_FORMAT_RGB24, static_cast<int>(Painter::width(content)),
                                                     static_cast<int>(Painter::height(content))),
                          cairo_surface_destroy);
    paintOn(surface.get(), content);
    std::vector<std::uint8_t> file;
    requireSuccess(cairo_surface_write_to_png_stream(surface.get(), append, &file));
    return file;
}

std::vector<std::uint8_t> drawSvg(PictureContent const& content) {
    std::vector<std::uint8_t> file;
    Surface const surface(
        cairo_svg_surface_create_for_stream(append, &file, Painter::width(content), Painter::height(content)),
        cairo_surface_destroy);
    cairo_svg_surface_set_document_unit(surface.get(), CAIRO_SVG_UNIT_PX);
    paintOn(surface.get(), content);
    cairo_surface_finish(surface.get());
    requireSuccess(cairo_surface_status(surface.get()));
    // The words are drawn as outlines, which look the same everywhere and say nothing to a program.
    constexpr std::string_view kElement = "<svg";
    auto const element = std::search(file.begin(), file.end(), kElement.begin(), kElement.end());
    auto const end = std::find(element, file.end(), '>');
    if (end == file.end()) {
        throw std::runtime_error("the picture cannot be drawn: it has no beginning");
    }
    std::string const description = describe(content);
    file.insert(end + 1, description.begin(), description.end());
    return file;
}

} // namespace cli
