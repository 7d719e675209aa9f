// The HFS+ parser on made-up volumes against a slow, literal account of what it should do.
#include "support/HfsReference.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

using namespace tests;

/// Numbers from a fixed seed.
class Dice {
public:
    explicit Dice(unsigned seed) : generator_(seed) {}

    std::uint32_t upTo(std::uint32_t most) { return static_cast<std::uint32_t>(generator_() % (most + 1ULL)); }
    bool oneIn(std::uint32_t n) { return upTo(n - 1) == 0; }

    template <typename T>
    T oneOf(std::initializer_list<T> values) {
        return *(values.begin() + upTo(static_cast<std::uint32_t>(values.size()) - 1));
    }

private:
    std::mt19937 generator_;
};

constexpr std::uint32_t kBytes = 96 * 1024;

/// Bytes without symmetry, with a header that names a map somewhere in and behind them.
std::vector<std::uint8_t> makeVolume(Dice& dice, HfsExtents const& map, std::uint32_t blockSize,
                                     std::uint32_t totalBlocks) {
    std::vector<std::uint8_t> bytes(kBytes);
    for (std::uint8_t& byte : bytes) {
        byte = static_cast<std::uint8_t>(dice.upTo(255));
    }
    std::fill_n(bytes.begin() + kHfsHeaderOffset, kHfsHeaderBytes, std::uint8_t{0});
    putBig(bytes, kHfsHeaderOffset, 0x482B, 2);
    putBig(bytes, kHfsHeaderOffset + hfs_header::kBlockSize, blockSize, 4);
    putBig(bytes, kHfsHeaderOffset + hfs_header::kTotalBlocks, totalBlocks, 4);
    for (std::size_t i = 0; i < map.size(); ++i) {
        std::uint64_t const place = kHfsHeaderOffset + hfs_header::kAllocationFile + hfs_fork::kExtents + 8 * i;
        putBig(bytes, place, map[i].start, 4);
        putBig(bytes, place + 4, map[i].count, 4);
    }
    return bytes;
}

std::vector<std::uint8_t> headerBytes(std::vector<std::uint8_t> const& bytes) {
    auto const header = bytes.begin() + kHfsHeaderOffset;
    return {header, header + kHfsHeaderBytes};
}

/// Up to eight extents, some empty, some past the end.
HfsExtents makeExtents(Dice& dice, std::uint32_t blocks) {
    HfsExtents extents;
    std::uint32_t const count = dice.upTo(8);
    for (std::uint32_t i = 0; i < count; ++i) {
        extents.push_back(dice.oneIn(12) ? HfsExtent{dice.upTo(3), 0} : HfsExtent{dice.upTo(blocks), dice.upTo(3)});
    }
    return extents;
}

void expectAsReference(std::vector<std::uint8_t> const& bytes, Dice& dice, std::uint32_t totalBlocks, unsigned seed) {
    HfsBench bench(bytes);
    MemoryReader const volume(bytes);
    HfsFrontReader const front(volume);
    HfsReference reference(front, headerBytes(bytes));
    for (int request = 0; request < 8; ++request) {
        std::uint64_t const offset = dice.oneIn(10) ? dice.upTo(totalBlocks) : dice.upTo(totalBlocks / 8) * 8UL;
        std::uint64_t const length = dice.oneIn(15) ? 0 : dice.upTo(dice.oneOf({8U, 600U, 9000U, 40000U}));
        ASSERT_EQ(bench.chunk(offset, length), reference.chunk(offset, length))
            << "seed " << seed << ", offset " << offset << ", length " << length;
    }
}

TEST(HFSParserReference, RandomForks) {
    unsigned units = 0;
    for (unsigned seed = 0; seed < 1500; ++seed) {
        Dice dice(seed);
        std::uint32_t const blockSize = dice.oneOf({512U, 1024U, 4096U});
        std::uint32_t const totalBlocks = dice.upTo(dice.oneOf({100U, 20000U, 200000U}));
        HfsExtents const map = makeExtents(dice, kBytes / blockSize + 4);
        auto const bytes = makeVolume(dice, map, blockSize, totalBlocks);
        expectAsReference(bytes, dice, totalBlocks, seed);
        units += HfsBench(bytes).chunk(0, 9000).result > 0 ? 1U : 0U;
        if (testing::Test::HasFatalFailure()) {
            return;
        }
    }
    EXPECT_GT(units, 700U) << "most volumes must have a map";
}

TEST(HFSParserReference, RandomForksInBlocksOfAnySize) {
    for (unsigned seed = 0; seed < 600; ++seed) {
        Dice dice(seed + 10000);
        std::uint32_t const blockSize = dice.oneOf({0U, 1U, 2U, 8U, 64U, 511U, 513U, 1536U, 32768U, 65536U});
        auto const bytes = makeVolume(dice, makeExtents(dice, 200), blockSize, dice.upTo(3000));
        expectAsReference(bytes, dice, 3000, seed);
        if (testing::Test::HasFatalFailure()) {
            return;
        }
    }
}

