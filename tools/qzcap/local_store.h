// A private redis-server set up for the bus: a Unix socket in a directory of
// the user's own, keyspace notifications on, no persistence. `store up`
// starts it (a daemon that outlives qzcap), `store down` stops it.
#ifndef QZCAP_TOOL_LOCAL_STORE_H
#define QZCAP_TOOL_LOCAL_STORE_H

#include <sys/types.h>

#include <string>

namespace qzcap::tool {

// $XDG_RUNTIME_DIR/qzcap, else /tmp/qzcap-<uid>.
std::string default_store_dir();

struct LocalStore {
    std::string dir;
    std::string socket;  // dir + "/redis.sock"
    pid_t pid = 0;
    bool already_up = false;  // it was running before this call

    std::string uri() const { return "unix:" + socket; }
};

// Starts the server in dir (created 0700 when missing) unless one already
// answers there, and waits at most timeout_s for it to answer. Throws a
// Failure: bad input for an unusable dir, no store when redis-server is
// missing, fails to start or does not answer in time.
LocalStore store_up(const std::string &dir, double timeout_s);

// Shuts down (SHUTDOWN NOSAVE) the server in dir and waits at most
// timeout_s for its process to end. A not-found Failure when none runs
// there (leftovers of one that died are removed).
void store_down(const std::string &dir, double timeout_s);

}  // namespace qzcap::tool

#endif  // QZCAP_TOOL_LOCAL_STORE_H
