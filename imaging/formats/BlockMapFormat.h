// Block maps.
#pragma once

#include "imaging/formats/RangeFormat.h"

namespace imaging {

/// A block map of format version 2.0 (bmaptool): what must be taken along in blocks of 4096 bytes, with a SHA-256 for
/// each range of blocks, and one for the list itself. A block that is taken in part is listed whole.
class BlockMapFormat : public RangeFormat {
public:
    void write(FormatInput const& input, TextSink const& sink) const override;
};

} // namespace imaging
