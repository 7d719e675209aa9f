// The HFS+ volumes that tests are built on: which byte goes where, and why.
#include "support/HfsBuilder.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>

namespace tests {

namespace {

constexpr std::uint64_t kTailBytes = 1024; // the alternate header's sector, and one that is reserved
constexpr std::uint16_t kCatalogNodeSize = 4096;
constexpr std::uint16_t kAttributesNodeSize = 4096;
constexpr std::uint32_t kRootFolder = 2;
constexpr std::uint32_t kFirstUserId = 16;
constexpr std::uint32_t kDate = 0xD6000000; // October 2017, counted from 1904
constexpr std::uint32_t kCleanlyUnmounted = 0x100;
constexpr std::uint8_t kBinaryCompare = 0xBC; // of names, in the case-sensitive kind
constexpr char kVolumeName[] = {'t', 'e', 's', 't'};

std::uint64_t divideUp(std::uint64_t dividend, std::uint64_t divisor) {
    return (dividend + divisor - 1) / divisor;
}

std::uint32_t blocksOf(HfsExtents const& extents) {
    std::uint32_t blocks = 0;
    for (HfsExtent const& extent : extents) {
        blocks += extent.count;
    }
    return blocks;
}

/// A key of the catalog: the folder that something is in, and its name.
std::vector<std::uint8_t> catalogKey(std::uint32_t parent, bool named) {
    std::size_t const characters = named ? sizeof kVolumeName : 0;
    std::vector<std::uint8_t> key(8 + 2 * characters);
    putBig(key, 0, key.size() - 2, 2);
    putBig(key, 2, parent, 4);
    putBig(key, 6, characters, 2);
    for (std::size_t i = 0; i < characters; ++i) {
        putBig(key, 8 + 2 * i, static_cast<std::uint8_t>(kVolumeName[i]), 2);
    }
    return key;
}

/// The root folder, which nothing is in.
std::vector<std::uint8_t> rootFolderRecord() {
    std::vector<std::uint8_t> record = catalogKey(1, true);
    std::size_t const data = record.size();
    record.resize(data + 88);
    putBig(record, data, 1, 2);
    putBig(record, data + 8, kRootFolder, 4);
    for (std::size_t date = data + 12; date < data + 32; date += 4) {
        putBig(record, date, kDate, 4);
    }
    putBig(record, data + 42, 040755, 2); // a directory, as its permissions say it
    return record;
}

/// What leads from the folder's number back to its name.
std::vector<std::uint8_t> rootThreadRecord() {
    std::vector<std::uint8_t> record = catalogKey(kRootFolder, false);
    std::vector<std::uint8_t> const name = catalogKey(1, true);
    std::size_t const data = record.size();
    record.resize(data + 4);
    putBig(record, data, 3, 2);
    record.insert(record.end(), name.begin() + 2, name.end());
    return record;
}

std::vector<std::uint8_t> bytesOf(std::vector<HfsNode> const& nodes) {
    std::vector<std::uint8_t> bytes;
    for (HfsNode const& node : nodes) {
        bytes.insert(bytes.end(), node.bytes.begin(), node.bytes.end());
    }
    return bytes;
}

} // namespace

HfsExtents hfsFragments(std::uint32_t count, std::uint32_t blocks, std::uint32_t first, std::uint32_t gap) {
    HfsExtents extents;
    for (std::uint32_t i = 0; i < count; ++i) {
        extents.push_back({first + i * (blocks + gap), blocks});
    }
    return extents;
}

HfsBuilder::HfsBuilder(HfsGeometry const& geometry) : geometry_(geometry) {
    auto const lastBlocks = static_cast<std::uint32_t>(divideUp(kTailBytes, geometry_.blockSize));
    taken_.push_back(
        {0, static_cast<std::uint32_t>(divideUp(kHfsHeaderOffset + kHfsHeaderBytes, geometry_.blockSize))});
    taken_.push_back({geometry_.totalBlocks - lastBlocks, lastBlocks});
    // What was placed by hand first, so that nothing else takes its room.
    taken_.insert(taken_.end(), geometry_.allocationFile.begin(), geometry_.allocationFile.end());
    taken_.insert(taken_.end(), geometry_.extentsFile.begin(), geometry_.extentsFile.end());
    place(geometry_.allocationFile, geometry_.bitmapBytes());
    nodes_ = geometry_.nodes;
    if (nodes_.empty()) {
        std::vector<HfsOverflowRecord> records = overflowRecords(kHfsAllocationFileId, geometry_.allocationFile);
        records.insert(records.end(), geometry_.otherRecords.begin(), geometry_.otherRecords.end());
        nodes_ = makeHfsTree({geometry_.nodeSize, geometry_.recordsPerNode}, records);
    }
    place(geometry_.extentsFile, bytesOf(nodes_).size());
    place(catalogFile_, std::uint64_t{2} * kCatalogNodeSize);
    place(attributesFile_, kAttributesNodeSize);
    std::uint64_t end = 0;
    for (HfsExtent const& extent : taken_) {
        if (extent.start + extent.count < geometry_.totalBlocks) { // all but the end of the volume
            end = std::max<std::uint64_t>(end, extent.start + extent.count);
        }
    }
    bytes.resize(end * geometry_.blockSize);
    markOwnBlocks();
    writeTree();
    writeCatalog();
    writeAttributes();
    writeHeader();
}

void HfsBuilder::place(HfsExtents& extents, std::uint64_t fileBytes) {
    auto const blocks = static_cast<std::uint32_t>(divideUp(fileBytes, geometry_.blockSize));
    if (extents.empty()) {
        extents.push_back({findFree(blocks), blocks});
        taken_.push_back(extents[0]);
    }
    if (blocksOf(extents) < blocks) {
        throw std::length_error("the file does not fit the extents that it was given");
    }
}

std::uint32_t HfsBuilder::findFree(std::uint32_t count) const {
    for (std::uint32_t start = 0;;) {
        auto const hit = std::find_if(taken_.begin(), taken_.end(), [&](HfsExtent const& extent) {
            return extent.start < start + count && start < extent.start + extent.count;
        });
        if (hit == taken_.end()) {
            return start;
        }
        start = hit->start + hit->count;
        if (start + count > geometry_.totalBlocks) {
            throw std::length_error("the volume is full");
        }
    }
}

std::uint64_t HfsBuilder::volumeByte(HfsExtents const& extents, std::uint64_t fileByte) const {
    std::uint64_t rest = fileByte;
    for (HfsExtent const& extent : extents) {
        std::uint64_t const length = std::uint64_t{extent.count} * geometry_.blockSize;
        if (rest < length) {
            return std::uint64_t{extent.start} * geometry_.blockSize + rest;
        }
        rest -= length;
    }
    throw std::out_of_range("the file has no byte " + std::to_string(fileByte));
}

std::uint64_t HfsBuilder::bitmapOffset(std::uint64_t fileByte) const {
    return volumeByte(geometry_.allocationFile, fileByte);
}

std::uint64_t HfsBuilder::nodeOffset(std::uint64_t node) const {
    return volumeByte(geometry_.extentsFile, node * nodes_.at(0).bytes.size());
}

void HfsBuilder::write(HfsExtents const& extents, std::uint64_t fileByte, std::vector<std::uint8_t> const& content) {
    for (std::size_t i = 0; i < content.size(); ++i) {
        bytes.at(volumeByte(extents, fileByte + i)) = content[i];
    }
}

void HfsBuilder::markOwnBlocks() {
    setHeader32(hfs_header::kFreeBlocks, geometry_.totalBlocks);
    for (HfsExtent const& extent : taken_) {
        setUsedFrom(extent.start, extent.count);
    }
}

void HfsBuilder::writeTree() {
    std::uint64_t const fileBytes = std::uint64_t{blocksOf(geometry_.extentsFile)} * geometry_.blockSize;
    if (geometry_.nodes.empty()) {
        sealHfsTree(nodes_, static_cast<std::uint32_t>(fileBytes / geometry_.nodeSize));
    }
    write(geometry_.extentsFile, 0, bytesOf(nodes_));
}

void HfsBuilder::writeCatalog() {
    HfsTreeShape const shape{kCatalogNodeSize, 0, 516, 6}; // longest key; big keys, and index keys of their own length
    std::vector<HfsNode> nodes{makeHfsHeaderNode(shape), HfsNode(kCatalogNodeSize, hfs_node::kLeaf, 1)};
    nodes[1].add(rootFolderRecord()).add(rootThreadRecord());
    HfsNode& header = nodes[0];
    header.put(hfs_tree_header::kDepth, 1, 2).put(hfs_tree_header::kRootNode, 1, 4);
    header.put(hfs_tree_header::kLeafRecords, 2, 4);
    header.put(hfs_tree_header::kFirstLeaf, 1, 4).put(hfs_tree_header::kLastLeaf, 1, 4);
    header.put(14 + 0x25, geometry_.isHfsx ? kBinaryCompare : 0, 1);
    std::uint64_t const fileBytes = std::uint64_t{blocksOf(catalogFile_)} * geometry_.blockSize;
    sealHfsTree(nodes, static_cast<std::uint32_t>(fileBytes / kCatalogNodeSize));
    write(catalogFile_, 0, bytesOf(nodes));
}

void HfsBuilder::writeAttributes() {
    std::vector<HfsNode> nodes{makeHfsHeaderNode({kAttributesNodeSize, 0, 266, 6})};
    std::uint64_t const fileBytes = std::uint64_t{blocksOf(attributesFile_)} * geometry_.blockSize;
    sealHfsTree(nodes, static_cast<std::uint32_t>(fileBytes / kAttributesNodeSize));
    write(attributesFile_, 0, bytesOf(nodes));
}

void HfsBuilder::writeHeader() {
    put(kHfsHeaderOffset + hfs_header::kSignature, geometry_.isHfsx ? 0x4858 : 0x482B, 2);
    put(kHfsHeaderOffset + hfs_header::kVersion, geometry_.isHfsx ? 5 : 4, 2);
    setHeader32(hfs_header::kAttributes, kCleanlyUnmounted);
    setHeader32(8, 0x31302E30); // "10.0", as the system's own implementation signs
    for (std::uint64_t date = 16; date < 32; date += 4) {
        setHeader32(date, kDate);
    }
    setHeader32(hfs_header::kBlockSize, geometry_.blockSize);
    setHeader32(hfs_header::kTotalBlocks, geometry_.totalBlocks);
    setHeader32(56, 65536); // clump sizes
    setHeader32(60, 65536);
    setHeader32(64, kFirstUserId);
    setHeader32(68, 1); // writes so far
    put(kHfsHeaderOffset + 72, 1, 8);
    writeFork(hfs_header::kAllocationFile, geometry_.allocationFile);
    writeFork(hfs_header::kExtentsFile, geometry_.extentsFile);
    writeFork(hfs_header::kCatalogFile, catalogFile_);
    writeFork(hfs_header::kAttributesFile, attributesFile_);
}

void HfsBuilder::writeFork(std::uint64_t fork, HfsExtents const& extents) {
    std::uint32_t const blocks = blocksOf(extents);
    put(kHfsHeaderOffset + fork + hfs_fork::kLogicalSize, std::uint64_t{blocks} * geometry_.blockSize, 8);
    setHeader32(fork + hfs_fork::kClumpSize, blocks * geometry_.blockSize);
    setHeader32(fork + hfs_fork::kTotalBlocks, blocks);
    setForkExtents(fork, extents);
}

HfsBuilder& HfsBuilder::setUsed(std::uint64_t block, bool used) {
    if (isUsed(block) != used) {
        std::uint8_t& byte = bytes.at(bitmapOffset(block / 8));
        byte = static_cast<std::uint8_t>(byte ^ (0x80U >> (block % 8)));
        std::uint32_t const free = header32(hfs_header::kFreeBlocks);
        setHeader32(hfs_header::kFreeBlocks, used ? free - 1 : free + 1);
    }
    return *this;
}

HfsBuilder& HfsBuilder::setUsedFrom(std::uint64_t first, std::uint64_t count) {
    for (std::uint64_t block = first; block < first + count; ++block) {
        setUsed(block);
    }
    return *this;
}

HfsBuilder& HfsBuilder::fillBitmapAtRandom(unsigned seed) {
    std::mt19937 generator(seed);
    std::uint64_t const fileBytes = std::uint64_t{blocksOf(geometry_.allocationFile)} * geometry_.blockSize;
    for (std::uint64_t at = 0; at < fileBytes; ++at) {
        bytes.at(bitmapOffset(at)) = static_cast<std::uint8_t>(generator());
    }
    return *this;
}

HfsBuilder& HfsBuilder::useBlocksAtRandom(unsigned seed) {
    std::mt19937 generator(seed);
    for (std::uint64_t block = 0; block < geometry_.totalBlocks;) {
        bool const used = (generator() & 1U) != 0;
        for (std::uint64_t rest = 1 + generator() % 40; rest > 0 && block < geometry_.totalBlocks; --rest, ++block) {
            setUsed(block, used);
        }
    }
    for (HfsExtent const& extent : taken_) {
        setUsedFrom(extent.start, extent.count);
    }
    return *this;
}

bool HfsBuilder::isUsed(std::uint64_t block) const {
    return ((bitmapByte(block / 8) << (block % 8)) & 0x80) != 0;
}

std::vector<bool> HfsBuilder::map() const {
    std::vector<bool> used;
    for (std::uint64_t block = 0; block < geometry_.totalBlocks; ++block) {
        used.push_back(isUsed(block));
    }
    return used;
}

HfsBuilder& HfsBuilder::put(std::uint64_t offset, std::uint64_t value, unsigned width) {
    putBig(bytes, offset, value, width);
    return *this;
}

std::uint32_t HfsBuilder::header32(std::uint64_t field) const {
    return static_cast<std::uint32_t>(get(kHfsHeaderOffset + field, 4));
}

HfsBuilder& HfsBuilder::setForkExtents(std::uint64_t fork, HfsExtents const& extents) {
    for (std::size_t i = 0; i < kHfsExtentsInRecord; ++i) {
        HfsExtent const extent = i < extents.size() ? extents[i] : HfsExtent{};
        setHeader32(fork + hfs_fork::kExtents + 8 * i, extent.start);
        setHeader32(fork + hfs_fork::kExtents + 8 * i + 4, extent.count);
    }
    return *this;
}

std::vector<std::uint8_t> HfsBuilder::alternateHeader() const {
    auto const header = bytes.begin() + kHfsHeaderOffset;
    return {header, header + kHfsHeaderBytes};
}

std::vector<std::uint8_t> HfsBuilder::image() const {
    std::vector<std::uint8_t> whole = bytes;
    whole.resize(geometry_.bytes());
    auto const header = alternateHeader();
    std::copy(header.begin(), header.end(), whole.end() - kTailBytes);
    return whole;
}

std::string writeHfsVolume(std::string const& path, HfsBuilder const& builder) {
    auto const header = builder.alternateHeader();
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<char const*>(builder.bytes.data()), static_cast<std::streamsize>(builder.bytes.size()));
    file.flush();
    std::filesystem::resize_file(path, builder.geometry().bytes());
    file.seekp(static_cast<std::streamoff>(builder.geometry().bytes() - kTailBytes));
    file.write(reinterpret_cast<char const*>(header.data()), static_cast<std::streamsize>(header.size()));
    if (!file.flush()) {
        throw std::runtime_error("cannot write " + path);
    }
    return path;
}

