// Whole copies of volumes that change meanwhile or that someone ends, and the files and streams that they work with.
#include "imaging/Error.h"
#include "imaging/copy/CopyVolume.h"
#include "support/Files.h"
#include "support/RecordingLogger.h"
#include "support/VolumeFiles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <optional>
#include <unistd.h>

namespace {

using namespace tests;
using imaging::ByteRange;
using testing::ElementsAre;

constexpr std::uint64_t kMiB = std::uint64_t{1} << 20;

/// A volume of 1000 blocks of 4 KiB of which the first hundred are used.
class ImagingCopyVolume : public testing::Test {
protected:
    void SetUp() override {
        ExtBuilder builder = makeSoundExtVolume(ExtGeometry::with4KiBBlocks(1000));
        writeExtVolume(path, builder.setUsedFrom(0, 100).setSuper16(0x3A, 1));
        bitmap = builder.bitmapOffset(0);
    }

    /// The sentence of the copy's error; empty where it ends well.
    std::string copy(imaging::CopyWatch const& watch, imaging::Destination* other = nullptr) {
        RecordingLogger logger;
        imaging::Volume volume(path, 0, logger);
        imaging::CopyPlan plan(volume, imaging::VolumeMap::Refused::IsError, 0);
        imaging::FileSource const source(path, volume.size());
        using Existing = imaging::OutputFile::Existing;
        imaging::FileDestination file(directory.file("copy"), path, volume.size(), Existing::IsRefused);
        imaging::Destination& destination = other == nullptr ? file : *other;
        try {
            report = imaging::copyVolume(plan, source, destination, path, volume.size(), false, watch);
            return {};
        } catch (imaging::VolumeError const& error) {
            return error.what();
        }
    }

    void changeByte(std::uint64_t offset, int byte) const {
        std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(static_cast<std::streamoff>(offset));
        file.put(static_cast<char>(byte));
    }

    TempDirectory directory;
    std::string path = directory.file("volume");
    std::uint64_t bitmap = 0;
    imaging::CopyReport report;
};

TEST_F(ImagingCopyVolume, TotalsAreKnownBeforeAnythingIsCopied) {
    unsigned begun = 0;
    imaging::CopyWatch watch;
    watch.begin = [&](imaging::CopyTotals const& totals) {
        EXPECT_EQ(totals, (imaging::CopyTotals{100 * 4096, 0, 900 * 4096}));
        ++begun;
    };
    watch.progress = [&](imaging::CopyProgress const&) { EXPECT_EQ(begun, 1U); };
    EXPECT_EQ(copy(watch), "");
    EXPECT_EQ(begun, 1U);
    EXPECT_EQ(report.result.copied + report.result.zero, 100U * 4096);
}

TEST_F(ImagingCopyVolume, AMapThatChangesMeanwhileIsAnErrorAndLeavesNoFile) {
    imaging::CopyWatch watch;
    watch.begin = [&](imaging::CopyTotals const&) { changeByte(bitmap + 100, 0xFF); };
    EXPECT_EQ(copy(watch), path + ": changed while it was copied: 442368 bytes are in use, and 409600 were before; the "
                                  "copy is not kept");
    EXPECT_THAT(namesIn(directory), ElementsAre("volume"));
}

TEST_F(ImagingCopyVolume, AVolumeThatBecomesShorterMeanwhileIsAnErrorAndLeavesNoFile) {
    changeByte(50 * 4096, 1); // what is a hole is not read
    imaging::CopyWatch watch;
    watch.begin = [&](imaging::CopyTotals const&) { ASSERT_EQ(::truncate(path.c_str(), 30 * 4096 + 7), 0); };
    EXPECT_EQ(copy(watch), path + ": ends at byte 122887, where it was longer when the reading began");
    EXPECT_THAT(namesIn(directory), ElementsAre("volume"));
}

struct Enough {};

TEST_F(ImagingCopyVolume, WhoeverWatchesEndsItAtAnyTimeWithoutAFile) {
    std::vector<imaging::CopyWatch> watches(3);
    watches[0].begin = [](imaging::CopyTotals const&) { throw Enough(); };
    watches[1].progress = [](imaging::CopyProgress const&) { throw Enough(); };
    watches[2].chunk = [](std::uint64_t) { throw Enough(); };
    for (imaging::CopyWatch const& watch : watches) {
        EXPECT_THROW(copy(watch), Enough);
        EXPECT_THAT(namesIn(directory), ElementsAre("volume"));
    }
}

/// Takes everything and cannot be finished.
class Unfinishable : public imaging::Destination {
public:
    void write(std::uint64_t, std::span<std::uint8_t const>) override { EXPECT_FALSE(isFinished); }
    void zero(std::uint64_t, std::uint64_t) override { EXPECT_FALSE(isFinished); }
    void finish() override {
        isFinished = true;
        throw imaging::VolumeError(imaging::Trouble::Io, "copy: cannot be synced");
    }

