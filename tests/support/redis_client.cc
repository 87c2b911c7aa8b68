#include "redis_client.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <charconv>
#include <vector>

namespace qztest {

bool set_reply_timeout(redisContext *c, std::chrono::milliseconds timeout) {
    // On the socket itself, not through hiredis: a 32-bit target's hiredis
    // may take a timeval of another size than this build's.
    const timeval tv{static_cast<time_t>(timeout.count() / 1000),
                     static_cast<suseconds_t>(timeout.count() % 1000 * 1000)};
    return setsockopt(c->fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) == 0 &&
           setsockopt(c->fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv) == 0;
}

RedisPtr connect(const std::string &uri, int db, std::string *why,
                 std::chrono::milliseconds reply_timeout) {
    RedisPtr c;
    if (uri.rfind("unix:", 0) == 0) {
        c.reset(redisConnectUnix(uri.substr(5).c_str()));
    } else if (uri.rfind("redis://", 0) == 0) {
        const std::string hostport = uri.substr(8);
        const size_t colon = hostport.rfind(':');
        int port = 6379;
        if (colon != std::string::npos) {
            const char *first = hostport.data() + colon + 1;
            const char *last = hostport.data() + hostport.size();
            const auto [end, ec] = std::from_chars(first, last, port);
            if (ec != std::errc() || end != last || first == last) {
                *why = "bad port in " + uri;
                return nullptr;
            }
        }
        c.reset(redisConnect(hostport.substr(0, colon).c_str(), port));
    } else {
        *why = "unsupported URI " + uri;
        return nullptr;
    }
    if (c == nullptr || c->err != 0) {
        *why = "cannot connect to " + uri + ": " + (c != nullptr ? c->errstr : "out of memory");
        return nullptr;
    }
    if (reply_timeout.count() > 0 && !set_reply_timeout(c.get(), reply_timeout)) {
        *why = "cannot set the timeouts of the connection to " + uri;
        return nullptr;
    }
    if (db != 0) {
        ReplyPtr r = command(c.get(), {"SELECT", std::to_string(db)}, why);
        if (r == nullptr)
            return nullptr;
        if (r->type == REDIS_REPLY_ERROR) {
            *why = "SELECT " + std::to_string(db) + " on " + uri + ": " + r->str;
            return nullptr;
        }
    }
    return c;
}

ReplyPtr command(redisContext *c, std::initializer_list<std::string> args, std::string *why) {
    if (c == nullptr) {
        *why = "no connection";
        return nullptr;
    }
    std::vector<const char *> argv;
    std::vector<size_t> lens;
    for (const std::string &a : args) {
        argv.push_back(a.data());
        lens.push_back(a.size());
    }
    ReplyPtr r(static_cast<redisReply *>(
        redisCommandArgv(c, static_cast<int>(argv.size()), argv.data(), lens.data())));
    if (r == nullptr)
        *why = "command " + std::string(args.size() > 0 ? *args.begin() : "") +
               " failed: " + c->errstr;
    return r;
}

}  // namespace qztest
