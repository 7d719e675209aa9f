// Writing a mapfile.
#include "imaging/copy/RescueMap.h"

#include <array>
#include <cstdio>

namespace imaging {

namespace {

std::string line(ByteRange const& range, char status) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "0x%08llX  0x%08llX  %c\n", static_cast<unsigned long long>(range.begin),
                  static_cast<unsigned long long>(range.size()), status);
    return text.data();
}

} // namespace

std::string rescueMap(std::vector<ByteRange> const& unreadable, std::uint64_t size) {
    std::string map = "# Mapfile. Created by fsparser\n"
                      "# current_pos  current_status  current_pass\n"
                      "0x00000000     +               1\n"
                      "#      pos        size  status\n";
    std::uint64_t done = 0;
    for (ByteRange const& range : unreadable) {
        if (done < range.begin) {
            map += line({done, range.begin}, '+');
        }
        map += line(range, '-');
        done = range.end;
    }
    if (done < size) {
        map += line({done, size}, '+');
    }
    return map;
}

} // namespace imaging
