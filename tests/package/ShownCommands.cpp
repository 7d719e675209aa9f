// Commands in --help, in mdoc and in Markdown.
#include "ShownCommands.h"

#include "Manual.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace tests {

namespace {

constexpr char const* kPrompt = "$ ";

/// mdoc's ways to write what it would take for something else.
std::string unescaped(std::string text) {
    for (auto const& [escape, meaning] : {std::pair{"\\-", "-"}, {"\\(aq", "'"}, {"\\e", "\\"}}) {
        std::string const from = escape;
        std::string const to = meaning;
        for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
            text.replace(at, from.size(), to);
        }
    }
    return text;
}

std::string joined(std::vector<std::string> const& lines) {
    std::string text;
    for (std::string const& line : lines) {
        text += line + "\n";
    }
    return text;
}

/// A console block: commands behind the prompt, and what they print.
void addSession(std::vector<ShownCommand>& commands, std::string const& place, std::vector<std::string> const& lines) {
    for (std::string const& line : lines) {
        if (line.starts_with(kPrompt)) {
            commands.push_back({place, line.substr(2), ""});
        } else if (!commands.empty()) {
            commands.back().output += line + "\n";
        }
    }
}

void addBlock(std::vector<ShownCommand>& commands, std::string const& place, std::string const& language,
              std::vector<std::string> const& lines) {
    if (language == "console") {
        addSession(commands, place, lines);
    } else if (language == "sh" || language == "bash") {
        for (std::string const& line : lines) {
            commands.push_back({place, line.substr(0, line.find_last_not_of(' ', line.find(" #")) + 1), ""});
        }
    } else if (language == "indented" && std::any_of(lines.begin(), lines.end(), [](std::string const& line) {
                   return line.starts_with("fsparser ");
               })) {
        commands.push_back({place, joined(lines), ""});
    }
}

std::string sourceFile(std::string const& document) {
    return std::string(FSPARSER_SOURCE_DIR) + "/" + document;
}

/// Lines of a Markdown document that are no prose.
struct Block {
    std::string language; ///< of the fence; "none" where it names none, "indented" where there is none
    std::vector<std::string> lines;
};

std::vector<Block> blocksOf(std::string const& path) {
    std::vector<Block> blocks;
    bool isFenced = false;
    bool isIndented = false;
    for (std::string const& line : linesOf(path)) {
        bool const wasIndented = std::exchange(isIndented, !isFenced && line.starts_with("    "));
        if (line.starts_with("```")) {
            isFenced = !isFenced;
            if (isFenced) {
                blocks.push_back({line.size() > 3 ? line.substr(3) : "none", {}});
            }
        } else if (isFenced) {
            blocks.back().lines.push_back(line);
        } else if (isIndented) {
            if (!wasIndented) {
                blocks.push_back({"indented", {}});
            }
            blocks.back().lines.push_back(line.substr(4));
        }
    }
    return blocks;
}

} // namespace

std::vector<ShownCommand> commandsInHelp(std::string const& verb) {
    std::istringstream help(helpOf(verb));
    std::vector<ShownCommand> commands;
    bool isExample = false;
    for (std::string line; std::getline(help, line);) {
        if (isExample && line.starts_with("  ")) {
            commands.push_back({"fsparser " + verb + " --help", line.substr(2), ""});
        } else {
            isExample = line == "Example:" || line == "Examples:";
        }
    }
    return commands;
}

std::vector<ShownCommand> commandsInPage(std::string const& verb) {
    std::vector<ShownCommand> commands;
    for (std::string const& line : linesOf(pagePath(verb))) {
        if (line.starts_with(kPrompt)) {
            commands.push_back({pageName(verb) + "(1)", unescaped(line.substr(2)), ""});
        }
    }
    return commands;
}

std::vector<ShownCommand> commandsInMarkdown(std::string const& document) {
    std::vector<ShownCommand> commands;
    for (Block const& block : blocksOf(sourceFile(document))) {
        addBlock(commands, document, block.language, block.lines);
    }
    return commands;
}

std::vector<std::string> codeInMarkdown(std::string const& document, std::string const& language) {
    std::vector<std::string> code;
    for (Block const& block : blocksOf(sourceFile(document))) {
        if (block.language == language) {
            code.push_back(joined(block.lines));
        }
    }
    return code;
}

std::vector<std::string> callsInProse(std::string const& document) {
    static std::regex const pattern("`(fsparser [^`]+)`");
    std::vector<std::string> calls;
    for (std::string const& line : linesOf(sourceFile(document))) {
        for (std::sregex_iterator match(line.begin(), line.end(), pattern), end; match != end; ++match) {
            calls.push_back((*match)[1]);
        }
    }
    return calls;
}

std::vector<std::string> markdownDocuments() {
    namespace fs = std::filesystem;
    fs::path const top(FSPARSER_SOURCE_DIR);
    std::vector<std::string> documents{"README.md", "CONTRIBUTING.md", "bench/README.md"};
    for (auto const& entry : fs::recursive_directory_iterator(top / "docs")) {
        if (entry.path().extension() == ".md") {
            documents.push_back(fs::relative(entry.path(), top).generic_string());
        }
    }
    std::sort(documents.begin() + 1, documents.end());
    return documents;
}

std::vector<std::string> linksOf(std::string const& text) {
    static std::regex const link(R"(\]\(([^)#\s]+)[^)]*\))");
    std::vector<std::string> links;
    std::istringstream lines(text);
    bool isProgram = false;
    for (std::string line; std::getline(lines, line);) {
        isProgram = line.starts_with("```") ? !isProgram : isProgram;
        for (auto match = std::sregex_iterator(line.begin(), line.end(), link);
             !isProgram && match != std::sregex_iterator(); ++match) {
            if (std::string const target = (*match)[1]; target.find("://") == std::string::npos) {
                links.push_back(target);
            }
        }
    }
    return links;
}

std::vector<std::string> deadLinksBelow(std::filesystem::path const& directory) {
    std::vector<std::string> dead;
    for (auto const& entry : std::filesystem::recursive_directory_iterator(directory)) {
        if (entry.path().extension() != ".md") {
            continue;
        }
        std::ifstream page(entry.path());
        std::string const text{std::istreambuf_iterator<char>(page), {}};
        for (std::string const& target : linksOf(text)) {
            if (!std::filesystem::exists(entry.path().parent_path() / target)) {
                dead.push_back(entry.path().string() + " leads to " + target);
            }
        }
    }
    return dead;
}

} // namespace tests
