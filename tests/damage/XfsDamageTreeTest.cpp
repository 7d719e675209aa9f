// XFS volumes with one field of a group's headers or of its tree changed: the exact text or the defined map, always an
// end.
#include "support/Sanitized.h"
#include "support/XfsRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using namespace tests;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t kFirstGroup = 62; // bytes of a chunk that lies in group 0: 496 blocks

/// What a group's walk costs at most where a cycle ends it: as many calls as a few hundred nodes need.
constexpr std::size_t kMostCalls = 2000;

/// Four leaves 7 to 10 of two runs each, under inner nodes 5 and 6, under root 4; a free list of three blocks.
XfsBuilder makeGood() {
    XfsBuilder builder;
    std::vector<XfsRun> runs;
    for (std::uint32_t i = 0; i < 8; ++i) {
        runs.push_back({100 + 30 * i, 4 + i});
    }
    builder.plantTree(0, runs, {2, 2, 4});
    return builder.setFreeList(0, 10, {50, 51, 52});
}

enum class Where { Header, Node16, Node32 };

/// Changes one field of group 0 and proves that the change took.
XfsBuilder with(Where where, std::uint32_t block, std::uint64_t field, std::uint32_t value,
                XfsBuilder builder = makeGood()) {
    XfsGeometry const& geometry = builder.geometry();
    std::uint64_t const at =
        (where == Where::Header ? geometry.headerOffset(0) : geometry.blockOffset(0, block)) + field;
    unsigned const width = where == Where::Node16 ? 2 : 4;
    EXPECT_NE(builder.get(at, width), value) << "the field already holds the value: nothing is damaged";
    builder.put(at, value, width);
    EXPECT_EQ(builder.get(at, width), value);
    return builder;
}

XfsBuilder withHeader(std::uint64_t field, std::uint32_t value, XfsBuilder const& builder = makeGood()) {
    return with(Where::Header, 0, field, value, builder);
}

XfsBuilder withNode16(std::uint32_t block, std::uint64_t field, std::uint16_t value,
                      XfsBuilder const& builder = makeGood()) {
    return with(Where::Node16, block, field, value, builder);
}

XfsBuilder withNode32(std::uint32_t block, std::uint64_t field, std::uint32_t value,
                      XfsBuilder const& builder = makeGood()) {
    return with(Where::Node32, block, field, value, builder);
}

XfsOutcome runQuiet(XfsBuilder const& builder) {
    return XfsBench(builder, 512, XfsTrace::Off).chunk(0, kFirstGroup);
}

/// Runs the first group's chunk and expects what the slow reference gives, to the last call; and the same without a
/// trace but for its entries.
XfsOutcome runAsReference(XfsBuilder const& builder) {
    XfsRequest const request{512, 0, kFirstGroup};
    XfsOutcome const outcome = runXfsChunk(builder.bytes, request);
    auto const expected = referenceXfsChunk(builder.bytes, request);
    EXPECT_TRUE(expected.has_value());
    EXPECT_EQ(outcome, expected.value_or(XfsOutcome{}));
    XfsOutcome const quiet = runQuiet(builder);
    EXPECT_EQ(quiet.result, outcome.result);
    EXPECT_EQ(quiet.calls, outcome.calls);
    if (outcome.result >= 0) {
        EXPECT_EQ(quiet.buffer, outcome.buffer);
    }
    return outcome;
}

std::vector<LogEntry> errorsOf(XfsOutcome const& outcome) {
    std::vector<LogEntry> errors;
    for (LogEntry const& entry : outcome.entries) {
        if (entry.level != agent::info::Level::Debug) {
            errors.push_back(entry);
        }
    }
    return errors;
}

void expectFailure(XfsOutcome const& outcome, char const* cause) {
    EXPECT_EQ(outcome.result, -1);
    EXPECT_THAT(errorsOf(outcome), ElementsAre(errorEntry(cause), xfsWrapperEntry()));
}

