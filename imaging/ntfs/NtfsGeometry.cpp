// The NTFS parser with what must be true before its map is believed.
#include "imaging/ntfs/NtfsGeometry.h"

#include "imaging/Detection.h"
#include "imaging/ntfs/BitmapRuns.h"
#include "imaging/ntfs/NtfsProbe.h"

#include <algorithm>

namespace imaging::ntfs {

namespace {

/// Short, so that a chunk stays in the processor's caches; the few records that the parser reads again for each come
/// from the page cache.
constexpr std::uint64_t kChunkBytes = std::uint64_t{64} << 10;

constexpr unsigned long kMftRecord = 0;
constexpr unsigned long kMirrorRecord = 1;
constexpr unsigned long kLogRecord = 2;
constexpr unsigned long kVolumeRecord = 3;
constexpr unsigned long kBitmapRecord = 6;

/// Of a resident attribute: its header's length, and its value's length and where it begins; in the value of
/// $VOLUME_INFORMATION the flags, and the one of a volume that was not unmounted cleanly.
constexpr std::size_t kResidentHeader = 0x18;
constexpr std::size_t kValueLength = 0x10;
constexpr std::size_t kValueOffset = 0x14;
constexpr std::size_t kVolumeFlags = 0x0A;
constexpr std::uint64_t kVolumeDirty = 0x0001;

/// Of a non-resident attribute: its header's length, and where its flags and sizes stand.
constexpr std::size_t kNonResidentHeader = 0x40;
constexpr std::size_t kNonResident = 0x08;
constexpr std::size_t kFlags = 0x0C;
constexpr std::size_t kLowestVcn = 0x10;
constexpr std::size_t kMappingPairs = 0x20;
constexpr std::size_t kDataSize = 0x30;
constexpr std::size_t kInitializedSize = 0x38;

/// What the checks of $Bitmap look at.
struct Facts {
    std::uint64_t volumeBytes;
    std::uint64_t clusterSize;
    std::uint64_t clusters; ///< of the volume, as its boot sector has it
    std::uint64_t mftCluster;
    std::vector<agent::BlockRange> runs; ///< of $Bitmap

