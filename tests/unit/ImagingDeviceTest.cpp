// What is taken for a volume, and what granularity its reads need.
#include "imaging/Device.h"

#include "imaging/Error.h"
#include "support/Files.h"

#include <gtest/gtest.h>

#include <bit>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using imaging::requireVolumePath;
using imaging::Trouble;
using namespace tests;

/// What is said of a path; nothing when it is accepted.
std::optional<std::pair<Trouble, std::string>> complaint(std::string const& path) {
    try {
        requireVolumePath(path);
        return std::nullopt;
    } catch (imaging::VolumeError const& error) {
        return std::pair(error.trouble(), std::string(error.what()));
    }
}

std::pair<Trouble, std::string> notUnderstood(std::string const& sentence) {
    return {Trouble::NotUnderstood, sentence};
}

TEST(ImagingDevice, AFileIsAVolumeAlsoThroughALink) {
    TempDirectory const directory;
    std::string const path = writeFile(directory.file("volume"), {1, 2, 3});
    std::filesystem::create_symlink(path, directory.file("link"));
    EXPECT_EQ(complaint(path), std::nullopt);
    EXPECT_EQ(complaint(directory.file("link")), std::nullopt);
}

TEST(ImagingDevice, AMissingPathIsNotFound) {
    TempDirectory const directory;
    std::string const missing = directory.file("nothing");
    EXPECT_EQ(complaint(missing), notUnderstood(missing + ": cannot be opened: No such file or directory"));
    EXPECT_EQ(complaint(""), notUnderstood(": cannot be opened: No such file or directory"));
    std::filesystem::create_symlink(missing, directory.file("dangling"));
    EXPECT_EQ(complaint(directory.file("dangling")),
              notUnderstood(directory.file("dangling") + ": cannot be opened: No such file or directory"));
}

TEST(ImagingDevice, APathThroughAFileIsNotFound) {
    TempDirectory const directory;
    std::string const path = writeFile(directory.file("file"), {1}) + "/volume";
    EXPECT_EQ(complaint(path), notUnderstood(path + ": cannot be opened: Not a directory"));
}

TEST(ImagingDevice, ALoopOfLinksCannotBeLookedAt) {
    TempDirectory const directory;
    std::filesystem::create_symlink("loop", directory.file("loop"));
    EXPECT_EQ(complaint(directory.file("loop")),
              std::pair(Trouble::Io, directory.file("loop") + ": cannot be opened: Too many levels of symbolic links"));
}

TEST(ImagingDevice, ADirectoryIsNoVolume) {
    TempDirectory const directory;
    std::string const path = directory.path().string();
    EXPECT_EQ(complaint(path), notUnderstood(path + ": is a directory, not an image file or a block device"));
}

TEST(ImagingDevice, WhateverElseIsNoVolumeAndIsNotOpened) {
    TempDirectory const directory;
    std::string const fifo = directory.file("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0); // opening it would block
    EXPECT_EQ(complaint(fifo), notUnderstood(fifo + ": is neither an image file nor a block device"));
    EXPECT_EQ(complaint("/dev/null"), notUnderstood("/dev/null: is neither an image file nor a block device"));
}

TEST(ImagingDevice, TheAlignmentOfAFileSuitsDirectIo) {
    TempDirectory const directory;
    std::string const path = writeFile(directory.file("volume"), std::vector<std::uint8_t>(8192));
    int const descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_NE(descriptor, -1);
    std::uint64_t const alignment = imaging::directIoAlignment(descriptor);
    ::close(descriptor);
    EXPECT_TRUE(std::has_single_bit(alignment)) << alignment;
    EXPECT_GE(alignment, 512U);
}

TEST(ImagingDevice, WithoutAnAnswerTheAlignmentIsSafeEverywhere) {
    EXPECT_EQ(imaging::directIoAlignment(-1), 4096U);
}

} // namespace
