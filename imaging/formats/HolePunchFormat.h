// Scripts that make a full copy sparse.
#pragma once

#include "imaging/formats/RangeFormat.h"

namespace imaging {

/// A POSIX shell script for a copy that holds everything: it punches a hole for each stretch that need not be taken
/// along. The copy's path is the script's argument; a file of another size is refused.
class HolePunchFormat : public RangeFormat {
public:
    void write(FormatInput const& input, TextSink const& sink) const override;
};

} // namespace imaging
