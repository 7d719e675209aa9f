// The volumes that the other tests of NTFS stand on: that they are what they say.
#include "support/NtfsBuilder.h"
#include "support/NtfsAccess.h"
#include "support/Readers.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace tests;
using agent::BlockRange;
using testing::ElementsAre;

/// A parser on a builder's volume.
struct Opened {
    explicit Opened(NtfsBuilder const& builder) : volume(builder.bytes), parser(logger, 512, volume) {}

    RecordingLogger logger;
    MemoryReader volume;
    NtfsAccess parser;
};

TEST(NtfsBuilder, ByteRangesOfNumbersAreLittleEndian) {
    NtfsBytes bytes(6);
    putNumber(bytes, 1, 0x01020304, 4);
    EXPECT_THAT(bytes, ElementsAre(0, 4, 3, 2, 1, 0));
    EXPECT_EQ(getNumber(bytes, 1, 4), 0x01020304U);
}

TEST(NtfsBuilder, MappingPairsTakeTheFewestBytes) {
    EXPECT_THAT(ntfsMappingPairs({{0x5634, 0x18}, {0x5614, 0x30}, {-1, 8}, {0x5615, 0x80}}),
                ElementsAre(0x21, 0x18, 0x34, 0x56, 0x11, 0x30, 0xE0, 0x01, 0x08, 0x12, 0x80, 0x00, 0x01, 0x00));
}

TEST(NtfsBuilder, ProtectionIsTakenAwayAgain) {
    NtfsBuilder const builder = NtfsBuilder::standard();
    NtfsBytes const plain = builder.plainRecord(5);
    NtfsBytes again = plain;
    ntfsProtect(again);
    EXPECT_NE(again, plain);
    EXPECT_EQ(again, builder.protectedRecord(5));
}

/// Cluster size, record size, levels of the root directory and of $SII.
struct Shape {
    std::uint32_t clusterBytes;
    std::uint32_t recordBytes;
    unsigned levels;
};

class NtfsBuilderShapes : public testing::TestWithParam<Shape> {};

TEST_P(NtfsBuilderShapes, StandardVolumesAnswerForTheirFiles) {
    NtfsGeometry geometry = NtfsGeometry::withClusters(GetParam().clusterBytes);
    geometry.recordBytes = GetParam().recordBytes;
    geometry.rootLevels = GetParam().levels;
    geometry.securityLevels = GetParam().levels;
    NtfsBuilder builder = NtfsBuilder::standard(geometry);
    Opened volume(builder);

    std::vector<BlockRange> const readme = volume.parser.extents("\\README.TXT");
    ASSERT_EQ(readme.size(), 2U);
    EXPECT_EQ(readme[0].count, 3);
    EXPECT_EQ(readme[1].count, 2);
    EXPECT_EQ(volume.parser.convert_to_inode("\\docs\\Letter.txt"), 26U);
    if (geometry.clusterBytes <= 32768) { // larger ones count as 0 where blocks of an index are found
        EXPECT_EQ(volume.parser.getStandardInfo("\\readme.txt").security_id.value(), 0x100U);
        auto const lists = volume.parser.readACLFromFile("\\readme.txt");
        ASSERT_EQ(lists.size(), 1U);
        EXPECT_EQ(lists[0].aces.size(), 2U);
    }
    std::vector<char> map((builder.geometry().clusters + 7) / 8);
    ASSERT_EQ(volume.parser.getChunk(0, map.data(), map.size()), static_cast<long>(builder.geometry().clusters));
    for (std::uint64_t i = 0; i < builder.geometry().clusters; ++i) {
        ASSERT_EQ((static_cast<unsigned>(map[i / 8]) >> (i % 8) & 1U) != 0, builder.isUsed(i)) << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Shapes, NtfsBuilderShapes,
                         testing::Values(Shape{512, 1024, 2}, Shape{1024, 1024, 2}, Shape{4096, 1024, 1},
                                         Shape{4096, 4096, 3}, Shape{4096, 1024, 3}, Shape{8192, 1024, 2},
                                         Shape{16384, 4096, 2}, Shape{65536, 1024, 1}),
                         [](auto const& shape) {
                             return "Clusters" + std::to_string(shape.param.clusterBytes) + "Records" +
                                    std::to_string(shape.param.recordBytes) + "Levels" +
                                    std::to_string(shape.param.levels);
                         });

} // namespace
