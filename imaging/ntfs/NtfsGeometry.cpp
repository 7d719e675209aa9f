// The NTFS boot sector and the record of $Bitmap, as far as imaging must know them.
#include "imaging/ntfs/NtfsGeometry.h"

#include "agent/core/fs/NTFSParser.h"
#include "imaging/Detection.h"
#include "imaging/LittleEndian.h"

#include <bit>
#include <span>

namespace imaging::ntfs {

using agent::core::fs::NTFSParser;

namespace {

/// A chunk asks for a few records again; long chunks make that cheap.
constexpr std::uint64_t kChunkBytes = std::uint64_t{4} << 20;

constexpr unsigned long kBitmapRecord = 6;

/// Protected records end each 512 bytes with two that stand elsewhere.
constexpr std::uint64_t kPlainBytes = 510;

constexpr std::uint32_t kAttributeList = 0x20;

/// The boot sector of a volume that the parser accepted, so that nothing here divides by zero.
struct Boot {
    std::uint64_t bytesPerSector;
    std::uint64_t sectorsPerCluster;
    std::uint64_t totalSectors;
    std::uint64_t mftCluster;
    std::int8_t clustersPerRecord;

    std::uint64_t clusterSize() const { return bytesPerSector * sectorsPerCluster; }
    std::uint64_t recordSize() const {
        return clustersPerRecord >= 0 ? clusterSize() * static_cast<std::uint64_t>(clustersPerRecord)
                                      : std::uint64_t{1} << -clustersPerRecord;
    }
};

Boot parse(std::span<std::uint8_t const> sector) {
    std::uint64_t const stored = sector[0x0D];
    return {load(sector, 0x0B, 2), stored <= 0x80 ? stored : std::uint64_t{1} << (256 - stored), load(sector, 0x28, 8),
            load(sector, 0x30, 8), static_cast<std::int8_t>(sector[0x40])};
}

/// Whether the record of $Bitmap has an attribute list. Attributes ascend by type, and a list is the second one.
bool hasAttributeList(std::span<std::uint8_t const> record) {
    std::uint64_t offset = load(record, 0x14, 2);
    while (offset + 8 <= kPlainBytes) {
        std::uint64_t const type = load(record, offset, 4);
        std::uint64_t const length = load(record, offset + 4, 4);
        if (type >= kAttributeList || length == 0) {
            return type == kAttributeList;
        }
        offset += length;
    }
    return false;
}

/// The first run of $Bitmap that does not lie in the volume: bits read from elsewhere would free clusters in use.
std::optional<std::string> findMisplacedRun(std::vector<agent::BlockRange> const& runs, std::uint64_t clusters) {
    for (agent::BlockRange const& run : runs) {
        auto const first = static_cast<std::uint64_t>(run.first);
        auto const count = static_cast<std::uint64_t>(run.count);
        if (run.first < 0 || run.count <= 0 || first >= clusters || count > clusters - first) {
            return "$Bitmap has a run of " + std::to_string(run.count) + " clusters at cluster " +
                   std::to_string(run.first) + ", where none can be (the volume has " + std::to_string(clusters) +
                   " clusters)";
        }
    }
    return std::nullopt;
}

std::optional<std::string> findLimit(Volume& volume, Boot const& boot) {
    std::uint64_t const place = boot.mftCluster * boot.clusterSize() + kBitmapRecord * boot.recordSize();
    if (hasAttributeList(volume.readBytes(place, kSectorBytes))) {
        return "the record of $Bitmap (6, at byte " + std::to_string(place) +
               ") has an attribute list, whose parts of the bitmap are not put together in their order";
    }
    return std::nullopt;
}

std::vector<agent::BlockRange> bitmapRuns(Volume& volume, NTFSParser& parser) {
    try {
        return parser.extents(kBitmapRecord);
    } catch (std::runtime_error const& error) {
        throw VolumeError(Trouble::Io, volume.path() + ": the runs of $Bitmap cannot be read: " + error.what());
    }
}

} // namespace

Answerer open(Volume& volume) {
    auto parser = makeParser<NTFSParser>(volume);
    Boot const boot = parse(volume.readBytes(0, kSectorBytes));
    Geometry geometry;
    geometry.unitSize = boot.clusterSize();
    geometry.units = boot.totalSectors / boot.sectorsPerCluster;
    if (geometry.units == 0 || geometry.units > (std::uint64_t{1} << 63) / geometry.unitSize - 1) {
        throw VolumeError(Trouble::NotUnderstood, volume.path() +
                                                      ": the NTFS boot sector at byte 0 describes no volume: it has " +
                                                      std::to_string(boot.totalSectors) + " sectors");
    }
    geometry.chunkBytes = kChunkBytes;
    if (volume.size() < geometry.units * geometry.unitSize) {
        volume.reader().forbidTail(); // the last unit of a truncated volume may cut through $Bitmap
    }
    std::vector<agent::BlockRange> const runs = bitmapRuns(volume, *parser);
    geometry.notBelieved = findLimit(volume, boot);
    if (!geometry.notBelieved) {
        geometry.notBelieved = findMisplacedRun(runs, geometry.units);
    }
    if (geometry.notBelieved) {
        return allUsed(std::move(geometry));
    }
    // With $Bitmap in several runs, only a request from cluster 0 is read from the right place.
    geometry.isOneRequest = runs.size() > 1;
    return {std::move(geometry), std::move(parser)};
}

} // namespace imaging::ntfs
