// Printing to standard error.
#include "cli/Console.h"

#include <cstdio>
#include <fmt/format.h>

namespace cli {

using agent::info::Level;

namespace {

/// Where standard error is closed or full, nobody can be told, and the exit code still says what happened.
void say(std::string const& line) {
    std::fputs(line.c_str(), stderr);
}

} // namespace

bool Console::isEnabled(Level level) const {
    return verbosity_ >= (level == Level::Debug ? Verbosity::Debug : Verbosity::Warnings);
}

void Console::write(Level level, std::string const& text) {
    char const* const name = level == Level::Error ? "error" : level == Level::Warning ? "warning" : "debug";
    say(fmt::format("[{}] {}\n", name, text));
}

void Console::error(std::string const& sentence) const {
    say(fmt::format("fsparser: {}\n", sentence));
}

void Console::note(std::string const& sentence) const {
    if (verbosity_ != Verbosity::Quiet) {
        say(fmt::format("fsparser: note: {}\n", sentence));
    }
}

void Console::warnings(std::vector<std::string> const& sentences) const {
    if (verbosity_ == Verbosity::Quiet) {
        return;
    }
    for (std::string const& sentence : sentences) {
        say(fmt::format("fsparser: warning: {}\n", sentence));
    }
}

} // namespace cli
