// Strict decimal integers: the whole text, an optional '-' and digits only,
// in the range of the target type. No blanks, no '+', no base prefixes, no
// silent saturation: what the caller accepts beyond that it strips itself.
#ifndef QZ_PLATFORM_COMMON_PARSE_INT_H
#define QZ_PLATFORM_COMMON_PARSE_INT_H

#include <charconv>
#include <concepts>
#include <string_view>
#include <system_error>

namespace qzplat {

// Returns true and sets *out when text is such a number; otherwise returns
// false and leaves *out untouched.
template <std::integral T>
bool parse_int(std::string_view text, T *out) noexcept {
    if (text.empty())
        return false;
    const char *end = text.data() + text.size();
    T v{};
    auto [p, ec] = std::from_chars(text.data(), end, v);
    if (ec != std::errc() || p != end)
        return false;
    *out = v;
    return true;
}

}  // namespace qzplat

#endif  // QZ_PLATFORM_COMMON_PARSE_INT_H
