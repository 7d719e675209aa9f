// Volumes that ask for far more memory than anyone should give them.
#pragma once

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace tests {

/// A volume of few real bytes.
struct GreedyVolume {
    std::string name;
    std::function<void(std::string const& path)> write;
    bool isLarge = false; ///< holes of many GiB, whose content nobody wants to wait for
};

inline void PrintTo(GreedyVolume const& volume, std::ostream* out) {
    *out << volume.name;
}

std::vector<GreedyVolume> greedyExtVolumes();
std::vector<GreedyVolume> greedyFatVolumes();
std::vector<GreedyVolume> greedyHfsVolumes();
std::vector<GreedyVolume> greedyXfsVolumes();
std::vector<GreedyVolume> greedyNtfsVolumes();

/// Writes the bytes, and a hole behind them up to the size.
void writeSparse(std::string const& path, std::vector<std::uint8_t> const& bytes, std::uint64_t size = 0);

} // namespace tests
