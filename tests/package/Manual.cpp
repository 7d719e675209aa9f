// Texts of --help, and pages in mdoc.
#include "Manual.h"

#include "command/Fsparser.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

namespace tests {

namespace {

using Lines = std::vector<std::string>;

Lines linesIn(std::string const& text) {
    std::istringstream stream(text);
    Lines lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

Lines wordsIn(std::string const& text) {
    std::istringstream stream(text);
    Lines words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    return words;
}

/// The indented lines below a heading.
Lines below(std::string const& text, std::string const& heading) {
    Lines const all = linesIn(text);
    auto const begin = std::find(all.begin(), all.end(), heading);
    Lines lines;
    for (auto line = begin == all.end() ? begin : begin + 1; line != all.end() && line->starts_with("  "); ++line) {
        lines.push_back(*line);
    }
    return lines;
}

/// The word behind "default: ", or before " (default)" at the beginning.
std::string defaultIn(std::string const& text) {
    static std::regex const pattern(R"([Dd]efault: ([A-Za-z0-9]+(?:\.[a-z]+)?)|^(\w+) \(default\))");
    std::smatch match;
    return std::regex_search(text, match, pattern) ? match.str(1) + match.str(2) : "";
}

std::vector<DescribedOption> finished(std::vector<DescribedOption> options) {
    for (DescribedOption& option : options) {
        option.defaultValue = defaultIn(option.text);
    }
    std::sort(options.begin(), options.end(),
              [](auto const& left, auto const& right) { return left.names.back() < right.names.back(); });
    return options;
}

/// "-o,--output FILE|-   where to".
DescribedOption optionOfHelpLine(std::string const& line) {
    static std::regex const pattern(
        R"(^  (?:(-\w),)?(--[a-z-]+)( [A-Z][^ ]*)?(?: (?:Excludes|Needs): \S+)*(?:  +(.*))?$)");
    std::smatch match;
    if (!std::regex_match(line, match, pattern)) {
        throw std::runtime_error("no option: " + line);
    }
    DescribedOption option;
    if (match[1].matched) {
        option.names.push_back(match[1]);
    }
    option.names.push_back(match[2]);
    option.takesValue = match[3].matched;
    option.text = match[4];
    return option;
}

/// ".It Fl o Ar file , Fl -output Ar file".
DescribedOption optionOfItem(std::string const& line) {
    DescribedOption option;
    Lines const words = wordsIn(line);
    for (std::size_t i = 1; i + 1 < words.size(); ++i) {
        if (words[i] == "Fl") {
            option.names.push_back("-" + words[i + 1]);
        }
        option.takesValue = option.takesValue || words[i] == "Ar";
    }
    return option;
}

/// A line of a page as it reads, more or less: macros and what they do to punctuation are left out.
std::string plainText(std::string const& line) {
    if (!line.starts_with('.')) {
        return line;
    }
    std::string text;
    for (std::string const& word : wordsIn(line.substr(1))) {
        bool const isMacro = word.size() == 2 && std::isupper(static_cast<unsigned char>(word[0])) != 0 &&
                             std::islower(static_cast<unsigned char>(word[1])) != 0;
        text += isMacro ? "" : (text.empty() ? "" : " ") + word;
    }
    return text;
}

std::string upperCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::toupper(letter)); });
    return text;
}

void appendText(std::string& text, std::string const& line) {
    text += (text.empty() || line.empty() ? "" : " ") + line;
}

/// The items of a list: what stands behind ".It", and the text below.
std::map<std::string, std::string> itemsIn(Lines const& lines, std::string const& prefix) {
    std::map<std::string, std::string> items;
    std::string* text = nullptr;
    for (std::string const& line : lines) {
        if (line.starts_with(".It " + prefix)) {
            text = &items[line.substr(4 + prefix.size())];
        } else if (line == ".El") {
            text = nullptr;
        } else if (text != nullptr) {
            appendText(*text, plainText(line));
        }
    }
    return items;
}

} // namespace

bool operator==(DescribedOption const& left, DescribedOption const& right) {
    return left.names == right.names && left.takesValue == right.takesValue;
}

std::ostream& operator<<(std::ostream& out, DescribedOption const& option) {
    for (std::string const& name : option.names) {
        out << name << ' ';
    }
    return out << (option.takesValue ? "VALUE" : "");
}

std::string pageName(std::string const& verb) {
    return verb.empty() ? "fsparser" : "fsparser-" + verb;
}

