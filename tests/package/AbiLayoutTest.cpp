// Where the objects of the exported classes hold what, and how wide: programs that were compiled before depend on it.
#include "agent/BlockRange.h"
#include "agent/LruCache.h"
#include "agent/PosixError.h"
#include "agent/core/backup/VolumeReader.h"
#include "agent/core/fs/EXTParser.h"
#include "agent/core/fs/FATParser.h"
#include "agent/core/fs/FileSystemType.h"
#include "agent/core/fs/HFSParser.h"
#include "agent/core/fs/NTFSParser.h"
#include "agent/core/fs/UnrecognizedParser.h"
#include "agent/core/fs/XFSParser.h"
#include "support/ExtBuilder.h"
#include "support/FatBuilder.h"
#include "support/Files.h"
#include "support/HfsReader.h"
#include "support/NtfsAccess.h"
#include "support/NtfsBuilder.h"
#include "support/NtfsIndex.h"
#include "support/Readers.h"
#include "support/RecordingLogger.h"
#include "support/XfsBuilder.h"

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using namespace tests;
using namespace agent::core::fs;

/// A number that stands in an object.
struct Field {
    char const* name;
    std::size_t offset;
    std::size_t width;
    std::uint64_t value;
};

std::uint64_t numberAt(void const* object, std::size_t offset, std::size_t width) {
    std::uint64_t number = 0;
    std::memcpy(&number, static_cast<unsigned char const*>(object) + offset, width);
    return number;
}

std::uint64_t addressOf(void const* object) {
    return std::bit_cast<std::uintptr_t>(object);
}

void expectFields(void const* object, std::vector<Field> const& fields) {
    for (Field const& field : fields) {
        EXPECT_EQ(numberAt(object, field.offset, field.width), field.value) << field.name << " at " << field.offset;
    }
}

constexpr unsigned kAlignment = 0x1000;

/// What every parser begins with, behind its virtual table.
void expectCommonFields(void const* parser, SilentLogger const& logger, agent::core::IVolumeReader const& reader) {
    expectFields(parser, {{"logger", 8, 8, addressOf(static_cast<agent::info::Logger const*>(&logger))},
                          {"reader", 16, 8, addressOf(&reader)},
                          {"alignment", 24, 8, kAlignment}});
}

TEST(Layout, ExtHoldsItsSuperblocksNumbers) {
    MemoryReader const reader = ExtBuilder()
                                    .setSuper16(ext_super::kDescriptorSize, 0x1122)
                                    .setSuper32(ext_super::kBlocksPerGroup, 0x22334455)
                                    .setSuper32(ext_super::kBlocksCountLow, 0x33445566)
                                    .setSuper32(ext_super::kLogBlockSize, 0x44556677)
                                    .setSuper32(ext_super::kFirstDataBlock, 0x55667788)
                                    .setSuper32(ext_super::kIncompatibleFeatures, 0x66778899)
                                    .reader();
    SilentLogger logger;
    EXTParser const parser(logger, kAlignment, reader);
    expectCommonFields(&parser, logger, reader);
    expectFields(&parser, {{"descriptor size", 32, 2, 0x1122},
                           {"blocks per group", 36, 4, 0x22334455},
                           {"blocks", 40, 4, 0x33445566},
                           {"log block size", 44, 4, 0x44556677},
                           {"first data block", 48, 4, 0x55667788},
                           {"incompatible features", 52, 4, 0x66778899},
                           {"magic", 56, 2, 0xEF53}});
    EXPECT_EQ(sizeof(EXTParser), 64U);
}

TEST(Layout, FatHoldsItsBootSectorsNumbers) {
    MemoryReader const reader = FatBuilder(FatGeometry::tiny())
                                    .setBoot(fat_boot::kNumberOfFats, 0x11, 1)
                                    .setBoot(fat_boot::kSectorsPerCluster, 0x22, 1)
                                    .setBoot(fat_boot::kTotalSectors16, 0x3344, 2)
                                    .setBoot(fat_boot::kTotalSectors32, 0x44556677, 4)
                                    .setBoot(fat_boot::kReservedSectors, 0x5566, 2)
                                    .setBoot(fat_boot::kBytesPerSector, 0x6677, 2)
                                    .setBoot(fat_boot::kSectorsPerFat32, 0x778899AA, 4)
                                    .reader();
    SilentLogger logger;
    FATParser const parser(logger, kAlignment, reader);
    expectCommonFields(&parser, logger, reader);
    expectFields(&parser, {{"tables", 32, 1, 0x11},
                           {"sectors per cluster", 33, 1, 0x22},
                           {"sectors, 16 bits", 34, 2, 0x3344},
                           {"sectors, 32 bits", 36, 4, 0x44556677},
                           {"reserved sectors", 40, 2, 0x5566},
                           {"bytes per sector", 42, 2, 0x6677},
                           {"sectors per table, the low half", 44, 2, 0x99AA},
                           {"type", 48, 4, 2}});
    EXPECT_EQ(sizeof(FATParser), 56U);
}

