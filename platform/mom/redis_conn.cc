#include "redis_conn.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>

#include "common/parse_int.h"
#include "common/unique_fd.h"

namespace qzmom::redis {
namespace {

// Connects fd to addr, giving up at deadline. 0 or an errno value.
int connect_until(int fd, const sockaddr *addr, socklen_t len,
                  std::chrono::steady_clock::time_point deadline) {
    if (::connect(fd, addr, len) == 0)
        return 0;
    if (errno != EINPROGRESS && errno != EINTR)
        return errno;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now())
                              .count();
        if (left <= 0)
            return ETIMEDOUT;
        pollfd p{fd, POLLOUT, 0};
        const int n = poll(&p, 1, static_cast<int>(left));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return errno;
        if (n == 0)
            return ETIMEDOUT;
        int err = 0;
        socklen_t err_len = sizeof err;
        if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &err_len) != 0)
            return errno;
        return err;
    }
}

// Blocking again, with the call timeouts on the socket itself.
bool set_blocking_with_timeouts(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0)
        return false;
    const timeval tv{kTimeoutMs / 1000, static_cast<suseconds_t>(kTimeoutMs % 1000) * 1000};
    return setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) == 0 &&
           setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv) == 0;
}

std::string connect_error(int err) {
    return err == ETIMEDOUT ? "no answer within " + std::to_string(kTimeoutMs) + " ms"
                            : std::string(strerror(err));
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
        if (!qzplat::parse_int(port, &p) || p < 1 || p > 65535) {
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

int connect_socket(const Endpoint &ep, std::string *why) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kTimeoutMs);
    constexpr int kType = SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC;
    if (!ep.path.empty()) {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        if (ep.path.size() >= sizeof addr.sun_path) {
            *why = "socket path too long";
            return -1;
        }
        memcpy(addr.sun_path, ep.path.data(), ep.path.size());
        qzplat::UniqueFd fd(socket(AF_UNIX, kType, 0));
        if (!fd) {
            *why = strerror(errno);
            return -1;
        }
        int err = connect_until(fd.get(), reinterpret_cast<const sockaddr *>(&addr), sizeof addr,
                                deadline);
        if (err == 0 && !set_blocking_with_timeouts(fd.get()))
            err = errno;
        if (err != 0) {
            *why = connect_error(err);
            return -1;
        }
        return fd.release();
    }
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    const std::string port = std::to_string(ep.port);
    if (const int rc = getaddrinfo(ep.host.c_str(), port.c_str(), &hints, &found); rc != 0) {
        *why = gai_strerror(rc);
        return -1;
    }
    std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owned(found, freeaddrinfo);
    int err = ECONNREFUSED;
    for (const addrinfo *a = found; a != nullptr; a = a->ai_next) {
        qzplat::UniqueFd fd(socket(a->ai_family, kType, a->ai_protocol));
        if (!fd) {
            err = errno;
            continue;
        }
        err = connect_until(fd.get(), a->ai_addr, a->ai_addrlen, deadline);
        if (err == 0 && !set_blocking_with_timeouts(fd.get()))
            err = errno;
        if (err == 0) {
            const int on = 1;
            setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            return fd.release();
        }
        if (err == ETIMEDOUT)
            break;  // the time is spent
    }
    *why = connect_error(err);
    return -1;
}

std::unique_ptr<Conn> Conn::open(const Endpoint &ep, std::string *why) {
    qzplat::UniqueFd fd(connect_socket(ep, why));
    if (!fd)
        return nullptr;
    ContextPtr c(redisConnectFd(fd.get()));
    if (c == nullptr) {
        *why = "out of memory";
        return nullptr;
    }
    (void)fd.release();  // the context closes it
    if (c->err != 0) {
        *why = error_of(c.get());
        return nullptr;
    }
    limit_replies(c->reader);
    if (ep.path.empty() && redisEnableKeepAlive(c.get()) != REDIS_OK) {
        *why = error_of(c.get());
        return nullptr;
    }
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
