/// @file
/// Aligned reads: the one way in which parsers read a volume.
#pragma once

#include "agent/Export.h"
#include "agent/core/IVolumeReader.h"
#include "agent/info/Logger.h"

namespace agent::core::fs {

/// Reads any byte range of a volume through whole alignment units, as direct I/O wants it: one seek, then reads of at
/// most 4 MiB each into a zeroed, aligned buffer that lives for the one call, from which the wanted bytes are copied.
///
/// A short read does not fail the call, on purpose. `bytesRead` counts what the volume delivered from the aligned start
/// on, not from `offset`, and that many bytes are copied: those of them that lie past the delivered ones arrive as
/// zeros, and the rest of the buffer is left as it was.
///
/// One call at a time on a volume, from any thread: the seek and the reads share its one position. No read is retried,
/// and nothing is kept between calls.
///
/// @code
/// std::array<char, 1024> super{};
/// unsigned long copied = 0;
/// long const result = agent::core::fs::fs_seek_read_aligned(logger, volume, 4096, 1024, super.data(), 1024, &copied);
/// if (result == 0 && copied == super.size()) { use(super); }
/// @endcode
///
/// @param logger     takes the entries of failures: `Debug` "CHUNK READ FILE FAILED: OFFSET: O - S BYTES" of a failed
///     read, with the aligned offset and size
/// @param volume     sought and read; its position afterwards is not promised
/// @param alignment  bytes, a power of two. 0 is refused with -1.
/// @param offset     first byte wanted
/// @param buffer     takes the bytes, at least `length`; needs no alignment
/// @param length     bytes wanted. 0 succeeds and copies nothing; it may still read one unit.
/// @param bytesRead  set to 0 on entry, on success to the number of bytes copied
/// @return 0 on success (and nothing else is success), -1 when the seek or a read failed, or when offset and length
///     together wrap around 64 bits so that the wanted bytes were not read
/// @throws std::exception  whatever creating the buffer threw (std::bad_alloc, std::length_error
///     "vector::_M_default_append", std::invalid_argument "alignment is not a power of two"), after a `Debug` entry
///     "Failed to create aligned memory of size: S, alignment: A from line: 81 in file: FSUtil.cpp, error: E", where S
///     counts the bytes of whole units and E is its what()
AGENT_EXPORT long fs_seek_read_aligned(agent::info::Logger& logger, agent::core::IVolumeReader const& volume,
                                       unsigned long alignment, unsigned long offset, void* buffer,
                                       unsigned long length, unsigned long* bytesRead);

/// Reads `length` bytes at the volume's position, in pieces of at most 4 MiB. A piece that comes short does not end the
/// loop, on purpose: the next piece goes to its own place in the buffer. One call at a time on a volume, from any
/// thread.
///
/// @code
/// std::vector<char, agent::AlignedAllocator<char>> buffer(agent::AlignedAllocator<char>(4096));
/// buffer.resize(8 << 20);
/// long count = 0;
/// if (volume.seek(0, SEEK_SET) == 0 && agent::core::fs::fs_chunk_read(volume, buffer.data(), 8 << 20, &count) == 0) {
///     use(buffer, count);
/// }
/// @endcode
/// @param volume     read at its position, which moves
/// @param buffer     takes the bytes, at least `length`; aligned as the volume wants it
/// @param length     bytes wanted; 0 or a negative number reads nothing and succeeds
/// @param bytesRead  what was read is added to it; it is not reset
/// @return 0 on success, -1 when a read failed; what was counted until then stays counted
AGENT_EXPORT long fs_chunk_read(agent::core::IVolumeReader const& volume, void* buffer, long length, long* bytesRead);

} // namespace agent::core::fs
