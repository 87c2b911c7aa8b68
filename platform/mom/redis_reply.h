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
// False (nothing appended) for a reply of another shape, a key that is not
// a string among them.
bool scan_page(const redisReply *r, std::string *cursor, std::vector<std::string> *keys);

// A SCAN walk fed page by page. A server whose cursor never comes back to 0
// ends it after max_pages pages, with an error: the walk is bounded whatever
// the server answers.
constexpr size_t kMaxScanPages = 1 << 16;
class ScanWalk {
  public:
    enum class Step { kMore, kDone, kFailed };

    explicit ScanWalk(size_t max_pages = kMaxScanPages) : max_pages_(max_pages) {}

    // What to ask for next: "SCAN <cursor()> ...".
    const std::string &cursor() const { return cursor_; }

    // Takes the reply to the last SCAN. kFailed: *err says why (static text),
    // and the walk is over.
    Step take(const redisReply *r, std::string_view *err);

    // The keys found, sorted, each once (SCAN may return a key twice).
    std::vector<std::string> keys();

  private:
    size_t max_pages_;
    size_t pages_ = 0;
    std::string cursor_ = "0";
    std::vector<std::string> keys_;
};

// The flags of a reply to CONFIG GET notify-keyspace-events. False for an
// error reply or one of another shape.
bool notify_flags(const redisReply *r, std::string *have);

// The keyspace flags the store needs that `have` lacks, in the order to add them.
std::string missing_flags(std::string_view have);

// Outcome of a write's replies (HSET and/or HDEL, in MULTI/EXEC when
// in_multi): 0, or QZ_MOM_E_REPLY when any of them, or any command inside
// the EXEC, failed.
int32_t write_status(const std::vector<ReplyPtr> &replies, bool in_multi);

// Outcome of a batch's replies: MULTI, `queued` commands, EXEC. 0, or
// QZ_MOM_E_REPLY when any reply is an error, the EXEC was aborted or it
// answers another number of commands than were queued.
int32_t batch_status(const std::vector<ReplyPtr> &replies, size_t queued);

// True when both hold the same fields with the same values in the same
// order, or both are null.
bool same_record(const Snapshot &a, const Snapshot &b);

// Why the server refused `command` (an error reply), for the open's message:
// a password it wants, or CONFIG it does not allow.
std::string refusal(std::string_view command, const redisReply *r);

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
