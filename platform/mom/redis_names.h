// How the Redis store names things on the server: the keyspace channels a
// watch subscribes to and the glob patterns of scans and whole-type watches.
// Plain functions, the inverse of what the subscriber reads back.
#ifndef QZ_MOM_IMPL_REDIS_NAMES_H
#define QZ_MOM_IMPL_REDIS_NAMES_H

#include <cstdint>
#include <string>
#include <string_view>

namespace qzmom::redis {

// `s` with the glob characters of MATCH and PSUBSCRIBE patterns escaped.
std::string glob_escape(std::string_view s);

// "<escaped type>|*": every key of a keyed type, for SCAN MATCH.
std::string type_pattern(std::string_view type);

// "__keyspace@<db>__:", what db's keyspace channels start with.
std::string channel_prefix(int32_t db);

// "__keyspace@<db>__:<rest>" -> db, rest (pointing into ch).
bool parse_channel(std::string_view ch, int32_t *db, std::string_view *rest);

// The type of a whole-type pattern "<escaped type>|*".
bool pattern_type(std::string_view rest, std::string *type);

// What a watch subscribes to: the exact keyspace channel of one key
// (SUBSCRIBE), or the pattern of every key of a type (PSUBSCRIBE).
struct Channel {
    std::string name;  // as sent to the server
    bool pattern = false;

    // One text per (name, kind): an exact channel and a pattern may share a name.
    std::string id() const { return (pattern ? "p" : "s") + name; }
    static Channel from_id(std::string_view id);
    std::string_view subscribe_command() const { return pattern ? "PSUBSCRIBE" : "SUBSCRIBE"; }
    std::string_view unsubscribe_command() const {
        return pattern ? "PUNSUBSCRIBE" : "UNSUBSCRIBE";
    }
};

// The channel of key `key` in db, or of every record of type `key` when whole_type.
Channel watch_channel(int32_t db, std::string_view key, bool whole_type);

}  // namespace qzmom::redis

#endif  // QZ_MOM_IMPL_REDIS_NAMES_H
