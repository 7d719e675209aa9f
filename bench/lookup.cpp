// Looks paths up on an NTFS volume: lookup VOLUME PATHS record|acl ROUNDS library|cached|imaging
//
// `library` is the parser on the library's own volume reader, `cached` the same with pages kept in between, `imaging`
// what the command asks. One round warms up and is not counted. The sum is of creation times, or of the entries of
// access-control lists, so that it can be held against another program's.
#include "Lookups.h"
#include "agent/core/backup/VolumeReader.h"
#include "agent/core/fs/NTFSParser.h"
#include "imaging/CachingReader.h"
#include "imaging/Volume.h"
#include "imaging/ntfs/NtfsFiles.h"

#include <algorithm>
#include <exception>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using agent::core::fs::NTFS_ACL;
using agent::core::fs::NTFSParser;

constexpr unsigned kAlignment = 512; // what the imaging layer takes for this volume
constexpr std::size_t kPages = 1024; // 64 MiB

class QuietLogger : public agent::info::Logger {
public:
    bool isEnabled(agent::info::Level level) const override { return level == agent::info::Level::Error; }
    void write(agent::info::Level, std::string const& text) override { std::fprintf(stderr, "%s\n", text.c_str()); }
};

using Ask = std::function<unsigned long long(std::string const&)>;

std::vector<std::string> readPaths(std::string const& name) {
    std::ifstream file(name);
    std::vector<std::string> paths;
    for (std::string line; std::getline(file, line);) {
        paths.push_back(line);
    }
    if (paths.empty()) {
        throw std::runtime_error(name + ": holds no paths");
    }
    return paths;
}

unsigned long long entries(std::vector<NTFS_ACL> const& lists) {
    unsigned long long sum = 0;
    for (NTFS_ACL const& list : lists) {
        sum += list.aces.size();
    }
    return sum;
}

void measure(std::vector<std::string> const& paths, unsigned long rounds, Ask const& ask) {
    long long begin = 0;
    unsigned long long sum = 0;
    for (unsigned long round = 0; round <= rounds; ++round) {
        begin = round == 1 ? cpuMicroseconds() : begin;
        sum = 0;
        for (std::string const& path : paths) {
            sum += ask(path);
        }
    }
    printLookups(paths.size(), rounds, cpuMicroseconds() - begin, sum);
}

void measureParser(agent::info::Logger& logger, agent::core::IVolumeReader const& reader,
                   std::vector<std::string> paths, bool isAcl, unsigned long rounds) {
    for (std::string& path : paths) {
        path = imaging::ntfs::toLibraryPath(path);
    }
    NTFSParser parser(logger, kAlignment, reader);
    parser.extents(std::string()); // names can be compared only once this has loaded the upcase table
    measure(paths, rounds, [&parser, isAcl](std::string const& path) {
        return isAcl ? entries(parser.readACLFromFile(path)) : parser.getStandardInfo(path).creation_time.value();
    });
}

void measureImaging(agent::info::Logger& logger, std::string const& volumePath, std::vector<std::string> const& paths,
                    bool isAcl, unsigned long rounds) {
    imaging::Volume volume(volumePath, 0, logger);
    imaging::ntfs::Files files(volume, std::nullopt);
    measure(paths, rounds, [&files, isAcl](std::string const& path) {
        return isAcl ? entries(files.accessLists(path)) : files.stat(path).information.creation_time.value();
    });
}

void run(std::vector<std::string> const& arguments) {
    std::string const& volumePath = arguments.at(0);
    std::vector<std::string> const paths = readPaths(arguments.at(1));
    bool const isAcl = arguments.at(2) == "acl";
    unsigned long const rounds = std::stoul(arguments.at(3));
    QuietLogger logger;
    if (arguments.at(4) == "imaging") {
        measureImaging(logger, volumePath, paths, isAcl, rounds);
        return;
    }
    agent::core::backup::VolumeReader device(logger, volumePath);
    if (!device.open()) {
        throw std::runtime_error(volumePath + ": cannot be opened");
    }
    if (arguments.at(4) == "cached") {
        imaging::ReasonLogger reasons(logger);
        imaging::CachingReader const cache(reasons, device, kPages);
        measureParser(logger, cache, paths, isAcl, rounds);
    } else {
        measureParser(logger, device, paths, isAcl, rounds);
    }
}

} // namespace

int main(int count, char** arguments) {
    if (count != 6) {
        std::fputs("usage: lookup VOLUME PATHS record|acl ROUNDS library|cached|imaging\n", stderr);
        return 2;
    }
    try {
        run(std::vector<std::string>(arguments + 1, arguments + count));
        return 0;
    } catch (std::exception const& error) {
        std::fprintf(stderr, "lookup: %s\n", error.what());
        return 1;
    }
}
