// XFS volumes of few bytes whose trees ask for gigabytes: what they claim is read, not kept.
#include "support/ResidentMemory.h"
#include "support/XfsRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace {

using namespace tests;

constexpr std::size_t kMostBytes = 64 << 20;

constexpr std::uint32_t kBlockSize = 1 << 20;
constexpr std::uint32_t kNodes = 400;

/// Passes calls on and keeps the most memory that was resident at any of them.
class WatchingReader : public agent::core::IVolumeReader {
public:
    explicit WatchingReader(agent::core::IVolumeReader const& inner) : inner_(inner) {}

    long read(void* buffer, long length) const override {
        bytesAsked += static_cast<std::uint64_t>(length);
        peak = std::max(peak, residentBytes());
        return inner_.read(buffer, length);
    }

    long seek(long offset, int whence) const override { return inner_.seek(offset, whence); }

    mutable std::uint64_t bytesAsked = 0;
    mutable std::size_t peak = 0;

private:
    agent::core::IVolumeReader const& inner_;
};

std::optional<std::string> whyMemoryIsNotTold() {
    return residentBytes() == 0 ? std::optional<std::string>(kWhyNotResident) : std::nullopt;
}

/// The parts of a volume that are not zero: the headers, and the first bytes of each node. Blocks have 1 MiB, so that a
/// node can have 65535 records; the root is block 1, and a chain of nodes of a level from block 2 on is below it.
SyntheticReader makeGreedyVolume(std::uint16_t level) {
    XfsBuilder builder; // for its bytes: blocks of 512 bytes, of which each stands for the start of one of the volume's
    builder.setSuper32(xfs_super::kBlockSize, kBlockSize).setSuper32(xfs_super::kGroupBlocks, kNodes + 2);
    builder.setSuper(xfs_super::kTotalBlocks, kNodes + 2, 8).setSuper32(xfs_super::kGroups, 1);
    builder.setHeader32(0, xfs_header::kRoot, 1);
    std::vector<std::uint8_t> const headers(builder.bytes.begin(), builder.bytes.begin() + 2048);
    XfsBuilder nodes;
    nodes.makeNode(0, 1, static_cast<std::uint16_t>(level + 1), 1);
    for (std::uint32_t i = 0; i < kNodes; ++i) {
        nodes.makeNode(0, 2 + i, level, 0xFFFF, kXfsNoBlock, i + 1 < kNodes ? 3 + i : kXfsNoBlock);
        nodes.setRecord(0, 2 + i, 0, {i, 1});
    }
    constexpr std::uint64_t kRootsChild = kBlockSize + 16 + std::uint64_t{(kBlockSize - 16) / 12} * 8;
    auto content = [headers, nodes = nodes.bytes](std::uint64_t offset, std::uint8_t* to, std::uint64_t length) {
        std::uint64_t const block = offset / kBlockSize;
        std::uint64_t const within = offset % kBlockSize;
        std::uint8_t const* const start = block == 0 ? headers.data() : nodes.data() + block * 512;
        std::uint64_t const size = block == 0 ? headers.size() : 512;
        if (within < size) {
            std::memcpy(to, start + within, std::min(length, size - within));
        }
        if (kRootsChild >= offset && kRootsChild + 4 - offset <= length) {
            to[kRootsChild - offset + 3] = 2;
        }
    };
    return {std::uint64_t{kBlockSize} * (kNodes + 2), std::move(content)};
}

/// A chunk of all blocks, from a parser without a trace.
struct GreedyRun {
    explicit GreedyRun(std::uint16_t level) : volume(makeGreedyVolume(level)), reader(volume) {
        ExposedXfsParser const parser(logger, 512, reader);
        std::size_t const before = residentBytes();
        result = parser.getChunk(0, reinterpret_cast<char*>(buffer.data()), buffer.size());
        growth = reader.peak > before ? reader.peak - before : 0;
    }

    SyntheticReader volume;
    WatchingReader reader;
    XfsLogger logger{XfsTrace::Off};
    std::vector<std::uint8_t> buffer = std::vector<std::uint8_t>(kNodes / 8);
    long result = 0;
    std::size_t growth = 0;
};

TEST(XfsGreedyTree, OfManyFullLeavesStaysSmall) {
    if (auto const reason = whyMemoryIsNotTold()) {
        GTEST_SKIP() << *reason;
    }
    GreedyRun const run(0);
    EXPECT_EQ(run.result, kNodes);
    EXPECT_THAT(run.buffer, testing::Each(0)) << "each leaf has one block in its first record";
    EXPECT_GT(run.reader.bytesAsked, kNodes * std::uint64_t{65535} * 8) << "the volume must ask for that much";
    EXPECT_LT(run.growth, kMostBytes);
}

TEST(XfsGreedyTree, OfManyFullInnerNodesStaysSmall) {
    if (auto const reason = whyMemoryIsNotTold()) {
        GTEST_SKIP() << *reason;
    }
    // Their children are zero, block 0, which is no node.
    GreedyRun const run(1);
    EXPECT_EQ(run.result, -1);
    EXPECT_THAT(run.logger.entries,
                testing::ElementsAre(errorEntry("XFS: Invalid btree node magic number."), xfsWrapperEntry()));
    EXPECT_GT(run.reader.bytesAsked, kNodes * std::uint64_t{65535} * 12);
    EXPECT_LT(run.growth, kMostBytes);
}

TEST(XfsGreedyTree, MeasureSeesMemoryThatIsKept) {
    if (auto const reason = whyMemoryIsNotTold()) {
        GTEST_SKIP() << *reason;
    }
    std::size_t const before = residentBytes();
    std::vector<char> const memory(2 * kMostBytes, '\1');
    EXPECT_EQ(memory.back(), '\1');
    EXPECT_GT(residentBytes(), before + kMostBytes);
}

} // namespace
