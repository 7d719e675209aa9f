// The HFS+ parser with what must be true before its map is believed.
#include "imaging/hfs/HfsGeometry.h"

#include "agent/core/fs/HFSParser.h"
#include "imaging/Detection.h"
#include "imaging/SliceReader.h"
#include "imaging/hfs/HeaderFirstReader.h"
#include "imaging/hfs/HfsHeader.h"
#include "imaging/hfs/HfsOverflow.h"
#include "imaging/hfs/HfsState.h"
#include "imaging/hfs/HfsWrapper.h"

#include <algorithm>
#include <bit>

namespace imaging::hfs {

namespace {

using Reason = std::optional<std::string>;

/// Short, so that a chunk stays in the processor's caches. Where the parser needs the overflow tree, it reads it again
/// for each chunk, which long ones make cheap.
constexpr std::uint64_t kChunkBytes = std::uint64_t{64} << 10;
constexpr std::uint64_t kTreeChunkBytes = std::uint64_t{8} << 20;

constexpr std::uint64_t kSmallestBlock = 512;

/// Versions that go with the signatures "H+" and "HX".
constexpr std::uint64_t kHfsPlusVersion = 4;
constexpr std::uint64_t kHfsxVersion = 5;

/// The volume the way its parser expects it. Each reader wraps the one before it.
class Presentation : public agent::core::IVolumeReader {
public:
    Presentation(Volume& volume, Embedded const& place, std::span<std::uint8_t const> header)
        : slice_(volume.reader(), place.start, place.bytes), headerFirst_(slice_, toArray(header)),
          strict_(volume.logger(), headerFirst_, place.bytes, 0) {}

    long read(void* buffer, long length) const override { return strict_.read(buffer, length); }
    long seek(long offset, int whence) const override { return strict_.seek(offset, whence); }
    std::string getVolumePath() const override { return strict_.getVolumePath(); }

private:
    static std::array<std::uint8_t, kHeaderBytes> toArray(std::span<std::uint8_t const> header) {
        std::array<std::uint8_t, kHeaderBytes> bytes{};
        std::copy_n(header.begin(), kHeaderBytes, bytes.begin());
        return bytes;
    }

