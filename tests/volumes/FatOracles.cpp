// Reading what the tools print of FAT32 volumes.
#include "volumes/FatOracles.h"

#include "volumes/ExtRecipe.h"
#include "volumes/FatRecipe.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace tests {

namespace {

CommandResult runFatOracle(std::vector<std::string> const& arguments) {
    CommandResult result = runTool(arguments);
    if (!result.succeeded()) {
        std::ostringstream text;
        text << arguments.front() << ": " << result;
        throw std::runtime_error(text.str());
    }
    return result;
}

std::uint64_t firstSectorOf(std::uint64_t cluster, FatGeometry const& geometry) {
    return geometry.dataStart() / geometry.bytesPerSector + (cluster - 2) * geometry.sectorsPerCluster;
}

/// Sets sectors to what they count as here; where the tool already says so, it no longer differs.
void setSectors(BlockMap& sectors, std::uint64_t from, std::uint64_t end, bool used, bool before) {
    for (std::uint64_t sector = from; sector < end; ++sector) {
        if (sectors.at(sector) != before) {
            throw std::runtime_error("the tool does not differ at sector " + std::to_string(sector));
        }
        sectors.at(sector) = used;
    }
}

} // namespace

BlockMap unitsFromSectors(BlockMap const& sectors, FatGeometry const& geometry, FatDifferences const& differences,
                          std::vector<std::uint64_t> const& bad) {
    if (sectors.size() != geometry.sectors()) {
        throw std::runtime_error(std::to_string(sectors.size()) + " sectors instead of " +
                                 std::to_string(geometry.sectors()));
    }
    BlockMap here = sectors;
    for (std::uint64_t const cluster : bad) {
        std::uint64_t const from = firstSectorOf(cluster, geometry);
        setSectors(here, from, from + geometry.sectorsPerCluster, false, differences.badIsUsed);
    }
    setSectors(here, firstSectorOf(geometry.clusters() + 2, geometry), geometry.sectors(), false,
               differences.tailIsUsed);
    BlockMap units(geometry.units(), false);
    for (std::uint64_t sector = 0; sector < here.size(); ++sector) {
        if (here[sector]) {
            units.at(sector / geometry.sectorsPerCluster) = true;
        }
    }
    return units;
}

BlockMap fatUnitsFromPartclone(std::string const& volume, std::string const& domainFile,
                               std::vector<std::uint64_t> const& bad) {
    runFatOracle({"partclone.fat32", "-D", "--offset_domain=0", "-q", "-s", volume, "-o", domainFile, "-L",
                  domainFile + ".log"});
    FatGeometry const geometry = readFatGeometry(volume);
    std::ifstream domain(domainFile);
    BlockMap sectors;
    for (std::string line; std::getline(domain, line);) {
        std::istringstream words(line);
        std::string position;
        std::string size;
        std::string status;
        if (words >> position >> size >> status && position.front() != '#') {
            std::uint64_t const end = std::stoull(position, nullptr, 16) + std::stoull(size, nullptr, 16);
            sectors.resize(end / geometry.bytesPerSector, status == "+");
        }
    }
    return unitsFromSectors(sectors, geometry, {false, true}, bad);
}

BlockMap fatUnitsFromBlkls(std::string const& volume, std::vector<std::uint64_t> const& bad) {
    FatGeometry const geometry = readFatGeometry(volume);
    std::istringstream listing(runFatOracle({"blkls", "-f", "fat", "-A", "-l", volume}).output);
    BlockMap sectors(geometry.sectors(), true);
    for (std::string line; std::getline(listing, line);) {
        if (line.ends_with("|f")) {
            sectors.at(std::stoull(line)) = false;
        }
    }
    return unitsFromSectors(sectors, geometry, {true, false}, bad);
}

} // namespace tests
