// A private redis-server for the benchmarks: Unix socket in a temporary
// directory, no persistence, keyspace notifications on. It can be killed and
// started again on the same socket, which is how a lost connection is made.
#ifndef QZCAP_BENCH_REDIS_SERVER_H
#define QZCAP_BENCH_REDIS_SERVER_H

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace qzbench {

// The redis-server binary: `configured` when not empty, else the first one on
// PATH. Empty with *why set when there is none.
std::string find_redis_server(const std::string &configured, std::string *why);

class RedisServer {
  public:
    explicit RedisServer(std::string binary) : binary_(std::move(binary)) {}
    ~RedisServer();
    RedisServer(const RedisServer &) = delete;
    RedisServer &operator=(const RedisServer &) = delete;

    // Starts the server (the first call makes the directory) and returns once
    // it answers PING; *ready_ns is when it first did.
    bool start(std::string *why, int64_t *ready_ns = nullptr);

    // SIGKILL, as a crash would; returns once the process is gone.
    bool kill_hard(std::string *why);

    // Stops the server and removes its directory.
    void stop();

    const std::string &socket_path() const { return socket_; }
    std::string version() const { return version_; }

  private:
    std::string binary_;
    std::string dir_;
    std::string socket_;
    std::string version_;
    pid_t pid_ = -1;
};

}  // namespace qzbench

#endif  // QZCAP_BENCH_REDIS_SERVER_H
