// What commands print: aligned columns with a header for people, one JSON
// object per line for programs.
#ifndef QZCAP_TOOL_OUTPUT_H
#define QZCAP_TOOL_OUTPUT_H

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace qzcap::tool {

using Json = nlohmann::ordered_json;

// Columns padded to their widest cell, two spaces apart; the last column is
// not padded.
class Table {
  public:
    explicit Table(std::vector<std::string> header) : rows_{std::move(header)} {}
    void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
    size_t size() const { return rows_.size() - 1; }
    // Prints the header and the rows to standard output (nothing without rows).
    void print() const { print_from(0); }
    // The rows without the header.
    void print_rows() const { print_from(1); }

  private:
    void print_from(size_t first) const;

    std::vector<std::vector<std::string>> rows_;
};

// One line of compact JSON on standard output (text that is not UTF-8 is
// replaced, never an error), flushed: a reader of a pipe sees it at once.
void print_json_line(const Json &j);

}  // namespace qzcap::tool

#endif  // QZCAP_TOOL_OUTPUT_H
