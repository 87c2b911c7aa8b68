#include "redis_conn.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>
#include <charconv>
#include <cstring>

namespace qzmom::redis {
namespace {

timeval timeout() {
    return timeval{kTimeoutMs / 1000, (kTimeoutMs % 1000) * 1000};
}

// hiredis's own reply functions, which every reader starts with.
const redisReplyObjectFunctions *g_hiredis_fns = nullptr;

void *limited_array(const redisReadTask *task, int elements) {
    if (elements > kMaxReplyElements)
        return nullptr;
    return g_hiredis_fns->createArray(task, elements);
}

}  // namespace

void limit_replies(redisReader *reader) {
    if (reader->fn == nullptr)
        return;  // a reader that builds no objects allocates nothing either
    static redisReplyObjectFunctions limited = [&] {
        g_hiredis_fns = reader->fn;
        redisReplyObjectFunctions fns = *reader->fn;
        fns.createArray = limited_array;
        return fns;
    }();
    if (reader->fn == g_hiredis_fns)
        reader->fn = &limited;
}

std::string error_of(const redisContext *c) {
    // hiredis keeps only the text of errno: a receive timeout reads as EAGAIN.
    if (c->err == REDIS_ERR_IO && strcmp(c->errstr, strerror(EAGAIN)) == 0)
        return "no answer within " + std::to_string(kTimeoutMs) + " ms";
    if (c->err == REDIS_ERR_OOM) {
        return "out of memory, or a reply of more than " + std::to_string(kMaxReplyElements) +
               " elements";
    }
    return c->errstr[0] != '\0' ? c->errstr : "connection failed";
}

bool parse_endpoint(std::string_view uri, Endpoint *out, std::string *why) {
    out->uri.assign(uri);
    if (uri.starts_with("unix:")) {
        out->path.assign(uri.substr(5));
        if (out->path.empty()) {
            *why = "no socket path after \"unix:\"";
            return false;
        }
        return true;
    }
    if (!uri.starts_with("redis://")) {
        *why = "not a Redis URI";
        return false;
    }
    std::string_view rest = uri.substr(8), port;
    if (rest.starts_with('[')) {
        size_t close = rest.find(']');
        if (close == std::string_view::npos) {
            *why = "unclosed '[' in the host";
            return false;
        }
        out->host.assign(rest.substr(1, close - 1));
        rest.remove_prefix(close + 1);
        if (!rest.empty() && !rest.starts_with(':')) {
            *why = "unexpected text after the host";
            return false;
        }
        port = rest.empty() ? rest : rest.substr(1);
    } else {
        size_t colon = rest.find(':');
        out->host.assign(rest.substr(0, colon));
        port = colon == std::string_view::npos ? std::string_view() : rest.substr(colon + 1);
    }
    if (out->host.empty()) {
        *why = "no host";
        return false;
    }
    if (port.data() != nullptr) {
        int p = 0;
        auto [end, ec] = std::from_chars(port.data(), port.data() + port.size(), p);
        if (ec != std::errc() || end != port.data() + port.size() || p < 1 || p > 65535) {
            *why = "bad port \"" + std::string(port) + "\"";
            return false;
        }
        out->port = p;
    }
    return true;
}

void append_command(std::string &out, std::span<const std::string_view> args) {
    char num[24];
    auto put_len = [&](char tag, size_t n) {
        out.push_back(tag);
        auto [end, ec] = std::to_chars(num, num + sizeof num, n);
        (void)ec;
        out.append(num, end);
        out.append("\r\n", 2);
    };
    put_len('*', args.size());
    for (std::string_view a : args) {
        put_len('$', a.size());
        out.append(a);
        out.append("\r\n", 2);
    }
}

std::string glob_escape(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    for (char ch : s) {
        if (ch == '*' || ch == '?' || ch == '[' || ch == ']' || ch == '\\')
            out.push_back('\\');
        out.push_back(ch);
    }
    return out;
}

std::unique_ptr<Conn> Conn::open(const Endpoint &ep, std::string *why) {
    ContextPtr c(ep.path.empty() ? redisConnectWithTimeout(ep.host.c_str(), ep.port, timeout())
                                 : redisConnectUnixWithTimeout(ep.path.c_str(), timeout()));
    if (c == nullptr) {
        *why = "out of memory";
        return nullptr;
    }
    if (c->err != 0) {
        *why = error_of(c.get());
        return nullptr;
    }
    limit_replies(c->reader);
    if (redisSetTimeout(c.get(), timeout()) != REDIS_OK ||
        (ep.path.empty() && redisEnableKeepAlive(c.get()) != REDIS_OK)) {
        *why = error_of(c.get());
        return nullptr;
    }
    int flags = fcntl(c->fd, F_GETFD);
    if (flags >= 0)
        fcntl(c->fd, F_SETFD, flags | FD_CLOEXEC);
    return std::unique_ptr<Conn>(new Conn(std::move(c)));
}

void Conn::queue(std::span<const std::string_view> args) {
    append_command(out_, args);
    ++queued_;
}

bool Conn::send_raw(std::string_view bytes, std::string *why) {
    while (!bytes.empty()) {
        ssize_t n = ::send(ctx_->fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            *why = n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)
                       ? "could not send within " + std::to_string(kTimeoutMs) + " ms"
                       : std::string("send: ") + strerror(n < 0 ? errno : EPIPE);
            return false;
        }
        bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

bool Conn::exchange(std::vector<ReplyPtr> *replies, std::string *why) {
    const size_t n = queued_;
    queued_ = 0;
    bool ok = send_raw(out_, why);
    out_.clear();
    replies->clear();
    for (size_t i = 0; ok && i < n; ++i) {
        void *r = nullptr;
        if (redisGetReply(ctx_.get(), &r) != REDIS_OK || r == nullptr) {
            *why = error_of(ctx_.get());
            return false;
        }
        replies->emplace_back(static_cast<redisReply *>(r));
    }
    return ok;
}

bool Conn::run(std::initializer_list<std::string_view> args, ReplyPtr *reply, std::string *why) {
    queue(args);
    std::vector<ReplyPtr> r;
    if (!exchange(&r, why))
        return false;
    *reply = std::move(r[0]);
    return true;
}

bool Conn::select(int32_t db, bool *refused, std::string *why) {
    *refused = false;
    if (db == db_)
        return true;
    const std::string n = std::to_string(db);
    ReplyPtr r;
    if (!run({"SELECT", n}, &r, why))
        return false;
    if (is_error(r.get())) {
        *refused = true;
        *why = std::string(text(r.get()));
        return true;
    }
    db_ = db;
    return true;
}

}  // namespace qzmom::redis
