// One blocking connection to a redis-server, and the small pieces of the
// protocol the Redis store needs. A Conn is used by one thread at a time (its
// owner locks).
//
// Requests are written with send(MSG_NOSIGNAL), never through hiredis: its
// write() would raise SIGPIPE in the application when the server has gone.
// hiredis only reads and parses replies. Every socket gets FD_CLOEXEC, so a
// child the application starts cannot keep our connections open.
//
// hiredis is never handed a struct timeval: a 32-bit target's hiredis may be
// built with a 32-bit time_t where this build has a 64-bit one. The socket is
// connected here (non-blocking, then poll) and its timeouts set with
// setsockopt; hiredis gets the connected descriptor.
#ifndef QZ_MOM_IMPL_REDIS_CONN_H
#define QZ_MOM_IMPL_REDIS_CONN_H

#include <hiredis.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qzmom::redis {

struct ReplyFree {
    void operator()(redisReply *r) const { freeReplyObject(r); }
};
using ReplyPtr = std::unique_ptr<redisReply, ReplyFree>;

struct ContextFree {
    void operator()(redisContext *c) const { redisFree(c); }
};
using ContextPtr = std::unique_ptr<redisContext, ContextFree>;

// Connect and command timeout: a dead or stuck server costs a caller at most this.
constexpr int kTimeoutMs = 1000;

// Where a server listens: "redis://host[:port]" (IPv6 host in brackets) or
// "unix:/path/to.sock".
struct Endpoint {
    std::string uri;   // as given, for messages
    std::string host;  // empty for a Unix socket
    int port = 6379;
    std::string path;
};
bool parse_endpoint(std::string_view uri, Endpoint *out, std::string *why);

// Appends one command in the protocol's request form.
void append_command(std::string &out, std::span<const std::string_view> args);

// hiredis allocates an array reply's element table from the count the server
// announces, before any element has arrived: "*300000000" alone would take
// 2.4 GB. No reply the store asks for comes near this many elements.
constexpr int kMaxReplyElements = 1 << 20;

// Makes reader refuse an array of more than kMaxReplyElements elements as
// hiredis refuses what it cannot allocate: a reader error (REDIS_ERR_OOM),
// after which the connection is dropped like any broken one.
void limit_replies(redisReader *reader);

// What went wrong on a context, for messages ("no answer within 1000 ms" on a timeout).
std::string error_of(const redisContext *c);

inline std::string_view text(const redisReply *r) {
    return {r->str, r->len};
}
inline bool is_error(const redisReply *r) {
    return r->type == REDIS_REPLY_ERROR;
}

// A blocking socket connected to ep within kTimeoutMs, with send and receive
// timeouts of kTimeoutMs and close-on-exec; -1 and *why on failure.
int connect_socket(const Endpoint &ep, std::string *why);

class Conn {
  public:
    // Connects with the timeouts set; null and *why on failure.
    static std::unique_ptr<Conn> open(const Endpoint &ep, std::string *why);

    redisContext *ctx() const { return ctx_.get(); }
    int fd() const { return ctx_->fd; }

    // Queues one command for the next exchange().
    void queue(std::span<const std::string_view> args);
    void queue(std::initializer_list<std::string_view> args) {
        queue(std::span<const std::string_view>(args.begin(), args.size()));
    }

    // Sends the queued commands in one write and reads one reply each into
    // *replies (error replies included). False when the connection failed:
    // *why says how, and the Conn is unusable.
    bool exchange(std::vector<ReplyPtr> *replies, std::string *why);

    // One command, one reply.
    bool run(std::initializer_list<std::string_view> args, ReplyPtr *reply, std::string *why);

    // Makes db the selected database (a round trip only when it is not).
    // *refused is set when the server answered with an error (a db number
    // it does not have); false only when the connection failed.
    bool select(int32_t db, bool *refused, std::string *why);

    // Writes raw request bytes (for the subscriber connection, whose replies
    // another thread reads).
    bool send_raw(std::string_view bytes, std::string *why);

  private:
    explicit Conn(ContextPtr ctx) : ctx_(std::move(ctx)) {}

    ContextPtr ctx_;
    int32_t db_ = 0;
    std::string out_;
    size_t queued_ = 0;
};

}  // namespace qzmom::redis

#endif  // QZ_MOM_IMPL_REDIS_CONN_H
