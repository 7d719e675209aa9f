// Reading what the NTFS tools print.
#include "volumes/NtfsOracles.h"

#include "volumes/ExtRecipe.h"

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>

namespace tests {

using agent::core::fs::ntfs_runlist;

namespace {

/// One attribute's runs, as printed.
struct PrintedAttribute {
    std::uint64_t record = 0;
    bool isList = false;
    std::vector<ntfs_runlist> runs; ///< a cluster of -1 is a sparse run
};

std::string outputOf(std::vector<std::string> const& arguments) {
    CommandResult result = runTool(arguments);
    if (!result.succeeded()) {
        std::ostringstream text;
        text << arguments.front() << ": " << result;
        throw std::runtime_error(text.str());
    }
    return std::move(result.output);
}

/// "Dumping attribute $DATA (0x80) from mft record 4371 (0x1113)"
std::optional<PrintedAttribute> attributeHead(std::string const& line) {
    std::string const from = " from mft record ";
    std::size_t const at = line.find(from);
    if (at == std::string::npos) {
        return std::nullopt;
    }
    PrintedAttribute attribute;
    attribute.record = std::stoull(line.substr(at + from.size()));
    attribute.isList = line.find("$ATTRIBUTE_LIST (0x20)") != std::string::npos;
    if (!attribute.isList && line.find("$DATA (0x80)") == std::string::npos) {
        attribute.record = ~std::uint64_t{0}; // of no interest
    }
    return attribute;
}

/// A line of a run list: VCN, LCN or a word in angle brackets, length.
void appendRun(std::string const& line, PrintedAttribute& attribute) {
    std::istringstream words(line);
    std::string vcn;
    std::string lcn;
    std::string length;
    if (!(words >> vcn >> lcn >> length) || lcn == "<RL_NOT_MAPPED>") {
        return;
    }
    bool const isHole = lcn == "<HOLE>";
    if (!isHole && !lcn.starts_with("0x")) {
        throw std::runtime_error("ntfsinfo: " + line);
    }
    attribute.runs.push_back(
        {isHole ? -1 : std::stoll(lcn, nullptr, 16), static_cast<std::int64_t>(std::stoull(length, nullptr, 16))});
}

std::vector<PrintedAttribute> printedAttributes(std::string const& volume, std::uint64_t record) {
    std::istringstream text(outputOf({"ntfsinfo", "-f", "-v", "-i", std::to_string(record), volume}));
    std::vector<PrintedAttribute> attributes;
    bool inRuns = false;
    for (std::string line; std::getline(text, line);) {
        if (auto const head = attributeHead(line)) {
            attributes.push_back(*head);
        }
        bool const isRun = line.starts_with("\t\t\t0x");
        if (inRuns && isRun && !attributes.empty()) {
            appendRun(line, attributes.back());
        }
        inRuns = line.starts_with("\tRunlist:") || (inRuns && isRun);
    }
    std::erase_if(attributes, [](PrintedAttribute const& one) { return one.record == ~std::uint64_t{0}; });
    return attributes;
}

/// The highest byte of a positive number in as few bytes as a signed one needs.
std::int64_t lastByteOfLength(std::int64_t length) {
    std::int64_t last = length;
    while (last > 127) {
        last >>= 8;
    }
    return last;
}

void appendAsRead(PrintedAttribute const& attribute, ExpectedRuns& expected) {
    std::int64_t real = 0;
    std::int64_t read = 0;
    for (ntfs_runlist const& run : attribute.runs) {
        if (run.lcn < 0) {
            read += lastByteOfLength(run.length);
            expected.hasSparse = true;
        } else {
            read += run.lcn - real;
            real = run.lcn;
        }
        expected.runs.push_back({read, run.length});
    }
}

} // namespace

std::vector<ListedName> listNames(std::string const& volume) {
    std::istringstream text(outputOf({"fls", "-f", "ntfs", "-r", "-p", "-u", volume}));
    std::vector<ListedName> names;
    std::set<std::string> seen;
    for (std::string line; std::getline(text, line);) {
        std::size_t const tab = line.find('\t');
        std::size_t const number = line.find_first_of("0123456789");
        std::string const path = line.substr(tab + 1);
        bool const isVirtual = line.starts_with("V/V") || path.starts_with("$OrphanFiles");
        // A directory such as $Extend/$Quota is listed by its indexes alone, each a stream.
        std::string const name = path.substr(0, path.find(':'));
        if (!isVirtual && seen.insert(name).second) {
            names.push_back({name, std::stoull(line.substr(number))});
        }
    }
    return names;
}

BlockMap mapFromNtfscat(std::string const& volume, std::uint64_t clusters) {
    std::string const bitmap = outputOf({"ntfscat", "-f", "-i", "6", volume});
    BlockMap map(clusters);
    for (std::uint64_t cluster = 0; cluster < clusters; ++cluster) {
        map[cluster] = ((static_cast<unsigned char>(bitmap.at(cluster / 8)) >> (cluster % 8)) & 1U) != 0;
    }
    return map;
}

BlockMap mapFromPartcloneNtfs(std::string const& volume, std::string const& domainFile, std::uint64_t clusterBytes,
                              std::uint64_t clusters) {
    outputOf(
        {"partclone.ntfs", "-D", "--offset_domain=0", "-q", "-s", volume, "-o", domainFile, "-L", domainFile + ".log"});
    std::ifstream domain(domainFile);
    BlockMap map;
    for (std::string line; std::getline(domain, line);) {
        std::istringstream words(line);
        std::string position;
        std::string size;
        std::string status;
        if (words >> position >> size >> status && position.front() != '#') {
            std::uint64_t const end = std::stoull(position, nullptr, 16) + std::stoull(size, nullptr, 16);
            map.resize(end / clusterBytes, status == "+");
        }
    }
    map.resize(std::min<std::uint64_t>(map.size(), clusters));
    return map;
}

ExpectedRuns runsFromNtfsinfo(std::string const& volume, std::uint64_t record) {
    std::vector<PrintedAttribute> const attributes = printedAttributes(volume, record);
    ExpectedRuns expected;
    // A record that an attribute list leads to is visited when it is named first, with all that it holds.
    std::vector<std::uint64_t> holders;
    for (PrintedAttribute const& attribute : attributes) {
        bool const isNew = std::find(holders.begin(), holders.end(), attribute.record) == holders.end();
        if (!attribute.isList && attribute.record != record && isNew) {
            holders.push_back(attribute.record);
        }
    }
    expected.isSpread = !holders.empty();
    holders.push_back(record);
    for (std::uint64_t const holder : holders) {
        for (PrintedAttribute const& attribute : attributes) {
            if (!attribute.isList && attribute.record == holder) {
                appendAsRead(attribute, expected);
            }
        }
    }
    for (PrintedAttribute const& attribute : attributes) {
        if (attribute.isList) {
            appendAsRead(attribute, expected);
        }
    }
    return expected;
}

std::string attributeContent(std::string const& volume, std::uint64_t record, std::string const& type,
                             std::string const& name) {
    return outputOf({"ntfscat", "-f", "-a", type, "-n", name, "-i", std::to_string(record), volume});
}

} // namespace tests
