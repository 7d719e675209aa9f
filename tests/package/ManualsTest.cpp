// The manual's pages say what the command's own --help says, keep to mdoc, and are installed.
#include "Manual.h"
#include "ShownCommands.h"
#include "command/Fsparser.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>

namespace {

using namespace tests;
using testing::Contains;
using testing::ElementsAreArray;

class ManualPage : public testing::TestWithParam<char const*> {
protected:
    std::string verb = GetParam();
};

INSTANTIATE_TEST_SUITE_P(Verbs, ManualPage, testing::ValuesIn(kManualVerbs), [](auto const& instance) {
    return *instance.param == '\0' ? std::string("fsparser") : instance.param;
});

TEST(ManualPages, AreThereForEachVerb) {
    std::vector<std::string> verbs{""};
    for (auto const& [verb, text] : verbsInHelp()) {
        verbs.push_back(verb);
    }
    EXPECT_THAT(verbs, testing::UnorderedElementsAreArray(kManualVerbs));
}

TEST_P(ManualPage, HasTheOptionsOfTheHelpAndNoOther) {
    EXPECT_GE(optionsInHelp(verb).size(), 2U);
    EXPECT_THAT(optionsInPage(verb), ElementsAreArray(optionsInHelp(verb)));
}

TEST_P(ManualPage, NamesTheDefaultsOfTheHelp) {
    auto const inPage = optionsInPage(verb);
    auto const inHelp = optionsInHelp(verb);
    ASSERT_EQ(inPage.size(), inHelp.size());
    unsigned named = 0;
    for (std::size_t i = 0; i < inHelp.size(); ++i) {
        EXPECT_EQ(inPage[i].defaultValue, inHelp[i].defaultValue) << inHelp[i];
        named += inHelp[i].defaultValue.empty() ? 0U : 1U;
    }
    EXPECT_GE(named, verb.empty() ? 0U : 3U) << "the pattern finds them";
}

TEST_P(ManualPage, NamesTheOptionsThatExcludeEachOtherOrNeedAnother) {
    std::string const help = helpOf(verb);
    std::regex const pattern(R"(--[a-z-]+[^\n]* (Excludes|Needs): (--[a-z-]+))");
    std::sregex_iterator const end;
    unsigned found = 0;
    for (std::sregex_iterator match(help.begin(), help.end(), pattern); match != end; ++match, ++found) {
        std::string const line = match->str();
        std::string const name = line.substr(0, line.find_first_of(" ,"));
        for (DescribedOption const& option : optionsInPage(verb)) {
            if (option.names.back() == name) {
                EXPECT_THAT(option.text, testing::HasSubstr(match->str(2).substr(1))) << name;
            }
        }
    }
    EXPECT_GE(found, verb.empty() ? 0U : 4U);
}

/// Whether the command takes a value of an option, on a volume that is not there.
bool isTaken(std::string const& verb, std::string const& option, std::uint64_t value) {
    TempDirectory const directory;
    std::vector<std::string> arguments{verb, option + "=" + std::to_string(value), directory.file("volume")};
    for (std::size_t i = 1; i < operandsInHelp(verb).size(); ++i) {
        arguments.push_back(directory.file("other"));
    }
    CommandResult const result = fsparser(arguments);
    EXPECT_EQ(result.exitCode, result.error.starts_with(option) ? 2 : 3) << result;
    return result.exitCode != 2;
}

TEST_P(ManualPage, NamesTheBoundsThatTheCommandKeeps) {
    unsigned named = 0;
    for (DescribedOption const& option : optionsInPage(verb)) {
        std::smatch bounds;
        if (std::regex_search(option.text, bounds, std::regex("From ([0-9]+) to ([0-9]+)"))) {
            std::uint64_t const least = std::stoull(bounds[1]);
            std::uint64_t const most = std::stoull(bounds[2]);
            EXPECT_TRUE(isTaken(verb, option.names.back(), least)) << option;
            EXPECT_FALSE(isTaken(verb, option.names.back(), least - 1)) << option;
            EXPECT_TRUE(isTaken(verb, option.names.back(), most)) << option;
            EXPECT_FALSE(isTaken(verb, option.names.back(), most + 1)) << option;
            ++named;
        }
    }
    EXPECT_GE(named, verb.empty() ? 0U : 3U);
}

TEST_P(ManualPage, NamesTheOperandsOfTheHelp) {
    if (verb.empty()) { // the help speaks of a subcommand
        EXPECT_THAT(operandsInPage(verb), testing::ElementsAre("VERB", "VOLUME", "ARGUMENT"));
        return;
    }
    EXPECT_THAT(operandsInPage(verb), ElementsAreArray(operandsInHelp(verb)));
    EXPECT_EQ(operandsInPage(verb).front(), "VOLUME");
}

TEST_P(ManualPage, NamesTheExitCodesThatTheVerbMayEndWith) {
    std::map<int, std::string> expected = exitCodesInHelp();
    ASSERT_EQ(expected.size(), 7U);
    if (!verb.empty() && verb != "verify") {
        expected.erase(5);
    }
    EXPECT_EQ(exitCodesInPage(verb), expected);
}

TEST(ManualPages, NameTheExitCodesOfTheSource) {
    std::vector<int> codes;
    for (std::string const& line : linesOf(FSPARSER_SOURCE_DIR "/cli/ExitCode.h")) {
        std::smatch match;
        if (std::regex_search(line, match, std::regex(R"(^ +k\w+ = ([0-9]+),)"))) {
            codes.push_back(std::stoi(match[1]));
        }
    }
    std::vector<int> documented;
    for (auto const& [code, text] : exitCodesInPage("")) {
        documented.push_back(code);
    }
    EXPECT_EQ(documented, codes);
}

TEST(ManualPages, DescribeTheVerbsAsTheHelpDoes) {
    EXPECT_EQ(verbsInPage(), verbsInHelp());
}

TEST_P(ManualPage, HasEverySectionThatAReaderLooksFor) {
    for (char const* const title :
         {"NAME", "SYNOPSIS", "DESCRIPTION", "EXIT STATUS", "EXAMPLES", "SEE ALSO", "CAVEATS"}) {
        EXPECT_FALSE(sectionOfPage(verb, title).empty()) << title;
    }
    EXPECT_THAT(sectionOfPage(verb, "NAME"), Contains(".Nm " + pageName(verb)));
    EXPECT_THAT(linesOf(pagePath(verb)), testing::Each(testing::Not(testing::HasSubstr("@")))) << "a part is missing";
}

/// The pages of this manual that a page refers to.
std::vector<std::string> referencesIn(std::string const& verb) {
    std::vector<std::string> names;
    for (std::string const& line : sectionOfPage(verb, "SEE ALSO")) {
        std::istringstream stream(line);
        std::string macro;
        std::string name;
        if (stream >> macro >> name && macro == ".Xr" && name.starts_with("fsparser")) {
            names.push_back(name);
        }
    }
    return names;
}

TEST_P(ManualPage, RefersToPagesThatThereAre) {
    std::vector<std::string> names;
    for (char const* const each : kManualVerbs) {
        if (each != verb) {
            names.push_back(pageName(each));
        }
    }
    std::vector<std::string> const references = referencesIn(verb);
    EXPECT_THAT(references, testing::IsSubsetOf(names));
    if (verb.empty()) {
        EXPECT_THAT(references, testing::UnorderedElementsAreArray(names));
    } else {
        EXPECT_THAT(references, Contains("fsparser"));
    }
}

TEST_P(ManualPage, IsCleanMdoc) {
    if (!findProgram("mandoc")) {
        GTEST_SKIP() << "there is no mandoc to look at the page";
    }
    CommandResult const result = runCommand({"mandoc", "-T", "lint", "-W", "warning", pagePath(verb)});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.output, "");
}

