// Finding a format, and the walk that most of them share.
#include "imaging/formats/RangeFormat.h"

#include "imaging/formats/BlockMapFormat.h"
#include "imaging/formats/DomainMapFormat.h"
#include "imaging/formats/ExtentListFormat.h"
#include "imaging/formats/HolePunchFormat.h"

namespace imaging {

std::unique_ptr<RangeFormat> makeRangeFormat(std::string_view name) {
    if (name == "bmap") {
        return std::make_unique<BlockMapFormat>();
    }
    if (name == "ddrescue") {
        return std::make_unique<DomainMapFormat>();
    }
    if (name == "extentlist") {
        return std::make_unique<ExtentListFormat>();
    }
    if (name == "fallocate") {
        return std::make_unique<HolePunchFormat>();
    }
    return nullptr;
}

void walkWhole(FormatInput const& input, std::function<void(ByteRange const&, bool isTaken)> const& sink) {
    std::uint64_t done = 0;
    input.walk([&](ByteRange const& range) {
        if (done < range.begin) {
            sink({done, range.begin}, false);
        }
        sink(range, true);
        done = range.end;
    });
    if (done < input.size) {
        sink({done, input.size}, false);
    }
}

} // namespace imaging
