// Domains of GNU ddrescue.
#pragma once

#include "imaging/formats/RangeFormat.h"

namespace imaging {

/// A mapfile that names the domain of a rescue (its manual, chapter "Mapfile structure"): what must be taken along is
/// finished ("+"), all else was never tried ("?"). It covers the volume to its last byte.
class DomainMapFormat : public RangeFormat {
public:
    void write(FormatInput const& input, TextSink const& sink) const override;
};

} // namespace imaging
