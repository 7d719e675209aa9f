// How wide the fields of the exported classes are, also where padding follows: there a field that grows moves no other,
// and a number read from its first bytes stays the same.
#include "agent/BlockRange.h"
#include "agent/core/backup/VolumeReader.h"
#include "agent/core/fs/EXTParser.h"
#include "agent/core/fs/FATParser.h"
#include "agent/core/fs/HFSParser.h"
#include "agent/core/fs/NTFSParser.h"
#include "agent/core/fs/XFSParser.h"
#include "support/Files.h"
#include "support/NtfsAccess.h"
#include "support/RecordingLogger.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using namespace tests;
using namespace agent::core::fs;

template <typename Expected, typename Owner, typename Type>
constexpr bool isOfType(Type Owner::*) {
    return std::is_same_v<Type, Expected>;
}

/// Holds where it can be compiled. An explicit instantiation may name private members.
template <auto Member, typename Expected>
struct Holds {
    static_assert(isOfType<Expected>(Member));
};

template struct Holds<&EXTParser::alignment_, std::uint64_t>;
template struct Holds<&EXTParser::descriptorSize_, std::uint16_t>;
template struct Holds<&EXTParser::blocksPerGroup_, std::uint32_t>;
template struct Holds<&EXTParser::blocksCount_, std::uint32_t>;
template struct Holds<&EXTParser::logBlockSize_, std::uint32_t>;
template struct Holds<&EXTParser::firstDataBlock_, std::uint32_t>;
template struct Holds<&EXTParser::incompatibleFeatures_, std::uint32_t>;
template struct Holds<&EXTParser::magic_, std::uint16_t>;

template struct Holds<&FATParser::alignment_, std::uint64_t>;
template struct Holds<&FATParser::numberOfFats_, std::uint8_t>;
template struct Holds<&FATParser::sectorsPerCluster_, std::uint8_t>;
template struct Holds<&FATParser::totalSectors16_, std::uint16_t>;
template struct Holds<&FATParser::totalSectors32_, std::uint32_t>;
template struct Holds<&FATParser::reservedSectors_, std::uint16_t>;
template struct Holds<&FATParser::bytesPerSector_, std::uint16_t>;
template struct Holds<&FATParser::sectorsPerFat_, std::uint16_t>;
template struct Holds<&FATParser::type_, int>;

template struct Holds<&HFSParser::alignment_, std::uint64_t>;
template struct Holds<&HFSParser::header_, HFSPlusVolumeHeader>;

template struct Holds<&XFSParser::alignment_, std::uint64_t>;
template struct Holds<&XFSParser::magic_, std::uint32_t>;
template struct Holds<&XFSParser::blockSize_, std::uint32_t>;
template struct Holds<&XFSParser::agCount_, std::uint32_t>;
template struct Holds<&XFSParser::agBlocks_, std::uint32_t>;
template struct Holds<&XFSParser::totalBlocks_, std::uint64_t>;
template struct Holds<&XFSParser::version_, std::uint16_t>;
template struct Holds<&XFSParser::sectorSize_, std::uint16_t>;
template struct Holds<&XFSParser::logBlocks_, std::uint32_t>;
template struct Holds<&XFSParser::logStart_, std::uint64_t>;
template struct Holds<&XFSParser::agBlocksLog_, std::uint8_t>;

template struct Holds<&NTFSParser::blockSize, std::uint64_t>;
template struct Holds<&NTFSParser::clustersPerMftRecord, std::int8_t>;
template struct Holds<&NTFSParser::sectorsPerCluster, std::uint8_t>;
template struct Holds<&NTFSParser::bytesPerSector, std::uint16_t>;
template struct Holds<&NTFSParser::totalSectors, std::int64_t>;
template struct Holds<&NTFSParser::mftLcn, std::int64_t>;
template struct Holds<&NTFSParser::mftRecordSize, std::uint32_t>;
template struct Holds<&NTFSParser::upcaseLength, std::uint32_t>;
template struct Holds<&NTFSParser::cache, std::unique_ptr<agent::LruCache<NtfsAccess::Element>>>;