    std::uint64_t bitmapBytes() const { return (clusters + 7) / 8; }
};

using Reason = std::optional<std::string>;
using Provider = agent::core::fs::IBlockBitmapChunkProvider;

/// Whether a mapping pair has no offset: a hole, which the parser takes for a run at another place.
bool hasHole(AttributeBytes const& attribute) {
    for (std::size_t place = load(attribute, kMappingPairs, 2); place < attribute.size() && attribute[place] != 0;) {
        std::size_t const offsetSize = attribute[place] >> 4U;
        if (offsetSize == 0) {
            return true;
        }
        place += 1 + (attribute[place] & 0x0FU) + offsetSize;
    }
    return false;
}

/// The bitmap must be one plain attribute: parts in other records are put together in another order than theirs, and
/// what was never written, compressed or left out is not what the clusters hold.
Reason findOddAttribute(Probe::Attributes const& data, Facts const& facts) {
    if (data.count == 1 && data.first.size() >= kNonResidentHeader && data.first[kNonResident] != 1) {
        return "the data of $Bitmap (record 6) are kept in the record itself, where the parser does not look";
    }
    if (data.count != 1 || data.first.size() < kNonResidentHeader || load(data.first, kLowestVcn, 8) != 0) {
        return "the data of $Bitmap (record 6) stand in " + std::to_string(data.count) +
               " parts, and not in one that stands whole in that record: their order cannot be told";
    }
    if (std::uint64_t const flags = load(data.first, kFlags, 2); flags != 0) {
        return "the data of $Bitmap (record 6) have the attribute flags " + std::to_string(flags) +
               ": they are compressed, sparse or encrypted";
    }
    if (hasHole(data.first)) {
        return "$Bitmap (record 6) has a hole, which holds no map";
    }
    std::uint64_t const valid = std::min(load(data.first, kDataSize, 8), load(data.first, kInitializedSize, 8));
    if (valid < facts.bitmapBytes()) {
        return "$Bitmap holds " + std::to_string(valid) + " bytes, and the volume's " + std::to_string(facts.clusters) +
               " clusters need " + std::to_string(facts.bitmapBytes());
    }
    return std::nullopt;
}

/// Bits read from a wrong place would free clusters in use.
Reason findMisplacedRun(Facts const& facts) {
    if (facts.runs.empty()) {
        return "$Bitmap (record 6) has no runs, and so holds no map";
    }
    std::uint64_t const clusters = std::min(facts.clusters, facts.volumeBytes / facts.clusterSize);
    for (agent::BlockRange const& run : facts.runs) {
        auto const first = static_cast<std::uint64_t>(run.first);
        auto const count = static_cast<std::uint64_t>(run.count);
        if (run.first < 0 || run.count <= 0 || first >= clusters || count > clusters - first) {
            return "$Bitmap has a run of " + std::to_string(run.count) + " clusters at cluster " +
                   std::to_string(run.first) + ", where none can be (the volume holds " + std::to_string(clusters) +
                   " clusters)";
        }
    }
    if (facts.bitmapBytes() > facts.volumeBytes) {
        return "the volume's " + std::to_string(facts.clusters) + " clusters need a $Bitmap of " +
               std::to_string(facts.bitmapBytes()) + " bytes, more than the volume itself has";
    }
    return std::nullopt;
}

/// Whether the map says that every cluster of a range is used.
bool isUsed(Provider const& map, std::uint64_t first, std::uint64_t count) {
    std::uint64_t const start = first / 8 * 8;
    std::vector<char> bits((first + count - start + 7) / 8);
    long const units = map.getChunk(start, bits.data(), bits.size());
    if (units < 0) {
        throw std::runtime_error("the map's chunk gave code " + std::to_string(units));
    }
    if (static_cast<std::uint64_t>(units) < first + count - start) {
        return false;
    }
    for (std::uint64_t cluster = first - start; cluster < first - start + count; ++cluster) {
        if ((static_cast<unsigned char>(bits[cluster / 8]) >> (cluster % 8) & 1U) == 0) {
            return false;
        }
    }
    return true;
}

/// A bitmap that calls the boot sector, $MFT or itself free was read from something that is no bitmap.
Reason findContradiction(Provider const& map, Facts const& facts) {
    std::vector<agent::BlockRange> mustBeUsed = facts.runs;
    mustBeUsed.push_back({0, 1});
    mustBeUsed.push_back({static_cast<std::int64_t>(facts.mftCluster), 1});
    for (agent::BlockRange const& range : mustBeUsed) {
        if (!isUsed(map, static_cast<std::uint64_t>(range.first), static_cast<std::uint64_t>(range.count))) {
            return "$Bitmap calls cluster " + std::to_string(range.first) +
                   " free, which holds the boot sector, $MFT or $Bitmap itself";
        }
    }
    return std::nullopt;
}

/// Every such condition, in an order in which each may rely on the ones before it; the first that applies is told.
Reason findLimit(Probe const& parser, Provider const& map, Boot const& boot, Facts const& facts) {
    Reason reason = findOddAttribute(parser.attributesOf(kBitmapRecord, agent::core::fs::kData, boot), facts);
    if (!reason) {
        reason = findMisplacedRun(facts);
    }
    return reason ? reason : findContradiction(map, facts);
}

/// The dirty flag in $Volume.
std::optional<std::string> uncleanReason(Probe const& parser, Boot const& boot, std::string const& path) {
    try {
        Probe::Attributes const information =
            parser.attributesOf(kVolumeRecord, agent::core::fs::kVolumeInformation, boot);
        std::span<std::uint8_t const> const attribute = information.first;
        if (attribute.size() < kResidentHeader) {
            return "$Volume (record 3) does not tell whether it was unmounted cleanly";
        }
        std::uint64_t const value = load(attribute, kValueOffset, 2);
        if (load(attribute, kValueLength, 4) < kVolumeFlags + 2 || value + kVolumeFlags + 2 > attribute.size()) {
            return "$Volume (record 3) does not tell whether it was unmounted cleanly";
        }
        if (std::uint64_t const flags = load(attribute, value + kVolumeFlags, 2); (flags & kVolumeDirty) != 0) {
            return "$Volume (record 3) has the dirty flag (flags " + std::to_string(flags) + ")";
        }
        return std::nullopt;
    } catch (std::exception const& error) {
        throw VolumeError(Trouble::Io, path + ": $Volume (record 3) cannot be read: " + error.what());
    }
}

/// What no sound map calls free: the clusters of $MFT, $MFTMirr and $LogFile.
std::vector<ByteRange> metadataRanges(Probe& parser, std::uint64_t clusterSize, std::string const& path) {
    std::vector<ByteRange> ranges;
    try {
        for (unsigned long const record : {kMftRecord, kMirrorRecord, kLogRecord}) {
            for (agent::BlockRange const& run : parser.extents(record)) {
                if (run.first >= 0 && run.count > 0) {
                    auto const first = static_cast<std::uint64_t>(run.first) * clusterSize;
                    ranges.push_back({first, first + static_cast<std::uint64_t>(run.count) * clusterSize});
                }
            }
        }
    } catch (std::exception const& error) {
        throw VolumeError(Trouble::Io, path + ": the records of its own files cannot be read: " + error.what());
    }
    return ranges;
}

/// The parser's own answer.
class ParserMap : public Provider {
public:
    explicit ParserMap(std::shared_ptr<Probe> parser) : parser_(std::move(parser)) {}

