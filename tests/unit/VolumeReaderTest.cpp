// The volume reader on files: what it reads, and exactly what each failure returns and logs.
#include "agent/core/backup/VolumeReader.h"
#include "agent/PosixError.h"
#include "agent/core/fs/FSUtil.h"
#include "support/RecordingLogger.h"
#include "support/TempDirectory.h"
#include "support/VolumeFiles.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using agent::PosixError;
using agent::core::backup::VolumeReader;
using tests::AlignedBytes;
using tests::errorEntry;
using tests::LogEntry;
using tests::warningEntry;

using Entries = std::vector<LogEntry>;

class VolumeReaderTest : public testing::Test {
protected:
    VolumeReaderTest() { tests::writePatternFile(path, kSize); }

    /// A reader of the file, opened.
    std::unique_ptr<VolumeReader> opened() {
        auto reader = std::make_unique<VolumeReader>(logger, path);
        EXPECT_TRUE(reader->open());
        EXPECT_TRUE(logger.entries.empty());
        return reader;
    }

    static constexpr long kSize = 9216; // two units of 4 KiB and 1 KiB
    tests::TempDirectory directory;
    std::string path = directory.file("volume");
    tests::RecordingLogger logger;
};

TEST_F(VolumeReaderTest, MeasuresAtConstructionAndIsClosedThen) {
    VolumeReader reader(logger, path);
    EXPECT_EQ(reader.size(), kSize);
    EXPECT_EQ(reader.getHandle(), -1);
    EXPECT_EQ(reader.getLastError(), 0);
    EXPECT_EQ(reader.getVolumePath(), path);
    EXPECT_TRUE(logger.entries.empty());
}

TEST_F(VolumeReaderTest, TheSizeIsThatOfConstruction) {
    auto const reader = opened();
    std::filesystem::resize_file(path, 100 * 4096);
    EXPECT_EQ(reader->size(), kSize);
}

TEST_F(VolumeReaderTest, AnEmptyFileHasNoBytes) {
    std::filesystem::resize_file(path, 0);
    VolumeReader reader(logger, path);
    EXPECT_EQ(reader.size(), 0);
    EXPECT_TRUE(logger.entries.empty());
}

TEST_F(VolumeReaderTest, MeasuresFilesBeyondThirtyTwoBits) {
    std::filesystem::resize_file(path, std::uintmax_t{5} << 32);
    VolumeReader reader(logger, path);
    EXPECT_EQ(reader.size(), 5L << 32);
    ASSERT_TRUE(reader.open());
    EXPECT_EQ(reader.seek((5L << 32) - 4096, SEEK_SET), (5L << 32) - 4096);
}

TEST_F(VolumeReaderTest, ThePathIsKeptAsItWasGiven) {
    std::string const odd = directory.path().string() + "//./volume";
    EXPECT_EQ(VolumeReader(logger, odd).getVolumePath(), odd);
}

TEST_F(VolumeReaderTest, OpensForDirectReadingWhereThePathAllowsIt) {
    if (!tests::allowsDirect(path)) {
        GTEST_SKIP() << "the temporary directory's file system refuses direct I/O";
    }
    auto const reader = opened();
    int const flags = ::fcntl(reader->getHandle(), F_GETFL);
    ASSERT_NE(flags, -1);
    EXPECT_NE(flags & O_DIRECT, 0);
    EXPECT_EQ(flags & O_ACCMODE, O_RDONLY);
}

TEST_F(VolumeReaderTest, ReadsFromWhereItSought) {
    auto const reader = opened();
    AlignedBytes buffer(4096);
    EXPECT_EQ(reader->seek(4096, SEEK_SET), 4096);
    EXPECT_EQ(reader->read(buffer.data(), 4096), 4096);
    EXPECT_TRUE(tests::holdsPattern(buffer, 4096, 4096));
    EXPECT_EQ(reader->seek(0, SEEK_SET), 0);
    EXPECT_EQ(reader->read(buffer.data(), 4096), 4096);
    EXPECT_TRUE(tests::holdsPattern(buffer, 0, 4096));
    EXPECT_EQ(reader->read(buffer.data(), 4096), 4096) << "the position moves on by what was read";
    EXPECT_TRUE(tests::holdsPattern(buffer, 4096, 4096));
    EXPECT_TRUE(logger.entries.empty());
    EXPECT_EQ(reader->getLastError(), 0);
}

TEST_F(VolumeReaderTest, AReadOfNothingIsNoShortRead) {
    auto const reader = opened();
    AlignedBytes buffer(4096);
    EXPECT_EQ(reader->read(buffer.data(), 0), 0);
    EXPECT_TRUE(logger.entries.empty());
}

