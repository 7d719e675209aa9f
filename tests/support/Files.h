// Volumes built in memory, put into files, and files read back.
#pragma once

#include "support/ExtBuilder.h"
#include "support/FatBuilder.h"
#include "support/TempDirectory.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace tests {

/// Writes a file and gives its path.
/// @throws std::runtime_error  it cannot be written
inline std::string writeFile(std::string const& path, std::vector<std::uint8_t> const& bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<char const*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!file.flush()) {
        throw std::runtime_error("cannot write " + path);
    }
    return path;
}

/// Where the superblock holds the number of clusters in a group: that of the blocks, wherever a cluster is a block.
inline constexpr std::uint64_t kClustersPerGroupField = 0x24;

/// Sets the number of blocks in a group, and that of the clusters with it.
inline ExtBuilder& setGroupSize(ExtBuilder& builder, std::uint32_t blocks) {
    return builder.setSuper32(ext_super::kBlocksPerGroup, blocks).setSuper32(kClustersPerGroupField, blocks);
}

/// A volume whose superblock is sound in every field, also in those that no parser looks at.
inline ExtBuilder makeSoundExtVolume(ExtGeometry const& geometry = {}) {
    ExtBuilder builder(geometry);
    return setGroupSize(builder.markOwnBlocks(), geometry.blocksPerGroup);
}

/// Writes an ext volume in its full size, of which only what the builder made takes room.
inline std::string writeExtVolume(std::string const& path, ExtBuilder const& builder) {
    writeFile(path, builder.bytes);
    std::filesystem::resize_file(path, builder.geometry().blocksCount * builder.geometry().blockBytes());
    return path;
}

/// Writes a volume in its full size, of which only what the builder made takes room.
inline std::string writeFatVolume(std::string const& path, FatBuilder const& builder) {
    writeFile(path, builder.bytes);
    std::filesystem::resize_file(path, builder.geometry().totalBytes());
    return path;
}

/// The bytes of a file.
/// @throws std::runtime_error  it is not there or cannot be read
inline std::vector<std::uint8_t> readFile(std::string const& path) {
    std::ifstream file(path, std::ios::binary);
    std::vector<std::uint8_t> bytes(std::filesystem::file_size(path));
    file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!file) {
        throw std::runtime_error("cannot read " + path);
    }
    return bytes;
}

/// The names in a directory, in order.
inline std::vector<std::string> namesIn(TempDirectory const& directory) {
    std::vector<std::string> names;
    for (auto const& entry : std::filesystem::directory_iterator(directory.path())) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace tests
