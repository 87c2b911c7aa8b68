// A private redis-server for the bus stand-in's tests: a Unix socket in its
// own temporary directory, no persistence, stopped with SIGTERM and removed
// when the object goes. It dies with the test process (PR_SET_PDEATHSIG), so
// a crashed run leaves no server behind.
#ifndef QZCAP_TESTS_MOM_REDIS_SERVER_H
#define QZCAP_TESTS_MOM_REDIS_SERVER_H

#include <sys/types.h>

#include <hiredis.h>

#include <memory>
#include <string>
#include <vector>

#include "mom_test_util.h"

namespace momtest {

inline constexpr char kRedisMissing[] =
    "redis-server not found: install the redis-server package (scripts/install-deps.sh does)";

struct RedisFree {
    void operator()(redisContext *c) const { redisFree(c); }
    void operator()(redisReply *r) const { freeReplyObject(r); }
};
using RedisPtr = std::unique_ptr<redisContext, RedisFree>;
using ReplyPtr = std::unique_ptr<redisReply, RedisFree>;

class RedisServer {
  public:
    struct Options {
        std::string notify = "KEA";     // notify-keyspace-events at start
        std::vector<std::string> args;  // more command-line options
        std::string config;             // a config file's text, when not empty
    };

    RedisServer() : RedisServer(Options{}) {}
    explicit RedisServer(Options opt);
    ~RedisServer();
    RedisServer(const RedisServer &) = delete;

    // Starts the server (again, on the same socket, after kill()) and waits
    // until it answers. "" on success, else what went wrong.
    std::string start();
    // SIGKILL: the data is lost, the socket file stays behind.
    void kill();
    // SIGTERM and wait.
    void stop();
    // SIGSTOP: connections are still accepted, nothing is answered; resume() with SIGCONT.
    void pause();
    void resume();

    std::string uri() const { return "unix:" + socket_; }
    const std::string &socket() const { return socket_; }

    // An independent client (as redis-cli would be), in database db.
    RedisPtr client(int db = kDb) const;

  private:
    Options opt_;
    std::string dir_, socket_;
    pid_t pid_ = -1;
};

// Runs one command on c; fails the test on a connection error.
ReplyPtr command(redisContext *c, std::initializer_list<std::string> args);

// The behavioural suite's Redis store: two shared servers taken in turn,
// emptied before each use, so that a store asked for next to another one
// (a test's ".other" store) is a different server.
StoreKind redis_store();

}  // namespace momtest

#endif  // QZCAP_TESTS_MOM_REDIS_SERVER_H
