// What the exported headers say, read as text.
#pragma once

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <string>
#include <vector>

namespace tests {

/// The lines of every exported header, without comments.
inline std::vector<std::string> linesOfExportedHeaders() {
    namespace fs = std::filesystem;
    std::vector<std::string> lines;
    for (char const* const folder : {"mortar", "fsparser"}) {
        for (auto const& entry : fs::recursive_directory_iterator(fs::path(FSPARSER_SOURCE_DIR) / folder / "include")) {
            std::ifstream file(entry.path());
            for (std::string line; std::getline(file, line);) {
                lines.push_back(line.substr(0, line.find("//")));
            }
        }
    }
    return lines;
}

/// The names of the enumerations that they define.
inline std::set<std::string> enumerationsOfExportedHeaders() {
    static std::regex const definition(R"(^\s*enum\s+(?:class\s+|struct\s+)?(\w+))");
    std::set<std::string> names;
    for (std::string const& line : linesOfExportedHeaders()) {
        if (std::smatch match; std::regex_search(line, match, definition)) {
            names.insert(match[1]);
        }
    }
    return names;
}

/// The classes and functions in their classes that they declare as hidden, such as "Logger::format".
inline std::set<std::string> hiddenNamesOfExportedHeaders() {
    static std::regex const exportedClass(R"(^\s*(?:class|struct)\s+AGENT_EXPORT\s+(?:\w+::)*(\w+))");
    static std::regex const hiddenClass(R"(^\s*(?:class|struct)\s+AGENT_LOCAL\s+(\w+))");
    static std::regex const hiddenFunction(R"(^\s*AGENT_LOCAL\s[^(]*?(\w+)\()");
    std::set<std::string> names;
    std::string owner;
    for (std::string const& line : linesOfExportedHeaders()) {
        std::smatch match;
        if (std::regex_search(line, match, exportedClass)) {
            owner = match[1];
        } else if (std::regex_search(line, match, hiddenClass) || std::regex_search(line, match, hiddenFunction)) {
            names.insert(owner + "::" + match.str(1));
        }
    }
    return names;
}

} // namespace tests
