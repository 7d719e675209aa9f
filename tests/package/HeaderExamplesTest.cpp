// The examples in the exported headers compile, under the warnings a careful caller has on.
#include "support/Command.h"
#include "support/TempDirectory.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace files = std::filesystem;

using tests::CommandResult;

/// What an example may name without making it: a logger, a volume, a map.
constexpr char const* kParameters = "([[maybe_unused]] agent::info::Logger& logger,"
                                    " [[maybe_unused]] agent::core::IVolumeReader const& volume,"
                                    " [[maybe_unused]] agent::core::fs::IBlockBitmapChunkProvider const& provider)";

/// One `@code` block: where its first line stands, and its lines without the comment marks.
struct Example {
    std::string header; ///< as it is included
    std::size_t line;
    std::vector<std::string> lines;

    /// A block that is one class is one at namespace scope; anything else is the body of a function.
    bool isClass() const {
        return !lines.empty() && (lines.front().starts_with("struct ") || lines.front().starts_with("class ")) &&
               lines.back().ends_with("};");
    }

    /// Of a block that is a class.
    std::string className() const {
        std::string const name = lines.front().substr(lines.front().find(' ') + 1);
        return name.substr(0, name.find_first_of(" :{"));
    }
};

/// Every exported header, as it is included, and its file.
std::map<std::string, files::path> exportedHeaders() {
    std::map<std::string, files::path> headers;
    for (char const* const library : {"mortar", "fsparser"}) {
        files::path const include = files::path(FSPARSER_SOURCE_DIR) / library / "include";
        for (auto const& entry : files::recursive_directory_iterator(include)) {
            if (entry.path().extension() == ".h") {
                headers[entry.path().lexically_relative(include).string()] = entry.path();
            }
        }
    }
    return headers;
}

/// The text of a comment line; empty for any other.
std::string commentText(std::string const& line) {
    auto const mark = line.find_first_not_of(' ');
    if (mark == std::string::npos || line.compare(mark, 3, "///") != 0) {
        return {};
    }
    return line.substr(std::min(line.size(), mark + 4));
}

/// The examples in a header's text. A block that is not closed, or is empty, is a failure.
std::vector<Example> examplesIn(std::string const& header, std::istream& text) {
    std::vector<Example> found;
    bool isInside = false;
    std::size_t number = 0;
    for (std::string line; std::getline(text, line);) {
        ++number;
        std::string const comment = commentText(line);
        if (comment == "@code") {
            EXPECT_FALSE(isInside) << header << ':' << number << ": the block before is not closed";
            found.push_back({header, number + 1, {}});
            isInside = true;
        } else if (comment == "@endcode") {
            EXPECT_TRUE(isInside && !found.back().lines.empty()) << header << ':' << number << ": there is no example";
            isInside = false;
        } else if (isInside) {
            found.back().lines.push_back(comment);
        }
    }
    EXPECT_FALSE(isInside) << header << ": the last block is not closed";
    return found;
}

std::vector<Example> allExamples() {
    std::vector<Example> all;
    for (auto const& [header, path] : exportedHeaders()) {
        std::ifstream file(path);
        EXPECT_TRUE(file.is_open()) << path;
        std::vector<Example> const found = examplesIn(header, file);
        all.insert(all.end(), found.begin(), found.end());
    }
    return all;
}

/// What stands before the examples: all headers, those of the system that examples use, and a function that takes
/// whatever an example has come by.
std::string prelude() {
    std::ostringstream text;
    for (char const* const header : {"algorithm", "array", "cerrno", "cstdint", "cstdio", "cstring", "ios", "iostream",
                                     "memory", "string", "unistd.h", "vector"}) {
        text << "#include <" << header << ">\n";
    }
    for (auto const& [header, path] : exportedHeaders()) {
        text << "#include \"" << header << "\"\n";
    }
    text << "template <typename... Any> void use(Any const&...) {}\n";
    return text.str();
}

/// An example with what it may name free around it. The compiler counts its lines as the header has them.
std::string framed(Example const& example, std::size_t number) {
    std::string const name = "example" + std::to_string(number);
    std::string const place = "#line " + std::to_string(example.line) + " \"" + example.header + "\"\n";
    std::string body;
    for (std::string const& line : example.lines) {
        body += line + '\n';
    }
    if (!example.isClass()) {
        return "void " + name + kParameters + " { {\n" + place + body + "} }\n";
    }
    // A class that leaves something out has no objects.
    return "namespace " + name + " {\n" + place + body + "}\n" + place + name + "::" + example.className() + " object" +
           std::to_string(number) + ";\n";
}

/// Compiles the examples together; the program is thrown away.
CommandResult compile(std::vector<Example> const& examples) {
    tests::TempDirectory const directory;
    std::string const program = directory.file("examples.cpp");
    std::ofstream file(program);
    file << prelude();
    for (std::size_t i = 0; i < examples.size(); ++i) {
        file << framed(examples[i], i);
    }
    file.close();
    EXPECT_TRUE(file);
    tests::CommandOptions options;
    options.timeout = std::chrono::minutes(5);
    std::string const include = std::string("-I") + FSPARSER_SOURCE_DIR;
    return tests::runCommand({"g++", "-std=c++20", "-fsyntax-only", "-Wall", "-Wextra", "-Werror",
                              "-Wno-unused-variable", "-Wno-unused-but-set-variable", include + "/mortar/include",
                              include + "/fsparser/include", program},
                             options);
}

class HeaderExamples : public testing::Test {
protected:
    void SetUp() override {
        if (!tests::findProgram("g++")) {
            GTEST_SKIP() << "g++ is not installed";
        }
    }
};

TEST_F(HeaderExamples, AllOfThemCompile) {
    std::vector<Example> const examples = allExamples();
    ASSERT_FALSE(examples.empty());
    CommandResult const result = compile(examples);
    EXPECT_TRUE(result.succeeded()) << result.error; // names header and line
}

TEST_F(HeaderExamples, OneThatDoesNotCompileIsNamedByHeaderAndLine) {
    std::istringstream text("/// Some words.\n"
                            "/// @code\n"
                            "/// int const sound = 1;\n"
                            "/// int const bad = missing;\n"
                            "/// @endcode\n"
                            "    /// @code\n"
                            "    /// struct Quiet : agent::info::Logger {};\n"
                            "    /// @endcode\n"
                            "    /// @code\n"
                            "    /// struct Logger : agent::info::Logger {\n"
                            "    ///     bool isEnabled(Level) const override { return true; }\n"
                            "    /// };\n"
                            "    /// @endcode\n");
    std::vector<Example> const examples = examplesIn("agent/Some.h", text);
    ASSERT_EQ(examples.size(), 3U);
    CommandResult const result = compile(examples);
    EXPECT_FALSE(result.succeeded());
    for (char const* const place : {"agent/Some.h:4:", "agent/Some.h:7:", "agent/Some.h:11:"}) {
        EXPECT_NE(result.error.find(place), std::string::npos) << place << '\n' << result.error;
    }
    EXPECT_EQ(result.error.find("agent/Some.h:3:"), std::string::npos) << result.error;
}

TEST(HeaderExamplesAlone, EveryHeaderHasOne) {
    std::set<std::string> with{"agent/Export.h"}; // a mark, and nothing to call
    for (Example const& example : allExamples()) {
        with.insert(example.header);
    }
    for (auto const& [header, path] : exportedHeaders()) {
        EXPECT_TRUE(with.contains(header)) << path;
    }
}

} // namespace
