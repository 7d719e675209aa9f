// What every proof of a copy needs: content, free space that holds random bytes, hashes, loop devices, mounts.
#pragma once

#include "support/Command.h"
#include "volumes/ExtOracles.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>

namespace tests {

/// A volume's units as an independent tool tells them.
struct SpaceAnswer {
    BlockMap used;
    std::uint64_t unitBytes = 0;
    std::uint64_t start = 0; ///< byte of the volume where unit 0 begins

    std::uint64_t offsetOf(std::uint64_t unit) const { return start + unit * unitBytes; }
};

/// Runs a tool that must succeed.
/// @return what it printed
/// @throws std::runtime_error  it failed, with what it said
std::string outputOfTool(std::vector<std::string> const& arguments, Environment const& more = {});

/// Makes an empty file of a size, or one full of random bytes.
void makeEmptyFile(std::filesystem::path const& path, std::uint64_t bytes);
void makeRandomFile(std::filesystem::path const& path, std::uint64_t bytes, unsigned seed);

/// Text that stands once in the content, at the start of a file that is never removed.
std::string copyMarker();

/// Writes files of random bytes of all sizes up to some hundred KiB into a new directory, one of them with the marker.
/// @param isFlat  no directories below it
void writeContent(std::filesystem::path const& directory, bool isFlat = false);

/// The files of writeContent() that are to be deleted again from the volume, as names below its root. They are removed
/// from the directory here, so that it holds what must be found in the volume afterwards.
std::vector<std::string> removeSome(std::filesystem::path const& directory);

/// SHA-256 of every regular file below a directory, by its path there.
/// @throws std::runtime_error  sha256sum failed, or there is no file
std::map<std::string, std::string> hashesOf(std::filesystem::path const& directory);

/// Overwrites all free units with random bytes.
/// @return how many there are
std::uint64_t overwriteFreeSpace(std::string const& volume, SpaceAnswer const& space, unsigned seed);

/// The first byte in free units that is not zero, if any.
std::optional<std::uint64_t> findNonZeroFreeByte(std::string const& volume, SpaceAnswer const& space);

/// The first byte outside free units, before the first unit and past the last one included, that a copy has not like
/// the volume.
std::optional<std::uint64_t> findOtherUsedByte(std::string const& volume, std::string const& copy,
                                               SpaceAnswer const& space);

/// The byte at which a text stands in a volume.
/// @throws std::runtime_error  it does not stand there exactly once
std::uint64_t findInVolume(std::string const& volume, std::string const& text);

std::uint8_t readByte(std::string const& path, std::uint64_t offset);

/// Inverts one bit of a byte. Doing it again undoes it.
void flipByte(std::string const& path, std::uint64_t offset);

/// Bytes that a file takes on its disk.
std::uint64_t allocatedBytes(std::string const& path);

/// A file as a block device, for as long as this lives.
class WritableLoop {
public:
    enum class Io { Buffered, Direct };

    explicit WritableLoop(std::string const& file, Io io = Io::Buffered, unsigned sectorBytes = 512);
    WritableLoop(WritableLoop const&) = delete;
    WritableLoop& operator=(WritableLoop const&) = delete;
    ~WritableLoop(); ///< detaches

    std::string const& path() const { return path_; }

    /// Why there is none of this kind, or empty.
    std::string const& problem() const { return problem_; }

private:
    std::string path_;
    std::string problem_;
};

/// A volume, file or device, that is mounted without being written to, for as long as this lives. Needs root.
class ReadOnlyMount {
public:
    /// @param directory  is made where there is none
    /// @param options    beside those of reading only
    /// @throws std::runtime_error  it cannot be mounted
    ReadOnlyMount(std::string const& volume, std::filesystem::path directory, std::string const& type,
                  std::string const& options = "");
    ReadOnlyMount(ReadOnlyMount const&) = delete;
    ReadOnlyMount& operator=(ReadOnlyMount const&) = delete;
    ~ReadOnlyMount(); ///< unmounts

    std::filesystem::path const& path() const { return directory_; }

private:
    std::filesystem::path directory_;
};

} // namespace tests
