// Ranges in blocks, their hashes, and the XML around them.
#include "imaging/formats/BlockMapFormat.h"

#include "imaging/Error.h"
#include "imaging/copy/ContentHasher.h"
#include "imaging/formats/XmlSpool.h"

#include <algorithm>
#include <optional>

namespace imaging {

namespace {

constexpr std::uint64_t kBlockBytes = 4096;

/// Blocks, the last one included, as the format counts.
struct BlockRange {
    std::uint64_t first;
    std::uint64_t last;

    std::uint64_t count() const { return last - first + 1; }
    std::string text() const {
        return first == last ? std::to_string(first) : std::to_string(first) + "-" + std::to_string(last);
    }
};

/// Walks the blocks that hold anything that must be taken along; ranges that touch become one.
template <typename Sink>
void walkBlocks(FormatInput const& input, Sink const& sink) {
    std::optional<BlockRange> pending;
    input.walk([&](ByteRange const& range) {
        BlockRange const blocks{range.begin / kBlockBytes, (range.end - 1) / kBlockBytes};
        if (pending && blocks.first <= pending->last + 1) {
            pending->last = blocks.last;
            return;
        }
        if (pending) {
            sink(*pending);
        }
        pending = blocks;
    });
    if (pending) {
        sink(*pending);
    }
}

std::uint64_t countBlocks(FormatInput const& input) {
    std::uint64_t blocks = 0;
    walkBlocks(input, [&blocks](BlockRange const& range) { blocks += range.count(); });
    return blocks;
}

void writeRanges(FormatInput const& input, XmlSpool& xml) {
    ContentHasher hasher(input.source, input.path, input.pause);
    walkBlocks(input, [&](BlockRange const& blocks) {
        Sha256 hash;
        // The last block of the volume may be a short one.
        hasher.add({blocks.first * kBlockBytes, std::min(input.size, (blocks.last + 1) * kBlockBytes)}, hash);
        xml.element("Range", blocks.text(), {"chksum", hash.hexadecimal()});
    });
}

/// The list's own hash is that of the list with zeros in its place.
std::string const& placeholder() {
    static std::string const zeros(Sha256::kDigits, '0');
    return zeros;
}

std::string hashOf(XmlSpool& xml) {
    Sha256 hash;
    xml.read([&hash](std::string_view text) { hash.add(text.data(), text.size()); });
    return hash.hexadecimal();
}

} // namespace

void BlockMapFormat::write(FormatInput const& input, TextSink const& sink) const {
    XmlSpool xml;
    xml.begin("bmap", {"version", "2.0"});
    xml.element("ImageSize", std::to_string(input.size));
    xml.element("BlockSize", std::to_string(kBlockBytes));
    xml.element("BlocksCount", std::to_string((input.size - 1) / kBlockBytes + 1));
    xml.element("MappedBlocksCount", std::to_string(countBlocks(input)));
    xml.element("ChecksumType", "sha256");
    xml.element("BmapFileChecksum", placeholder());
    xml.begin("BlockMap");
    writeRanges(input, xml);
    xml.finish();
    std::string const hash = hashOf(xml);
    bool isPlaced = false;
    xml.read([&](std::string_view text) {
        std::string whole(text);
        if (!isPlaced) { // it stands in the first lines, before any other hash
            whole.replace(whole.find(placeholder()), hash.size(), hash);
            isPlaced = true;
        }
        sink(whole);
    });
}

} // namespace imaging