/// Formats a page for a terminal; its examples must be there as they are typed.
void expectReadable(std::string const& verb, std::vector<std::string> formatter) {
    if (!findProgram(formatter.front())) {
        GTEST_SKIP() << "there is no " << formatter.front() << " to format the page";
    }
    formatter.push_back(pagePath(verb));
    CommandResult const result = runCommand(formatter);
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.error, "");
    std::string const text = std::regex_replace(result.output, std::regex(".\x08"), ""); // bold is typed twice
    std::vector<ShownCommand> const commands = commandsInPage(verb);
    EXPECT_GE(commands.size(), 2U);
    for (ShownCommand const& command : commands) {
        EXPECT_NE(text.find("$ " + command.script + "\n"), std::string::npos) << command.script;
    }
}

TEST_P(ManualPage, IsReadableWithMandoc) {
    expectReadable(verb, {"mandoc", "-T", "utf8"});
}

TEST_P(ManualPage, IsReadableWithGroff) {
    expectReadable(verb, {"groff", "-ww", "-mdoc", "-Tutf8", "-P-cbou"});
}

TEST(ManualPages, AreInstalledWithTheCompletions) {
    auto const build = std::filesystem::path(FSPARSER_COMMAND).parent_path().parent_path();
    if (!findProgram("cmake")) {
        GTEST_SKIP() << "there is no cmake to install with";
    }
    TempDirectory const tree;
    CommandResult const result =
        runCommand({"cmake", "--install", build.string(), "--prefix", tree.path().string(), "--component", "command"});
    ASSERT_EQ(result.exitCode, 0) << result;
    for (char const* const verb : kManualVerbs) {
        EXPECT_EQ(linesOf(tree.file("share/man/man1/" + pageName(verb) + ".1")), linesOf(pagePath(verb))) << verb;
    }
    auto const source = [](std::string const& name) { return linesOf(FSPARSER_SOURCE_DIR "/completions/" + name); };
    EXPECT_EQ(linesOf(tree.file("share/bash-completion/completions/fsparser")), source("fsparser.bash"));
    EXPECT_EQ(linesOf(tree.file("share/zsh/site-functions/_fsparser")), source("_fsparser"));
}

} // namespace
