// A volume's geometry together with what answers for its units.
#pragma once

#include "agent/core/IVolumeReader.h"
#include "agent/core/fs/IBlockBitmapChunkProvider.h"
#include "agent/core/fs/UnrecognizedParser.h"
#include "imaging/ByteRange.h"
#include "imaging/Error.h"
#include "imaging/Geometry.h"
#include "imaging/Volume.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace imaging {

/// How many free units a stretch has by the volume's own count.
struct FreeCount {
    std::uint64_t units; ///< the stretch begins where the one before it ends
    std::uint64_t free;
};

/// The volume's own counts of free units.
struct FreeCounts {
    std::uint64_t first = 0; ///< unit where the first stretch begins
    std::vector<FreeCount> stretches = {};
    bool areOfGroups = true; ///< a stretch is a group of the file system; else there is one, the whole volume
};

/// What each file system's folder makes of a volume.
struct Answerer {
    Geometry geometry;

    /// What the provider reads through, unless it is the volume's own reader; outlives the provider.
    std::shared_ptr<agent::core::IVolumeReader const> reader;

    std::unique_ptr<agent::core::fs::IBlockBitmapChunkProvider> provider;

    /// Names what a copy must keep although the map may call it free; empty for nothing. Ranges may overlap.
    /// @throws VolumeError  the volume cannot be read for it
    std::function<std::vector<ByteRange>()> alwaysKept = nullptr;

    /// Names what no sound map calls free; empty for nothing. Ranges may overlap.
    /// @throws VolumeError  the volume cannot be read for it
    std::function<std::vector<ByteRange>()> mustBeUsed = nullptr;

    /// Names what counts as used although a sound map may call it free; empty for nothing. Ranges may overlap.
    std::vector<ByteRange> countedAsUsed = {};

    /// What the map is held against, stretch by stretch.
    FreeCounts freeCounts = {};

    /// Names what the volume says of itself when it was not cleanly unmounted, as one clause; empty for nothing.
    /// @throws VolumeError  the volume cannot be read for it
    std::function<std::optional<std::string>()> uncleanReason = nullptr;
};

/// Constructs a parser on a reader of a volume; `more` goes to its constructor.
/// @param alignment  bytes
/// @throws VolumeError  the parser refuses the volume; the sentence holds its text and what it logged
template <typename Parser, typename... More>
std::unique_ptr<Parser> makeParserOn(Volume& volume, agent::core::IVolumeReader const& reader, std::uint64_t alignment,
                                     More const&... more) {
    try {
        return std::make_unique<Parser>(volume.logger(), static_cast<unsigned>(alignment), reader, more...);
    } catch (std::bad_alloc const&) {
        throw VolumeError(Trouble::Io, volume.path() + ": there is not enough memory for what its header asks for");
    } catch (std::runtime_error const& error) {
        std::string const text = error.what();
        std::string const logged = volume.logger().takeReason(text);
        throw VolumeError(volume.readTrouble(),
                          volume.path() + ": " + text + (logged == text ? "" : " (" + logged + ")"));
    }
}

/// Constructs a parser on a volume's own reader, in the granularity of its device.
/// @throws VolumeError  as makeParserOn
template <typename Parser, typename... More>
std::unique_ptr<Parser> makeParser(Volume& volume, More const&... more) {
    return makeParserOn<Parser>(volume, volume.reader(), volume.alignment(), more...);
}

/// Bytes of a chunk in which every bit is set.
inline constexpr std::uint64_t kAllUsedChunk = std::uint64_t{1} << 20;

/// The units that a header may claim although the volume ends before them. More are more than can be told one by one.
inline constexpr std::uint64_t kMostClaimedUnits = std::uint64_t{1} << 33;

/// Every unit counts as used, for a reason that the geometry may hold.
/// @param volumeBytes  of the volume
inline Answerer allUsed(Geometry geometry, std::uint64_t volumeBytes) {
    if (geometry.units > kMostClaimedUnits) {
        std::uint64_t const there = volumeBytes - std::min(volumeBytes, geometry.start);
        geometry.units = std::min(geometry.units, (there + geometry.unitSize - 1) / geometry.unitSize);
    }
    // The size that a header claims takes no memory.
    geometry.chunkBytes = kAllUsedChunk;
    std::uint64_t const units = geometry.units;
    return {std::move(geometry), nullptr, std::make_unique<agent::core::fs::UnrecognizedParser>(units)};
}

} // namespace imaging
