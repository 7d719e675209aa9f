// The XFS volumes that tests are built on: which byte goes where, and why.
#include "support/XfsBuilder.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>

namespace tests {

namespace {

constexpr std::uint32_t kSuperMagic = 0x58465342;  // "XFSB"
constexpr std::uint32_t kHeaderMagic = 0x58414746; // "XAGF"
constexpr std::uint32_t kListMagic = 0x5841464C;   // "XAFL"

/// Cuts a list into pieces of `size`, the last of them shorter; at least one piece.
template <typename Item>
std::vector<std::vector<Item>> cut(std::vector<Item> const& items, std::size_t size) {
    std::vector<std::vector<Item>> pieces;
    for (std::size_t at = 0; at < items.size() || at == 0; at += size) {
        auto const first = items.begin() + static_cast<std::ptrdiff_t>(at);
        auto const count = static_cast<std::ptrdiff_t>(std::min(size, items.size() - at));
        pieces.emplace_back(first, first + count);
    }
    return pieces;
}

/// How many nodes each level has, from the leaves up to the root.
std::vector<std::size_t> levelSizes(std::size_t runs, XfsTreeShape const& shape) {
    std::vector<std::size_t> sizes{std::max<std::size_t>(1, (runs + shape.leafRecords - 1) / shape.leafRecords)};
    while (sizes.back() > 1) {
        sizes.push_back((sizes.back() + shape.children - 1) / shape.children);
    }
    return sizes;
}

/// Blocks for each level, the root's first.
XfsTreeBlocks placeNodes(std::vector<std::size_t> const& sizes, std::uint32_t block) {
    XfsTreeBlocks blocks(sizes.size());
    for (std::size_t level = sizes.size(); level-- > 0;) {
        for (std::size_t i = 0; i < sizes[level]; ++i) {
            blocks[level].push_back(block++);
        }
    }
    return blocks;
}

} // namespace

std::uint8_t XfsGeometry::groupBlocksLog() const {
    return static_cast<std::uint8_t>(std::bit_width(groupBlocks - 1));
}

XfsBuilder::XfsBuilder(XfsGeometry const& geometry) : geometry_(geometry) {
    bytes.resize(geometry.totalBlocks * geometry.blockSize);
    writeSuperBlock();
    for (std::uint32_t group = 0; group < geometry.groups(); ++group) {
        std::uint64_t const header = geometry.headerOffset(group);
        put(header + xfs_header::kMagic, kHeaderMagic, 4);
        put(header + 4, 1, 4);
        put(header + 8, group, 4);
        put(header + 12,
            std::min<std::uint64_t>(geometry.groupBlocks, geometry.totalBlocks - group * geometry.groupBlocks), 4);
        if (geometry.hasChecksums) {
            put(geometry.listOffset(group) - 36, kListMagic, 4);
        }
        setFreeList(group, 1, {});
        plantTree(group, {});
    }
}

void XfsBuilder::writeSuperBlock() {
    setSuper32(xfs_super::kMagic, kSuperMagic);
    setSuper32(xfs_super::kBlockSize, geometry_.blockSize);
    setSuper(xfs_super::kTotalBlocks, geometry_.totalBlocks, 8);
    setSuper(xfs_super::kLogStart, geometry_.logStart, 8);
    setSuper32(xfs_super::kGroupBlocks, geometry_.groupBlocks);
    setSuper32(xfs_super::kGroups, geometry_.groups());
    setSuper32(xfs_super::kLogBlocks, geometry_.logBlocks);
    setSuper(xfs_super::kVersion, geometry_.version(), 2);
    setSuper(xfs_super::kSectorSize, geometry_.sectorSize, 2);
    setSuper(xfs_super::kBlockSizeLog, static_cast<unsigned>(std::countr_zero(geometry_.blockSize)), 1);
    setSuper(xfs_super::kSectorSizeLog, static_cast<unsigned>(std::countr_zero(geometry_.sectorSize)), 1);
    setSuper(xfs_super::kGroupBlocksLog, geometry_.groupBlocksLog(), 1);
}

std::uint64_t XfsBuilder::get(std::uint64_t offset, unsigned width) const {
    std::uint64_t value = 0;
    for (unsigned i = 0; i < width; ++i) {
        value = value << 8 | bytes.at(offset + i);
    }
    return value;
}

XfsBuilder& XfsBuilder::put(std::uint64_t offset, std::uint64_t value, unsigned width) {
    for (unsigned i = 0; i < width; ++i) {
        bytes.at(offset + i) = static_cast<std::uint8_t>(value >> (8 * (width - 1 - i)));
    }
    return *this;
}

XfsBuilder& XfsBuilder::setSuper(std::uint64_t field, std::uint64_t value, unsigned width) {
    return put(field, value, width);
}

XfsBuilder& XfsBuilder::setHeader32(std::uint32_t group, std::uint64_t field, std::uint32_t value) {
    return put(geometry_.headerOffset(group) + field, value, 4);
}

XfsBuilder& XfsBuilder::setNode16(std::uint32_t group, std::uint32_t block, std::uint64_t field, std::uint16_t value) {
    return put(geometry_.blockOffset(group, block) + field, value, 2);
}

XfsBuilder& XfsBuilder::setNode32(std::uint32_t group, std::uint32_t block, std::uint64_t field, std::uint32_t value) {
    return put(geometry_.blockOffset(group, block) + field, value, 4);
}

XfsBuilder& XfsBuilder::setRecord(std::uint32_t group, std::uint32_t block, std::uint32_t index, XfsRun const& run) {
    std::uint64_t const at = geometry_.blockOffset(group, block) + geometry_.nodeHeader() + std::uint64_t{index} * 8;
    return put(at, run.start, 4).put(at + 4, run.count, 4);
}

XfsBuilder& XfsBuilder::setChild(std::uint32_t group, std::uint32_t block, std::uint32_t index, std::uint32_t child) {
    // The children stand behind the room for as many keys as a node can have.
    std::uint64_t const first = geometry_.nodeHeader() + std::uint64_t{geometry_.mostChildren()} * 8;
    return put(geometry_.blockOffset(group, block) + first + std::uint64_t{index} * 4, child, 4);
}

XfsBuilder& XfsBuilder::makeNode(std::uint32_t group, std::uint32_t block, std::uint16_t level, std::uint16_t records,
                                 std::uint32_t left, std::uint32_t right) {
    setNode32(group, block, xfs_node::kMagic, geometry_.nodeMagic());
    setNode16(group, block, xfs_node::kLevel, level);
    setNode16(group, block, xfs_node::kRecords, records);
    setNode32(group, block, xfs_node::kLeft, left);
    return setNode32(group, block, xfs_node::kRight, right);
}

void XfsBuilder::writeNode(std::uint32_t group, std::uint32_t block, std::vector<XfsRun> const& records,
                           std::vector<std::uint32_t> const& children, std::uint16_t level) {
    std::uint32_t const most = level == 0 ? geometry_.mostRecords() : geometry_.mostChildren();
    if (records.size() > most) {
        throw std::invalid_argument("a node of this volume has room for " + std::to_string(most) + " records");
    }
    makeNode(group, block, level, static_cast<std::uint16_t>(records.size()));
    for (std::uint32_t i = 0; i < records.size(); ++i) {
        setRecord(group, block, i, records[i]);
    }
    for (std::uint32_t i = 0; i < children.size(); ++i) {
        setChild(group, block, i, children[i]);
    }
}

XfsTreeBlocks XfsBuilder::plantTree(std::uint32_t group, std::vector<XfsRun> const& runs, XfsTreeShape const& shape) {
    XfsTreeBlocks const blocks = placeNodes(levelSizes(runs.size(), shape), shape.firstBlock);
    std::vector<XfsRun> keys;
    auto const leaves = cut(runs, shape.leafRecords);
    for (std::size_t i = 0; i < leaves.size(); ++i) {
        writeNode(group, blocks[0][i], leaves[i], {}, 0);
        keys.push_back(leaves[i].empty() ? XfsRun{0, 0} : leaves[i].front());
    }
    for (std::size_t level = 1; level < blocks.size(); ++level) {
        auto const keysOfNodes = cut(std::exchange(keys, {}), shape.children);
        auto const children = cut(blocks[level - 1], shape.children);
        for (std::size_t i = 0; i < children.size(); ++i) {
            writeNode(group, blocks[level][i], keysOfNodes[i], children[i], static_cast<std::uint16_t>(level));
            keys.push_back(keysOfNodes[i].front());
        }
    }
    for (auto const& level : blocks) {
        for (std::size_t i = 1; i < level.size(); ++i) {
            setNode32(group, level[i], xfs_node::kLeft, level[i - 1]);
            setNode32(group, level[i - 1], xfs_node::kRight, level[i]);
        }
    }
    setHeader32(group, xfs_header::kRoot, blocks.back().front());
    setHeader32(group, xfs_header::kLevels, static_cast<std::uint32_t>(blocks.size()));
    std::uint32_t free = 0;
    for (XfsRun const& run : runs) {
        free += run.count;
    }
    setHeader32(group, xfs_header::kFreeBlocks, free);
    trees_[group] = runs;
    return blocks;
}

XfsTreeBlocks XfsBuilder::plantTree(std::uint32_t group, std::vector<XfsRun> const& runs) {
    return plantTree(group, runs, {geometry_.mostRecords(), geometry_.mostChildren(), geometry_.firstBlock()});
}

XfsBuilder& XfsBuilder::setFreeList(std::uint32_t group, std::uint32_t first,
                                    std::vector<std::uint32_t> const& blocks) {
    std::uint32_t const capacity = geometry_.listCapacity();
    lists_[group].clear();
    std::uint32_t last = (first + capacity - 1) % capacity;
    for (std::uint32_t i = 0; i < blocks.size(); ++i) {
        last = (first + i) % capacity;
        put(geometry_.listOffset(group) + std::uint64_t{last} * 4, blocks[i], 4);
        if (last < geometry_.readableEntries()) {
            lists_[group].push_back(blocks[i]);
        }
    }
    if (first > last) {
        lists_[group].clear(); // a list that wraps around names nothing
    }
    setHeader32(group, xfs_header::kListFirst, first);
    setHeader32(group, xfs_header::kListLast, last);
    return setHeader32(group, xfs_header::kListCount, static_cast<std::uint32_t>(blocks.size()));
}

XfsBuilder& XfsBuilder::fillAtRandom(unsigned seed) {
    std::mt19937 generator(seed);
    auto const upTo = [&generator](std::uint32_t most) { return static_cast<std::uint32_t>(generator() % most + 1); };
    for (std::uint32_t group = 0; group < geometry_.groups(); ++group) {
        std::uint64_t const blocks = std::min<std::uint64_t>(
            geometry_.groupBlocks, geometry_.totalBlocks - std::uint64_t{group} * geometry_.groupBlocks);
        XfsTreeShape const shape{upTo(std::min(geometry_.mostRecords(), 35U)),
                                 1 + upTo(std::min(geometry_.mostChildren() - 1, 4U)), geometry_.firstBlock()};
        std::uint32_t const reserved = geometry_.firstBlock() + 100; // nodes and free list
        std::vector<XfsRun> runs;
        for (std::uint64_t block = reserved; runs.size() < 30;) {
            block += upTo(7);
            std::uint32_t const count = upTo(9);
            if (block + count > blocks) {
                break;
            }
            runs.push_back({static_cast<std::uint32_t>(block), count});
            block += count;
        }
        plantTree(group, runs, shape);
        std::vector<std::uint32_t> listed(upTo(8) - 1);
        for (std::size_t i = 0; i < listed.size(); ++i) {
            listed[i] = reserved - 10 + static_cast<std::uint32_t>(i);
        }
        setFreeList(group, upTo(geometry_.listCapacity() - 1),
                    listed); // from 0 on, an empty list would name all entries
    }
    return *this;
}

std::vector<bool> XfsBuilder::map() const {
    std::vector<bool> used(geometry_.totalBlocks, true);
    auto const free = [&](std::uint32_t group, std::uint64_t block) {
        std::uint64_t const place = std::uint64_t{group} * geometry_.groupBlocks + block;
        if (place < used.size()) {
            used[place] = false;
        }
    };
    for (auto const& [group, runs] : trees_) {
        for (XfsRun const& run : runs) {
            for (std::uint64_t i = 0; i < run.count; ++i) {
                free(group, run.start + i);
            }
        }
    }
    for (auto const& [group, blocks] : lists_) {
        for (std::uint32_t const block : blocks) {
            free(group, block);
        }
    }
    return used;
}

SyntheticReader makeSyntheticXfsVolume(XfsGeometry const& geometry,
                                       std::function<std::vector<XfsRun>(std::uint32_t)> runs,
                                       std::function<std::uint32_t(std::uint32_t)> listed) {
    // A group's start, made by a builder of one small group whose superblock is then the large volume's.
    auto const makeStart = [geometry, runs = std::move(runs), listed = std::move(listed)](std::uint32_t group) {
        XfsGeometry small = geometry;
        small.groupBlocks = geometry.firstBlock() + 1;
        small.totalBlocks = small.groupBlocks;
        XfsBuilder builder(small);
        builder.plantTree(0, runs(group));
        builder.setFreeList(0, 0, {listed(group)});
        builder.setSuper(xfs_super::kTotalBlocks, geometry.totalBlocks, 8);
        builder.setSuper32(xfs_super::kGroupBlocks, geometry.groupBlocks);
        builder.setSuper32(xfs_super::kGroups, geometry.groups());
        builder.setSuper(xfs_super::kGroupBlocksLog, geometry.groupBlocksLog(), 1);
        return builder.bytes;
    };
    std::uint64_t const groupBytes = geometry.blockOffset(1, 0);
    auto content = [makeStart, groupBytes](std::uint64_t offset, std::uint8_t* to, std::uint64_t length) {
        // Reads are short and groups are large: a read lies in one group.
        auto const start = makeStart(static_cast<std::uint32_t>(offset / groupBytes));
        std::uint64_t const within = offset % groupBytes;
        if (within < start.size()) {
            std::memcpy(to, start.data() + within, std::min<std::uint64_t>(length, start.size() - within));
        }
    };
    return {geometry.totalBlocks * geometry.blockSize, std::move(content)};
}

} // namespace tests
