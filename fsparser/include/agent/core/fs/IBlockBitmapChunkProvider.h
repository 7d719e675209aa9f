/// @file
/// The map of a volume's used units, chunk by chunk.
#pragma once

#include "agent/Export.h"

namespace agent::core::fs {

/// One bit for each allocation unit of a file system (a cluster or a block, as each parser says), numbered from 0 at
/// the start of the file system. A set bit means that the unit is in use.
///
/// A provider is made once for a volume and may be walked any number of times; it keeps no cursor:
/// @code
/// std::vector<char> buffer(8 << 20);
/// for (unsigned long offset = 0;;) {
///     long const units = provider.getChunk(offset, buffer.data(), buffer.size());
///     if (units <= 0) { break; } // 0: the end; negative: an error, already logged
///     use(buffer, units);        // bits 0 to units - 1 stand for units offset to offset + units - 1
///     offset += static_cast<unsigned long>(units);
/// }
/// @endcode
///
/// Calls on providers that share a volume reader must not overlap: the reader has one file position.
///
/// Not promised: that the sum of a walk is the number of units (an NTFS map may count the rest of its last cluster, an
/// HFS+ map may end early), nor that a volume which changes during the walk gives a map of any one moment. Who copies
/// by a map treats units that it does not cover as used.
class AGENT_EXPORT IBlockBitmapChunkProvider {
public:
    IBlockBitmapChunkProvider() = default;
    IBlockBitmapChunkProvider(IBlockBitmapChunkProvider const&) = default;
    IBlockBitmapChunkProvider& operator=(IBlockBitmapChunkProvider const&) = default;
    virtual ~IBlockBitmapChunkProvider();

    /// Describes the next stretch of the volume.
    /// @param offset  number of the first unit to describe (units, not bytes). What else an offset must fulfil, each
    ///     parser says.
    /// @param buffer  takes the bits; at least `length` bytes, owned by the caller. Bits past the returned count carry
    ///     no meaning.
    /// @param length  bytes; a chunk describes at most `length * 8` units
    /// @return the number of units described, from `offset` on; 0 when `offset` is at or past the end; negative on an
    ///     error, a code of the parser, after an `Error` entry: nothing in the buffer may be used then
    /// @throws std::exception  memory cannot be had, or what a parser says
    virtual long getChunk(unsigned long offset, char* buffer, unsigned long length) const = 0;

    /// The order of the bits inside each byte: false when unit j of a chunk is the bit `1 << (j % 8)` of byte j / 8
    /// (the default), true when it is `0x80 >> (j % 8)`.
    virtual bool isMostSignificantBitFirst() const;
};

} // namespace agent::core::fs
