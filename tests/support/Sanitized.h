// Whether these tests run under the address sanitizer, whose own memory no limit can hold.
#pragma once

namespace tests {

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kIsSanitized = true;
#elif defined(__has_feature)
inline constexpr bool kIsSanitized = __has_feature(address_sanitizer);
#else
inline constexpr bool kIsSanitized = false;
#endif

} // namespace tests
