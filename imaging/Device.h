// What the system says of a path before it is opened.
#pragma once

#include <cstdint>
#include <string>

namespace imaging {

/// Makes sure that a path is an image file or a block device: opening anything else could block or mean nothing.
/// @throws VolumeError  it is missing, a directory or of another kind, or cannot be looked at
void requireVolumePath(std::string const& path);

/// The granularity in bytes, a power of two, that direct I/O on an open file asks for: the logical sector of a block
/// device; for a file what its file system states, or 4096 when it states nothing, or 512 without direct I/O.
std::uint64_t directIoAlignment(int descriptor);

/// Whether an open file is read with direct I/O.
bool usesDirectIo(int descriptor);

} // namespace imaging
