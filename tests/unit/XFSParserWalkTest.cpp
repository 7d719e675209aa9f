// Walks over free-space trees of several levels: the order of nodes and records, with and without a trace.
#include "support/XfsRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace tests;
using testing::ElementsAre;
using testing::ElementsAreArray;

/// Leaf i holds one run of i + 1 blocks from block 100 + 20 * i on.
std::vector<XfsRun> makeRuns(std::uint32_t leaves) {
    std::vector<XfsRun> runs;
    for (std::uint32_t i = 0; i < leaves; ++i) {
        runs.push_back({100 + 20 * i, i + 1});
    }
    return runs;
}

/// Two children an inner node, one record a leaf, the root in block 4 and the levels behind it.
XfsBuilder makeTree(std::uint32_t leaves) {
    XfsBuilder builder;
    builder.plantTree(0, makeRuns(leaves), {1, 2, 4});
    return builder;
}

/// The blocks whose nodes were read, by the trace.
std::vector<std::uint64_t> tracedNodes(XfsOutcome const& outcome) {
    std::string const label = "btn addr = ";
    std::vector<std::uint64_t> blocks;
    for (LogEntry const& entry : outcome.entries) {
        if (entry.text.starts_with(label)) {
            blocks.push_back(std::stoull(entry.text.substr(label.size())) / 512);
        }
    }
    return blocks;
}

/// The same by the seeks, of which a node has two or three in its own block; the two of the headers come first.
std::vector<std::uint64_t> soughtNodes(XfsOutcome const& outcome) {
    std::vector<std::uint64_t> blocks;
    for (std::size_t i = 4; i < outcome.calls.size(); ++i) {
        if (outcome.calls[i].kind == ReaderCall::Kind::Seek) {
            auto const block = static_cast<std::uint64_t>(outcome.calls[i].argument) / 512;
            if (blocks.empty() || blocks.back() != block) {
                blocks.push_back(block);
            }
        }
    }
    return blocks;
}

/// The starts of the runs in the order in which they were marked.
std::vector<std::uint32_t> markedRuns(XfsOutcome const& outcome) {
    std::vector<std::uint32_t> starts;
    for (LogEntry const& entry : outcome.entries) {
        if (entry.text.starts_with("0: ")) {
            starts.push_back(static_cast<std::uint32_t>(std::stoul(entry.text.substr(3))));
        }
    }
    return starts;
}

struct Walk {
    std::uint32_t leaves;
    std::vector<std::uint64_t> nodes; ///< blocks in the order of their reads
    std::vector<std::uint32_t> runs;  ///< starts in the order of their marks
};

class XFSParserWalk : public testing::TestWithParam<Walk> {};

TEST_P(XFSParserWalk, GoesOverWholeLevelsFromTheirRightEnd) {
    XfsOutcome const outcome = XfsBench(makeTree(GetParam().leaves)).chunk(0, 62);
    EXPECT_THAT(tracedNodes(outcome), ElementsAreArray(GetParam().nodes));
    EXPECT_THAT(soughtNodes(outcome), ElementsAreArray(GetParam().nodes));
    EXPECT_THAT(markedRuns(outcome), ElementsAreArray(GetParam().runs));
    std::uint32_t const leaves = GetParam().leaves;
    EXPECT_EQ(outcome.entries.back(), debugEntry("count = " + std::to_string(leaves * (leaves + 1) / 2)))
        << "a run that is marked again does not count again";
}

TEST_P(XFSParserWalk, IsTheSameWithoutATrace) {
    XfsOutcome const traced = XfsBench(makeTree(GetParam().leaves)).chunk(0, 62);
    XfsOutcome const quiet = XfsBench(makeTree(GetParam().leaves), 512, XfsTrace::Off).chunk(0, 62);
    EXPECT_THAT(soughtNodes(quiet), ElementsAreArray(GetParam().nodes));
    EXPECT_EQ(quiet.calls, traced.calls);
    EXPECT_EQ(quiet.buffer, traced.buffer);
    EXPECT_EQ(quiet.result, traced.result);
}

