// Where the first inputs of each target come from.
#pragma once

#include "Image.h"

#include <cstdint>
#include <functional>
#include <span>
#include <string>

namespace fuzz {

/// Takes the inputs, each for one target.
class SeedFolder {
public:
    explicit SeedFolder(std::string folder) : folder_(std::move(folder)) {}

    /// Writes an input; its name is unique within the target.
    void add(std::string const& target, std::string const& name, std::span<std::uint8_t const> bytes) const;

    /// Writes a packed volume for a target, with a request at the place where that target looks for one.
    void addVolume(std::string const& target, std::string const& name, Image image, std::uint64_t requestAt,
                   std::span<std::uint8_t const> request) const;

private:
    std::string folder_;
};

/// A volume in memory as an image: all of it but what is zero.
Image imageOf(std::span<std::uint8_t const> volume);

/// What a walk, lookups and file questions ask of an NTFS volume with this path, and with this record.
void addNtfs(SeedFolder const& seeds, std::string const& name, Image const& image, std::string const& path,
             std::uint8_t record = 24);

/// Whether the file is a volume that some target takes; what its parser reads of it becomes that target's input.
bool addRealVolume(SeedFolder const& seeds, std::string const& file);

void addNtfsSeeds(SeedFolder const& seeds);
void addSmallSeeds(SeedFolder const& seeds); ///< all others

} // namespace fuzz
