// Reading what the tools print.
#include "volumes/ExtOracles.h"

#include "volumes/ExtRecipe.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace tests {

namespace {

/// The text after a label, without the blanks between, if the line begins with the label.
bool readField(std::string const& line, std::string const& label, std::string& value) {
    if (!line.starts_with(label)) {
        return false;
    }
    std::size_t const start = line.find_first_not_of(' ', label.size());
    value = start == std::string::npos ? "" : line.substr(start);
    return true;
}

/// "8195-9216" or "42", as a first and a last block.
std::pair<std::uint64_t, std::uint64_t> parseRange(std::string const& text) {
    std::size_t const dash = text.find('-');
    std::uint64_t const first = std::stoull(text);
    return {first, dash == std::string::npos ? first : std::stoull(text.substr(dash + 1))};
}

void markFree(BlockMap& used, std::string const& ranges) {
    std::istringstream list(ranges);
    for (std::string range; std::getline(list, range, ',');) {
        auto const [first, last] = parseRange(range);
        for (std::uint64_t block = first; block <= last; ++block) {
            used.at(block) = false;
        }
    }
}

DumpedGroup parseGroup(std::string const& line) {
    constexpr std::string_view kBlocks = "(Blocks ";
    DumpedGroup group;
    std::tie(group.first, group.last) = parseRange(line.substr(line.find(kBlocks) + kBlocks.size()));
    group.uninitialised = line.find("BLOCK_UNINIT") != std::string::npos;
    return group;
}

void parseHeaderLine(std::string const& line, DumpedVolume& dumped) {
    std::string value;
    if (readField(line, "Filesystem features:", value)) {
        std::istringstream words(value);
        for (std::string word; words >> word;) {
            dumped.features.insert(word);
        }
    } else if (readField(line, "Block count:", value)) {
        dumped.blocks = std::stoull(value);
        dumped.used.assign(dumped.blocks, true);
    } else if (readField(line, "Free blocks:", value)) {
        dumped.freeBlocks = std::stoull(value);
    } else if (readField(line, "First block:", value)) {
        dumped.firstBlock = std::stoull(value);
    } else if (readField(line, "Block size:", value)) {
        dumped.blockSize = std::stoull(value);
    }
}

CommandResult runOracle(std::vector<std::string> const& arguments) {
    CommandResult result = runTool(arguments);
    if (!result.succeeded()) {
        std::ostringstream text;
        text << arguments.front() << ": " << result;
        throw std::runtime_error(text.str());
    }
    return result;
}

} // namespace

std::uint64_t DumpedVolume::uninitialisedGroups() const {
    return static_cast<std::uint64_t>(
        std::count_if(groups.begin(), groups.end(), [](DumpedGroup const& group) { return group.uninitialised; }));
}

DumpedVolume dumpVolume(std::string const& volume) {
    DumpedVolume dumped;
    std::istringstream listing(runOracle({"dumpe2fs", volume}).output);
    for (std::string line; std::getline(listing, line);) {
        std::string value;
        if (line.starts_with("Group ") && line.find("(Blocks ") != std::string::npos) {
            dumped.groups.push_back(parseGroup(line));
        } else if (dumped.groups.empty()) {
            parseHeaderLine(line, dumped);
        } else if (readField(line, "  Free blocks:", value)) {
            markFree(dumped.used, value);
        }
    }
    auto const listed = static_cast<std::uint64_t>(std::count(dumped.used.begin(), dumped.used.end(), false));
    if (dumped.blocks == 0 || listed != dumped.freeBlocks) {
        throw std::runtime_error("dumpe2fs lists " + std::to_string(listed) + " free blocks of " +
                                 std::to_string(dumped.freeBlocks));
    }
    return dumped;
}

BlockMap withKeptDifferences(DumpedVolume const& dumped) {
    BlockMap map = dumped.used;
    if (dumped.firstBlock == 1) {
        map.at(0) = false;
    }
    for (DumpedGroup const& group : dumped.groups) {
        for (std::uint64_t block = group.first; group.uninitialised && block <= group.last; ++block) {
            map.at(block) = false;
        }
    }
    return map;
}

BlockMap mapFromDebugfs(std::string const& volume, DumpedVolume const& dumped) {
    std::string const request = "testb 1 " + std::to_string(dumped.blocks - 1);
    std::istringstream answers(runOracle({"debugfs", "-R", request, volume}).output);
    BlockMap map(1, true);
    for (std::string line; std::getline(answers, line);) {
        if (!line.starts_with("Block " + std::to_string(map.size()) + " ")) {
            throw std::runtime_error("debugfs: " + line);
        }
        map.push_back(line.ends_with(" marked in use"));
    }
    return map;
}

BlockMap mapFromPartclone(std::string const& volume, std::string const& domainFile, DumpedVolume const& dumped) {
    runOracle({"partclone.extfs", "-D", "--offset_domain=0", "-q", "-s", volume, "-o", domainFile, "-L",
               domainFile + ".log"});
    std::ifstream domain(domainFile);
    BlockMap map;
    for (std::string line; std::getline(domain, line);) {
        std::istringstream words(line);
        std::string position;
        std::string size;
        std::string status;
        if (words >> position >> size >> status && position.front() != '#') {
            std::uint64_t const end = std::stoull(position, nullptr, 16) + std::stoull(size, nullptr, 16);
            map.resize(end / dumped.blockSize, status == "+");
        }
    }
    return map;
}

BlockMap mapFromBlkls(std::string const& volume, DumpedVolume const& dumped) {
    std::istringstream listing(runOracle({"blkls", "-f", "ext", "-A", "-l", volume}).output);
    BlockMap map(dumped.blocks, true);
    for (std::string line; std::getline(listing, line);) {
        if (line.ends_with("|f")) {
            map.at(std::stoull(line)) = false;
        }
    }
    return map;
}

std::string differences(BlockMap const& map, BlockMap const& expected) {
    constexpr unsigned kShown = 10;
    std::ostringstream text;
    if (map.size() != expected.size()) {
        text << map.size() << " blocks instead of " << expected.size() << '\n';
    }
    unsigned shown = 0;
    for (std::size_t block = 0; block < std::min(map.size(), expected.size()) && shown < kShown; ++block) {
        if (map[block] != expected[block]) {
            text << "block " << block << " is " << (map[block] ? "used" : "free") << " instead of "
                 << (expected[block] ? "used" : "free") << '\n';
            ++shown;
        }
    }
    return text.str();
}

std::string bitmapOf(BlockMap const& map) {
    std::string bitmap((map.size() + 7) / 8, '\0');
    for (std::size_t block = 0; block < map.size(); ++block) {
        if (map[block]) {
            char& byte = bitmap[block / 8];
            byte = static_cast<char>(static_cast<unsigned char>(byte) | (1U << (block % 8)));
        }
    }
    return bitmap;
}

} // namespace tests
