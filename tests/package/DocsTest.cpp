// The documents: that they are whole, and say what is there.
#include "package/ShownCommands.h"
#include "support/Command.h"
#include "support/TempDirectory.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

fs::path const& source() {
    static fs::path const path(FSPARSER_SOURCE_DIR);
    return path;
}

std::string textOf(fs::path const& path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file.is_open()) << path;
    return {std::istreambuf_iterator<char>(file), {}};
}

/// The pages that a reader finds: those of docs/, and those beside it.
std::vector<fs::path> pages() {
    std::vector<fs::path> found{source() / "README.md", source() / "CONTRIBUTING.md"};
    for (auto const& entry : fs::recursive_directory_iterator(source() / "docs")) {
        if (entry.path().extension() == ".md") {
            found.push_back(entry.path());
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

/// What stands between the first two texts, the second one looked for behind the first.
std::string between(std::string const& text, std::string const& begin, std::string const& end) {
    auto const first = text.find(begin);
    if (first == std::string::npos) {
        return {};
    }
    auto const start = first + begin.size();
    return text.substr(start, text.find(end, start) - start);
}

} // namespace

TEST(Docs, EveryExportedDeclarationHasItsComment) {
    if (!tests::findProgram("doxygen")) {
        GTEST_SKIP() << "doxygen is not installed";
    }
    tests::TempDirectory const directory;
    tests::CommandOptions options;
    options.workingDirectory = source().string();
    options.environment = {{"FSPARSER_DOCS", directory.path().string()}, {"FSPARSER_VERSION", "1"}};
    tests::CommandResult const result = tests::runCommand({"doxygen", "docs/Doxyfile"}, options);
    EXPECT_TRUE(result.succeeded()) << result;
    EXPECT_EQ(result.error, "");
    EXPECT_TRUE(fs::exists(directory.path() / "html" / "index.html"));
}

TEST(Docs, ThePageOnEmbeddingShowsTheProgramAsItIs) {
    std::string const program = textOf(source() / "examples/agent/agent.cpp");
    std::string const page = textOf(source() / "docs/embedding.md");
    EXPECT_FALSE(program.empty());
    EXPECT_EQ(between(page, "<!-- examples/agent/agent.cpp: scripts/docs puts it here -->\n```cpp\n", "```\n"), program)
        << "scripts/docs puts the program into the page";
}

TEST(Docs, EveryLinkLeadsSomewhere) {
    std::size_t links = 0;
    for (fs::path const& page : pages()) {
        for (std::string const& link : tests::linksOf(textOf(page))) {
            EXPECT_TRUE(fs::exists(page.parent_path() / link)) << page << " leads to " << link;
            ++links;
        }
    }
    EXPECT_GT(links, 0U);
}

TEST(Docs, EveryPageIsReachedFromTheFirst) {
    std::vector<fs::path> reached{source() / "README.md"};
    for (std::size_t i = 0; i < reached.size(); ++i) {
        for (std::string const& link : tests::linksOf(textOf(reached[i]))) {
            fs::path const target = (reached[i].parent_path() / link).lexically_normal();
            if (target.extension() == ".md" && std::find(reached.begin(), reached.end(), target) == reached.end()) {
                reached.push_back(target);
            }
        }
    }
    for (fs::path const& page : pages()) {
        bool const isMadeIntoAnother = page.filename() == "reference.md"; // the first page of the reference
        EXPECT_TRUE(isMadeIntoAnother || std::find(reached.begin(), reached.end(), page) != reached.end()) << page;
    }
}

TEST(Docs, EveryDrawingIsThatOfItsSource) {
    static std::regex const label(R"rx(label="\s*([^"\\]+))rx");
    std::size_t drawings = 0;
    for (auto const& entry : fs::directory_iterator(source() / "docs/pictures")) {
        if (entry.path().extension() != ".dot") {
            continue;
        }
        ++drawings;
        std::string drawing = textOf(fs::path(entry.path()).replace_extension(".svg"));
        drawing = std::regex_replace(drawing, std::regex("&#39;"), "'");
        drawing = std::regex_replace(drawing, std::regex("&#160;"), " ");
        std::string const text = textOf(entry.path());
        for (auto match = std::sregex_iterator(text.begin(), text.end(), label); match != std::sregex_iterator();
             ++match) {
            std::string words = (*match)[1];
            words.erase(words.find_last_not_of(' ') + 1);
            EXPECT_NE(drawing.find(words), std::string::npos) << entry.path() << ": scripts/docs draws " << words;
        }
    }
    EXPECT_GT(drawings, 0U);
}
