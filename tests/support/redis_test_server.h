// The private redis-server and its clients for gtest suites: a connection or
// command that gets no answer fails the running test, with the reason.
#ifndef QZCAP_TESTS_SUPPORT_REDIS_TEST_SERVER_H
#define QZCAP_TESTS_SUPPORT_REDIS_TEST_SERVER_H

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

#include "private_redis_server.h"
#include "redis_client.h"

namespace qztest {

// Runs one command on c; fails the test on a connection error.
inline ReplyPtr command(redisContext *c, std::initializer_list<std::string> args) {
    std::string why;
    ReplyPtr r = command(c, args, &why);
    if (r == nullptr)
        ADD_FAILURE() << why;
    return r;
}

class TestRedisServer : public PrivateRedisServer {
  public:
    using PrivateRedisServer::PrivateRedisServer;

    // An independent client (as redis-cli would be), in database db; null
    // and a test failure when the server does not answer.
    RedisPtr client(int db = kCapDb) const {
        std::string why;
        RedisPtr c = connect(uri(), db, &why);
        if (c == nullptr)
            ADD_FAILURE() << why;
        return c;
    }
};

}  // namespace qztest

#endif  // QZCAP_TESTS_SUPPORT_REDIS_TEST_SERVER_H
