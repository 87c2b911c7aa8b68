#include "output.h"

#include <algorithm>
#include <cstdio>

namespace qzcap::tool {

void Table::print_from(size_t first) const {
    if (size() == 0)
        return;
    std::vector<size_t> width;
    for (size_t r = first; r < rows_.size(); ++r) {
        const auto &row = rows_[r];
        width.resize(std::max(width.size(), row.size()), 0);
        for (size_t i = 0; i < row.size(); ++i)
            width[i] = std::max(width[i], row[i].size());
    }
    std::string line;
    for (size_t r = first; r < rows_.size(); ++r) {
        const auto &row = rows_[r];
        line.clear();
        for (size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            if (i + 1 < row.size())
                line.append(width[i] - row[i].size() + 2, ' ');
        }
        line.push_back('\n');
        fputs(line.c_str(), stdout);
    }
}

void print_json_line(const Json &j) {
    const std::string text = j.dump(-1, ' ', false, Json::error_handler_t::replace);
    fputs(text.c_str(), stdout);
    fputc('\n', stdout);
    fflush(stdout);
}

}  // namespace qzcap::tool
