// An operator's own hiredis connection to a store, as redis-cli would be: the
// owners of hiredis's contexts and replies, connecting by URI and running
// commands whose arguments may hold any bytes. No test framework here: the
// benchmarks use it too.
#ifndef QZCAP_TESTS_SUPPORT_REDIS_CLIENT_H
#define QZCAP_TESTS_SUPPORT_REDIS_CLIENT_H

#include <hiredis.h>

#include <chrono>
#include <initializer_list>
#include <memory>
#include <string>

namespace qztest {

// The database the bus keeps the capability records in.
inline constexpr int kCapDb = 3;

struct RedisFree {
    void operator()(redisContext *c) const { redisFree(c); }
    void operator()(redisReply *r) const { freeReplyObject(r); }
};
using RedisPtr = std::unique_ptr<redisContext, RedisFree>;
using ReplyPtr = std::unique_ptr<redisReply, RedisFree>;

// A connection to "unix:PATH" or "redis://HOST[:PORT]" with database db
// selected; null with *why set when there is none. A non-zero reply_timeout
// bounds every later read and write: a lost reply fails, never hangs.
RedisPtr connect(const std::string &uri, int db, std::string *why,
                 std::chrono::milliseconds reply_timeout = {});

// Bounds every later read and write of c by `timeout`; zero waits for ever.
bool set_reply_timeout(redisContext *c, std::chrono::milliseconds timeout);

// Runs one command; null with *why set when the connection failed. A reply
// of type REDIS_REPLY_ERROR is returned as it came.
ReplyPtr command(redisContext *c, std::initializer_list<std::string> args, std::string *why);

}  // namespace qztest

#endif  // QZCAP_TESTS_SUPPORT_REDIS_CLIENT_H
