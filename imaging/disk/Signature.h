// What a volume holds that this system does not read.
#pragma once

#include <cstdint>
#include <string>

namespace imaging {

/// The name of a file system, container or encryption, as the system's own library gives it ("BitLocker",
/// "exfat", "apfs", "ReFS", "btrfs", "swap", ...), with words for some ("LUKS", "LVM physical volume"); empty where
/// nothing, or more than one thing, is found.
/// @param path   of the disk or volume, which is opened read-only
/// @param start  byte where the volume begins
/// @param size   bytes
std::string identifySignature(std::string const& path, std::uint64_t start, std::uint64_t size);

} // namespace imaging