std::string pagePath(std::string const& verb) {
    auto const build = std::filesystem::path(FSPARSER_COMMAND).parent_path().parent_path();
    return (build / "share/man/man1" / (pageName(verb) + ".1")).string();
}

Lines linesOf(std::string const& path) {
    std::ifstream file(path);
    std::ostringstream content;
    content << file.rdbuf();
    if (!file) {
        throw std::runtime_error("cannot read " + path);
    }
    return linesIn(content.str());
}

std::string helpOf(std::string const& verb) {
    CommandResult const result = verb.empty() ? fsparser({"--help"}) : fsparser({verb, "--help"});
    if (!result.succeeded()) {
        throw std::runtime_error(verb + " --help: " + result.error);
    }
    return result.output;
}

std::vector<DescribedOption> optionsInHelp(std::string const& verb) {
    std::vector<DescribedOption> options;
    for (std::string const& line : below(helpOf(verb), "Options:")) {
        if (line.starts_with("  -")) {
            options.push_back(optionOfHelpLine(line));
        } else {
            appendText(options.at(options.size() - 1).text, line.substr(line.find_first_not_of(' ')));
        }
    }
    return finished(options);
}

std::vector<DescribedOption> optionsInPage(std::string const& verb) {
    std::vector<DescribedOption> options;
    for (std::string const& line : sectionOfPage(verb, "DESCRIPTION")) {
        if (line.starts_with(".It Fl ")) {
            options.push_back(optionOfItem(line));
        } else if (!options.empty()) {
            appendText(options.back().text, plainText(line));
        }
    }
    return finished(options);
}

Lines operandsInHelp(std::string const& verb) {
    Lines const lines = linesIn(helpOf(verb));
    auto const usage =
        std::find_if(lines.begin(), lines.end(), [](std::string const& line) { return line.starts_with("Usage: "); });
    Lines operands;
    for (std::string word : wordsIn(usage == lines.end() ? "" : *usage)) {
        std::erase_if(word, [](char letter) { return std::string("[].").find(letter) != std::string::npos; });
        if (!word.empty() && word != "OPTIONS" && word == upperCase(word)) {
            operands.push_back(word);
        }
    }
    return operands;
}

Lines operandsInPage(std::string const& verb) {
    Lines operands;
    for (std::string const& line : sectionOfPage(verb, "SYNOPSIS")) {
        Lines const words = wordsIn(line);
        auto const argument = std::find(words.begin(), words.end(), line.starts_with(".Op") ? "Ar" : ".Ar");
        if (argument != words.end() && argument + 1 != words.end() && argument[1] != "option") {
            operands.push_back(upperCase(argument[1]));
        }
    }
    return operands;
}

std::map<int, std::string> exitCodesInHelp() {
    std::map<int, std::string> codes;
    for (std::string const& line : below(helpOf(""), "Exit codes:")) {
        std::size_t length = 0;
        int const code = std::stoi(line, &length);
        codes[code] = line.substr(line.find_first_not_of(' ', length));
    }
    return codes;
}

std::map<int, std::string> exitCodesInPage(std::string const& verb) {
    std::map<int, std::string> codes;
    for (auto const& [code, text] : itemsIn(sectionOfPage(verb, "EXIT STATUS"), "")) {
        codes[std::stoi(code)] = text;
    }
    return codes;
}

std::map<std::string, std::string> verbsInHelp() {
    std::map<std::string, std::string> verbs;
    for (std::string const& line : below(helpOf(""), "Subcommands:")) {
        std::string const verb = wordsIn(line).front();
        verbs[verb] = line.substr(line.find_first_not_of(' ', 2 + verb.size()));
    }
    return verbs;
}

std::map<std::string, std::string> verbsInPage() {
    auto verbs = itemsIn(sectionOfPage("", "DESCRIPTION"), "Ic ");
    for (auto& [verb, text] : verbs) {
        text = text.substr(0, text.find(". See fsparser-" + verb + " 1"));
    }
    return verbs;
}

Lines sectionOfPage(std::string const& verb, std::string const& title) {
    Lines const all = linesOf(pagePath(verb));
    auto const begin = std::find(all.begin(), all.end(), ".Sh " + title);
    Lines lines;
    for (auto line = begin == all.end() ? begin : begin + 1; line != all.end() && !line->starts_with(".Sh "); ++line) {
        lines.push_back(*line);
    }
    return lines;
}

} // namespace tests