TEST(Layout, HfsHoldsItsVolumeHeaderAsItWasRead) {
    MemoryReader const volume(HfsBuilder().bytes);
    HfsFrontReader const reader(volume);
    SilentLogger logger;
    HFSParser const parser(logger, kAlignment, reader);
    expectCommonFields(&parser, logger, reader);
    EXPECT_EQ(sizeof(HFSParser), 32U + 512U);
    EXPECT_EQ(std::memcmp(reinterpret_cast<char const*>(&parser) + 32, volume.bytes.data() + kHfsHeaderOffset, 512), 0);
}

TEST(Layout, XfsHoldsItsSuperblocksNumbers) {
    MemoryReader const reader = XfsBuilder()
                                    .setSuper32(xfs_super::kBlockSize, 0x11223344)
                                    .setSuper32(xfs_super::kGroups, 0x22334455)
                                    .setSuper32(xfs_super::kGroupBlocks, 0x33445566)
                                    .setSuper(xfs_super::kTotalBlocks, 0x445566778899AABB, 8)
                                    .setSuper(xfs_super::kVersion, 0x5566, 2)
                                    .setSuper(xfs_super::kSectorSize, 0x6677, 2)
                                    .setSuper32(xfs_super::kLogBlocks, 0x778899AA)
                                    .setSuper(xfs_super::kLogStart, 0x8899AABBCCDDEEFF, 8)
                                    .setSuper(xfs_super::kGroupBlocksLog, 0x99, 1)
                                    .reader();
    SilentLogger logger;
    XFSParser const parser(logger, kAlignment, reader);
    expectCommonFields(&parser, logger, reader);
    expectFields(&parser, {{"magic", 32, 4, 0x58465342},
                           {"block size", 36, 4, 0x11223344},
                           {"groups", 40, 4, 0x22334455},
                           {"blocks of a group", 44, 4, 0x33445566},
                           {"blocks", 48, 8, 0x445566778899AABB},
                           {"version", 56, 2, 0x5566},
                           {"sector size", 58, 2, 0x6677},
                           {"blocks of the journal", 60, 4, 0x778899AA},
                           {"start of the journal", 64, 8, 0x8899AABBCCDDEEFF},
                           {"log of a group's blocks", 72, 1, 0x99}});
    EXPECT_EQ(sizeof(XFSParser), 80U);
}

/// Opens the nodes of the trees.
struct XfsNodes : XFSParser {
    using XFSParser::XFSBTreeNode;
    using XFSParser::XFSParser;
};

TEST(Layout, AnXfsNodeHoldsItsHeaderAndThenItsArrays) {
    using Node = XfsNodes::XFSBTreeNode;
    MemoryReader const reader =
        XfsBuilder().makeNode(0, 4, 0x1122, 2, 0x33445566, 0x44556677).setRecord(0, 4, 1, {200, 6}).reader();
    SilentLogger logger;
    XfsNodes const parser(logger, kAlignment, reader);
    Node const node(&parser, 0, 4);
    expectFields(&node, {{"magic", 8, 4, kXfsPlainNode},
                         {"records", 12, 2, 2},
                         {"level", 14, 2, 0x1122},
                         {"left sibling", 16, 4, 0x33445566},
                         {"right sibling", 20, 4, 0x44556677},
                         {"records or keys", 24, 8, addressOf(node.records.get())},
                         {"children", 32, 8, addressOf(node.children.get())}});
    EXPECT_NE(node.children, nullptr);
    EXPECT_EQ(sizeof(Node), 40U);
    expectFields(&node.records[1], {{"first block", 0, 4, 200}, {"blocks", 4, 4, 6}});
    EXPECT_EQ(sizeof(xfs_btree_record), 8U);
}

