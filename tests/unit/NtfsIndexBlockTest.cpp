// The checks of an index block: one changed field, one exact text.
#include "support/NtfsFileBench.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using namespace tests;
using agent::core::fs::ntfs_index_allocation;

constexpr std::uint64_t kMagic = 0x00;
constexpr std::uint64_t kVcn = 0x10;
constexpr std::uint64_t kEntriesOffset = 0x18;
constexpr std::uint64_t kIndexLength = 0x1C;
constexpr std::uint64_t kAllocatedSize = 0x20;

constexpr char const* kSound = "nothing was thrown";

class NtfsIndexBlockCheck : public testing::Test {
protected:
    /// The answer to the block, as one of 4 KiB at VCN 3.
    std::string check(std::uint64_t size = 4096, long vcn = 3, std::string const& key = "letter.txt") const {
        auto const* const place = reinterpret_cast<ntfs_index_allocation const*>(block.data());
        return failureOf([&] { bench.parser.check_index_block_consistency(place, size, vcn, key); });
    }

    /// Changes a field, and proves that the change took.
    void set(std::uint64_t offset, std::uint64_t value, std::size_t width) {
        NtfsBytes const before = block;
        putNumber(block, offset, value, width);
        ASSERT_NE(block, before) << "the field held the value already";
    }

    NtfsFileBench bench;
    NtfsBytes block = ntfsIndexBlock({}, 3, ntfsNodeEntries({}, {}), false);
};

TEST_F(NtfsIndexBlockCheck, AGoodBlockPasses) {
    EXPECT_EQ(check(), kSound);
}

TEST_F(NtfsIndexBlockCheck, EveryOtherMagicIsRefused) {
    for (std::uint64_t byte = 0; byte < 4; ++byte) {
        NtfsBytes const good = block;
        set(kMagic + byte, 'x', 1);
        EXPECT_EQ(check(), "Corrupt index block signature for key: letter.txt");
        block = good;
    }
    set(kMagic, 0x44414142, 4); // what a torn block is marked with
    EXPECT_EQ(check(), "Corrupt index block signature for key: letter.txt");
}

TEST_F(NtfsIndexBlockCheck, TheBlockMustSayWhereItStands) {
    EXPECT_EQ(check(4096, 4), "Corrupt index block. VCN doesn't match. Expected: 4, found: 3 for key: letter.txt");
    set(kVcn, 259, 8);
    EXPECT_EQ(check(), "Corrupt index block. VCN doesn't match. Expected: 3, found: 259 for key: letter.txt");
}

TEST_F(NtfsIndexBlockCheck, VcnsAreSigned) {
    set(kVcn, ~std::uint64_t{0}, 8);
    EXPECT_EQ(check(4096, 0, "k"), "Corrupt index block. VCN doesn't match. Expected: 0, found: -1 for key: k");
    EXPECT_EQ(check(4096, -1), kSound);
    EXPECT_EQ(check(4096, -2, "k"), "Corrupt index block. VCN doesn't match. Expected: -2, found: -1 for key: k");
}

TEST_F(NtfsIndexBlockCheck, TheAllocatedSizeMustFillTheBlock) {
    EXPECT_EQ(check(8192),
              "Corrupt index block. Block size doesn't match. Expected: 8192, found: 4096 for key: letter.txt");
    set(kAllocatedSize, 4096 - 23, 4);
    EXPECT_EQ(check(),
              "Corrupt index block. Block size doesn't match. Expected: 4096, found: 4097 for key: letter.txt");
}

TEST_F(NtfsIndexBlockCheck, TheSizeIsNotKeptTo32Bits) {
    set(kAllocatedSize, 0xFFFFFFFF, 4);
    EXPECT_EQ(check(23, 3, "k"),
              "Corrupt index block. Block size doesn't match. Expected: 23, found: 4294967319 for key: k");
    EXPECT_EQ(check(4294967319), kSound);
}

TEST_F(NtfsIndexBlockCheck, EntriesBeginBehindTheIndexHeader) {
    set(kEntriesOffset, 15, 4);
    EXPECT_EQ(check(), "Invalid index entry offset for key: letter.txt");
    set(kEntriesOffset, 0, 4);
    EXPECT_EQ(check(), "Invalid index entry offset for key: letter.txt");
    set(kEntriesOffset, 16, 4);
    EXPECT_EQ(check(), kSound);
}

TEST_F(NtfsIndexBlockCheck, EntriesNeedRoomBeforeTheirEnd) {
    set(kIndexLength, 64, 4);
    set(kEntriesOffset, 63, 4);
    EXPECT_EQ(check(), kSound);
    set(kEntriesOffset, 64, 4);
    EXPECT_EQ(check(), "No space available in index entry for key: letter.txt");
    set(kEntriesOffset, 0xFFFFFFFF, 4);
    EXPECT_EQ(check(), "No space available in index entry for key: letter.txt");
}

TEST_F(NtfsIndexBlockCheck, EntriesEndInsideTheAllocatedSize) {
    set(kIndexLength, 4096 - 24, 4);
    EXPECT_EQ(check(), kSound);
    set(kIndexLength, 4096 - 23, 4);
    EXPECT_EQ(check(), "Index entries overflow for key: letter.txt");
    set(kIndexLength, 0xFFFFFFFF, 4);
    EXPECT_EQ(check(), "Index entries overflow for key: letter.txt");
}

TEST_F(NtfsIndexBlockCheck, TheFirstFaultInTheOrderOfTheChecksIsNamed) {
    set(kIndexLength, 0xFFFFFFFF, 4);
    EXPECT_EQ(check(), "Index entries overflow for key: letter.txt");
    set(kEntriesOffset, 0xFFFFFFFF, 4);
    EXPECT_EQ(check(), "No space available in index entry for key: letter.txt");
    set(kEntriesOffset, 3, 4);
    EXPECT_EQ(check(), "Invalid index entry offset for key: letter.txt");
    set(kAllocatedSize, 5, 4);
    EXPECT_EQ(check(), "Corrupt index block. Block size doesn't match. Expected: 4096, found: 29 for key: letter.txt");
    set(kVcn, 2, 8);
    EXPECT_EQ(check(), "Corrupt index block. VCN doesn't match. Expected: 3, found: 2 for key: letter.txt");
    set(kMagic, 0, 4);
    EXPECT_EQ(check(), "Corrupt index block signature for key: letter.txt");
}

TEST_F(NtfsIndexBlockCheck, FlagsAndUpdateSequenceAreNotItsAffair) {
    set(0x24, 0xFF, 1);
    set(0x04, 0xFFFF, 2);
    set(0x06, 0xFFFF, 2);
    EXPECT_EQ(check(), kSound);
}

} // namespace
