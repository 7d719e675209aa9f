// Numbers as fields of flags are written.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>

namespace imaging {

/// "0x1f" for 31.
inline std::string hexadecimal(std::uint64_t value) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "0x%llx", static_cast<unsigned long long>(value));
    return text.data();
}

} // namespace imaging