TEST(Layout, NtfsHoldsItsBootSectorsNumbersAndThenWhatItOwns) {
    NtfsBuilder const volume = NtfsBuilder::standard();
    MemoryReader const reader(volume.bytes);
    SilentLogger logger;
    NtfsAccess parser(logger, kAlignment, reader);
    expectCommonFields(&parser, logger, reader);
    expectFields(&parser, {{"clusters of a record", 32, 1, volume.boot(0x40, 1)},
                           {"sectors per cluster", 33, 1, volume.boot(0x0D, 1)},
                           {"bytes per sector", 34, 2, volume.boot(0x0B, 2)},
                           {"sectors", 40, 8, volume.boot(0x28, 8)},
                           {"first cluster of $MFT", 48, 8, volume.boot(0x30, 8)},
                           {"bytes of a record", 56, 4, volume.geometry().recordBytes}});
    EXPECT_EQ(sizeof(NTFSParser), 120U);
    expectFields(&parser, {{"bytes of $UpCase", 60, 4, 0}, {"$UpCase", 72, 8, 0}});
    parser.read_upcase();
    expectFields(&parser, {{"bytes of $UpCase", 60, 4, 131072}});
}

/// The object that the pointer at this offset leads to.
void const* objectAt(void const* object, std::size_t offset) {
    return std::bit_cast<void const*>(numberAt(object, offset, 8));
}

/// Bytes in memory, as text.
std::string textAt(void const* place, std::size_t length) {
    return place == nullptr ? "nowhere" : std::string(static_cast<char const*>(place), length);
}

TEST(Layout, NtfsHoldsRecordZeroUpcaseTableAndCacheInThisOrder) {
    MemoryReader const reader(NtfsBuilder::standard().bytes);
    SilentLogger logger;
    NtfsAccess parser(logger, kAlignment, reader);
    parser.read_upcase();
    void const* const record = objectAt(&parser, 64);
    void const* const upcase = objectAt(&parser, 72);
    void const* const cache = objectAt(&parser, 80);
    ASSERT_NE(record, nullptr);
    ASSERT_NE(upcase, nullptr);
    ASSERT_NE(cache, nullptr);
    EXPECT_EQ(textAt(objectAt(record, 0), 4), "FILE");
    auto const* const table = static_cast<std::uint16_t const*>(objectAt(upcase, 0));
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table[u'a'], u'A');
    EXPECT_EQ(table[u'A'], u'A');
    expectFields(cache, {{"capacity", 72, 8, 1000}});
}

TEST(Layout, NtfsHoldsTheSecurityStreamAsAVectorOfBytes) {
    NtfsBuilder const volume = NtfsBuilder::standard();
    NtfsBytes stream = ntfsSdsStream(volume.descriptors);
    stream.resize(volume.clustersFor(stream.size()) * volume.geometry().clusterBytes); // it is read in whole clusters
    MemoryReader const reader(volume.bytes);
    SilentLogger logger;
    NtfsAccess parser(logger, kAlignment, reader);
    std::vector<Field> const nothing{{"begin", 88, 8, 0}, {"end", 96, 8, 0}, {"end of the memory", 104, 8, 0}};
    expectFields(&parser, nothing);
    ASSERT_FALSE(parser.readACLFromFile("\\readme.txt").empty());
    std::uint64_t const begin = numberAt(&parser, 88, 8);
    ASSERT_EQ(numberAt(&parser, 96, 8) - begin, stream.size());
    EXPECT_GE(numberAt(&parser, 104, 8) - begin, stream.size());
    EXPECT_EQ(textAt(objectAt(&parser, 88), stream.size()), textAt(stream.data(), stream.size()));
    parser.clearSDS();
    expectFields(&parser, nothing);
}

TEST(Layout, TheVolumeReaderHoldsAPointerToAllElse) {
    TempDirectory const directory;
    std::string const path = writeFile(directory.file("a-name-that-a-short-string-cannot-hold"), {1, 2, 3});
    SilentLogger logger;
    agent::core::backup::VolumeReader reader(logger, path);
    EXPECT_EQ(sizeof reader, 16U);
    auto const* const state = std::bit_cast<unsigned char const*>(numberAt(&reader, 8, 8));
    ASSERT_NE(state, nullptr);
    expectFields(state, {{"logger", 0, 8, addressOf(static_cast<agent::info::Logger const*>(&logger))},
                         {"length of the path", 16, 8, path.size()},
                         {"descriptor", 40, 4, 0xFFFFFFFF},
                         {"size", 48, 8, 3},
                         {"position", 56, 8, 0},
                         {"last error", 64, 4, 0}});
    ASSERT_TRUE(reader.open());
    reader.seek(2, SEEK_SET);
    EXPECT_EQ(numberAt(state, 40, 4), static_cast<std::uint64_t>(reader.getHandle()));
    EXPECT_EQ(numberAt(state, 56, 8), 2U);
}

