// What standard output is, and how it wants to be written to.
#pragma once

#include <cstddef>

namespace cli {

/// When to use colour.
enum class ColorChoice { Auto, Always, Never };

/// Whether standard output is a terminal.
bool isTerminal();

/// Colour when asked for, or when standard output is a terminal and NO_COLOR is not set (https://no-color.org).
bool useColor(ColorChoice choice);

/// Whether the locale's character set is UTF-8, by LC_ALL, LC_CTYPE and LANG in that order.
bool isUtf8();

/// The size of the window in characters: of the terminal, else by COLUMNS and LINES, else 80 by 24.
struct WindowSize {
    std::size_t columns;
    std::size_t lines;
};
WindowSize windowSize();

} // namespace cli
