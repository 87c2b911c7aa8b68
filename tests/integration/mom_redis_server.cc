#include "mom_redis_server.h"

#include <mutex>

namespace momtest {

RedisPtr RedisServer::client(int db) const {
    RedisPtr c(redisConnectUnix(socket().c_str()));
    if (c == nullptr || c->err != 0) {
        ADD_FAILURE() << "cannot connect to " << socket() << ": "
                      << (c != nullptr ? c->errstr : "out of memory");
        return nullptr;
    }
    if (db != 0)
        command(c.get(), {"SELECT", std::to_string(db)});
    return c;
}

ReplyPtr command(redisContext *c, std::initializer_list<std::string> args) {
    std::vector<const char *> argv;
    std::vector<size_t> lens;
    for (const std::string &a : args) {
        argv.push_back(a.data());
        lens.push_back(a.size());
    }
    if (c == nullptr) {
        ADD_FAILURE() << "no connection";
        return nullptr;
    }
    ReplyPtr r(static_cast<redisReply *>(
        redisCommandArgv(c, static_cast<int>(argv.size()), argv.data(), lens.data())));
    if (r == nullptr)
        ADD_FAILURE() << "command " << *args.begin() << " failed: " << c->errstr;
    return r;
}

StoreKind redis_store() {
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
