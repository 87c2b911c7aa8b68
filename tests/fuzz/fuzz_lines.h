// Input of the line-shaped fuzz targets, so that their seeds stay readable:
// one item a line, "\n", "\r", "\\" and "\xHH" standing for bytes that a line
// cannot hold. Any bytes at all make some input; a lone or unknown escape
// stands for itself.
#ifndef QZCAP_FUZZ_LINES_H
#define QZCAP_FUZZ_LINES_H

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

inline std::string unescape(std::string_view s) {
    std::string out;
    // The byte that the two hex digits at s[at] spell, when they are two.
    auto hex_byte = [s](size_t at, uint8_t *byte) {
        const char *first = s.data() + at;
        const auto [end, ec] = std::from_chars(first, first + 2, *byte, 16);
        return ec == std::errc() && end == first + 2;
    };
    uint8_t byte = 0;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] != '\\' || i + 1 == s.size()) {
            out += s[i];
            continue;
        }
        const char e = s[i + 1];
        if (e == 'n' || e == 'r' || e == '\\') {
            out += e == 'n' ? '\n' : e == 'r' ? '\r' : '\\';
            ++i;
        } else if (e == 'x' && i + 3 < s.size() && hex_byte(i + 2, &byte)) {
            out += static_cast<char>(byte);
            i += 3;
        } else {
            out += s[i];
        }
    }
    return out;
}

inline std::vector<std::string_view> lines(std::string_view data) {
    std::vector<std::string_view> out;
    while (!data.empty()) {
        const size_t nl = data.find('\n');
        out.push_back(data.substr(0, nl));
        data.remove_prefix(nl == std::string_view::npos ? data.size() : nl + 1);
    }
    return out;
}

// "name=value" with the value unescaped; a line without '=' is a name alone.
struct Item {
    std::string_view name;
    std::string value;
};
inline Item item(std::string_view line) {
    const size_t eq = line.find('=');
    if (eq == std::string_view::npos)
        return Item{line, {}};
    return Item{line.substr(0, eq), unescape(line.substr(eq + 1))};
}

// A decimal number, or `fallback` when the text is not one.
inline long long number(const std::string &text, long long fallback) {
    char *end = nullptr;
    const long long v = strtoll(text.c_str(), &end, 10);
    return end == text.c_str() ? fallback : v;
}

}  // namespace fuzz

#endif  // QZCAP_FUZZ_LINES_H
