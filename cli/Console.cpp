// Printing to standard error.
#include "cli/Console.h"

#include <cstdio>
#include <fmt/format.h>

namespace cli {

using agent::info::Level;

bool Console::isEnabled(Level level) const {
    return verbosity_ >= (level == Level::Debug ? Verbosity::Debug : Verbosity::Warnings);
}

void Console::write(Level level, std::string const& text) {
    char const* const name = level == Level::Error ? "error" : level == Level::Warning ? "warning" : "debug";
    fmt::print(stderr, "[{}] {}\n", name, text);
}

void Console::error(std::string const& sentence) const {
    fmt::print(stderr, "fsparser: {}\n", sentence);
}

void Console::warnings(std::vector<std::string> const& sentences) const {
    if (verbosity_ == Verbosity::Quiet) {
        return;
    }
    for (std::string const& sentence : sentences) {
        fmt::print(stderr, "fsparser: warning: {}\n", sentence);
    }
}

} // namespace cli