template struct Holds<&NtfsAccess::Element::path, std::string>;
template struct Holds<&NtfsAccess::Element::inode, std::uint64_t>;
template struct Holds<&NtfsAccess::BTreeKey::value, void const*>;
template struct Holds<&NtfsAccess::BTreeKey::type, std::uint32_t>;
template struct Holds<&ntfs_runlist::lcn, std::int64_t>;
template struct Holds<&ntfs_runlist::length, std::int64_t>;
template struct Holds<&agent::BlockRange::first, std::int64_t>;
template struct Holds<&agent::BlockRange::count, std::int64_t>;
template struct Holds<&xfs_free_space_info::magic, std::uint32_t>;
template struct Holds<&xfs_free_space_info::fl_first, std::uint32_t>;
template struct Holds<&xfs_free_space_info::fl_last, std::uint32_t>;
template struct Holds<&xfs_free_space_info::offset_bt_root, std::uint32_t>;

template struct Holds<&NTFS_ACE::sid, std::string>;
template struct Holds<&NTFS_ACE::accessMask, std::uint64_t>;
template struct Holds<&NTFS_ACE::accessMode, std::uint8_t>;
template struct Holds<&NTFS_ACE::flags, std::uint64_t>;
template struct Holds<&NTFS_ACL::revision, std::uint8_t>;
template struct Holds<&NTFS_ACL::inheritanceAllowed, bool>;
template struct Holds<&NTFS_ACL::aces, std::vector<NTFS_ACE>>;

/// What the volume reader points to; no header says what it is. A number that stands in it may be marked from behind:
/// were it wider than thought, the next change of it would wipe the mark out.
class ReaderState : public testing::Test {
protected:
    static constexpr std::uint32_t kMark = 0xA5C3965A;
    static constexpr std::size_t kDescriptor = 40;
    static constexpr std::size_t kSize = 48;
    static constexpr std::size_t kPosition = 56;
    static constexpr std::size_t kLastError = 64;

    void SetUp() override { std::memcpy(&state, reinterpret_cast<char const*>(&reader) + 8, sizeof state); }

    void markAt(std::size_t offset) { std::memcpy(state + offset, &kMark, sizeof kMark); }

    std::uint32_t wordAt(std::size_t offset) const {
        std::uint32_t word = 0;
        std::memcpy(&word, state + offset, sizeof word);
        return word;
    }

    TempDirectory directory;
    std::string path = writeFile(directory.file("volume"), {1, 2, 3});
    SilentLogger logger;
    agent::core::backup::VolumeReader reader{logger, path};
    char* state = nullptr;
};

TEST_F(ReaderState, ItsDescriptorIsFourBytesWide) {
    markAt(kDescriptor + 4);
    ASSERT_EQ(reader.getHandle(), -1);
    ASSERT_TRUE(reader.open());
    EXPECT_EQ(wordAt(kDescriptor), static_cast<std::uint32_t>(reader.getHandle()));
    EXPECT_EQ(wordAt(kDescriptor + 4), kMark);
    EXPECT_EQ(reader.size(), 3);
}

TEST_F(ReaderState, ItsSizeIsEightBytesWide) {
    markAt(kSize);
    markAt(kSize + 4);
    EXPECT_EQ(static_cast<std::uint64_t>(reader.size()), 0xA5C3965AA5C3965A);
}

TEST_F(ReaderState, ItsLastErrorIsFourBytesWide) {
    markAt(kLastError + 4);
    EXPECT_EQ(reader.seek(0, SEEK_SET), -1);
    EXPECT_EQ(reader.getLastError(), EBADF);
    EXPECT_EQ(wordAt(kLastError), static_cast<std::uint32_t>(EBADF));
    ASSERT_TRUE(reader.open());
    EXPECT_EQ(wordAt(kLastError), 0U);
    EXPECT_EQ(wordAt(kLastError + 4), kMark);
}

TEST_F(ReaderState, ItsPositionIsEightBytesWide) {
    ASSERT_TRUE(reader.open());
    constexpr long kFarBehindTheEnd = 0x1122334455;
    ASSERT_EQ(reader.seek(kFarBehindTheEnd, SEEK_SET), kFarBehindTheEnd);
    EXPECT_EQ(wordAt(kPosition), 0x22334455U);
    EXPECT_EQ(wordAt(kPosition + 4), 0x11U);
}

} // namespace
