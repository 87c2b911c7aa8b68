// What the Redis store makes of the server's replies and keyspace messages:
// plain functions over hiredis reply objects, so that every reply, however
// malformed, has one defined outcome (a record, an error code, or nothing
// to do) and never a crash.
#ifndef QZ_MOM_IMPL_REDIS_REPLY_H
#define QZ_MOM_IMPL_REDIS_REPLY_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "record.h"
#include "redis_conn.h"

namespace qzmom::redis {

// The record an HGETALL reply holds; *out is null when no such key exists.
// Returns 0, or QZ_MOM_E_REPLY with *err naming an error reply or a reply of
// the wrong shape (*err points into r or at static text).
int32_t to_snapshot(const redisReply *r, Snapshot *out, std::string_view *err);

// One page of a SCAN reply: the next cursor, and the keys appended to *keys.
// False (nothing appended) for a reply of another shape.
bool scan_page(const redisReply *r, std::string *cursor, std::vector<std::string> *keys);

// The flags of a reply to CONFIG GET notify-keyspace-events. False for an
// error reply or one of another shape.
bool notify_flags(const redisReply *r, std::string *have);

// The keyspace flags the store needs that `have` lacks, in the order to add them.
std::string missing_flags(std::string_view have);

// Outcome of a write's replies (HSET and/or HDEL, in MULTI/EXEC when
// in_multi): 0, or QZ_MOM_E_REPLY when any of them, or any command inside
// the EXEC, failed.
int32_t write_status(const std::vector<ReplyPtr> &replies, bool in_multi);

// "__keyspace@<db>__:", what db's keyspace channels start with.
std::string channel_prefix(int32_t db);

// "__keyspace@<db>__:<rest>" -> db, rest (pointing into ch).
bool parse_channel(std::string_view ch, int32_t *db, std::string_view *rest);

// The type of a whole-type pattern "<escaped type>|*".
bool pattern_type(std::string_view rest, std::string *type);

// One message on the subscriber connection.
struct SubMessage {
    enum class Kind {
        kNone,   // nothing for the store: another shape, or an event that leaves the record as it
                 // was
        kEvent,  // a keyspace event that may have changed record `key` of `db`
        kAck,    // the server confirmed a (P)SUBSCRIBE or (P)UNSUBSCRIBE
    };
    Kind kind = Kind::kNone;
    bool pattern = false;         // pmessage, psubscribe or punsubscribe
    int32_t db = 0;               // kEvent; kAck with has_type
    std::string_view key, event;  // kEvent: point into the reply
    // kAck of a whole-type pattern: subscribe tells psubscribe from punsubscribe.
    bool has_type = false;
    bool subscribe = false;
    std::string type;
};
SubMessage read_sub_message(const redisReply *r);

}  // namespace qzmom::redis

#endif  // QZ_MOM_IMPL_REDIS_REPLY_H