constexpr char const* kNullBlock = "XFS: cannot create null btree node";
constexpr char const* kUnreadable = "XFS: cannot read btree node header";
constexpr char const* kMagic = "XFS: Invalid btree node magic number.";
constexpr char const* kTooMany = "XFS: Invalid num_recs in btree node.";
constexpr char const* kEmptyInner = "XFS: Internal node can't have 0 records.";

/// The map's bits of the first group's chunk.
std::vector<bool> goodBits() {
    std::vector<bool> map = makeGood().map();
    map.resize(kFirstGroup * 8);
    return map;
}

TEST(XfsTreeDamage, UndamagedVolumeGivesItsMap) {
    XfsOutcome const outcome = runAsReference(makeGood());
    EXPECT_EQ(outcome.result, 496);
    EXPECT_EQ(xfsBits(outcome.buffer, 496), goodBits());
}

class XfsDamagedHeaderMagic : public testing::TestWithParam<std::uint32_t> {};

TEST_P(XfsDamagedHeaderMagic, IsNamed) {
    XfsOutcome const outcome = runAsReference(withHeader(xfs_header::kMagic, GetParam()));
    expectFailure(outcome, "Invalid fsi magic number.");
    EXPECT_EQ(outcome.calls.size(), 2U) << "the free list is not read";
}

INSTANTIATE_TEST_SUITE_P(Values, XfsDamagedHeaderMagic,
                         testing::Values(0U, 0x58414749U, 0x46474158U, 0x58414747U, 0xFFFFFFFFU));

struct RootBlock {
    std::uint32_t block;
    char const* text;
};

class XfsDamagedRoot : public testing::TestWithParam<RootBlock> {};

TEST_P(XfsDamagedRoot, IsNamed) {
    expectFailure(runAsReference(withHeader(xfs_header::kRoot, GetParam().block)), GetParam().text);
}

// The superblock, the header's own block, a block of zeros, one past the volume, the last that is a number, none.
INSTANTIATE_TEST_SUITE_P(Blocks, XfsDamagedRoot,
                         testing::Values(RootBlock{0, kMagic}, RootBlock{1, kMagic}, RootBlock{300, kMagic},
                                         RootBlock{100000, kMagic}, RootBlock{0xFFFFFFFE, kMagic},
                                         RootBlock{0xFFFFFFFF, kNullBlock}),
                         [](auto const& instance) { return "Block" + std::to_string(instance.param.block); });

TEST(XfsDamagedRootBlock, InAnotherGroupIsTakenForOnesOwn) {
    // Block 504 of group 0 is the root of group 1.
    XfsBuilder builder = makeGood();
    builder.plantTree(1, {{300, 5}});
    XfsOutcome const outcome = runAsReference(withHeader(xfs_header::kRoot, 504, builder));
    EXPECT_EQ(outcome.result, 496);
    EXPECT_EQ(outcome.entries.back(), debugEntry("count = 8"));
}

TEST(XfsDamagedRootBlock, BelowTheRootShowsAPartOfTheFreeBlocks) {
    XfsOutcome const outcome = runAsReference(withHeader(xfs_header::kRoot, 10));
    EXPECT_EQ(outcome.result, 496);
    EXPECT_EQ(outcome.entries.back(), debugEntry("count = " + std::to_string(3 + 10 + 11)));
}

struct ListLimit {
    std::uint32_t first;
    std::uint32_t last;
    unsigned marks;
};

class XfsDamagedList : public testing::TestWithParam<ListLimit> {};

TEST_P(XfsDamagedList, MarksWhatWasReadAlone) {
    XfsBuilder builder = makeGood();
    builder.setHeader32(0, xfs_header::kListFirst, GetParam().first);
    builder.setHeader32(0, xfs_header::kListLast, GetParam().last);
    XfsOutcome const outcome = runAsReference(builder);
    EXPECT_EQ(outcome.result, 496);
    EXPECT_EQ(std::count_if(outcome.entries.begin(), outcome.entries.end(),
                            [](LogEntry const& entry) { return entry.text.ends_with(" -> 1"); }),
              GetParam().marks);
}