    long getChunk(unsigned long offset, char* buffer, unsigned long length) const override {
        return parser_->getChunk(offset, buffer, length);
    }
    bool isMostSignificantBitFirst() const override { return parser_->isMostSignificantBitFirst(); }

private:
    std::shared_ptr<Probe> parser_;
};

Geometry readGeometry(Volume& volume, Boot const& boot) {
    Geometry geometry;
    geometry.unitSize = boot.clusterSize();
    geometry.units = boot.totalSectors / boot.sectorsPerCluster;
    geometry.bytes = geometry.units * geometry.unitSize;
    geometry.chunkBytes = kChunkBytes;
    if (geometry.units == 0 || geometry.units > (std::uint64_t{1} << 63) / geometry.unitSize - 1) {
        throw VolumeError(Trouble::NotUnderstood, volume.path() +
                                                      ": the NTFS boot sector at byte 0 describes no volume: it has " +
                                                      std::to_string(boot.totalSectors) + " sectors");
    }
    return geometry;
}

} // namespace

Answerer open(Volume& volume) {
    auto opened = openProbe(volume);
    Boot const boot = opened.boot;
    std::shared_ptr<Probe> const parser = std::move(opened.parser);
    std::unique_ptr<Provider> map = std::make_unique<ParserMap>(parser);
    Geometry geometry = readGeometry(volume, boot);
    if (volume.size() < geometry.units * geometry.unitSize) {
        volume.reader().forbidTail(); // the last unit of a truncated volume may cut through $Bitmap
    }
    try {
        Facts const facts{volume.size(), geometry.unitSize, geometry.units, boot.mftCluster,
                          parser->extents(kBitmapRecord)};
        if (facts.runs.size() > 1) {
            map = std::make_unique<BitmapRuns>(volume, facts.runs, facts.clusterSize, facts.clusters);
        }
        geometry.notBelieved = findLimit(*parser, *map, boot, facts);
    } catch (VolumeError const&) {
        throw;
    } catch (std::exception const& error) {
        throw VolumeError(volume.readTrouble(), volume.path() + ": $Bitmap (record 6) cannot be read: " + error.what());
    }
    if (geometry.notBelieved) {
        volume.logger().takeReason(""); // the reason is told in its own words
        return allUsed(std::move(geometry), volume.size());
    }
    Answerer answerer{std::move(geometry), nullptr, std::move(map)};
    answerer.mustBeUsed = [parser, size = answerer.geometry.unitSize, path = volume.path()] {
        return metadataRanges(*parser, size, path);
    };
    answerer.uncleanReason = [parser, boot, path = volume.path()] { return uncleanReason(*parser, boot, path); };
    return answerer;
}

} // namespace imaging::ntfs
