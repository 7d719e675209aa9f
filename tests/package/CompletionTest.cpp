// The completions of bash and zsh offer what the command takes, and nothing else.
#include "Manual.h"
#include "command/Fsparser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>

namespace {

using namespace tests;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using testing::UnorderedElementsAreArray;

using Words = std::vector<std::string>;

constexpr char const* kBash = FSPARSER_SOURCE_DIR "/completions/fsparser.bash";
constexpr char const* kZsh = FSPARSER_SOURCE_DIR "/completions/_fsparser";

Words linesIn(std::string const& text) {
    std::istringstream stream(text);
    Words lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

/// What bash offers for the last of the words, in a directory with the files "one" and "two words".
class BashCompletion : public testing::Test {
protected:
    void SetUp() override {
        writeFile(directory.file("one"), {});
        writeFile(directory.file("two words"), {});
    }

    Words offered(Words const& words) const {
        Words arguments{"bash",
                        "--norc",
                        "-c",
                        ". \"$0\"; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _fsparser;"
                        "((${#COMPREPLY[@]} == 0)) || printf '%s\\n' \"${COMPREPLY[@]}\"",
                        kBash,
                        "fsparser"};
        arguments.insert(arguments.end(), words.begin(), words.end());
        CommandOptions options;
        options.workingDirectory = directory.path().string();
        CommandResult const result = runCommand(arguments, options);
        EXPECT_EQ(result.exitCode, 0) << result;
        EXPECT_EQ(result.error, "");
        return linesIn(result.output);
    }

    TempDirectory directory;
};

Words namesOfVerbs() {
    Words verbs;
    for (auto const& [verb, text] : verbsInHelp()) {
        verbs.push_back(verb);
    }
    return verbs;
}

/// The options as a shell offers them: a long one that takes a value with a = behind.
Words completedOptions(std::string const& verb) {
    Words names;
    for (DescribedOption const& option : optionsInHelp(verb)) {
        for (std::string const& name : option.names) {
            names.push_back(name + (option.takesValue && name.starts_with("--") ? "=" : ""));
        }
    }
    return names;
}

/// The words that the command's own refusal of another one names.
Words valuesOf(Words const& arguments, std::string const& option) {
    Words call = arguments;
    call.insert(call.begin() + 1, option + "=nonsense");
    std::string const refusal = fsparser(call).error;
    std::smatch match;
    EXPECT_TRUE(std::regex_search(refusal, match, std::regex("it is (.*), not nonsense"))) << refusal;
    return linesIn(std::regex_replace(match.str(1), std::regex(", | or "), "\n"));
}

struct Choice {
    char const* option;
    Words arguments;
};

Choice const kChoices[] = {
    {"--format", {"ranges", "volume"}}, {"--color", {"map", "volume"}}, {"--progress", {"copy", "volume", "copy"}}};

TEST_F(BashCompletion, OffersTheVerbs) {
    EXPECT_THAT(offered({""}), UnorderedElementsAreArray(namesOfVerbs()));
    EXPECT_THAT(offered({"di"}), ElementsAre("digest"));
}

TEST_F(BashCompletion, OffersTheOptionsOfTheHelp) {
    EXPECT_THAT(offered({"-"}), UnorderedElementsAreArray(completedOptions("")));
    for (std::string const& verb : namesOfVerbs()) {
        EXPECT_THAT(offered({verb, "-"}), UnorderedElementsAreArray(completedOptions(verb))) << verb;
        EXPECT_THAT(offered({verb, "--json", "volume", "--part"}), ElementsAre("--partition=")) << verb;
    }
}

TEST_F(BashCompletion, OffersTheValuesThatTheCommandNames) {
    for (auto const& [option, arguments] : kChoices) {
        Words const values = valuesOf(arguments, option);
        ASSERT_GE(values.size(), 3U);
        std::string const& verb = arguments.front();
        EXPECT_THAT(offered({verb, option, ""}), UnorderedElementsAreArray(values));
        EXPECT_THAT(offered({verb, option, "="}), UnorderedElementsAreArray(values)) << "as bash separates --option=";
        EXPECT_THAT(offered({verb, option, "=", values.back()}), ElementsAre(values.back()));
    }
}

TEST_F(BashCompletion, OffersFilesWhereAFileIsNamed) {
    for (std::string const& verb : namesOfVerbs()) {
        EXPECT_THAT(offered({verb, ""}), UnorderedElementsAre("one", "two words")) << verb;
        EXPECT_THAT(offered({verb, "--align", "512", "-q", "tw"}), ElementsAre("two words")) << verb;
    }
    EXPECT_THAT(offered({"copy", "volume", "o"}), ElementsAre("one"));
    EXPECT_THAT(offered({"verify", "--align", "=", "512", "volume", "o"}), ElementsAre("one"));
    EXPECT_THAT(offered({"ranges", "-o", "o"}), ElementsAre("one"));
    for (auto const& [verb, option] : {std::pair{"bitmap", "--output"},
                                       {"map", "--png"},
                                       {"map", "--svg"},
                                       {"copy", "--rescue-map"},
                                       {"stat", "--from"}}) {
        EXPECT_THAT(offered({verb, option, "o"}), ElementsAre("one")) << option;
        EXPECT_THAT(offered({verb, option, "=", "o"}), ElementsAre("one")) << option;
    }
}

TEST_F(BashCompletion, OffersNothingWhereNothingIsKnown) {
    EXPECT_THAT(offered({"detect", "volume", ""}), IsEmpty()) << "there is no second operand";
    EXPECT_THAT(offered({"stat", "volume", ""}), IsEmpty()) << "paths on the volume are not looked up";
    EXPECT_THAT(offered({"info", "--partition", ""}), IsEmpty());
    EXPECT_THAT(offered({"info", "--unit", "=", "4"}), IsEmpty());
    EXPECT_THAT(offered({"explode", "-"}), IsEmpty());
}

TEST_F(BashCompletion, IsRegistered) {
    CommandResult const result = runCommand({"bash", "--norc", "-c", ". \"$0\"; complete -p fsparser", kBash});
    EXPECT_EQ(result.output, "complete -F _fsparser fsparser\n") << result;
}

/// The options, as completedOptions() has them, that the function for zsh gives to its helpers.
Words zshOptions(std::string const& verb) {
    CommandResult const result =
        runCommand({"zsh", "-f", "-c",
                    "_arguments() { print -rl -- \"$@\" }; source $0; (( ! $# )) || { print -- --; _fsparser_verb $1 }",
                    kZsh, verb});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.error, "");
    Words names;
    for (std::string const& line : linesIn(result.output)) {
        std::smatch match;
        if (line == "--" && !verb.empty()) {
            names.clear(); // what came until here belongs to the command itself
        } else if (std::regex_search(line, match, std::regex(R"(^(?:\([^)]*\))?\*?(--?[a-z-]+)([=+]?)\[)"))) {
            names.push_back(match.str(1) + (match.str(2) == "=" ? "=" : ""));
        }
    }
    return names;
}

class ZshCompletion : public testing::Test {
protected:
    void SetUp() override {
        if (!findProgram("zsh")) {
            GTEST_SKIP() << "there is no zsh to complete";
        }
    }
};

TEST_F(ZshCompletion, IsGoodSyntax) {
    CommandResult const result = runCommand({"zsh", "-n", kZsh});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(linesOf(kZsh).front(), "#compdef fsparser");
}

TEST_F(ZshCompletion, OffersTheOptionsOfTheHelp) {
    for (char const* const verb : kManualVerbs) {
        EXPECT_THAT(zshOptions(verb), UnorderedElementsAreArray(completedOptions(verb))) << verb;
    }
}

TEST_F(ZshCompletion, OffersTheVerbsAndTheValuesThatTheCommandNames) {
    std::ostringstream text;
    for (std::string const& line : linesOf(kZsh)) {
        text << line << '\n';
    }
    std::string const source = text.str();
    Words verbs;
    std::regex const pattern(R"(\n        ['"]([a-z]+):)");
    for (std::sregex_iterator match(source.begin(), source.end(), pattern), end; match != end; ++match) {
        verbs.push_back((*match)[1]);
    }
    EXPECT_THAT(verbs, UnorderedElementsAreArray(namesOfVerbs()));
    for (auto const& [option, arguments] : kChoices) {
        std::smatch match;
        ASSERT_TRUE(std::regex_search(source, match, std::regex(std::string(option) + R"(=\[[^\]]*\]:\w+:\((.*)\))")));
        EXPECT_THAT(linesIn(std::regex_replace(match.str(1), std::regex(" "), "\n")),
                    UnorderedElementsAreArray(valuesOf(arguments, option)));
    }
}

/// A terminal with zsh in it, a line typed with a tabulator at its end, and what stands there then.
TEST_F(ZshCompletion, WorksInAnInteractiveShell) {
    constexpr char const* kSession = R"(
        zmodload zsh/zpty || exit 77
        zpty shell zsh -f -i
        zpty -w shell "PS1=; fpath=(${1:h} \$fpath); autoload -U compinit; compinit -u -D; print -r -- READ''Y"
        zpty -r shell seen '*READY*'
        zpty -w -n shell $'fsparser ranges --format=ex\t'
        zpty -r shell seen '*=extentlist*' && print -r -- completed
        zpty -d shell
    )";
    CommandOptions options;
    options.timeout = std::chrono::seconds(20);
    CommandResult const result = runCommand({"zsh", "-f", "-c", kSession, "zsh", kZsh}, options);
    if (result.exitCode == 77) {
        GTEST_SKIP() << "zsh has no pseudo-terminals here";
    }
    EXPECT_EQ(result.output, "completed\n") << result;
}

} // namespace