TEST_F(VolumeReaderTest, AShortReadIsAWarningThatNamesTheLastSeek) {
    auto const reader = opened();
    AlignedBytes buffer(4096);
    EXPECT_EQ(reader->seek(8192, SEEK_SET), 8192);
    EXPECT_EQ(reader->read(buffer.data(), 4096), 1024);
    EXPECT_TRUE(tests::holdsPattern(buffer, 8192, 1024));
    EXPECT_EQ(logger.entries,
              Entries{warningEntry("Failed to read 4096 on device " + path + " at offset 8192, only read 1024")});
    EXPECT_EQ(reader->getLastError(), 0) << "a short read is no error";
}

TEST_F(VolumeReaderTest, TheWarningNamesTheSeekAlsoAfterMoreReads) {
    auto const reader = opened();
    AlignedBytes buffer(4096);
    EXPECT_EQ(reader->seek(4096, SEEK_SET), 4096);
    EXPECT_EQ(reader->read(buffer.data(), 4096), 4096);
    EXPECT_EQ(reader->read(buffer.data(), 4096), 1024);
    EXPECT_EQ(logger.entries,
              Entries{warningEntry("Failed to read 4096 on device " + path + " at offset 4096, only read 1024")});
}

TEST_F(VolumeReaderTest, AtTheEndAReadIsShortByAll) {
    auto const reader = opened();
    AlignedBytes buffer(4096);
    EXPECT_EQ(reader->seek(16384, SEEK_SET), 16384) << "a seek past the end is allowed";
    EXPECT_EQ(reader->read(buffer.data(), 512), 0);
    EXPECT_EQ(logger.entries,
              Entries{warningEntry("Failed to read 512 on device " + path + " at offset 16384, only read 0")});
}

TEST_F(VolumeReaderTest, ASeekFromTheEndKeepsItsArgumentAsThePosition) {
    auto const reader = opened();
    AlignedBytes buffer(4096);
    EXPECT_EQ(reader->seek(0, SEEK_END), kSize);
    EXPECT_EQ(reader->read(buffer.data(), 512), 0);
    EXPECT_EQ(reader->seek(-1024, SEEK_END), kSize - 1024);
    EXPECT_EQ(reader->read(buffer.data(), 4096), 1024);
    EXPECT_EQ(logger.entries,
              (Entries{warningEntry("Failed to read 512 on device " + path + " at offset 0, only read 0"),
                       warningEntry("Failed to read 4096 on device " + path + " at offset -1024, only read 1024")}));
}

TEST_F(VolumeReaderTest, ASeekFromTheCurrentPositionKeepsItsArgumentToo) {
    auto const reader = opened();
    AlignedBytes buffer(4096);
    EXPECT_EQ(reader->seek(4096, SEEK_SET), 4096);
    EXPECT_EQ(reader->seek(4096, SEEK_CUR), 8192);
    EXPECT_EQ(reader->read(buffer.data(), 4096), 1024);
    EXPECT_EQ(logger.entries,
              Entries{warningEntry("Failed to read 4096 on device " + path + " at offset 4096, only read 1024")});
}

TEST_F(VolumeReaderTest, AfterConstructionThePositionIsTheStart) {
    std::filesystem::resize_file(path, 512);
    auto const reader = opened();
    AlignedBytes buffer(4096);
    EXPECT_EQ(reader->read(buffer.data(), 4096), 512);
    EXPECT_EQ(logger.entries,
              Entries{warningEntry("Failed to read 4096 on device " + path + " at offset 0, only read 512")});
}

TEST_F(VolumeReaderTest, AFailedSeekIsLoggedAndKeepsTheOldPosition) {
    auto const reader = opened();
    AlignedBytes buffer(4096);
    EXPECT_EQ(reader->seek(8192, SEEK_SET), 8192);
    EXPECT_EQ(reader->seek(-512, SEEK_SET), -1);
    EXPECT_EQ(reader->getLastError(), EINVAL);
    EXPECT_EQ(reader->read(buffer.data(), 4096), 1024);
    EXPECT_EQ(logger.entries,
              (Entries{errorEntry("Failed to seek to block -512 on block device " + path + ", err: 22"),
                       warningEntry("Failed to read 4096 on device " + path + " at offset 8192, only read 1024")}));
}

