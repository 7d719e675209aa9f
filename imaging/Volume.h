// A volume opened by path, ready to be asked.
#pragma once

#include "agent/core/backup/VolumeReader.h"
#include "agent/core/fs/IFileSystemType.h"
#include "imaging/AligningReader.h"
#include "imaging/BudgetReader.h"
#include "imaging/CachingReader.h"
#include "imaging/Error.h"
#include "imaging/ReadAheadReader.h"
#include "imaging/ReasonLogger.h"
#include "imaging/SliceReader.h"
#include "imaging/StrictReader.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace imaging {

/// Where on a disk a volume lies.
struct Place {
    std::uint64_t start = 0;                          ///< byte of the disk
    std::optional<std::uint64_t> size = std::nullopt; ///< bytes; without it, all that follows
    std::string name = {};                            ///< what messages call it, beside the disk's path; may be empty
};

/// An image file or a block device, or a part of one, opened read-only with direct I/O where its path allows that, and
/// what was found at its start. One thread at a time.
class Volume {
public:
    /// @param path       an image file or a block device
    /// @param alignment  bytes, a power of two; 0 for what the device asks for
    /// @param logger     takes the library's entries; not owned, must outlive the volume
    /// @param place      the part of it that is the volume; what of it lies past the disk's end is not there
    /// @param budget     what may be spent on reading it, from now on
    /// @throws VolumeError  the path is missing, of another kind, cannot be opened or read, or holds less than a sector
    Volume(std::string const& path, std::uint64_t alignment, agent::info::Logger& logger, Place place = {},
           Budget const& budget = {});
    Volume(Volume const&) = delete;
    Volume& operator=(Volume const&) = delete;

    /// What messages call the volume: the path, and the place's name.
    std::string const& path() const { return path_; }

    /// The path that it was opened by.
    std::string const& filePath() const { return filePath_; }

    /// Byte of the disk where the volume begins.
    std::uint64_t start() const { return place_.start; }

    /// Bytes of the volume.
    std::uint64_t size() const { return size_; }

    /// Bytes, the granularity in which the library is asked to read.
    std::uint64_t alignment() const { return alignment_; }

    /// What the library's detector found.
    agent::core::fs::FileSystemCode fileSystem() const { return code_; }

    /// What the detector found wrong with a file system that it nearly recognised; may be empty.
    std::string const& refusal() const { return refusal_; }

    /// The reader that parsers are given: it takes reads of any granularity, and bytes that are not there are an error.
    StrictReader& reader() { return *strict_; }

    /// Keeps up to 64 MiB of what is read, in place of 8: for many questions about files, whose answers lie anywhere.
    void keepMoreReads();

    /// Drops what was kept of earlier reads, so that a change of the volume is seen.
    void forgetReads();

    /// The logger that parsers are given.
    ReasonLogger& logger() { return logger_; }

    /// What it means that reading failed: Unending once the budget is spent.
    Trouble readTrouble() const { return budget_->spent().empty() ? Trouble::Io : Trouble::Unending; }

    /// Reads bytes of the volume.
    /// @throws VolumeError  they cannot be read
    std::vector<std::uint8_t> readBytes(std::uint64_t offset, std::uint64_t length);

private:
    void open();
    void detect();

    std::string filePath_;
    Place place_;
    std::string path_;
    ReasonLogger logger_;
    std::uint64_t alignment_;
    std::uint64_t size_ = 0;
    std::optional<agent::core::backup::VolumeReader> device_;
    std::optional<AligningReader> aligning_;
    std::optional<ReadAheadReader> ahead_; // where reads pass by the system's page cache
    std::optional<CachingReader> cache_;
    std::optional<SliceReader> slice_; // when the place is not the whole disk
    Budget limits_;
    std::optional<BudgetReader> budget_;
    std::optional<StrictReader> strict_;
    std::string refusal_;
    agent::core::fs::FileSystemCode code_ = agent::core::fs::kUnrecognized;
};

} // namespace imaging
