// Every command that the documents, the manual and --help show is run, and does what is shown.
#include "Manual.h"
#include "SampleFiles.h"
#include "ShownCommands.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <regex>

namespace {

using namespace tests;
using testing::HasSubstr;
using testing::Not;

/// What is shown and not run here.
struct Exception {
    char const* script;
    char const* reason;
};

constexpr Exception kExceptions[] = {
    {"scripts/quickstart", "installs packages as root, and builds everything"},
    {"scripts/test", "installs packages as root, and runs these tests themselves"},
    {"scripts/lint && scripts/test", "does that after looking at every source file"},
    {"scripts/bench", "installs packages as root, and measures for an hour"},
    {"scripts/bench bitmap-ntfs", "installs packages as root, and builds everything"},
    {"scripts/bench --rounds 9 copy", "installs packages as root, and builds everything"},
};

bool isException(std::string const& script) {
    return std::any_of(std::begin(kExceptions), std::end(kExceptions),
                       [&script](Exception const& each) { return script == each.script; });
}

/// Other programs that examples call, and that may be missing.
constexpr std::array kTools{"awk", "bmaptool", "ddrescue", "fallocate", "find", "jq", "less", "nbdkit", "xxd", "zstd",
                            // beneath them
                            "nbdinfo"};

/// The one of them for which a shell did not find a program.
std::optional<std::string> missingTool(CommandResult const& result) {
    for (char const* const tool : kTools) {
        if (result.error.find(std::string(tool) + ": command not found") != std::string::npos) {
            return tool;
        }
    }
    return std::nullopt;
}

/// A copy replaces nothing: its destination must not be there yet.
void removeDestination(SampleFiles const& files, std::string const& script) {
    std::smatch match;
    if (std::regex_search(script, match, std::regex(R"(fsparser copy (?!.*--force).* (\S+\.img)\s*$)"))) {
        std::filesystem::remove(files.directory().file(match[1]));
    }
}

std::string withoutTheCells(std::string const& text) {
    return std::regex_replace(text, std::regex("·|░|▒|▓|█"), "x");
}

/// What of an output is the same on every machine. Where files lie on a sample depends on the order in which the
/// system lists directories.
std::string stablePart(std::string const& script, std::string const& output) {
    if (script.starts_with("fsparser map")) {
        return withoutTheCells(output);
    }
    if (script.starts_with("fsparser ranges")) {
        return std::regex_replace(output, std::regex("[0-9]+"), "9");
    }
    return output;
}

/// Runs them, each on files of its own, and gives the reasons why some were not.
class Runs {
public:
    void run(ShownCommand const& command) {
        SCOPED_TRACE(command.place + ": " + command.script);
        if (isException(command.script)) {
            return;
        }
        SampleFiles files;
        if (command.script.find("/dev/sdc1") != std::string::npos && !files.makeDevice()) {
            skipped_ += command.script + ": needs a loop device, and so root; ";
            return;
        }
        removeDestination(files, command.script);
        addSamples(files, command);
        addExample(files, command);
        // Scripts are called from the top of the source tree, which they find themselves.
        bool const isOfTheTree = command.script.starts_with("scripts/");
        check(command, files.run((isOfTheTree ? FSPARSER_SOURCE_DIR "/" : "") + command.script));
    }

    std::string const& skipped() const { return skipped_; }

private:
    void addSamples(SampleFiles const& files, ShownCommand const& command) {
        if (command.script.find("build/samples/") == std::string::npos) {
            return;
        }
        if (!samples_) {
            samples_ = std::make_unique<TempDirectory>();
            CommandResult const made = runCommand({FSPARSER_SOURCE_DIR "/scripts/samples", samples_->path().string()});
            isMade_ = made.succeeded();
            madeError_ = made.error;
        }
        std::filesystem::create_directories(files.directory().path() / "build");
        std::filesystem::create_directory_symlink(samples_->path(), files.directory().path() / "build/samples");
    }

    /// The small agent, where the page on embedding has it built.
    static void addExample(SampleFiles const& files, ShownCommand const& command) {
        if (command.script.find("build/agent/") != std::string::npos) {
            std::filesystem::path const built = std::filesystem::path(FSPARSER_COMMAND).parent_path();
            std::filesystem::create_directories(files.directory().path() / "build/agent");
            std::filesystem::create_symlink(built / "agent_example",
                                            files.directory().path() / "build/agent/agent_example");
        }
    }