    SliceReader slice_;
    HeaderFirstReader headerFirst_;
    StrictReader strict_; // a read past the volume's end is an error
};

/// Where the HFS+ volume lies: everywhere, or inside a wrapper.
Embedded findVolume(Volume& volume) {
    std::optional<Embedded> const embedded = findEmbedded(volume.readBytes(kHeaderOffset, kHeaderBytes));
    if (!embedded) {
        return {0, volume.size()};
    }
    if (embedded->start >= volume.size() || embedded->bytes > volume.size() - embedded->start) {
        throw VolumeError(Trouble::NotUnderstood, volume.path() + ": the HFS wrapper names a volume of " +
                                                      std::to_string(embedded->bytes) + " bytes at byte " +
                                                      std::to_string(embedded->start) + ", and there are only " +
                                                      std::to_string(volume.size()));
    }
    return *embedded;
}

void requireVolume(Volume const& volume, Header const& header) {
    std::string const where = volume.path() + ": the HFS+ volume header describes no volume: ";
    if (!std::has_single_bit(header.blockSize) || header.blockSize < kSmallestBlock) {
        throw VolumeError(Trouble::NotUnderstood, where + "blockSize is " + std::to_string(header.blockSize) +
                                                      ", which must be a power of two from 512 on");
    }
    if (header.blocks == 0) {
        throw VolumeError(Trouble::NotUnderstood, where + "totalBlocks is 0");
    }
}

Reason findOddHeader(Header const& header) {
    std::uint64_t const expected = header.signature == "HX" ? kHfsxVersion : kHfsPlusVersion;
    if (header.version != expected) {
        return "version is " + std::to_string(header.version) + ", and with the signature " + header.signature +
               " it must be " + std::to_string(expected);
    }
    return std::nullopt;
}

/// Bits read from a wrong place would free blocks in use.
Reason findMisplacedExtent(Header const& header) {
    for (Extent const& extent : header.allocation.extents) {
        if (extent.first > header.blocks || extent.count > header.blocks - extent.first) {
            return "the allocation file has an extent of " + std::to_string(extent.count) + " blocks at block " +
                   std::to_string(extent.first) + ", where none can be (the volume has " +
                   std::to_string(header.blocks) + " blocks)";
        }
    }
    std::uint64_t const needed = (header.blocks + 7) / 8;
    if (std::uint64_t const held = std::min(header.allocation.bytes, header.allocation.blocks * header.blockSize);
        held < needed) {
        return "the allocation file holds " + std::to_string(held) + " bytes, and the volume's " +
               std::to_string(header.blocks) + " blocks need " + std::to_string(needed);
    }
    return std::nullopt;
}

/// An allocation file that calls its own beginning free was read from something that is none. A volume without a first
/// extent has no map at all, which the walk tells.
Reason findContradiction(agent::core::fs::HFSParser const& parser, Header const& header) {
    std::uint64_t const block = header.allocation.extents[0].first;
    std::array<char, 1> bits{};
    bool const isKnown = parser.getChunk(block / 8 * 8, bits.data(), bits.size()) > static_cast<long>(block % 8);
    if (isKnown && ((std::uint32_t{static_cast<std::uint8_t>(bits[0])} << (block % 8)) & 0x80U) == 0) {
        return "the allocation file calls block " + std::to_string(block) + " free, which holds its own beginning";
    }
    return std::nullopt;
}

/// Bytes of the HFS+ volume; none of what lies outside it.
ReadBytes readerOf(Volume& volume, Embedded const& place) {
    return [&volume, place](std::uint64_t offset, std::uint64_t length) {
        bool const isInside = offset < place.bytes && length <= place.bytes - offset;
        return isInside ? volume.readBytes(place.start + offset, length) : std::vector<std::uint8_t>();
    };
}

Reason findLooseEnds(Volume& volume, Embedded const& place, Header const& header) {
    if (header.allocation.blocks <= header.allocation.blocksInHeader()) {
        return std::nullopt; // the tree is not looked at
    }
    return findOddTree(header, readerOf(volume, place));
}

/// The blocks that hold the volume header and its copy, which lies 1024 bytes before the end. What lies outside the
/// blocks is kept of any volume.
std::vector<ByteRange> alwaysKept(Embedded const& place, Header const& header) {
    std::uint64_t const block = header.blockSize;
    std::uint64_t const end = header.blocks * block;
    std::uint64_t const headerEnd = (kHeaderOffset + kHeaderBytes + block - 1) / block * block;
    std::uint64_t const copy = end < kHeaderOffset ? 0 : (end - kHeaderOffset) / block * block;
    return {{place.start, place.start + std::min(headerEnd, end)}, {place.start + copy, place.start + end}};
}

/// What no sound map calls free: the header, and the volume's own files as far as it tells where they lie.
std::vector<ByteRange> mustBeUsed(Embedded const& place, Header const& header) {
    std::uint64_t const start = place.start + kHeaderOffset;
    std::vector<ByteRange> ranges{{start, start + kHeaderBytes}};
    auto const addFork = [&](Fork const& fork) {
        for (Extent const& extent : fork.extents) {
            std::uint64_t const first = std::min(extent.first, header.blocks);
            std::uint64_t const end = first + std::min(extent.count, header.blocks - first);
            ranges.push_back({place.start + first * header.blockSize, place.start + end * header.blockSize});
        }
    };
    addFork(header.allocation);
    addFork(header.overflow);
    std::for_each(header.others.begin(), header.others.end(), addFork);
    return ranges;
}

} // namespace

Answerer open(Volume& volume) {
    Embedded const place = findVolume(volume);
    std::vector<std::uint8_t> const bytes = volume.readBytes(place.start + kHeaderOffset, kHeaderBytes);
    Header const header = parseHeader(bytes);
    requireVolume(volume, header);
    Geometry geometry;
    geometry.start = place.start;
    geometry.unitSize = header.blockSize;
    geometry.units = header.blocks;
    geometry.bytes = geometry.units * geometry.unitSize;
    bool const needsTree = header.allocation.blocks > header.allocation.blocksInHeader();
    geometry.chunkBytes = needsTree ? kTreeChunkBytes : kChunkBytes;
    auto reader = std::make_shared<Presentation const>(volume, place, bytes);
    auto parser = makeParserOn<agent::core::fs::HFSParser>(volume, *reader, kHeaderBytes);
    geometry.notBelieved = findOddHeader(header);
    if (!geometry.notBelieved) {
        geometry.notBelieved = findMisplacedExtent(header);
    }
    if (!geometry.notBelieved) {
        geometry.notBelieved = findLooseEnds(volume, place, header);
    }
    if (!geometry.notBelieved) {
        geometry.notBelieved = findContradiction(*parser, header);
        volume.logger().takeReason(""); // what fails here fails again when the map is read
    }
    if (geometry.notBelieved) {
        return allUsed(std::move(geometry), volume.size());
    }
    Answerer answerer{std::move(geometry), std::move(reader), std::move(parser)};
    answerer.alwaysKept = [place, header] { return alwaysKept(place, header); };
    if (std::uint64_t const end = header.blocks * header.blockSize; end >= kHeaderOffset) {
        std::uint64_t const copy = place.start + end - kHeaderOffset;
        answerer.countedAsUsed = {{copy, copy + kHeaderBytes}};
    }
    answerer.mustBeUsed = [place, header] { return mustBeUsed(place, header); };
    answerer.uncleanReason = [&volume, place, header] { return uncleanReason(header, readerOf(volume, place)); };
    if (wasUnmounted(header)) {
        answerer.freeCounts = {0, {{header.blocks, header.freeBlocks}}, false}; // elsewhere the number may be late
    }
    return answerer;
}

} // namespace imaging::hfs
