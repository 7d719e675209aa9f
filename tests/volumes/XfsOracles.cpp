// Reading what the tools print.
#include "volumes/XfsOracles.h"

#include "volumes/ExtRecipe.h"

#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>

namespace tests {

namespace {

std::string runOracle(std::vector<std::string> const& arguments) {
    CommandResult const result = runTool(arguments);
    if (!result.succeeded()) {
        std::ostringstream text;
        text << arguments.front() << ": " << result;
        throw std::runtime_error(text.str());
    }
    return result.output;
}

/// Runs xfs_db commands and gives what they print.
std::string runXfsDb(std::string const& volume, std::vector<std::string> const& commands) {
    std::vector<std::string> arguments{"xfs_db", "-r"};
    for (std::string const& command : commands) {
        arguments.insert(arguments.end(), {"-c", command});
    }
    arguments.push_back(volume);
    return runOracle(arguments);
}

/// Lines of "name = value".
std::map<std::string, std::uint64_t> parseFields(std::string const& text) {
    std::map<std::string, std::uint64_t> fields;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::size_t const equals = line.find(" = ");
        if (equals != std::string::npos && line.size() > equals + 3 && line.at(equals + 3) != 'n') { // "null"
            fields[line.substr(0, equals)] = std::stoull(line.substr(equals + 3));
        }
    }
    return fields;
}

/// "bno[0-118] = 0:null 1:6 2:7", as entries by their index; empty ones are left out.
std::map<std::uint64_t, std::uint64_t> parseFreeList(std::string const& text) {
    std::map<std::uint64_t, std::uint64_t> entries;
    std::size_t const start = text.find(" = ", text.find("bno["));
    std::istringstream words(text.substr(start + 3));
    for (std::string word; words >> word;) {
        std::size_t const colon = word.find(':');
        if (colon != std::string::npos && word.substr(colon + 1) != "null") {
            entries[std::stoull(word)] = std::stoull(word.substr(colon + 1));
        }
    }
    return entries;
}

XfsGroupAnswer askForGroup(std::string const& volume, std::uint64_t number) {
    std::string const text = std::to_string(number);
    auto fields = parseFields(runXfsDb(volume, {"agf " + text, "p bnolevel flfirst fllast flcount"}));
    XfsGroupAnswer group{fields.at("bnolevel"), fields.at("flfirst"), fields.at("fllast"), {}};
    std::string const list = runXfsDb(volume, {"agfl " + text, "p bno"});
    auto const entries = parseFreeList(list);
    std::uint64_t const capacity = std::stoull(list.substr(list.find('-') + 1)) + 1;
    for (std::uint64_t i = 0; i < fields.at("flcount"); ++i) {
        group.listEntries.push_back(entries.at((group.listFirst + i) % capacity));
    }
    return group;
}

/// The lines of `freesp -d` before its summary: group, block in the group, blocks.
void markFree(XfsAnswers& answers, std::string const& listing) {
    std::istringstream lines(listing);
    std::string line;
    std::getline(lines, line); // the heads of the columns
    while (std::getline(lines, line) && line.find("from") == std::string::npos) {
        std::istringstream words(line);
        std::uint64_t group = 0;
        std::uint64_t block = 0;
        std::uint64_t count = 0;
        if (!(words >> group >> block >> count)) {
            throw std::runtime_error("xfs_db freesp: " + line);
        }
        for (std::uint64_t i = 0; i < count; ++i) {
            answers.used.at(group * answers.groupBlocks + block + i) = false;
        }
    }
}

} // namespace

std::uint64_t XfsAnswers::mostLevels() const {
    std::uint64_t most = 0;
    for (XfsGroupAnswer const& group : groups) {
        most = std::max(most, group.levels);
    }
    return most;
}

XfsAnswers askXfsDb(std::string const& volume) {
    auto const fields = parseFields(
        runXfsDb(volume, {"sb 0", "p blocksize dblocks agblocks agcount logstart logblocks agblklog fdblocks"}));
    XfsAnswers answers;
    answers.blockSize = fields.at("blocksize");
    answers.blocks = fields.at("dblocks");
    answers.groupBlocks = fields.at("agblocks");
    answers.logBlocks = fields.at("logblocks");
    std::uint64_t const log = fields.at("logstart");
    std::uint64_t const logGroup = log >> fields.at("agblklog");
    answers.logStart = logGroup * answers.groupBlocks + (log - (logGroup << fields.at("agblklog")));
    for (std::uint64_t group = 0; group < fields.at("agcount"); ++group) {
        answers.groups.push_back(askForGroup(volume, group));
    }
    answers.used.assign(answers.blocks, true);
    markFree(answers, runXfsDb(volume, {"freesp -d"}));
    auto const free = static_cast<std::uint64_t>(std::count(answers.used.begin(), answers.used.end(), false));
    // The superblock also counts blocks of trees as free, since they could be.
    if (free > fields.at("fdblocks")) {
        throw std::runtime_error("xfs_db lists " + std::to_string(free) + " free blocks of " +
                                 std::to_string(fields.at("fdblocks")));
    }
    return answers;
}

BlockMap withKeptXfsDifferences(XfsAnswers const& answers) {
    BlockMap map = answers.used;
    for (std::size_t group = 0; group < answers.groups.size(); ++group) {
        XfsGroupAnswer const& answer = answers.groups[group];
        if (answer.listFirst > answer.listLast) {
            for (std::uint64_t const block : answer.listEntries) {
                map.at(group * answers.groupBlocks + block) = true;
            }
        }
    }
    return map;
}

BlockMap mapFromPartcloneXfs(std::string const& volume, std::string const& domainFile, XfsAnswers const& answers) {
    runOracle(
        {"partclone.xfs", "-D", "--offset_domain=0", "-q", "-s", volume, "-o", domainFile, "-L", domainFile + ".log"});
    std::ifstream domain(domainFile);
    BlockMap map;
    for (std::string line; std::getline(domain, line);) {
        std::istringstream words(line);
        std::string position;
        std::string size;
        std::string status;
        if (words >> position >> size >> status && position.front() != '#') {
            std::uint64_t const end = std::stoull(position, nullptr, 16) + std::stoull(size, nullptr, 16);
            map.resize(end / answers.blockSize, status == "+");
        }
    }
    return map;
}

} // namespace tests