TEST(Layout, TheDetectorAndTheFallbackHoldOneFieldEach) {
    SilentLogger logger;
    FileSystemType const detector(logger);
    EXPECT_EQ(sizeof detector, 16U);
    expectFields(&detector, {{"logger", 8, 8, addressOf(static_cast<agent::info::Logger const*>(&logger))}});
    UnrecognizedParser const fallback(0x1122334455667788);
    EXPECT_EQ(sizeof fallback, 16U);
    expectFields(&fallback, {{"units", 8, 8, 0x1122334455667788}});
}

TEST(Layout, AnErrorHoldsItsCodeAndItsDescriberBehindTheText) {
    agent::PosixError const error("text", 0x1122);
    expectFields(&error, {{"code", 16, 4, 0x1122}});
    EXPECT_EQ(sizeof(agent::exception::library_error), sizeof(std::runtime_error));
    EXPECT_EQ(sizeof(agent::exception::generic_library_error<int>), 24 + sizeof(std::function<std::string(int)>));
    EXPECT_EQ(sizeof error, 56U);
    EXPECT_NE(numberAt(&error, 40, 8), 0U) << "the describer's manager";
}

TEST(Layout, PlainStructuresHoldTheirFieldsInOrder) {
    agent::BlockRange const range{0x1122334455667788, 0x2233445566778899};
    expectFields(&range, {{"first", 0, 8, 0x1122334455667788}, {"count", 8, 8, 0x2233445566778899}});
    EXPECT_EQ(sizeof range, 16U);
    ntfs_runlist const run{0x1122334455667788, 0x2233445566778899};
    expectFields(&run, {{"cluster", 0, 8, 0x1122334455667788}, {"clusters", 8, 8, 0x2233445566778899}});
    EXPECT_EQ(sizeof run, 16U);
    xfs_free_space_info const info{1, 2, 3, 4};
    expectFields(&info, {{"magic", 0, 4, 1}, {"first", 4, 4, 2}, {"last", 8, 4, 3}, {"root", 12, 4, 4}});
    EXPECT_EQ(sizeof info, 16U);
    NtfsAccess::BTreeKey const key{&range, 16};
    expectFields(&key, {{"value", 0, 8, addressOf(&range)}, {"type", 8, 4, 16}});
    EXPECT_EQ(sizeof key, 16U);
    NtfsAccess::Element const element{"path", 0x1122334455667788};
    expectFields(&element, {{"length of the path", 8, 8, 4}, {"record", 32, 8, 0x1122334455667788}});
    EXPECT_EQ(sizeof element, 40U);
    EXPECT_EQ(sizeof(ntfs_standard_information), 72U);
}

TEST(Layout, TheCacheHoldsItsListItsIndexAndItsCapacity) {
    agent::LruCache<int> cache(0x1122);
    cache.put(7);
    expectFields(
        &cache, {{"elements of the list", 16, 8, 1}, {"elements of the index", 64, 8, 1}, {"capacity", 72, 8, 0x1122}});
    EXPECT_EQ(sizeof cache, 80U);
}

TEST(Layout, AccessControlListsHoldTheirFieldsInOrder) {
    NTFS_ACE const entry{"S-1-1-0", 0x11223344, 0x55, 0x66};
    expectFields(&entry, {{"length of the identifier", 8, 8, 7},
                          {"mask", 32, 8, 0x11223344},
                          {"mode", 40, 1, 0x55},
                          {"flags", 48, 8, 0x66}});
    EXPECT_EQ(sizeof entry, 56U);
    NTFS_ACL const list{0x11, true, {entry}};
    expectFields(
        &list,
        {{"revision", 0, 1, 0x11}, {"inheritance", 1, 1, 1}, {"first entry", 8, 8, addressOf(list.aces.data())}});
    EXPECT_EQ(sizeof list, 32U);
}

} // namespace
