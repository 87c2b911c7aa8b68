// What an operator's request line says.
#include "internal.h"

namespace kril {

RequestLine split_request(std::string_view line) {
    if (!line.empty() && line.back() == '\r')
        line.remove_suffix(1);
    auto blank = [](char c) { return c == ' ' || c == '\t'; };
    size_t p = 0;
    auto word = [&] {
        while (p < line.size() && blank(line[p]))
            ++p;
        size_t start = p;
        while (p < line.size() && !blank(line[p]))
            ++p;
        return std::string(line.substr(start, p - start));
    };
    RequestLine r;
    r.module = word();
    r.cmd = word();
    while (p < line.size() && blank(line[p]))
        ++p;
    size_t last = line.size();
    while (last > p && blank(line[last - 1]))
        --last;
    r.arg.assign(line.substr(p, last - p));
    return r;
}

}  // namespace kril
