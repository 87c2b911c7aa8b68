#include "redis_names.h"

#include "common/parse_int.h"

namespace qzmom::redis {
namespace {

constexpr std::string_view kChannelPrefix = "__keyspace@";

}  // namespace

std::string glob_escape(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    for (char ch : s) {
        if (ch == '*' || ch == '?' || ch == '[' || ch == ']' || ch == '\\')
            out.push_back('\\');
        out.push_back(ch);
    }
    return out;
}

std::string type_pattern(std::string_view type) {
    return glob_escape(type) + "|*";
}

std::string channel_prefix(int32_t db) {
    return std::string(kChannelPrefix) + std::to_string(db) + "__:";
}

bool parse_channel(std::string_view ch, int32_t *db, std::string_view *rest) {
    if (!ch.starts_with(kChannelPrefix))
        return false;
    ch.remove_prefix(kChannelPrefix.size());
    const size_t end = ch.find("__:");
    if (end == std::string_view::npos || !qzplat::parse_int(ch.substr(0, end), db))
        return false;
    *rest = ch.substr(end + 3);
    return true;
}

bool pattern_type(std::string_view rest, std::string *type) {
    if (!rest.ends_with("|*"))
        return false;
    rest.remove_suffix(2);
    type->clear();
    for (size_t i = 0; i < rest.size(); ++i) {
        if (rest[i] == '\\' && i + 1 < rest.size())
            ++i;
        type->push_back(rest[i]);
    }
    return true;
}

Channel Channel::from_id(std::string_view id) {
    return Channel{std::string(id.substr(1)), id.starts_with('p')};
}

Channel watch_channel(int32_t db, std::string_view key, bool whole_type) {
    Channel ch{channel_prefix(db), whole_type};
    ch.name += whole_type ? type_pattern(key) : std::string(key);
    return ch;
}

}  // namespace qzmom::redis