INSTANTIATE_TEST_SUITE_P(
    Trees, XFSParserWalk,
    testing::Values(
        // A root that is a leaf.
        Walk{1, {4}, {100}},
        // Root 4 over leaves 5 and 6.
        Walk{2, {4, 5, 6}, {120, 100}},
        // Root 4 over 5 and 6, those over leaves 7, 8 and 9. From 6, leaf 9; then from 5 all three.
        Walk{3, {4, 5, 6, 9, 7, 8, 9}, {140, 140, 120, 100}},
        // Root 4 over 5 and 6, those over leaves 7, 8 and 9, 10. From 6 the last two leaves, then from 5 all four.
        Walk{4, {4, 5, 6, 9, 10, 7, 8, 9, 10}, {160, 140, 160, 140, 120, 100}},
        // Root 4 over 5 and 6; 5 over 7 and 8, 6 over 9; leaves 10 to 14. From 6, 9 and its leaf 14; from 5 the whole
        // level 7, 8, 9, of which 9 has 14, 8 has 12 to 14 and 7 all five.
        Walk{5,
             {4, 5, 6, 9, 14, 7, 8, 9, 14, 12, 13, 14, 10, 11, 12, 13, 14},
             {180, 180, 180, 160, 140, 180, 160, 140, 120, 100}}),
    [](auto const& instance) { return "Of" + std::to_string(instance.param.leaves) + "Leaves"; });

TEST(XFSParserWalkOfATree, RecordsOfALeafComeInTheirOrder) {
    XfsBuilder builder;
    builder.plantTree(0, makeRuns(6), {3, 2, 4});
    EXPECT_THAT(markedRuns(XfsBench(builder).chunk(0, 62)), ElementsAre(160, 180, 200, 100, 120, 140));
}

TEST(XFSParserWalkOfATree, OnlyTheFirstChildOfANodeIsFollowed) {
    // The other child pointers may hold anything: the siblings lead on.
    XfsBuilder builder = makeTree(2);
    builder.setChild(0, 4, 1, 0xFFFFFFFF);
    XfsOutcome const outcome = XfsBench(builder).chunk(0, 62);
    EXPECT_EQ(outcome.result, 496);
    EXPECT_THAT(tracedNodes(outcome), ElementsAre(4, 5, 6));
}

TEST(XFSParserWalkOfATree, SiblingsOfTheRootAndLeftSiblingsAreNotFollowed) {
    XfsBuilder builder = makeTree(2);
    builder.setNode32(0, 4, xfs_node::kRight, 9).setNode32(0, 4, xfs_node::kLeft, 9);
    builder.setNode32(0, 5, xfs_node::kLeft, 9);
    XfsOutcome const outcome = XfsBench(builder).chunk(0, 62);
    EXPECT_EQ(outcome.result, 496);
    EXPECT_THAT(tracedNodes(outcome), ElementsAre(4, 5, 6));
}

TEST(XFSParserWalkOfATree, KeysOfInnerNodesMarkNothing) {
    XfsBuilder builder = makeTree(2);
    builder.setRecord(0, 4, 0, {300, 50}).setRecord(0, 4, 1, {400, 50});
    XfsOutcome const outcome = XfsBench(builder).chunk(0, 62);
    EXPECT_THAT(markedRuns(outcome), ElementsAre(120, 100));
    EXPECT_EQ(outcome.entries.back(), debugEntry("count = 3"));
}

TEST(XFSParserWalkOfATree, EmptyLeavesAmongOthersAreWalkedOver) {
    XfsBuilder builder = makeTree(4);
    builder.setNode16(0, 8, xfs_node::kRecords, 0).setNode16(0, 10, xfs_node::kRecords, 0);
    XfsOutcome const outcome = XfsBench(builder).chunk(0, 62);
    EXPECT_EQ(outcome.result, 496);
    EXPECT_THAT(markedRuns(outcome), ElementsAre(140, 140, 100));
}

TEST(XFSParserWalkOfATree, TreeOfAnotherGroupIsAddressedFromThere) {
    XfsBuilder builder;
    builder.plantTree(2, makeRuns(2), {1, 2, 30});
    XfsOutcome const outcome = XfsBench(builder).chunk(1000, 38);
    EXPECT_THAT(tracedNodes(outcome), ElementsAre(1030, 1031, 1032));
    EXPECT_THAT(outcome.entries, testing::IsSupersetOf({debugEntry("2: 120 -> 2"), debugEntry("2: 100 -> 1")}));
}

TEST(XFSParserWalkOfATree, ChecksummedNodesOfThreeLevels) {
    XfsGeometry geometry;
    geometry.blockSize = 1024;
    geometry.hasChecksums = true;
    XfsBuilder builder(geometry);
    auto const blocks = builder.plantTree(0, makeRuns(8), {1, 3, 10});
    ASSERT_EQ(blocks.size(), 3U);
    XfsOutcome const outcome = XfsBench(builder).chunk(0, 163);
    EXPECT_EQ(xfsBits(outcome.buffer, 1300), builder.map());
    EXPECT_EQ(outcome.entries.back(), debugEntry("count = 36"));
}

} // namespace