TEST(HFSParserReference, RandomForksWithAddressesThatWrap) {
    for (unsigned seed = 0; seed < 600; ++seed) {
        Dice dice(seed + 20000);
        HfsExtents map;
        for (std::uint32_t i = 0; i < 7; ++i) {
            map.push_back({dice.upTo(0xFFFFFFFF), dice.oneIn(3) ? dice.upTo(0xFFFFFFFF) : dice.upTo(5)});
        }
        std::uint32_t const totalBlocks = dice.upTo(0xFFFFFFFF);
        auto const bytes = makeVolume(dice, map, dice.oneOf({512U, 1U << 20}), totalBlocks);
        expectAsReference(bytes, dice, totalBlocks, seed);
        if (testing::Test::HasFatalFailure()) {
            return;
        }
    }
}

/// A tree of random shape over random records, some of them of the allocation file.
std::vector<HfsNode> makeRandomTree(Dice& dice) {
    std::vector<HfsOverflowRecord> records;
    std::uint32_t const count = 1 + dice.upTo(14);
    for (std::uint32_t i = 0; i < count; ++i) {
        HfsOverflowRecord record{dice.oneOf({5U, 6U, 6U, 17U}), dice.upTo(100)};
        for (std::uint32_t extent = dice.upTo(8); extent > 0; --extent) {
            record.extents.push_back({dice.upTo(180), dice.upTo(2)});
        }
        records.push_back(record);
    }
    return makeHfsTree({512, 1 + dice.upTo(2)}, records);
}

/// Overwrites a number in a node with another that may matter.
void damage(Dice& dice, std::vector<HfsNode>& nodes) {
    HfsNode& node = nodes.at(dice.upTo(static_cast<std::uint32_t>(nodes.size()) - 1));
    auto const slots = dice.upTo(10);
    switch (dice.upTo(4)) {
    case 0:
        node.setSlot(slots, dice.oneOf({0U, 1U, 13U, 14U, 400U, 500U, 507U, 512U, 65535U}));
        return;
    case 1:
        node.setNumRecords(static_cast<std::uint16_t>(dice.oneOf({0U, 1U, 3U, 6U, 249U, 256U, 65535U})));
        return;
    case 2:
        node.put(hfs_node::kKind, dice.upTo(255), 1);
        return;
    case 3: // the length of a key
        node.put(std::min<std::uint64_t>(node.slot(slots), 500), dice.oneOf({0U, 2U, 11U, 300U, 65535U}), 2);
        return;
    default:
        node.put(14 + dice.upTo(480), dice.upTo(255), 1);
    }
}

/// Whether a node can be reached again from itself: the account has no limit for that.
bool hasWayBack(std::vector<HfsNode> const& nodes) {
    HfsBench bench{HfsBuilder()};
    std::vector<std::vector<std::uint32_t>> children(nodes.size());
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        if (nodes[i].bytes[hfs_node::kKind] != 0) {
            continue;
        }
        auto buffer = std::make_unique<unsigned char[]>(512);
        std::copy(nodes[i].bytes.begin(), nodes[i].bytes.end(), buffer.get());
        std::deque<unsigned int> queue;
        bench.parser.fs_traverse_index_node(queue, buffer, 512, nodes[i].numRecords() + 1UL);
        children[i].assign(queue.begin(), queue.end());
    }
    std::vector<std::size_t> depth(nodes.size());
    for (std::size_t round = 0; round <= nodes.size(); ++round) {
        bool changed = false;
        for (std::size_t i = 0; i < nodes.size(); ++i) {
            for (std::uint32_t const child : children[i]) {
                if (child < nodes.size() && depth[child] < depth[i] + 1) {
                    depth[child] = depth[i] + 1;
                    changed = true;
                }
            }
        }
        if (!changed) {
            return false;
        }
    }
    return true;
}

TEST(HFSParserReference, RandomTreesWithAndWithoutDamage) {
    unsigned found = 0;
    unsigned failed = 0;
    for (unsigned seed = 0; seed < 4000; ++seed) {
        Dice dice(seed + 30000);
        HfsGeometry geometry;
        geometry.nodes = makeRandomTree(dice);
        for (std::uint32_t changes = dice.upTo(3); changes > 0; --changes) {
            damage(dice, geometry.nodes);
        }
        if (hasWayBack(geometry.nodes)) {
            continue;
        }
        auto const root = static_cast<std::uint32_t>(getBig(geometry.nodes[0].bytes, hfs_tree_header::kRootNode, 4));
        geometry.extentsFile = {{60, std::clamp(root, 12U, 30U) + 1}, {150, 3}, {100, 20}};
        geometry.totalBlocks = 4096;
        HfsBuilder builder(geometry);
        builder.setForkExtents(hfs_header::kAllocationFile, makeExtents(dice, 180));
        builder.setHeader32(hfs_header::kAllocationFile + hfs_fork::kTotalBlocks, 1000);
        expectAsReference(builder.bytes, dice, 4096, seed);
        if (testing::Test::HasFatalFailure()) {
            return;
        }
        MemoryReader const volume(builder.bytes);
        HfsFrontReader const front(volume);
        HfsReference reference(front, headerBytes(builder.bytes));
        HfsSearch const search = HfsBench(builder).search(6, {{1, 1}});
        ASSERT_EQ(search, reference.search(6, {{1, 1}})) << "seed " << seed;
        found += search.found && search.extents.size() > 1 ? 1U : 0U;
        failed += search.found ? 0U : 1U;
    }
    EXPECT_GT(found, 800U);
    EXPECT_GT(failed, 400U);
}

} // namespace
