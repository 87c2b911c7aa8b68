// A private redis-server for tests and the soak: a Unix socket in its own
// temporary directory, keyspace notifications on, no persistence. It can be
// killed, paused and started again on the same socket. It dies with the
// process that started it (PR_SET_PDEATHSIG), so a crashed run leaves no
// server behind, and is stopped and its directory removed when the object
// goes.
#ifndef QZCAP_TESTS_SUPPORT_PRIVATE_REDIS_SERVER_H
#define QZCAP_TESTS_SUPPORT_PRIVATE_REDIS_SERVER_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace qztest {

inline constexpr char kRedisMissing[] =
    "redis-server not found: install the redis-server package (scripts/install-deps.sh does)";

class PrivateRedisServer {
  public:
    struct Options {
        std::string notify = "KEA";     // notify-keyspace-events at start
        std::vector<std::string> args;  // more command-line options
        std::string config;             // a config file's text, when not empty
    };

    PrivateRedisServer() : PrivateRedisServer(Options{}) {}
    explicit PrivateRedisServer(Options opt);
    ~PrivateRedisServer();
    PrivateRedisServer(const PrivateRedisServer &) = delete;
    PrivateRedisServer &operator=(const PrivateRedisServer &) = delete;

    // Starts the server (again, on the same socket, after kill()) and waits
    // until it answers. "" on success, else what went wrong.
    std::string start();
    // SIGKILL: the data is lost, the socket file stays behind.
    void kill();
    // SIGTERM and wait (a paused server is continued first).
    void stop();
    // SIGSTOP, returning once the server is stopped: it keeps its
    // connections but answers nothing until resume().
    void pause();
    // SIGCONT.
    void resume();

    bool running() const { return pid_ > 0; }
    bool paused() const { return paused_; }
    pid_t pid() const { return pid_; }
    std::string uri() const { return "unix:" + socket_; }
    const std::string &socket() const { return socket_; }
    const std::string &dir() const { return dir_; }

  private:
    Options opt_;
    std::string dir_, socket_;
    pid_t pid_ = -1;
    bool paused_ = false;
};

}  // namespace qztest

#endif  // QZCAP_TESTS_SUPPORT_PRIVATE_REDIS_SERVER_H
