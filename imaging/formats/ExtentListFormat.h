// Extent lists of nbdkit.
#pragma once

#include "imaging/formats/RangeFormat.h"

namespace imaging {

/// The extents of a disk for the filter "extentlist": what must be taken along is data, all else is a hole that reads
/// as zeros. The list covers the volume to its last byte, so that it is never empty.
class ExtentListFormat : public RangeFormat {
public:
    void write(FormatInput const& input, TextSink const& sink) const override;
};

} // namespace imaging
