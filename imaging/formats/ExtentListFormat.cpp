// A line an extent.
#include "imaging/formats/ExtentListFormat.h"

namespace imaging {

void ExtentListFormat::write(FormatInput const& input, TextSink const& sink) const {
    walkWhole(input, [&sink](ByteRange const& range, bool isTaken) {
        sink(std::to_string(range.begin) + " " + std::to_string(range.size()) + (isTaken ? "\n" : " hole,zero\n"));
    });
}

} // namespace imaging