INSTANTIATE_TEST_SUITE_P(Limits, XfsDamagedList,
                         testing::Values(ListLimit{0, 127, 128}, ListLimit{0, 128, 128}, ListLimit{127, 128, 1},
                                         ListLimit{128, 128, 0}, ListLimit{0, 0x7FFFFFFF, 128},
                                         ListLimit{0, 0xFFFFFFFE, 128}, ListLimit{0, 0xFFFFFFFF, 0},
                                         ListLimit{0x80000000, 0xFFFFFFFE, 0}, ListLimit{0xFFFFFFFF, 0, 0},
                                         ListLimit{0xFFFFFFFF, 0xFFFFFFFF, 0}, ListLimit{12, 10, 0}),
                         [](auto const& instance) {
                             return std::to_string(instance.param.first) + "To" + std::to_string(instance.param.last);
                         });

TEST(XfsDamagedListEntries, OutsideTheGroupMarkWhatIsThereOrNothing) {
    XfsBuilder builder = makeGood();
    builder.setFreeList(0, 10, {0xFFFFFFFF, 500, 495, 0x80000000, 0});
    XfsOutcome const outcome = runAsReference(builder);
    std::vector<bool> expected = goodBits();
    std::fill_n(expected.begin() + 50, 3, true);
    expected[495] = false;
    expected[0] = false;
    EXPECT_EQ(xfsBits(outcome.buffer, 496), expected);
}

/// Each node of the tree, from the root to the last leaf.
class XfsDamagedNode : public testing::TestWithParam<std::uint32_t> {};

TEST_P(XfsDamagedNode, OfTheTreeBySizeIsRefused) {
    for (std::uint32_t const magic : {0x41425443U, 0x41423343U}) {
        expectFailure(runAsReference(withNode32(GetParam(), xfs_node::kMagic, magic)), kMagic);
    }
}

TEST_P(XfsDamagedNode, WithOneRecordTooManyIsRefused) {
    bool const isLeaf = GetParam() >= 7;
    std::uint16_t const most = isLeaf ? 62 : 41; // (512 - 16) / 8 and / 12
    expectFailure(runAsReference(withNode16(GetParam(), xfs_node::kRecords, static_cast<std::uint16_t>(most + 1))),
                  kTooMany);
    expectFailure(runAsReference(withNode16(GetParam(), xfs_node::kRecords, 0xFFFF)), kTooMany);
    XfsOutcome const outcome = runAsReference(withNode16(GetParam(), xfs_node::kRecords, most));
    EXPECT_EQ(outcome.result, 496) << "records of nothing, and children that are not followed";
    EXPECT_EQ(xfsBits(outcome.buffer, 496), goodBits());
}

TEST_P(XfsDamagedNode, WithoutRecordsIsALeafOrNothing) {
    XfsOutcome const outcome = runAsReference(withNode16(GetParam(), xfs_node::kRecords, 0));
    if (GetParam() < 7) {
        expectFailure(outcome, kEmptyInner);
    } else {
        EXPECT_EQ(outcome.result, 496);
        std::vector<bool> expected = goodBits();
        std::fill_n(expected.begin() + 100 + 60 * (GetParam() - 7), 60, true);
        EXPECT_EQ(xfsBits(outcome.buffer, 496), expected);
    }
}

TEST_P(XfsDamagedNode, ThatIsNotThereIsRefused) {
    XfsBuilder builder = makeGood();
    auto const at = builder.bytes.begin() + GetParam() * 512L;
    std::fill_n(at, 512, std::uint8_t{0});
    expectFailure(runAsReference(builder), kMagic);
}

