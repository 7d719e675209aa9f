// Asking the terminal and the environment.
#include "cli/Terminal.h"

#include <cstdlib>
#include <string_view>
#include <strings.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace cli {

namespace {

constexpr WindowSize kUsualWindow{80, 24};

std::size_t environmentNumber(char const* name, std::size_t otherwise) {
    char const* const text = std::getenv(name);
    if (text == nullptr) {
        return otherwise;
    }
    unsigned long const number = std::strtoul(text, nullptr, 10);
    return number >= 1 && number <= 10000 ? number : otherwise;
}

} // namespace

bool isTerminal() {
    return ::isatty(STDOUT_FILENO) == 1;
}

bool useColor(ColorChoice choice) {
    if (choice != ColorChoice::Auto) {
        return choice == ColorChoice::Always;
    }
    char const* const noColor = std::getenv("NO_COLOR");
    return isTerminal() && (noColor == nullptr || *noColor == '\0');
}

bool isUtf8() {
    for (char const* const name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        char const* const value = std::getenv(name);
        if (value != nullptr && *value != '\0') {
            std::string_view const locale(value);
            auto const dot = locale.find('.');
            if (dot == std::string_view::npos) {
                return false;
            }
            std::string_view const charset = locale.substr(dot + 1);
            return ::strncasecmp(charset.data(), "utf-8", 5) == 0 || ::strncasecmp(charset.data(), "utf8", 4) == 0;
        }
    }
    return false;
}

WindowSize windowSize() {
    struct winsize window {};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) == 0 && window.ws_col != 0 && window.ws_row != 0) {
        return {window.ws_col, window.ws_row};
    }
    return {environmentNumber("COLUMNS", kUsualWindow.columns), environmentNumber("LINES", kUsualWindow.lines)};
}

} // namespace cli
