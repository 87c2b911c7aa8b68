#include "listener.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "c_buffer.h"
#include "common/c_barrier.h"
#include "kril_shell.h"
#include "protocol.h"
#include "registry.h"
#include "request_queue.h"
#include "run_dir.h"

namespace kril {
namespace {

using qzplat::UniqueFd;

// Connections still sending their line. When a newcomer finds them all
// taken, the longest waiting gives way: idle or half-sent connections can
// never keep an operator out, and a new connection always has the time of
// kMaxReading later arrivals to send its line.
constexpr size_t kMaxReading = 32;
constexpr auto kLineTimeout = std::chrono::seconds(10);
constexpr int kSendTimeoutSec = 5;  // a requester that stops reading cannot stall a serving thread

std::atomic<int64_t> g_allowed_uid{-1};

// Errors answered at once must never block the listener.
void reply(const UniqueFd &conn, const std::string &text) {
    send_all(conn.get(), text, MSG_DONTWAIT);
}

void not_reachable(const std::string &why) {
    fprintf(stderr, "kril: debug shell of pid %d not reachable from outside: %s\n",
            static_cast<int>(getpid()), why.c_str());
}

}  // namespace

bool Listener::read_request(Reading &r) {
    char buf[512];
    ssize_t n = recv(r.conn.get(), buf, sizeof buf, MSG_DONTWAIT);
    if (n < 0)
        return errno != EAGAIN && errno != EINTR;
    if (n == 0) {
        // A last line without its newline still counts.
        if (!r.buf.empty() && r.buf.size() < KRIL_MAX_LINE)
            handle_line(std::move(r.conn), std::move(r.buf));
        return true;
    }
    r.buf.append(buf, static_cast<size_t>(n));
    size_t nl = r.buf.find('\n');
    if (nl == std::string::npos ? r.buf.size() >= KRIL_MAX_LINE : nl + 1 > KRIL_MAX_LINE) {
        reply(r.conn,
              error_line(KRIL_E_TOO_LONG, "request longer than " + std::to_string(KRIL_MAX_LINE) +
                                              " bytes (newline included)"));
        return true;
    }
    if (nl == std::string::npos)
        return false;
    r.buf.resize(nl);
    handle_line(std::move(r.conn), std::move(r.buf));
    return true;
}

void handle_line(UniqueFd conn, std::string_view line) {
    // Names and arguments end at a NUL once they are C strings: a request
    // holding one would run a command other than the one it spells.
    if (line.find('\0') != std::string_view::npos)
        return reply(conn, error_line(KRIL_E_PROTO, "request holds a NUL byte: requests are text"));
    auto [module, cmd, arg] = split_request(line);
    if (module.empty())
        return reply(conn, error_line(KRIL_E_ARG,
                                      "empty request: send '<module> <command> "
                                      "[argument]' or 'list'"));
    if (module == "list" && cmd.empty())
        return reply(conn, output_answer(listing(), 0));
    if (cmd.empty())
        return reply(conn, error_line(KRIL_E_ARG, "no command given for module '" + module + "'"));
    Target t;
    int32_t code = find_target(module, cmd, &t);
    if (code == 0 && !arg_fits(t.argfmt, arg.c_str()))
        code = KRIL_E_BAD_ARG;
    if (code != 0)
        return reply(conn, error_line(code, error_text(code, module, cmd, arg, t.argfmt)));

    Request r{0, std::move(conn), module, cmd, arg};
    code = RequestQueues::instance().push(t.owner, &r);
    if (code == KRIL_E_NO_MODULE)
        return reply(r.conn, error_line(KRIL_E_NO_MODULE, "module '" + module + "' has no thread"));
    if (code == KRIL_E_BUSY) {
        return reply(r.conn, error_line(KRIL_E_BUSY, std::to_string(RequestQueues::kMaxPending) +
                                                         " requests already wait for the thread "
                                                         "serving '" +
                                                         module + "'"));
    }
}

Listener &Listener::instance() {
    static Listener *l = new Listener;
    return *l;
}

int32_t Listener::attach(std::thread::id thread) {
    if (int32_t rv = RequestQueues::instance().attach(thread); rv != 0)
        return rv;
    std::call_once(started_, [this] { start(); });
    return 0;
}

void Listener::refresh() {
    wake_.signal();
}

bool Listener::path(std::string *out) const {
    std::lock_guard<std::mutex> lock(mu_);
    if (path_.empty() || creator_ != getpid())
        return false;
    *out = path_;
    return true;
}

void Listener::accept_one() {
    UniqueFd conn(accept4(listen_fd_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!conn)
        return;
    ucred cred{};
    socklen_t len = sizeof cred;
    int64_t allowed = g_allowed_uid.load();
    uid_t want = allowed < 0 ? geteuid() : static_cast<uid_t>(allowed);
    if (getsockopt(conn.get(), SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || cred.uid != want) {
        fprintf(stderr,
                "kril: refused a debug shell connection from uid %u (pid %d): only uid %u "
                "may use pid %d's shell\n",
                static_cast<unsigned>(cred.uid), static_cast<int>(cred.pid),
                static_cast<unsigned>(want), static_cast<int>(getpid()));
        return reply(conn, error_line(KRIL_E_PERM, "refused: uid " + std::to_string(cred.uid) +
                                                       " may not use the debug shell of pid " +
                                                       std::to_string(getpid()) + " (uid " +
                                                       std::to_string(want) + ")"));
    }
    while (reading_.size() >= kMaxReading) {
        // Its line may have arrived since the poll.
        if (!read_request(reading_.front())) {
            reply(reading_.front().conn,
                  error_line(KRIL_E_BUSY, std::to_string(kMaxReading) +
                                              " newer connections arrived before this request "
                                              "line was complete"));
        }
        reading_.erase(reading_.begin());
    }
    timeval tv{kSendTimeoutSec, 0};
    setsockopt(conn.get(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    reading_.push_back(Reading{std::move(conn), {}, Clock::now()});
}

void Listener::loop() {
    RequestQueues &queues = RequestQueues::instance();
    std::vector<pollfd> fds;
    std::vector<std::pair<uint64_t, int>> queued;
    while (!stop_.load()) {
        try {
            fds.assign({{wake_.fd(), POLLIN, 0}, {listen_fd_.get(), POLLIN, 0}});
            for (const auto &r : reading_)
                fds.push_back({r.conn.get(), POLLIN, 0});
            queued.clear();
            queues.waiting(&queued);
            for (const auto &[id, fd] : queued)
                fds.push_back({fd, 0, 0});
            if (poll(fds.data(), fds.size(), 1000) < 0)
                continue;
            if (fds[0].revents != 0) {
                // To stop, or because queued requests were taken: a new set.
                wake_.drain();
                continue;
            }
            const size_t first_queued = 2 + reading_.size();
            for (size_t i = reading_.size(); i-- > 0;) {
                if (fds[2 + i].revents != 0 && read_request(reading_[i]))
                    reading_.erase(reading_.begin() + static_cast<ptrdiff_t>(i));
            }
            // Hang-ups only: a request popped meanwhile is simply not found.
            for (size_t i = 0; i < queued.size(); ++i) {
                if (fds[first_queued + i].revents & (POLLHUP | POLLERR))
                    queues.drop(queued[i].first);
            }
            const auto now = Clock::now();
            for (size_t i = reading_.size(); i-- > 0;) {
                if (now - reading_[i].since > kLineTimeout) {
                    reply(reading_[i].conn,
                          error_line(KRIL_E_TIMEOUT, "request line not complete within 10 s"));
                    reading_.erase(reading_.begin() + static_cast<ptrdiff_t>(i));
                }
            }
            if (fds[1].revents & POLLIN)
                accept_one();
        } catch (...) {
            // Out of memory: lose the connections being read, keep listening.
            reading_.clear();
        }
    }
}

void Listener::stop() {
    if (creator_ != getpid())
        return;  // a forked child: the listener and the socket are the parent's
    stop_ = true;
    wake_.signal();
    if (thread_.joinable())
        thread_.join();
    unlink(path_.c_str());
}

void Listener::start() {
    const std::string dir = run_dir();
    std::string why;
    if (check_run_dir(dir, true, &why) != 0)
        return not_reachable(why);
    for (pid_t pid : socket_pids(dir)) {
        if (pid != getpid() && kill(pid, 0) != 0 && errno == ESRCH)
            unlink(socket_path(dir, pid).c_str());
    }
    const std::string path = socket_path(dir, getpid());
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path)
        return not_reachable("socket path " + path + " is too long");
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);

    // Non-blocking: a connection that vanishes between poll and accept must not stall us.
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    qzplat::WakeFd wake;
    if (!fd || !wake.open())
        return not_reachable(std::string("socket: ") + strerror(errno));
    unlink(path.c_str());  // left by a dead process that had our pid
    // The directory already keeps others out; the mode is set before anyone may connect.
    if (bind(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
        chmod(path.c_str(), 0600) != 0 || listen(fd.get(), 16) != 0) {
        why = path + ": " + strerror(errno);
        unlink(path.c_str());
        return not_reachable(why);
    }
    {
        std::lock_guard<std::mutex> lock(mu_);
        path_ = path;
        creator_ = getpid();
    }
    listen_fd_ = std::move(fd);
    wake_ = std::move(wake);
    thread_ = std::thread([this] { loop(); });
    atexit([] { Listener::instance().stop(); });
}

}  // namespace kril

extern "C" int32_t kril_socket_path(char *path, size_t len) {
    return qzplat::c_barrier(KRIL_E_NOMEM, [&]() -> int32_t {
        std::string p;
        if (!kril::Listener::instance().path(&p))
            return KRIL_E_NO_SOCKET;
        kril::copy_out(p, path, len);
        return 0;
    });
}

extern "C" void kril_test_set_allowed_uid(int64_t uid) {
    kril::g_allowed_uid = uid;
}