TEST_P(XfsDamagedNode, OfTheOtherVersionHasItsRecordsElsewhere) {
    // A long header: the first records are taken from what a short one calls the sixth.
    XfsOutcome const outcome = runAsReference(withNode32(GetParam(), xfs_node::kMagic, kXfsChecksumNode));
    if (GetParam() >= 7) {
        EXPECT_EQ(outcome.result, 496);
        EXPECT_NE(xfsBits(outcome.buffer, 496), goodBits());
    } else {
        expectFailure(outcome, kMagic); // the first child is block 0, the superblock
    }
}

INSTANTIATE_TEST_SUITE_P(Blocks, XfsDamagedNode, testing::Values(4, 5, 6, 7, 8, 9, 10),
                         [](auto const& instance) { return std::to_string(instance.param); });

TEST(XfsDamagedLevel, OfALeafMakesItAnInnerNode) {
    // What stands where its children would is zero: block 0, the superblock.
    for (std::uint16_t const level : {std::uint16_t{1}, std::uint16_t{0xFFFF}}) {
        expectFailure(runAsReference(withNode16(10, xfs_node::kLevel, level)), kMagic);
    }
}

TEST(XfsDamagedLevel, OfAnInnerNodeMakesItALeafOfItsKeys) {
    XfsOutcome const outcome = runAsReference(withNode16(4, xfs_node::kLevel, 0));
    EXPECT_EQ(outcome.result, 496);
    EXPECT_EQ(outcome.entries.back(), debugEntry("count = 15")) << "the list of 3, and the first runs below 5 and 6";
}

TEST(XfsDamagedLevel, OfTheRootIsNotComparedWithItsChildrens) {
    XfsOutcome const outcome = runAsReference(withNode16(4, xfs_node::kLevel, 0xFFFF));
    EXPECT_EQ(xfsBits(outcome.buffer, 496), goodBits());
}

TEST(XfsDamagedChild, OutOfTheVolumeOrNoneIsNamed) {
    XfsBuilder builder = makeGood();
    expectFailure(runAsReference(builder.setChild(0, 4, 0, 0xFFFFFFFF)), kNullBlock);
    expectFailure(runAsReference(builder.setChild(0, 4, 0, 0xFFFFFFFE)), kMagic);
    expectFailure(runAsReference(builder.setChild(0, 4, 0, 0)), kMagic);
}

TEST(XfsDamagedSibling, OutOfTheVolumeIsNamed) {
    for (std::uint32_t const right : {0U, 300U, 100000U, 0xFFFFFFFEU}) {
        expectFailure(runAsReference(withNode32(5, xfs_node::kRight, right)), kMagic);
    }
}

TEST(XfsDamagedSibling, EarlyEndOfALevelLosesFreeBlocksOnly) {
    XfsOutcome const outcome = runAsReference(withNode32(7, xfs_node::kRight, kXfsNoBlock));
    EXPECT_EQ(outcome.result, 496);
    std::vector<bool> expected = goodBits();
    std::fill_n(expected.begin() + 160, 60, true); // leaf 8
    EXPECT_EQ(xfsBits(outcome.buffer, 496), expected);
}

/// A level whose chain of right siblings comes back: the blocks in their order, and the place in it that follows the
/// last.
struct Cycle {
    char const* name;
    unsigned nodes;
    unsigned back;
};

class XfsSiblingCycle : public testing::TestWithParam<Cycle> {};

