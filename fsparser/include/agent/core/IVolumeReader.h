/// @file
/// A readable volume.
#pragma once

#include "agent/Export.h"

#include <string>

namespace agent::core {

/// Anything that can be sought and read like a volume: a device, an image file, memory, or a reader that wraps another.
///
/// The libraries use `seek` and `read` only, and only `read` and `seek` must be implemented. One file position is
/// shared by both, so a reader and the parsers built on it serve one thread at a time. The caller owns the reader; it
/// must outlive every parser built on it. Parsers never open or close it.
///
/// What read() or seek() throws leaves the parser's call, but for two: a std::runtime_error in the tree walk of
/// XFSParser::getChunk() becomes an `Error` entry of its text and the result -1; and once upcase table and $SDS stream
/// are loaded, a std::exception in NTFSParser::readACLFromFile() becomes the reason in that call's own
/// std::runtime_error.
///
/// @code
/// struct MemoryVolume : agent::core::IVolumeReader {
///     long read(void* buffer, long length) const override {
///         long const left = static_cast<long>(bytes.size()) - position;
///         if (left <= 0) { return 0; } // at the end, or past it
///         long const count = std::min(left, length);
///         std::memcpy(buffer, bytes.data() + position, static_cast<std::size_t>(count));
///         position += count;
///         return count;
///     }
///     long seek(long offset, int whence) const override {
///         return whence == SEEK_SET && offset >= 0 ? position = offset : -1;
///     }
///
///     std::vector<char> bytes;
///     mutable long position = 0;
/// };
/// @endcode
class AGENT_EXPORT IVolumeReader {
public:
    IVolumeReader() = default;
    IVolumeReader(IVolumeReader const&) = default;
    IVolumeReader& operator=(IVolumeReader const&) = default;
    virtual ~IVolumeReader();

    /// The path of the volume; empty for a reader that has none.
    virtual std::string getVolumePath() const;

    /// Reads from the current position and moves it by what was read.
    /// @param buffer  takes the bytes; at least `length` bytes
    /// @param length  bytes wanted
    /// @return bytes read, fewer than `length` where the volume ends; -1 on failure. The parsers take what a short read
    ///     did not deliver as zeros: a reader that must not lose data fails instead.
    virtual long read(void* buffer, long length) const = 0;

    /// Moves the position.
    /// @param offset  bytes, relative to `whence`. What a damaged volume names may be negative or past the end: answer
    ///     -1, or let a read there deliver 0 bytes.
    /// @param whence  SEEK_SET, SEEK_CUR or SEEK_END. The parsers use SEEK_SET only.
    /// @return the new position in bytes from the start; -1 on failure
    virtual long seek(long offset, int whence) const = 0;

    /// The file descriptor behind the reader; -1 when there is none or it is closed.
    virtual int getHandle() const;

    /// `errno` of the last call if that failed, otherwise 0.
    virtual int getLastError() const;

    /// Makes the volume readable.
    /// @return true when it is; a reader without this step is always open
    virtual bool open();

    /// Bytes of the volume; -1 when unknown.
    virtual long size();
};

} // namespace agent::core
