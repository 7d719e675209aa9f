/// @file
/// The reader of block devices and image files.
#pragma once

#include "agent/core/IVolumeDevice.h"
#include "agent/info/Logger.h"

#include <memory>
#include <string>

namespace agent::core::backup {

/// Reads a block device, or any file, by path: read-only, with direct I/O where the path allows it.
///
/// With direct I/O, offsets, lengths and memory addresses must be multiples of what the device asks for; the aligned
/// read of FSUtil.h takes care of that. The reader buffers nothing, retries nothing and writes nothing.
///
/// Every failure is logged, as an `Error` entry that ends with the `errno`:
/// - "Failed to open block device PATH, err: N"
/// - "Failed to seek to block OFFSET on block device PATH, err: N"
/// - "Failed to read length LENGTH on block device PATH, err: N"
///
/// Logger and reader have the lifetimes that IVolumeReader states; the logger is not owned. One thread at a time.
///
/// @code
/// agent::core::backup::VolumeReader volume(logger, "/dev/sdb1"); // measures, then closes
/// if (volume.open()) { agent::core::fs::EXTParser const parser(logger, 4096, volume); }
/// @endcode
class AGENT_EXPORT VolumeReader : public IVolumeDevice {
public:
    /// Opens the path, measures it and closes it again; open() must follow before anything is read.
    /// @param logger  takes every message; not owned
    /// @param path    of a block device or a file
    /// @throws agent::PosixError  with the `errno`, after the `Error` entry
    ///     - "Unable to open block device to calculate size"
    ///     - "Unable to seek to end of block device to calculate size", after a second entry, "Failed to seek to end
    ///       of device PATH: errno = N"
    VolumeReader(agent::info::Logger& logger, std::string const& path);

    VolumeReader(VolumeReader const&) = delete;
    VolumeReader& operator=(VolumeReader const&) = delete;

    /// Closes the descriptor if it is open.
    ~VolumeReader() override;

    /// The path given to the constructor.
    std::string getVolumePath() const override;

    /// One `read` system call at the current position. Before open() it fails with EBADF.
    /// @param buffer  takes the bytes
    /// @param length  bytes wanted
    /// @return bytes read; -1 after an `Error` entry. Fewer than `length` is a short read, after a `Warning`: "Failed
    ///     to read LENGTH on device PATH at offset OFFSET, only read N", where OFFSET is the argument of the last
    ///     successful seek.
    long read(void* buffer, long length) const override;

    /// One `lseek` system call.
    /// @param offset  bytes
    /// @param whence  SEEK_SET, SEEK_CUR or SEEK_END
    /// @return the new position; -1 after an `Error` entry
    long seek(long offset, int whence) const override;

    /// The descriptor; -1 when closed.
    int getHandle() const override;

    /// `errno` of the last open, read or seek if it failed, otherwise 0.
    int getLastError() const override;

    /// Opens the path for reading: with O_DIRECT first, without it where the path refuses that with EINVAL. Does not
    /// close a descriptor that is open already, so it is called once.
    /// @return true when it is open; false after an `Error` entry, and open() may be tried again then
    bool open() override;

    /// Bytes of the device, as measured at construction.
    long size() override;

private:
    class AGENT_LOCAL Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace agent::core::backup