    bool isFinished = false;
};

TEST_F(ImagingCopyVolume, ADestinationThatCannotBeFinishedIsAnError) {
    Unfinishable destination;
    EXPECT_EQ(copy({}, &destination), "copy: cannot be synced");
    EXPECT_TRUE(destination.isFinished);
}

/// A file of one MiB of data, two of a hole, one of data and one of a hole.
class ImagingCopySource : public testing::Test {
protected:
    void SetUp() override {
        writePatternFile(path, kMiB);
        std::filesystem::resize_file(path, 3 * kMiB);
        std::ofstream(path, std::ios::binary | std::ios::app) << std::string(kMiB, 'x');
        std::filesystem::resize_file(path, 5 * kMiB);
        imaging::FileSource const source(path, 5 * kMiB);
        if (!source.stretchAt(kMiB).isHole) {
            GTEST_SKIP() << "the file system here tells of no holes";
        }
    }

    TempDirectory directory;
    std::string path = directory.file("volume");
};

void expectStretch(imaging::Source const& source, std::uint64_t offset, std::uint64_t end, bool isHole) {
    imaging::Source::Stretch const stretch = source.stretchAt(offset);
    EXPECT_EQ(stretch.end, end) << "at " << offset;
    EXPECT_EQ(stretch.isHole, isHole) << "at " << offset;
}

TEST_F(ImagingCopySource, StretchesAreThoseOfTheFile) {
    imaging::FileSource const source(path, 5 * kMiB);
    expectStretch(source, 0, kMiB, false);
    expectStretch(source, kMiB - 1, kMiB, false);
    expectStretch(source, kMiB, 3 * kMiB, true);
    expectStretch(source, 2 * kMiB + 1, 3 * kMiB, true);
    expectStretch(source, 3 * kMiB, 4 * kMiB, false);
    expectStretch(source, 4 * kMiB, 5 * kMiB, true);
}

TEST_F(ImagingCopySource, WhatAFileLostIsNoHole) {
    imaging::FileSource const source(path, 5 * kMiB);
    std::filesystem::resize_file(path, 4 * kMiB + 10);
    expectStretch(source, 4 * kMiB + 20, 5 * kMiB, false);
    std::vector<std::uint8_t> buffer(4096, 0xEE);
    EXPECT_EQ(source.read(4 * kMiB, buffer), 10U);
    EXPECT_EQ(source.read(5 * kMiB - 4096, buffer), 0U);
}

TEST_F(ImagingCopySource, ReadsWhatIsAskedFor) {
    imaging::FileSource const source(path, 5 * kMiB);
    std::vector<std::uint8_t> buffer(2 * 4096);
    EXPECT_EQ(source.read(kMiB - 4096, buffer), buffer.size());
    EXPECT_TRUE(holdsPattern(buffer, kMiB - 4096, 4096));
    EXPECT_EQ(std::count(buffer.begin() + 4096, buffer.end(), 0), 4096);
}

TEST(ImagingCopySourceMissing, IsAnError) {
    TempDirectory const directory;
    try {
        imaging::FileSource const source(directory.file("missing"), 4096);
        FAIL() << "opened";
    } catch (imaging::VolumeError const& error) {
        EXPECT_EQ(error.what(), directory.file("missing") + ": cannot be opened: No such file or directory");
    }
}

TEST(ImagingCopyStream, PutsZerosWhereNothingIsWritten) {
    TempDirectory const directory;
    std::string const path = directory.file("stream");
    imaging::Descriptor const file(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    imaging::StreamDestination stream(file.get(), "stream", 2 * kMiB);
    std::vector<std::uint8_t> const piece(10, 0x55);
    stream.write(5, piece);
    stream.zero(100, 50);
    stream.write(kMiB, piece);
    stream.finish();
    std::vector<std::uint8_t> expected(2 * kMiB);
    std::copy(piece.begin(), piece.end(), expected.begin() + 5);
    std::copy(piece.begin(), piece.end(), expected.begin() + kMiB);
    EXPECT_TRUE(readFile(path) == expected);
}

} // namespace