    void check(ShownCommand const& command, CommandResult const& result) {
        if (auto const tool = missingTool(result)) {
            skipped_ += command.script + ": there is no " + *tool + "; ";
            return;
        }
        if (samples_ && !isMade_ && madeError_.find("command not found") != std::string::npos) {
            skipped_ += command.script + ": scripts/samples lacks a tool: " + madeError_ + "; ";
            return;
        }
        EXPECT_EQ(result.exitCode, 0) << result;
        EXPECT_THAT(result.error, Not(HasSubstr("fsparser:"))) << "no error, no warning";
        EXPECT_THAT(result.output, Not(HasSubstr("null"))) << "no name that the document lacks";
        if (!command.output.empty()) {
            EXPECT_EQ(stablePart(command.script, result.output), stablePart(command.script, command.output));
        }
    }

    std::unique_ptr<TempDirectory> samples_;
    bool isMade_ = false;
    std::string madeError_;
    std::string skipped_;
};

void runAll(std::vector<ShownCommand> const& commands) {
    Runs runs;
    for (ShownCommand const& command : commands) {
        runs.run(command);
    }
    if (!runs.skipped().empty()) {
        GTEST_SKIP() << "not run: " << runs.skipped();
    }
}

class CommandsOfVerb : public testing::TestWithParam<char const*> {};

INSTANTIATE_TEST_SUITE_P(Verbs, CommandsOfVerb, testing::ValuesIn(kManualVerbs), [](auto const& instance) {
    return *instance.param == '\0' ? std::string("fsparser") : instance.param;
});

TEST_P(CommandsOfVerb, InTheHelpWork) {
    std::vector<ShownCommand> const commands = commandsInHelp(GetParam());
    EXPECT_GE(commands.size(), 1U);
    runAll(commands);
}

TEST_P(CommandsOfVerb, InThePageWork) {
    std::vector<ShownCommand> const commands = commandsInPage(GetParam());
    EXPECT_GE(commands.size(), 2U);
    runAll(commands);
}

TEST(DocumentedCommands, OfTheReadmeWorkAndPrintWhatIsShown) {
    std::vector<ShownCommand> const commands = commandsInMarkdown("README.md");
    EXPECT_GE(commands.size(), 5U);
    EXPECT_GE(std::count_if(commands.begin(), commands.end(),
                            [](ShownCommand const& command) { return !command.output.empty(); }),
              3);
    runAll(commands);
}

TEST(DocumentedCommands, OfDocsWork) {
    std::vector<ShownCommand> commands;
    for (std::string const& document : markdownDocuments()) {
        if (document != "README.md") {
            std::vector<ShownCommand> const more = commandsInMarkdown(document);
            commands.insert(commands.end(), more.begin(), more.end());
        }
    }
    EXPECT_GE(commands.size(), 9U);
    runAll(commands);
}

TEST(DocumentedCommands, ThatAreNotRunAreStillShownAndAreScriptsThatThereAre) {
    std::vector<ShownCommand> commands;
    for (std::string const& document : markdownDocuments()) {
        std::vector<ShownCommand> const more = commandsInMarkdown(document);
        commands.insert(commands.end(), more.begin(), more.end());
    }
    for (auto const& [script, reason] : kExceptions) {
        EXPECT_TRUE(std::any_of(commands.begin(), commands.end(), [script = script](ShownCommand const& command) {
            return command.script == script;
        })) << script;
        std::string const text = script;
        std::regex const pattern("scripts/[a-z]+");
        ASSERT_TRUE(std::regex_search(text, pattern)) << script;
        for (std::sregex_iterator each(text.begin(), text.end(), pattern), end; each != end; ++each) {
            CommandResult const result = runCommand({"bash", "-n", FSPARSER_SOURCE_DIR "/" + each->str()});
            EXPECT_EQ(result.exitCode, 0) << script << ", which " << reason << ": " << result;
        }
    }
}

/// Whether a verb has an option under this name.
bool hasOption(std::string const& verb, std::string const& name) {
    std::vector<DescribedOption> const options = optionsInHelp(verb);
    return std::any_of(options.begin(), options.end(), [&name](DescribedOption const& option) {
        return std::find(option.names.begin(), option.names.end(), name) != option.names.end();
    });
}

TEST(DocumentedCommands, InProseNameVerbsAndOptionsThatThereAre) {
    auto const verbs = verbsInHelp();
    unsigned found = 0;
    for (std::string const& document : markdownDocuments()) {
        for (std::string const& call : callsInProse(document)) {
            SCOPED_TRACE(document + ": " + call);
            std::smatch match;
            if (!std::regex_search(call, match, std::regex("^fsparser ([a-z]+)"))) {
                continue; // "fsparser VERB"
            }
            ++found;
            ASSERT_TRUE(verbs.contains(match[1]));
            std::string const verb = match[1];
            std::regex const pattern(" (--?[a-z][a-z-]*)");
            for (std::sregex_iterator option(call.begin(), call.end(), pattern), end; option != end; ++option) {
                EXPECT_TRUE(hasOption(verb, (*option)[1])) << (*option)[1];
            }
        }
    }
    EXPECT_GE(found, 4U);
}

} // namespace
