// Reading what the tools print of HFS+ volumes.
#include "volumes/HfsOracles.h"

#include "support/Command.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace tests {

namespace {

std::string ask(std::vector<std::string> const& arguments) {
    CommandResult const result = runCommand(arguments);
    if (!result.succeeded()) {
        throw std::runtime_error(arguments.front() + " failed: " + result.output + result.error);
    }
    return result.output;
}

/// The text behind a label that begins a line.
std::string valueOf(std::string const& text, std::string const& label) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(label)) {
            return line.substr(label.size());
        }
    }
    throw std::runtime_error("no line \"" + label + "\" in: " + text);
}

} // namespace

HfsAnswers askFsstat(std::string const& volume) {
    std::string const text = ask({"fsstat", "-f", "hfs", volume});
    HfsAnswers answers;
    answers.type = valueOf(text, "File System Type: ");
    answers.blockSize = std::stoull(valueOf(text, "Allocation Block Size: "));
    answers.blocks = std::stoull(valueOf(text, "Block Range: 0 - ")) + 1;
    answers.freeBlocks = std::stoull(valueOf(text, "Number of Free Blocks: "));
    return answers;
}

BlockMap hfsMapFromBlkls(std::string const& volume, std::uint64_t blocks) {
    std::istringstream listing(ask({"blkls", "-f", "hfs", "-A", "-l", volume}));
    BlockMap map(blocks, true);
    for (std::string line; std::getline(listing, line);) {
        if (line.ends_with("|f")) {
            map.at(std::stoull(line)) = false;
        }
    }
    return map;
}

BlockMap hfsMapFromPartclone(std::string const& volume, std::string const& domainFile, std::uint64_t blockSize) {
    ask({"partclone.hfsplus", "-D", "--offset_domain=0", "-q", "-s", volume, "-o", domainFile, "-L",
         domainFile + ".log"});
    std::ifstream domain(domainFile);
    BlockMap map;
    for (std::string line; std::getline(domain, line);) {
        std::istringstream words(line);
        std::string position;
        std::string size;
        std::string status;
        if (words >> position >> size >> status && position.front() != '#') {
            map.resize((std::stoull(position, nullptr, 16) + std::stoull(size, nullptr, 16)) / blockSize,
                       status == "+");
        }
    }
    return map;
}

} // namespace tests