TEST_F(VolumeReaderTest, AnUnknownWhenceFails) {
    auto const reader = opened();
    EXPECT_EQ(reader->seek(4096, 77), -1);
    EXPECT_EQ(reader->getLastError(), EINVAL);
    EXPECT_EQ(logger.entries,
              Entries{errorEntry("Failed to seek to block 4096 on block device " + path + ", err: 22")});
}

TEST_F(VolumeReaderTest, BeforeItIsOpenedItCannotReadNorSeek) {
    VolumeReader const reader(logger, path);
    AlignedBytes buffer(4096);
    EXPECT_EQ(reader.read(buffer.data(), 4096), -1);
    EXPECT_EQ(reader.getLastError(), EBADF);
    EXPECT_EQ(reader.seek(512, SEEK_SET), -1);
    EXPECT_EQ(reader.getLastError(), EBADF);
    EXPECT_EQ(logger.entries,
              (Entries{errorEntry("Failed to read length 4096 on block device " + path + ", err: 9"),
                       errorEntry("Failed to seek to block 512 on block device " + path + ", err: 9")}));
}

TEST_F(VolumeReaderTest, TheLastErrorIsThatOfTheLastCallOnly) {
    VolumeReader reader(logger, path);
    AlignedBytes buffer(4096);
    EXPECT_EQ(reader.read(buffer.data(), 4096), -1);
    EXPECT_EQ(reader.getLastError(), EBADF);
    EXPECT_TRUE(reader.open());
    EXPECT_EQ(reader.getLastError(), 0) << "reset by open";
    EXPECT_EQ(reader.seek(-1, SEEK_SET), -1);
    EXPECT_EQ(reader.getLastError(), EINVAL);
    EXPECT_EQ(reader.read(buffer.data(), 4096), 4096);
    EXPECT_EQ(reader.getLastError(), 0) << "reset by read";
    EXPECT_EQ(reader.seek(-1, SEEK_SET), -1);
    EXPECT_EQ(reader.seek(0, SEEK_SET), 0);
    EXPECT_EQ(reader.getLastError(), 0) << "reset by seek";
}

TEST_F(VolumeReaderTest, AReadIntoMemoryThatIsNotThereFails) {
    auto const reader = opened();
    EXPECT_EQ(reader->read(nullptr, 4096), -1);
    EXPECT_EQ(reader->getLastError(), EFAULT);
    EXPECT_EQ(logger.entries, Entries{errorEntry("Failed to read length 4096 on block device " + path + ", err: 14")});
}

TEST_F(VolumeReaderTest, ANegativeLengthFails) {
    auto const reader = opened();
    AlignedBytes buffer(4096);
    EXPECT_EQ(reader->read(buffer.data(), -1), -1);
    EXPECT_NE(reader->getLastError(), 0);
    ASSERT_EQ(logger.entries.size(), 1U);
    EXPECT_EQ(logger.entries[0].text.find("Failed to read length -1 on block device " + path + ", err: "), 0U);
}

TEST_F(VolumeReaderTest, TheDestructorClosesTheDescriptor) {
    auto reader = opened();
    int const handle = reader->getHandle();
    ASSERT_NE(::fcntl(handle, F_GETFD), -1);
    reader.reset();
    EXPECT_EQ(::fcntl(handle, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(VolumeReaderTest, OpeningTwiceLeavesTheFirstDescriptorOpen) {
    auto const reader = opened();
    int const first = reader->getHandle();
    EXPECT_TRUE(reader->open());
    EXPECT_NE(reader->getHandle(), first);
    EXPECT_EQ(::close(first), 0);
}

TEST_F(VolumeReaderTest, ServesTheAlignedReadOfAnyRange) {
    auto const reader = opened();
    std::vector<std::uint8_t> bytes(3000);
    unsigned long bytesRead = 0;
    EXPECT_EQ(agent::core::fs::fs_seek_read_aligned(logger, *reader, 4096, 1001, bytes.data(), 3000, &bytesRead), 0);
    EXPECT_EQ(bytesRead, 3000U);
    EXPECT_TRUE(tests::holdsPattern(bytes, 1001, 3000));
    EXPECT_TRUE(logger.entries.empty());
}

TEST_F(VolumeReaderTest, AnAlignedReadWhoseSeekFailsLeavesTheReadersEntry) {
    VolumeReader const reader(logger, path);
    char byte = 0;
    unsigned long bytesRead = 0;
    EXPECT_EQ(agent::core::fs::fs_seek_read_aligned(logger, reader, 512, 1024, &byte, 1, &bytesRead), -1);
    EXPECT_EQ(logger.entries, Entries{errorEntry("Failed to seek to block 1024 on block device " + path + ", err: 9")});
}

} // namespace
