#include "capability.h"

#include <charconv>
#include <cstdio>

#include "failure.h"

namespace qzcap::tool {

const char *type_name(CapType t) {
    switch (t) {
        case CapType::kBool:
            return "bool";
        case CapType::kInt32:
            return "int32";
        case CapType::kStr:
            return "str";
    }
    return "?";
}

std::optional<CapType> parse_type(std::string_view name) {
    for (CapType t : {CapType::kBool, CapType::kInt32, CapType::kStr}) {
        if (name == type_name(t))
            return t;
    }
    return std::nullopt;
}

std::optional<int32_t> to_int32(std::string_view text) {
    int64_t v = 0;
    const char *end = text.data() + text.size();
    auto [p, ec] = std::from_chars(text.data(), end, v);
    if (text.empty() || ec != std::errc() || p != end || v < INT32_MIN || v > INT32_MAX)
        return std::nullopt;
    return static_cast<int32_t>(v);
}

namespace {

// Digits with an optional '-': a number, whether or not it fits.
bool looks_like_integer(std::string_view text) {
    if (text.starts_with('-'))
        text.remove_prefix(1);
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

// 'text'. Built by appending: GCC 12 at -O3 takes "'" + std::string for an
// overlapping copy (-Wrestrict) and fails the Release build.
std::string in_quotes(std::string_view text) {
    std::string out;
    out.reserve(text.size() + 2);
    return out.append(1, '\'').append(text).append(1, '\'');
}

}  // namespace

CapValue parse_value(CapType type, std::string_view text) {
    switch (type) {
        case CapType::kBool:
            if (text == "true" || text == "1")
                return CapValue::of_bool(true);
            if (text == "false" || text == "0")
                return CapValue::of_bool(false);
            bad_input(in_quotes(one_line(text)) + " is not a boolean (true, false, 1 or 0)");
        case CapType::kInt32:
            if (auto v = to_int32(text))
                return CapValue::of_int32(*v);
            if (looks_like_integer(text)) {
                bad_input(in_quotes(text) +
                          " is out of range for int32 (-2147483648 to 2147483647)");
            }
            bad_input(in_quotes(one_line(text)) + " is not an int32");
        case CapType::kStr:
            return CapValue::of_str(std::string(text));
    }
    bad_input("unknown type");
}

std::string one_line(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (unsigned char c : text) {
        if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c < 0x20 || c == 0x7f) {
            char hex[8];
            snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        } else {
            out.push_back(static_cast<char>(c));
        }
    }
    return out;
}

std::string value_text(const CapValue &v) {
    switch (v.type) {
        case CapType::kBool:
            return v.b ? "true" : "false";
        case CapType::kInt32:
            return std::to_string(v.i);
        case CapType::kStr:
            return one_line(v.s);
    }
    return "";
}

nlohmann::ordered_json value_json(const CapValue &v) {
    switch (v.type) {
        case CapType::kBool:
            return v.b;
        case CapType::kInt32:
            return v.i;
        case CapType::kStr:
            return v.s;
    }
    return nullptr;
}

std::optional<std::string> url_problem(std::string_view url) {
    if (url.empty())
        return "a capability URL must not be empty";
    if (url.size() > kMaxUrlLen) {
        return "URL of " + std::to_string(url.size()) + " characters; at most " +
               std::to_string(kMaxUrlLen);
    }
    return std::nullopt;
}

void check_url(std::string_view url) {
    if (std::optional<std::string> why = url_problem(url))
        bad_input(*why);
}

int32_t parse_node(std::string_view text) {
    if (auto v = to_int32(text))
        return *v;
    bad_input("--node wants a node id (an int32), not '" + one_line(text) + "'");
}

}  // namespace qzcap::tool
