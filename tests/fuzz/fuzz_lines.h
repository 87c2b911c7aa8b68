// Input of the line-shaped fuzz targets, so that their seeds stay readable:
// one item a line, "\n", "\r", "\\" and "\xHH" standing for bytes that a line
// cannot hold. Any bytes at all make some input; a lone or unknown escape
// stands for itself.
#ifndef QZCAP_FUZZ_LINES_H
#define QZCAP_FUZZ_LINES_H

#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

inline std::string unescape(std::string_view s) {
    std::string out;
    auto hex = [](char c) {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        return -1;
    };
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] != '\\' || i + 1 == s.size()) {
            out += s[i];
            continue;
        }
        const char e = s[i + 1];
        if (e == 'n' || e == 'r' || e == '\\') {
            out += e == 'n' ? '\n' : e == 'r' ? '\r' : '\\';
            ++i;
        } else if (e == 'x' && i + 3 < s.size() && hex(s[i + 2]) >= 0 && hex(s[i + 3]) >= 0) {
            out += static_cast<char>(hex(s[i + 2]) * 16 + hex(s[i + 3]));
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
