// The manual's pages and the texts of --help, taken apart.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tests {

/// Every verb, and "" for the command without one.
inline constexpr char const* kManualVerbs[] = {"",     "detect", "info",   "map",  "bitmap",  "ranges",
                                               "copy", "verify", "digest", "stat", "extents", "acl"};

/// One option as it is described somewhere.
struct DescribedOption {
    std::vector<std::string> names; ///< "-o", "--output"
    bool takesValue = false;
    std::string text;         ///< the description, in one line
    std::string defaultValue; ///< its first word; empty: none is named
};

/// Whether they have the same names and both a value or none.
bool operator==(DescribedOption const& left, DescribedOption const& right);
std::ostream& operator<<(std::ostream& out, DescribedOption const& option);

/// "fsparser", or "fsparser-VERB".
std::string pageName(std::string const& verb);

/// Where the page was built.
std::string pagePath(std::string const& verb);

/// The lines of a text file.
/// @throws std::runtime_error  it cannot be read
std::vector<std::string> linesOf(std::string const& path);

/// What a verb's --help prints.
/// @throws std::runtime_error  it ends with an error
std::string helpOf(std::string const& verb);

/// Ordered by their last name.
std::vector<DescribedOption> optionsInHelp(std::string const& verb);
std::vector<DescribedOption> optionsInPage(std::string const& verb);

/// The operands in their order, in capitals, dots and brackets left out.
std::vector<std::string> operandsInHelp(std::string const& verb);
std::vector<std::string> operandsInPage(std::string const& verb);

/// Exit codes and what they mean.
std::map<int, std::string> exitCodesInHelp();
std::map<int, std::string> exitCodesInPage(std::string const& verb);

/// Verbs and what they do.
std::map<std::string, std::string> verbsInHelp();
std::map<std::string, std::string> verbsInPage();

/// The lines of one section of a page.
std::vector<std::string> sectionOfPage(std::string const& verb, std::string const& title);

} // namespace tests