TEST_P(XfsSiblingCycle, EndsTheWalk) {
    for (std::uint16_t const level : {std::uint16_t{0}, std::uint16_t{1}}) {
        XfsBuilder builder;
        builder.makeNode(0, 4, static_cast<std::uint16_t>(level + 1), 1).setChild(0, 4, 0, 10);
        for (unsigned i = 0; i < GetParam().nodes; ++i) {
            std::uint32_t const next = i + 1 < GetParam().nodes ? i + 1 : GetParam().back;
            builder.makeNode(0, 10 + i, level, 1, kXfsNoBlock, 10 + next);
        }
        for (XfsTrace const trace : {XfsTrace::On, XfsTrace::Off}) {
            XfsOutcome const outcome = XfsBench(builder, 512, trace).chunk(0, kFirstGroup);
            expectFailure(outcome, kUnreadable);
            EXPECT_LT(outcome.calls.size(), kMostCalls);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Chains, XfsSiblingCycle,
                         testing::Values(Cycle{"Itself", 1, 0}, Cycle{"OfTwo", 2, 0}, Cycle{"OfFive", 5, 0},
                                         Cycle{"OfThree", 3, 0}, Cycle{"LastItself", 6, 5},
                                         Cycle{"OfTwoAfterThree", 5, 3}, Cycle{"OfFiveAfterFour", 9, 4},
                                         Cycle{"Of100", 100, 0}, Cycle{"Of97After3", 100, 3},
                                         Cycle{"OfOneAfter99", 100, 99}),
                         [](auto const& instance) { return std::string(instance.param.name); });

TEST(XfsSiblingChain, LongOneThatEndsIsWalkedToItsEnd) {
    // Every length around the strides of whatever looks for cycles.
    for (std::uint32_t nodes = 1; nodes <= 140; ++nodes) {
        XfsBuilder builder;
        builder.makeNode(0, 4, 1, 1).setChild(0, 4, 0, 10);
        for (std::uint32_t i = 0; i < nodes; ++i) {
            builder.makeNode(0, 10 + i, 0, 1, kXfsNoBlock, i + 1 < nodes ? 11 + i : kXfsNoBlock);
            builder.setRecord(0, 10 + i, 0, {200 + i, 1});
        }
        XfsOutcome const outcome = runAsReference(builder);
        ASSERT_EQ(outcome.result, 496);
        ASSERT_EQ(outcome.entries.back(), debugEntry("count = " + std::to_string(nodes)));
    }
}

TEST(XfsChildCycle, ToItselfEndsTheWalk) {
    for (std::uint32_t const child : {4U, 5U}) {
        XfsBuilder builder = makeGood();
        builder.setChild(0, child, 0, child);
        for (XfsTrace const trace : {XfsTrace::On, XfsTrace::Off}) {
            XfsOutcome const outcome = XfsBench(builder, 512, trace).chunk(0, kFirstGroup);
            expectFailure(outcome, kUnreadable);
            EXPECT_LT(outcome.calls.size(), kMostCalls);
        }
    }
}

TEST(XfsChildCycle, ToTheParentEndsTheWalk) {
    for (XfsTrace const trace : {XfsTrace::On, XfsTrace::Off}) {
        XfsBuilder builder = makeGood();
        builder.setChild(0, 6, 0, 4).setChild(0, 5, 0, 4);
        XfsOutcome const outcome = XfsBench(builder, 512, trace).chunk(0, kFirstGroup);
        expectFailure(outcome, kUnreadable);
        EXPECT_LT(outcome.calls.size(), kMostCalls);
    }
}

TEST(XfsDeepTree, OfSingleNodesIsWalkedAsFarAsTheLimit) {
    // Far more levels than the format has are still walked; at last the depth is taken for a cycle.
    auto const makeDeep = [](std::uint32_t levels) {
        XfsBuilder builder;
        for (std::uint32_t i = 0; i + 1 < levels; ++i) {
            builder.makeNode(0, 4 + i, 1, 1).setChild(0, 4 + i, 0, 5 + i);
        }
        return builder.makeNode(0, 3 + levels, 0, 1).setRecord(0, 3 + levels, 0, {200, 6});
    };
    for (std::uint32_t const levels : {1U, 2U, 9U, 33U, 64U, 65U}) {
        XfsOutcome const outcome = runAsReference(makeDeep(levels));
        EXPECT_EQ(outcome.result, 496) << levels;
        EXPECT_EQ(outcome.entries.back(), debugEntry("count = 6")) << levels;
    }
    expectFailure(XfsBench(makeDeep(66)).chunk(0, kFirstGroup), kUnreadable);
    expectFailure(XfsBench(makeDeep(300)).chunk(0, kFirstGroup), kUnreadable);
}

TEST(XfsTreeOfSharedLevels, IsWalkedAsOftenAsItIsReached) {
    // Both nodes of a level lead to the start of the next, so that each level is walked twice as often as the one
    // above.
    constexpr std::uint32_t kLevels = 11;
    XfsBuilder builder;
    for (std::uint32_t level = 0; level < kLevels; ++level) {
        std::uint32_t const left = 10 + 2 * level;
        for (std::uint32_t const block : {left, left + 1}) {
            builder.makeNode(0, block, level + 1 < kLevels ? 1 : 0, 1, kXfsNoBlock,
                             block == left ? left + 1 : kXfsNoBlock);
            if (level + 1 < kLevels) {
                builder.setChild(0, block, 0, left + 2);
            }
        }
    }
    XfsOutcome const outcome = runAsReference(withHeader(xfs_header::kRoot, 10, builder));
    EXPECT_EQ(outcome.result, 496);
    // The root's own sibling is not followed: 1, 2, 4 and so on to 1024 nodes.
    EXPECT_EQ(std::count(outcome.entries.begin(), outcome.entries.end(), debugEntry("---BTN HERE---")), 2047);
}

TEST(XfsTreeOfSharedLevels, OfManyLevelsIsGivenUp) {
    if (kIsSanitized) {
        GTEST_SKIP() << "tens of millions of nodes take most of a minute here; the plain build walks them in seconds";
    }
    // Each level doubles the work: 40 levels would take for ever.
    XfsBuilder builder;
    for (std::uint32_t level = 0; level < 40; ++level) {
        std::uint32_t const left = 10 + 2 * level;
        builder.makeNode(0, left, 1, 1, kXfsNoBlock, left + 1).setChild(0, left, 0, left + 2);
        builder.makeNode(0, left + 1, 1, 1, left).setChild(0, left + 1, 0, left + 2);
    }
    builder.makeNode(0, 90, 0, 0);
    // Without a record of the calls, which are tens of millions.
    MemoryReader const volume = withHeader(xfs_header::kRoot, 10, builder).reader();
    XfsLogger logger(XfsTrace::Off);
    ExposedXfsParser const parser(logger, 512, volume);
    std::vector<char> buffer(kFirstGroup);
    EXPECT_EQ(parser.getChunk(0, buffer.data(), buffer.size()), -1);
    EXPECT_THAT(logger.entries, ElementsAre(errorEntry(kUnreadable), xfsWrapperEntry()));
}

TEST(XfsDamagedRecord, ThatLiesBeyondTheGroupMarksBlocksOfTheNext) {
    XfsBuilder builder;
    builder.plantTree(0, {{490, 30}});
    XfsOutcome const outcome = XfsBench(builder).chunk(0, 163);
    EXPECT_EQ(outcome.result, 1300);
    std::vector<bool> expected(1300, true);
    std::fill_n(expected.begin() + 490, 30, false);
    EXPECT_EQ(xfsBits(outcome.buffer, 1300), expected);
}

TEST(XfsDamagedRecord, PastTheVolumeMarksNothing) {
    XfsBuilder builder;
    builder.plantTree(0, {{100000, 1000}, {0xFFFFFF00, 0xFF}});
    XfsOutcome const outcome = runAsReference(builder);
    EXPECT_EQ(xfsBits(outcome.buffer, 496), std::vector<bool>(496, true));
}

TEST(XfsDamagedRecord, WhoseEndWrapsMarksTheGroupsStart) {
    XfsBuilder builder;
    builder.plantTree(0, {{0xFFFFFFFE, 10}});
    XfsOutcome const outcome = runAsReference(builder);
    std::vector<bool> expected(496, true);
    std::fill_n(expected.begin(), 8, false);
    EXPECT_EQ(xfsBits(outcome.buffer, 496), expected);
    EXPECT_EQ(outcome.entries.back(), debugEntry("count = 8"));
}

TEST(XfsDamagedRecord, OfNothingMarksNothing) {
    XfsBuilder builder;
    builder.plantTree(0, {{0, 0}, {100, 0}, {0xFFFFFFFF, 0}});
    EXPECT_EQ(runAsReference(builder).entries.back(), debugEntry("count = 0"));
}

TEST(XfsDamagedRecord, OverlappingUnsortedAndTwiceMarksEachBlockOnce) {
    XfsBuilder builder;
    builder.plantTree(0, {{300, 20}, {100, 20}, {110, 20}, {100, 20}, {90, 100}});
    EXPECT_EQ(runAsReference(builder).entries.back(), debugEntry("count = 120"));
}

TEST(XfsDamagedRecord, OfFourThousandMillionBlocksIsQuick) {
    // One after the other, a bit at a time, these would take minutes.
    std::vector<XfsRun> const runs(62, XfsRun{1, 0xFFFFFFFF});
    XfsBuilder builder;
    builder.plantTree(0, runs);
    XfsOutcome const outcome = runQuiet(builder);
    EXPECT_EQ(outcome.result, 496);
    std::vector<bool> expected(496, false);
    expected[0] = true;
    EXPECT_EQ(xfsBits(outcome.buffer, 496), expected);
}

TEST(XfsDamagedRecord, OfTheWholeVolumeManyTimesIsQuick) {
    // 65535 runs over 2^27 blocks in a chunk of 16 MiB: one after the other, even by whole words, would be a terabyte.
    constexpr std::uint32_t kBlockSize = 1 << 20;
    XfsBuilder builder;
    builder.setSuper32(xfs_super::kBlockSize, kBlockSize).setSuper32(xfs_super::kGroupBlocks, 0x80000000);
    builder.setSuper(xfs_super::kTotalBlocks, 0x80000000, 8).setSuper32(xfs_super::kGroups, 1);
    builder.setHeader32(0, xfs_header::kRoot, 1);
    builder.bytes.resize(2 * kBlockSize);
    builder.makeNode(0, kBlockSize / 512, 0, 0xFFFF);
    for (std::uint32_t i = 0; i < 0xFFFF; ++i) {
        builder.setRecord(0, kBlockSize / 512, i, {65535 - i, 0x80000000U + i}); // downwards, so never in order
    }
    XfsBench bench(builder, 512, XfsTrace::Off);
    XfsOutcome const outcome = bench.chunk(0, 16 << 20);
    EXPECT_EQ(outcome.result, 1 << 27);
    EXPECT_EQ(outcome.buffer.front(), 0x01) << "block 0 is in no run";
    EXPECT_EQ(std::count(outcome.buffer.begin(), outcome.buffer.end(), 0), (16 << 20) - 1);
}

TEST(XfsDamageAnywhereInAGroup, GivesWhatTheReferenceGives) {
    // Every bit of the header's fields and of every node's header, one at a time. Cycles, which the reference does not
    // end, come from siblings and children and have tests of their own.
    XfsBuilder const good = makeGood();
    unsigned failures = 0;
    unsigned changes = 0;
    std::vector<std::uint64_t> places;
    for (std::uint64_t at = 0; at < 0x34; ++at) {
        places.push_back(512 + at);
    }
    for (std::uint64_t block = 4; block <= 10; ++block) {
        for (std::uint64_t at = 0; at < 0x0C; ++at) {
            places.push_back(block * 512 + at);
        }
    }
    for (std::uint64_t const at : places) {
        for (unsigned bit = 0; bit < 8; ++bit) {
            XfsBuilder builder = good;
            builder.put(at, builder.get(at, 1) ^ (1U << bit), 1);
            XfsOutcome const outcome = runAsReference(builder);
            failures += outcome.result < 0 ? 1U : 0U;
            changes += outcome.result >= 0 && xfsBits(outcome.buffer, 496) != goodBits() ? 1U : 0U;
        }
    }
    EXPECT_GT(failures, 100U);
    EXPECT_GT(changes, 20U);
}

} // namespace
