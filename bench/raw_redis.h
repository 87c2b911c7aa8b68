// The raw-hiredis side of the comparisons, and what the harness needs to
// publish and to find the stored keys.
#ifndef QZCAP_BENCH_RAW_REDIS_H
#define QZCAP_BENCH_RAW_REDIS_H

#include <hiredis/hiredis.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "redis_client.h"

namespace qzbench {

using qztest::kCapDb;
using Reply = qztest::ReplyPtr;
using Conn = qztest::RedisPtr;

// A blocking connection to the socket, database 3 selected, every reply
// bounded by 2 s. Null with *why set on failure.
Conn connect_unix(const std::string &path, std::string *why);

// One command; null (with *why) when the connection failed or the server
// answered an error.
Reply command(redisContext *c, std::string *why, const char *fmt, ...);

// The value of `field` in an HGETALL reply, or false when it is absent.
bool hash_field(const redisReply *r, std::string_view field, std::string_view *value);

// The store key of the capability record with this URL, as the bus builds it.
std::string cap_key(const std::string &url);

// The keyspace channel of a key in database 3.
std::string keyspace_channel(const std::string &key);

// Writes a 3-field capability record (value field, pri, state), the shape
// every benchmark reads.
bool put_cap_record(redisContext *c, const std::string &key, const char *value_field,
                    const char *value, std::string *why);

}  // namespace qzbench

#endif  // QZCAP_BENCH_RAW_REDIS_H
