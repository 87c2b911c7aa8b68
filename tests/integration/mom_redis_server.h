// The private redis-server of the bus stand-in's tests, with clients and
// commands that fail the running test when the server does not answer.
#ifndef QZCAP_TESTS_MOM_REDIS_SERVER_H
#define QZCAP_TESTS_MOM_REDIS_SERVER_H

#include <hiredis.h>

#include <memory>
#include <string>
#include <vector>

#include "mom_test_util.h"
#include "private_redis_server.h"

namespace momtest {

using qztest::kRedisMissing;

struct RedisFree {
    void operator()(redisContext *c) const { redisFree(c); }
    void operator()(redisReply *r) const { freeReplyObject(r); }
};
using RedisPtr = std::unique_ptr<redisContext, RedisFree>;
using ReplyPtr = std::unique_ptr<redisReply, RedisFree>;

class RedisServer : public qztest::PrivateRedisServer {
  public:
    using PrivateRedisServer::PrivateRedisServer;

    // An independent client (as redis-cli would be), in database db.
    RedisPtr client(int db = kDb) const;
};

// Runs one command on c; fails the test on a connection error.
ReplyPtr command(redisContext *c, std::initializer_list<std::string> args);

// The behavioural suite's Redis store: two shared servers taken in turn,
// emptied before each use, so that a store asked for next to another one
// (a test's ".other" store) is a different server.
StoreKind redis_store();

}  // namespace momtest

#endif  // QZCAP_TESTS_MOM_REDIS_SERVER_H
