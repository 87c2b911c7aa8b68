// Capability values as the tool shows and takes them: a type (bool, int32
// or str, the words `set` takes) and a value, and the checks of what a user
// types: URLs, node ids, integers and booleans.
#ifndef QZCAP_TOOL_CAPABILITY_H
#define QZCAP_TOOL_CAPABILITY_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace qzcap::tool {

// The database the bus keeps the capability records in.
inline constexpr int32_t kCapDb = 3;

enum class CapType { kBool, kInt32, kStr };

// The record field that holds a value of each type, in both capability tables.
constexpr int32_t kBoolField = 6;
constexpr int32_t kInt32Field = 7;
constexpr int32_t kStrField = 8;
constexpr int32_t field_of(CapType t) {
    return t == CapType::kBool ? kBoolField : t == CapType::kInt32 ? kInt32Field : kStrField;
}

// Capability URLs are shorter than this, as the library requires.
constexpr size_t kMaxUrlLen = 255;

const char *type_name(CapType t);
// nullopt when `name` is none of bool, int32, str.
std::optional<CapType> parse_type(std::string_view name);

struct CapValue {
    CapType type = CapType::kBool;
    bool b = false;
    int32_t i = 0;
    std::string s;

    static CapValue of_bool(bool v) { return CapValue{CapType::kBool, v, 0, {}}; }
    static CapValue of_int32(int32_t v) { return CapValue{CapType::kInt32, false, v, {}}; }
    static CapValue of_str(std::string v) {
        return CapValue{CapType::kStr, false, 0, std::move(v)};
    }
};

// The value typed on a command line; a bad-input Failure naming the text
// when it is not one of the type ("'yes' is not a boolean ...").
CapValue parse_value(CapType type, std::string_view text);

// For people: true/false, decimal, or the text with control characters
// escaped so that one value stays on one line.
std::string value_text(const CapValue &v);
nlohmann::ordered_json value_json(const CapValue &v);

// Escapes control characters (\n, \t, \xNN) so that a text stays on one line.
std::string one_line(std::string_view text);

// What is wrong with url as a capability URL (1 to 255 characters), if anything.
std::optional<std::string> url_problem(std::string_view url);
// A bad-input Failure when url_problem() finds something.
void check_url(std::string_view url);

// A decimal int32 ("-5"; no sign '+', no blanks), or nullopt.
std::optional<int32_t> to_int32(std::string_view text);

// The value of --node; a bad-input Failure when it is not an int32.
int32_t parse_node(std::string_view text);

}  // namespace qzcap::tool

#endif  // QZCAP_TOOL_CAPABILITY_H
