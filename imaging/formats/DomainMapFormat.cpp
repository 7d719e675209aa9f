// A line a block of the mapfile.
#include "imaging/formats/DomainMapFormat.h"

#include <array>
#include <cstdio>

namespace imaging {

void DomainMapFormat::write(FormatInput const& input, TextSink const& sink) const {
    sink("# Mapfile. Created by fsparser\n"
         "# current_pos  current_status  current_pass\n"
         "0x00000000     +               1\n"
         "#      pos        size  status\n");
    walkWhole(input, [&sink](ByteRange const& range, bool isTaken) {
        std::array<char, 64> text{};
        std::snprintf(text.data(), text.size(), "0x%08llX  0x%08llX  %c\n",
                      static_cast<unsigned long long>(range.begin), static_cast<unsigned long long>(range.size()),
                      isTaken ? '+' : '?');
        sink(text.data());
    });
}

} // namespace imaging
