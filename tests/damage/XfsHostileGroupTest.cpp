// XFS group headers, free lists and trees that lie, as the imaging layer sees them.
#include "support/HostileVolume.h"
#include "support/XfsBuilder.h"

namespace {

using namespace tests;

using End = HostileEnd;

/// The root of every group whose tree is one leaf.
std::uint32_t rootOf(XfsBuilder const& builder) {
    return builder.geometry().firstBlock();
}

/// Fields of a group's header, and of a node's header with checksums, that only this file changes.
constexpr char const* kRootPlace = "puts the root of its tree at block";
constexpr std::uint64_t kHeaderVersion = 4;
constexpr std::uint64_t kHeaderNumber = 8;
constexpr std::uint64_t kHeaderLength = 12;
constexpr std::uint64_t kHeaderLongest = 0x38;
constexpr std::uint64_t kHeaderTreeBlocks = 0x3C;
constexpr std::uint64_t kHeaderUuid = 0x40;
constexpr std::uint64_t kHeaderChecksum = 0xD8;
constexpr std::uint64_t kNodeBlock = 16;
constexpr std::uint64_t kNodeUuid = 32;
constexpr std::uint64_t kNodeOwner = 48;
constexpr std::uint64_t kNodeChecksum = 52;

/// Where in the free list of makeGood() the entry that names block 50 stands.
constexpr std::uint64_t kListedBlock50 = 40;

/// Two groups of 500 blocks of 512 bytes. Free are 100 to 199 of group 0 and three in its free list, 20 to 39 of group
/// 1. With checksums blocks have 1 KiB.
XfsBuilder makeGood(bool hasChecksums = false) {
    XfsGeometry geometry;
    geometry.totalBlocks = 1000;
    geometry.hasChecksums = hasChecksums;
    geometry.blockSize = hasChecksums ? 1024 : 512;
    XfsBuilder builder(geometry);
    builder.plantTree(0, {{100, 100}});
    builder.plantTree(1, {{20, 20}});
    return builder.setFreeList(0, 10, {50, 51, 52});
}

HostileAnswer ask(XfsBuilder const& builder) {
    return askForMap(builder.bytes);
}

void expectDoubt(XfsBuilder const& builder, std::vector<bool> const& truth, std::string const& text) {
    expectEnd(ask(builder), End::Doubted, text, truth, builder.geometry().blockSize);
}

void expectRight(XfsBuilder const& builder, std::vector<bool> const& truth) {
    expectEnd(ask(builder), End::Right, "", truth, builder.geometry().blockSize);
}

void expectError(XfsBuilder const& builder, std::vector<bool> const& truth, std::string const& text) {
    expectEnd(ask(builder), End::Error, text, truth, builder.geometry().blockSize);
}

TEST(XfsHostileGroup, TheVolumesThemselvesAreSound) {
    expectRight(makeGood(), makeGood().map());
    expectRight(makeGood(true), makeGood(true).map());
}

/// A field of the header of group 0; its offset counts from there.
class XfsHostileHeader : public testing::TestWithParam<HostileField> {};

TEST_P(XfsHostileHeader, HasItsEnd) {
    for (bool const hasChecksums : {false, true}) {
        XfsBuilder builder = makeGood(hasChecksums);
        std::uint64_t const place = builder.geometry().headerOffset(0) + GetParam().offset;
        ASSERT_NE(builder.get(place, GetParam().width), GetParam().value) << "nothing is changed";
        builder.put(place, GetParam().value, GetParam().width);
        expectEnd(ask(builder), GetParam().end, GetParam().text, makeGood().map(), builder.geometry().blockSize);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Fields, XfsHostileHeader,
    testing::Values(
        HostileField{"Magic", xfs_header::kMagic, 0, 4, End::Error, "Invalid fsi magic number."},
        HostileField{"Version", kHeaderVersion, 0xFFFFFFFF, 4, End::Right},
        HostileField{"NumberOfAnother", kHeaderNumber, 1, 4, End::AllUsed, "says that it is that of group 1"},
        HostileField{"NumberOfAllOnes", kHeaderNumber, 0xFFFFFFFF, 4, End::AllUsed, "that of group 4294967295"},
        HostileField{"LengthOf0", kHeaderLength, 0, 4, End::AllUsed, "has 0 blocks, and it has 500"},
        HostileField{"LengthOfOneMore", kHeaderLength, 501, 4, End::AllUsed, "has 501 blocks, and it has 500"},
        HostileField{"LengthOfAllOnes", kHeaderLength, 0xFFFFFFFF, 4, End::AllUsed, "has 4294967295 blocks"},
        HostileField{"LevelsOf0", xfs_header::kLevels, 0, 4, End::Right},
        HostileField{"LevelsOf9", xfs_header::kLevels, 9, 4, End::Right},
        HostileField{"LevelsOfAllOnes", xfs_header::kLevels, 0xFFFFFFFF, 4, End::Right},
        HostileField{"Longest", kHeaderLongest, 0xFFFFFFFF, 4, End::Right},
        HostileField{"TreeBlocks", kHeaderTreeBlocks, 0xFFFFFFFF, 4, End::Right},
        HostileField{"Uuid", kHeaderUuid, 0x1234567890ABCDEF, 8, End::Right},
        HostileField{"Checksum", kHeaderChecksum, 0xDEADBEEF, 4, End::Right},
        HostileField{"FreeBlocksOf0", xfs_header::kFreeBlocks, 0, 4, End::Doubted, "the group's own header counts 3"},
        HostileField{"FreeBlocksOfOneMore", xfs_header::kFreeBlocks, 101, 4, End::Doubted, "counts 104"},
        HostileField{"FreeBlocksOfAllOnes", xfs_header::kFreeBlocks, 0xFFFFFFFF, 4, End::Doubted, "counts 4294967298"}),
    [](auto const& instance) { return hostileName(instance); });

constexpr char const* kBadNode = "XFS: Invalid btree node magic number.";

INSTANTIATE_TEST_SUITE_P(
    Roots, XfsHostileHeader,
    testing::Values(HostileField{"Superblock", xfs_header::kRoot, 0, 4, End::Error, kBadNode},
                    HostileField{"FreeList", xfs_header::kRoot, 3, 4, End::Error, kBadNode},
                    HostileField{"Zeros", xfs_header::kRoot, 300, 4, End::Error, kBadNode},
                    HostileField{"BehindTheVolume", xfs_header::kRoot, 100000, 4, End::AllUsed, kRootPlace},
                    HostileField{"LastNumber", xfs_header::kRoot, 0xFFFFFFFE, 4, End::AllUsed, kRootPlace},
                    HostileField{"None", xfs_header::kRoot, 0xFFFFFFFF, 4, End::AllUsed, kRootPlace}),
    [](auto const& instance) { return hostileName(instance); });

INSTANTIATE_TEST_SUITE_P(
    Lists, XfsHostileHeader,
    testing::Values(HostileField{"FirstOneEarlier", xfs_header::kListFirst, 9, 4, End::AllUsed,
                                 "counts 3 blocks in its free list from entry 9 to entry 12"},
                    HostileField{"FirstOf0", xfs_header::kListFirst, 0, 4, End::AllUsed, "from entry 0 to entry 12"},
                    HostileField{"LastOneLater", xfs_header::kListLast, 13, 4, End::AllUsed, "to entry 13"},
                    HostileField{"LastBehindTheSector", xfs_header::kListLast, 128, 4, End::AllUsed, "to entry 128"},
                    HostileField{"LastOfAllOnes", xfs_header::kListLast, 0xFFFFFFFF, 4, End::AllUsed,
                                 "from entry 10 to entry 4294967295"},
                    HostileField{"CountOf0", xfs_header::kListCount, 0, 4, End::AllUsed, "counts 0 blocks"},
                    HostileField{"CountOfOneMore", xfs_header::kListCount, 4, 4, End::AllUsed, "counts 4 blocks"},
                    HostileField{"CountOfAllOnes", xfs_header::kListCount, 0xFFFFFFFF, 4, End::AllUsed,
                                 "counts 4294967295 blocks"}),
    [](auto const& instance) { return hostileName(instance); });

struct ListEnds {
    char const* name;
    std::uint32_t first;
    std::uint32_t last;
    std::uint32_t count;
};

void PrintTo(ListEnds const& ends, std::ostream* out) {
    *out << ends.name;
}

class XfsHostileListEnds : public testing::TestWithParam<ListEnds> {};

TEST_P(XfsHostileListEnds, KeepTheBlocksOfTheListUsed) {
    for (bool const hasChecksums : {false, true}) {
        XfsBuilder builder = makeGood(hasChecksums);
        std::vector<bool> expected = builder.map();
        std::fill_n(expected.begin() + 50, 3, true);
        builder.setHeader32(0, xfs_header::kListFirst, GetParam().first);
        builder.setHeader32(0, xfs_header::kListLast, GetParam().last);
        builder.setHeader32(0, xfs_header::kListCount, GetParam().count);
        expectRight(builder, expected);
    }
}

INSTANTIATE_TEST_SUITE_P(Ends, XfsHostileListEnds,
                         testing::Values(ListEnds{"BehindTheSector", 128, 130, 3},
                                         ListEnds{"FarBehindTheSector", 0x80000000, 0x80000002, 3},
                                         ListEnds{"OfAllOnes", 0xFFFFFFFF, 0xFFFFFFFF, 1},
                                         ListEnds{"OfAWrappedList", 117, 1, 4}, ListEnds{"OfAWrapElsewhere", 116, 1, 4},
                                         ListEnds{"OfAnEmptyList", 13, 12, 0}, ListEnds{"Swapped", 12, 10, 3}),
                         [](auto const& instance) { return std::string(instance.param.name); });

TEST(XfsHostileList, EntryOf118IsTheLastWithChecksumsAndIsTaken) {
    XfsBuilder builder = makeGood(true);
    builder.setFreeList(0, 118, {50});
    expectRight(builder, builder.map());
}

/// One entry of the free list that names something else; it names block 50 by right.
class XfsHostileListEntry : public testing::TestWithParam<HostileField> {};

TEST_P(XfsHostileListEntry, IsDoubted) {
    for (bool const hasChecksums : {false, true}) {
        XfsBuilder builder = makeGood(hasChecksums);
        std::vector<bool> const truth = builder.map();
        builder.put(builder.geometry().listOffset(0) + kListedBlock50, GetParam().value, 4);
        expectDoubt(builder, truth, GetParam().text);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Entries, XfsHostileListEntry,
    testing::Values(HostileField{"None", 0, 0xFFFFFFFF, 4, End::Doubted, "has 102 free units in group 0"},
                    HostileField{"BehindTheVolume", 0, 5000, 4, End::Doubted, "has 102 free units in group 0"},
                    HostileField{"InUseInTheNextGroup", 0, 510, 4, End::Doubted, "has 102 free units in group 0"},
                    HostileField{"GroupLength", 0, 500, 4, End::Doubted, "the map calls unit 500 free"},
                    HostileField{"Superblock", 0, 0, 4, End::Doubted, "the map calls unit 0 free"},
                    HostileField{"Twice", 0, 51, 4, End::Doubted, "has 102 free units in group 0"},
                    HostileField{"InTheTreeAsWell", 0, 120, 4, End::Doubted, "has 102 free units in group 0"}),
    [](auto const& instance) { return hostileName(instance); });

TEST(XfsHostileListEntryInUse, ByTheGroupsOwnTreeIsDoubted) {
    XfsBuilder builder = makeGood();
    std::vector<bool> const truth = builder.map();
    builder.put(builder.geometry().listOffset(0) + kListedBlock50, rootOf(builder), 4);
    expectDoubt(builder, truth, "");
}

TEST(XfsHostileTree, WhoseRootIsInAnotherGroupIsDoubted) {
    // The trees of both groups count as many blocks.
    XfsBuilder builder = makeGood();
    builder.plantTree(1, {{300, 100}});
    std::vector<bool> const truth = builder.map();
    builder.setHeader32(0, xfs_header::kRoot, 500 + rootOf(makeGood()));
    expectDoubt(builder, truth, "");
}

TEST(XfsHostileTree, ThatCallsItsOwnRootFreeIsDoubted) {
    XfsBuilder builder = makeGood();
    builder.plantTree(0, {{100, 10}});
    std::vector<bool> const truth = builder.map();
    builder.setRecord(0, rootOf(builder), 0, {rootOf(builder), 10});
    expectDoubt(builder, truth, "");
}

TEST(XfsHostileTree, BySizeIsRefusedAsARoot) {
    XfsBuilder builder = makeGood();
    std::vector<bool> const truth = builder.map();
    builder.makeNode(0, 5, 0, 1).setNode32(0, 5, xfs_node::kMagic, 0x41425443).setRecord(0, 5, 0, {100, 100});
    expectError(builder.setHeader32(0, xfs_header::kRoot, 5), truth, kBadNode);
}

TEST(XfsHostileTree, OfTheOtherVersionLosesNothing) {
    // A longer header would make the sixth record the first: one that was left from before, of as many blocks.
    XfsBuilder builder = makeGood();
    std::vector<bool> const truth = builder.map();
    builder.setRecord(0, rootOf(builder), 5, {300, 100});
    builder.setNode32(0, rootOf(builder), xfs_node::kMagic, kXfsChecksumNode);
    expectNothingLost(ask(builder), truth, 512);
}

/// A field of the root of group 0, which is a leaf; its offset counts from there.
class XfsHostileLeaf : public testing::TestWithParam<HostileField> {};

TEST_P(XfsHostileLeaf, HasItsEnd) {
    XfsBuilder builder = makeGood(true);
    std::vector<bool> const truth = builder.map();
    std::uint64_t const place = builder.geometry().blockOffset(0, rootOf(builder)) + GetParam().offset;
    ASSERT_NE(builder.get(place, GetParam().width), GetParam().value) << "nothing is changed";
    builder.put(place, GetParam().value, GetParam().width);
    expectEnd(ask(builder), GetParam().end, GetParam().text, truth, 1024);
}

constexpr std::uint64_t kFirstRecord = 56;

INSTANTIATE_TEST_SUITE_P(
    Fields, XfsHostileLeaf,
    testing::Values(HostileField{"MagicOfPlainNodes", xfs_node::kMagic, kXfsPlainNode, 4, End::AllUsed,
                                 "is none of version 5"},
                    HostileField{"MagicOfTheTreeBySize", xfs_node::kMagic, 0x41423343, 4, End::Error, kBadNode},
                    HostileField{"LevelOf1", xfs_node::kLevel, 1, 2, End::Error, kBadNode},
                    HostileField{"LevelOfAllOnes", xfs_node::kLevel, 0xFFFF, 2, End::Error, kBadNode},
                    HostileField{"NoRecords", xfs_node::kRecords, 0, 2, End::Doubted, "has 3 free units in group 0"},
                    HostileField{"EmptyRecordsBehindTheOne", xfs_node::kRecords, 121, 2, End::Right},
                    HostileField{"OneRecordTooMany", xfs_node::kRecords, 122, 2, End::Error, "Invalid num_recs"},
                    HostileField{"LeftSiblingItself", xfs_node::kLeft, 2, 4, End::Right},
                    HostileField{"RightSiblingItself", xfs_node::kRight, 2, 4, End::Right},
                    HostileField{"BlockOfAnother", kNodeBlock, 0x1234567890ABCDEF, 8, End::Right},
                    HostileField{"UuidOfAnother", kNodeUuid, 0x1234567890ABCDEF, 8, End::Right},
                    HostileField{"OwnerOfAnother", kNodeOwner, 1, 4, End::Right},
                    HostileField{"Checksum", kNodeChecksum, 0xDEADBEEF, 4, End::Right},
                    HostileField{"RunOfNothing", kFirstRecord + 4, 0, 4, End::Doubted, "has 3 free units"},
                    HostileField{"RunOfOneMore", kFirstRecord + 4, 101, 4, End::Doubted, "has 104 free units"},
                    HostileField{"RunPastItsGroup", kFirstRecord, 450, 4, End::Doubted, "the map calls unit 500 free"},
                    HostileField{"RunInTheNextGroup", kFirstRecord, 550, 4, End::Doubted, "has 3 free units"},
                    HostileField{"RunBehindTheVolume", kFirstRecord, 5000, 4, End::Doubted, "has 3 free units"},
                    HostileField{"RunThatWraps", kFirstRecord, 0xFFFFFFF0, 4, End::Doubted, "calls unit 0 free"},
                    HostileField{"RunOfAllOnes", kFirstRecord + 4, 0xFFFFFFFF, 4, End::Doubted, "calls unit 0 free"}),
    [](auto const& instance) { return hostileName(instance); });

/// Runs of group 0 by a tree whose header counts the first of them.
void expectRuns(std::vector<XfsRun> const& runs, std::uint32_t counted, End end) {
    XfsBuilder builder = makeGood();
    builder.plantTree(0, runs);
    builder.setHeader32(0, xfs_header::kFreeBlocks, counted);
    expectEnd(ask(builder), end, "in group 0", builder.map(), 512);
}

TEST(XfsHostileRuns, ThatTouchOrAreNotInOrderAreTakenAsTheyAre) {
    expectRuns({{100, 10}, {110, 10}, {120, 5}}, 25, End::Right);
    expectRuns({{300, 10}, {100, 10}, {200, 5}}, 25, End::Right);
}

TEST(XfsHostileRuns, ThatOverlapAreNotCountedTwiceAndDoubted) {
    expectRuns({{100, 10}, {105, 10}}, 20, End::Doubted);
    expectRuns({{100, 10}, {100, 10}}, 20, End::Doubted);
    expectRuns({{100, 10}, {102, 3}}, 13, End::Doubted);
}

/// Four leaves 7 to 10 of two runs each, under inner nodes 5 and 6, under root 4.
XfsBuilder makeDeep() {
    XfsBuilder builder = makeGood();
    std::vector<XfsRun> runs;
    for (std::uint32_t i = 0; i < 8; ++i) {
        runs.push_back({100 + 30 * i, 4 + i});
    }
    builder.plantTree(0, runs, {2, 2, 4});
    return builder;
}

TEST(XfsHostileInnerNode, ThatSaysItIsALeafIsDoubtedWhereItsLeavesAreMissed) {
    std::vector<bool> const truth = makeDeep().map();
    expectRight(makeDeep(), truth);
    expectDoubt(makeDeep().setNode16(0, 4, xfs_node::kLevel, 0), truth, "in group 0");
    expectDoubt(makeDeep().setNode16(0, 5, xfs_node::kLevel, 0), truth, "in group 0");
    // All leaves are found from node 5 on; what node 6 names is among them.
    expectRight(makeDeep().setNode16(0, 6, xfs_node::kLevel, 0), truth);
}

TEST(XfsHostileInnerNode, WhoseFirstChildIsAnotherNodeIsDoubted) {
    std::vector<bool> const truth = makeDeep().map();
    expectDoubt(makeDeep().setChild(0, 5, 0, 8), truth, "in group 0");
    expectDoubt(makeDeep().setChild(0, 5, 0, 500 + rootOf(makeGood())), truth, "in group 0");
    expectError(makeDeep().setChild(0, 5, 0, 0), truth, kBadNode);
    expectError(makeDeep().setChild(0, 5, 0, 0xFFFFFFFF), truth, "null btree node");
    expectError(makeDeep().setChild(0, 5, 0, 5), truth, "cannot read btree node header");
}

TEST(XfsHostileInnerNode, WhoseOtherChildrenAreWrongDoesNotMatter) {
    std::vector<bool> const truth = makeDeep().map();
    for (std::uint32_t const child : {0U, 5U, 7U, 0xFFFFFFFFU}) {
        expectRight(makeDeep().setChild(0, 5, 1, child), truth);
        expectRight(makeDeep().setChild(0, 6, 0, child == 7 ? 7 : 9), truth); // shared by both
    }
}

TEST(XfsHostileSibling, ThatIsLeftOutIsDoubtedAndOneThatLeadsBackIsAnError) {
    std::vector<bool> const truth = makeDeep().map();
    expectDoubt(makeDeep().setNode32(0, 9, xfs_node::kRight, kXfsNoBlock), truth, "in group 0");
    expectError(makeDeep().setNode32(0, 8, xfs_node::kRight, 7), truth, "cannot read btree node header");
    expectError(makeDeep().setNode32(0, 8, xfs_node::kRight, 8), truth, "cannot read btree node header");
    expectRight(makeDeep().setNode32(0, 8, xfs_node::kLeft, 8), truth);
}

} // namespace
