// A look at the extents-overflow tree before the parser's walk over it is believed.
#pragma once

#include "imaging/Volume.h"
#include "imaging/hfs/HfsHeader.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace imaging::hfs {

/// What of a tree the parser does not read rightly, as one clause: a root that is a leaf, which it refuses; and, since
/// it follows one slot more than an index node below the root has records, the first such slot that leads somewhere,
/// perhaps to extents that are no longer the allocation file's; and records of the allocation file that are not in the
/// file's order, which it does not look at. Nothing when the tree is sound, and nothing where it
/// cannot be read: then the parser has something to say about it.
std::optional<std::string> findOddTree(Header const& header, ReadBytes const& read);

} // namespace imaging::hfs
