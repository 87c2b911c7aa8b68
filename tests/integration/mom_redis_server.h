// The bus stand-in's suites on a private redis-server: the shared test
// support under the names the suites use, and their Redis store.
#ifndef QZCAP_TESTS_MOM_REDIS_SERVER_H
#define QZCAP_TESTS_MOM_REDIS_SERVER_H

#include <mutex>
#include <string>

#include "mom_test_util.h"
#include "redis_test_server.h"

namespace momtest {

using qztest::command;
using qztest::kRedisMissing;
using qztest::RedisPtr;
using qztest::ReplyPtr;
using RedisServer = qztest::TestRedisServer;

// The behavioural suite's Redis store: two shared servers taken in turn,
// emptied before each use, so that a store asked for next to another one
// (a test's ".other" store) is a different server.
inline StoreKind redis_store() {
    return {"redis", [](const std::string &) -> std::string {
                static std::mutex mu;
                // The second starts with notifications off: its first client enables them.
                static RedisServer servers[2] = {
                    RedisServer(), RedisServer({.notify = "", .args = {}, .config = {}})};
                static int next = 0;
                std::lock_guard<std::mutex> lk(mu);
                RedisServer &s = servers[next];
                next = 1 - next;
                std::string why = s.start();
                if (!why.empty()) {
                    ADD_FAILURE() << why;
                    return "unix:/nonexistent/redis.sock";
                }
                RedisPtr c = s.client(0);
                ReplyPtr r = command(c.get(), {"FLUSHALL"});
                if (r == nullptr || r->type == REDIS_REPLY_ERROR)
                    ADD_FAILURE() << "FLUSHALL failed";
                return s.uri();
            }};
}

}  // namespace momtest

#endif  // QZCAP_TESTS_MOM_REDIS_SERVER_H
