// Running the built command, and the small volumes that its tests look at.
#pragma once

#include "support/Command.h"
#include "support/ExtBuilder.h"
#include "support/Files.h"

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace tests {

using Json = nlohmann::ordered_json;

/// The options under which nothing of the tester's own environment shows in the output.
inline CommandOptions plainOptions() {
    CommandOptions options;
    for (char const* const name : {"LC_ALL", "LC_CTYPE", "LANG", "NO_COLOR", "COLUMNS", "LINES"}) {
        options.environment[name] = std::nullopt;
    }
    return options;
}

/// Runs `fsparser` with arguments to its end.
inline CommandResult fsparser(std::vector<std::string> arguments, CommandOptions const& options = plainOptions()) {
    arguments.insert(arguments.begin(), FSPARSER_COMMAND);
    return runCommand(arguments, options);
}

/// One group of 1000 blocks of 4 KiB, of which 0 to 99, 500 to 599 and 650 are used: 201 in all.
inline ExtBuilder makeThousandBlocks() {
    ExtBuilder builder = makeSoundExtVolume(ExtGeometry::with4KiBBlocks(1000));
    return builder.setUsedFrom(0, 100).setUsedFrom(500, 100).setUsed(650);
}

/// A directory with the volume of makeThousandBlocks().
struct ThousandBlocks {
    TempDirectory directory;
    std::string path = writeExtVolume(directory.file("volume"), makeThousandBlocks());
};

/// The volume of makeThousandBlocks(), cut off before its bitmap in block 999: its map cannot be read.
inline std::string writeBrokenVolume(std::string const& path) {
    writeExtVolume(path, makeThousandBlocks().setBitmapLocation(0, 999));
    std::filesystem::resize_file(path, std::uint64_t{999} * 4096);
    return path;
}

/// What the verbs say of it.
inline std::string brokenVolumeSentence(std::string const& path) {
    return "fsparser: " + path +
           ": the map cannot be read from unit 0 on: The volume delivers nothing at byte 4091904, where 4096 more "
           "bytes were to be read (it has 4091904 bytes); Can't read bitmap; A logical error occurred while "
           "attempting to parse the EXT bitmap, err: -1\n";
}

/// An ext volume of 4 TiB, nearly all of it a hole, whose walk takes seconds: long enough to be interrupted. Smaller
/// groups make it longer.
inline std::string writeSlowVolume(std::string const& path, std::uint32_t blocksPerGroup = 32768) {
    constexpr std::uint32_t kBlocks = std::uint32_t{1} << 30;
    constexpr std::uint32_t kBitmapBlock = 1000000; // somewhere in the hole
    ExtBuilder builder = makeSoundExtVolume(ExtGeometry::with4KiBBlocks(1000));
    setGroupSize(builder.setSuper32(ext_super::kBlocksCountLow, kBlocks), blocksPerGroup);
    builder.resize(4096 + std::uint64_t{32} * (kBlocks / blocksPerGroup + 1));
    for (std::uint64_t at = 4096; at < builder.bytes.size(); at += 32) {
        for (unsigned i = 0; i < 4; ++i) {
            builder.bytes[at + i] = static_cast<std::uint8_t>(kBitmapBlock >> (8 * i));
        }
    }
    writeFile(path, builder.bytes);
    std::filesystem::resize_file(path, std::uint64_t{kBlocks} * 4096);
    return path;
}

/// The keys of a JSON object in their order.
inline std::vector<std::string> keysOf(Json const& object) {
    std::vector<std::string> keys;
    for (auto const& [key, value] : object.items()) {
        keys.push_back(key);
    }
    return keys;
}

} // namespace tests
