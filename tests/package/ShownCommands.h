// The commands that documents show, taken out of them.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tests {

/// Lines of shell as a reader types them, and what the document prints below them.
struct ShownCommand {
    std::string place; ///< the document
    std::string script;
    std::string output; ///< empty where none is shown
};

/// The examples at the end of a verb's --help; "" is the command without a verb.
std::vector<ShownCommand> commandsInHelp(std::string const& verb);

/// The lines of a verb's page that begin with a dollar sign.
std::vector<ShownCommand> commandsInPage(std::string const& verb);

/// The fenced blocks of a Markdown document for the shell, a command a line, with output where they are for the
/// console; and the indented blocks in which fsparser is called, each a command as a whole.
/// @param document  its path from the top of the source tree
std::vector<ShownCommand> commandsInMarkdown(std::string const& document);

/// The fenced blocks of a Markdown document in a language, such as "cpp".
std::vector<std::string> codeInMarkdown(std::string const& document, std::string const& language);

/// The code within lines of a Markdown document that begins with fsparser.
std::vector<std::string> callsInProse(std::string const& document);

/// README.md, CONTRIBUTING.md, the benchmark's page, and what is in docs, as paths from the top of the source tree.
std::vector<std::string> markdownDocuments();

/// What the links of a page lead to; those to other hosts, and programs that are shown, left out.
std::vector<std::string> linksOf(std::string const& text);

/// The links of the Markdown pages below a directory that lead nowhere, those to other hosts left out; for each its
/// page and where it leads.
std::vector<std::string> deadLinksBelow(std::filesystem::path const& directory);

} // namespace tests