std::vector<std::uint8_t> wrapHfsVolume(std::vector<std::uint8_t> const& volume, HfsWrapper const& wrapper) {
    std::uint64_t const inner = divideUp(volume.size(), wrapper.blockSize);
    std::uint64_t const outer = wrapper.firstBlock + inner + wrapper.trailing;
    std::vector<std::uint8_t> bytes(std::uint64_t{wrapper.firstSector} * 512 + outer * wrapper.blockSize + kTailBytes);
    std::vector<std::uint8_t> block(512); // the wrapper's master directory block
    putBig(block, 0x00, 0x4244, 2);       // "BD"
    putBig(block, 0x0E, 3, 2);            // sector of its bitmap
    putBig(block, 0x12, outer, 2);
    putBig(block, 0x14, wrapper.blockSize, 4);
    putBig(block, 0x1C, wrapper.firstSector, 2);
    putBig(block, 0x24, sizeof kVolumeName, 1);
    std::copy(std::begin(kVolumeName), std::end(kVolumeName), block.begin() + 0x25);
    putBig(block, 0x7C, 0x482B, 2); // "H+"
    putBig(block, 0x7E, wrapper.firstBlock, 2);
    putBig(block, 0x80, inner, 2);
    std::copy(block.begin(), block.end(), bytes.begin() + kHfsHeaderOffset);
    std::copy(block.begin(), block.end(), bytes.end() - kTailBytes);
    std::copy(volume.begin(), volume.end(), bytes.begin() + static_cast<std::ptrdiff_t>(wrapper.volumeOffset()));
    return bytes;
}

} // namespace tests
