// The shell seen from outside: one socket per process, a listener thread
// that reads and checks requests, and a queue per serving thread that
// kril_poll drains, so handlers run where their module was registered.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>

#include "common/c_barrier.h"
#include "common/wake_fd.h"
#include "internal.h"

namespace kril {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kMaxPending = 64;  // per serving thread
// Connections still sending their line. When a newcomer finds them all
// taken, the longest waiting gives way: idle or half-sent connections can
// never keep an operator out, and a new connection always has the time of
// kMaxReading later arrivals to send its line.
constexpr size_t kMaxReading = 32;
constexpr auto kLineTimeout = std::chrono::seconds(10);
constexpr int kSendTimeoutSec = 5;  // a requester that stops reading cannot stall a serving thread

struct Request {
    uint64_t id;
    UniqueFd conn;
    std::string module, cmd, arg;
};

struct Queue {
    qzplat::WakeFd event;  // readable exactly while requests wait
    std::deque<Request> pending;
};

struct Reading {
    UniqueFd conn;
    std::string buf;
    Clock::time_point since;
};

struct Server {
    std::mutex mu;
    std::map<std::thread::id, std::shared_ptr<Queue>> queues;
    uint64_t next_id = 0;

    std::once_flag started;
    std::string path;  // empty: reachable only in process
    pid_t creator = 0;
    UniqueFd listen_fd;
    qzplat::WakeFd wake;
    std::thread listener;
    std::atomic<bool> stop{false};
};

// Never destroyed: static destructors must not pull it from under the
// listener before the exit handler has stopped it.
Server &S() {
    static Server *s = new Server;
    return *s;
}

std::atomic<int64_t> g_allowed_uid{-1};
// Standard output is one descriptor for the whole process.
std::recursive_mutex g_capture;

std::string error_line(int32_t code, std::string text) {
    for (char &c : text) {
        if (c == '\n' || c == '\r')
            c = ' ';
    }
    return "err " + std::to_string(code) + " " + text + "\n";
}

std::string error_text(int32_t code, const std::string &module, const std::string &cmd,
                       const std::string &arg, const std::string &argfmt) {
    switch (code) {
        case KRIL_E_NO_MODULE:
            return "no module '" + module + "' in pid " + std::to_string(getpid());
        case KRIL_E_NO_COMMAND:
            return "module '" + module + "' has no command '" + cmd + "'";
        case KRIL_E_BAD_ARG:
            if (argfmt == "%d")
                return "command '" + cmd + "' takes a decimal integer (format %d), not '" + arg +
                       "'";
            if (argfmt == "url=%s")
                return "command '" + cmd + "' takes url=<text> (format url=%s), not '" + arg + "'";
            return "command '" + cmd + "' takes no argument (format void), not '" + arg + "'";
        case KRIL_E_NOMEM:
            return "out of memory";
        default:
            return "error " + std::to_string(code);
    }
}

std::shared_ptr<Queue> queue_of(std::thread::id t) {
    Server &s = S();
    std::lock_guard<std::mutex> lock(s.mu);
    auto it = s.queues.find(t);
    return it == s.queues.end() ? nullptr : it->second;
}

// Moves fd above the standard descriptors (one of them may be closed and
// have been reused); -1 stays -1.
int above_std(int fd) {
    if (fd < 0 || fd > STDERR_FILENO)
        return fd;
    int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(fd);
    return moved;
}

// Redirects descriptor 1 to an anonymous file while a handler runs, and puts
// descriptors 0, 1 and 2 back as they were afterwards: a handler that points
// the standard streams elsewhere and "restores" them to the descriptor it
// found on 1 (collection does) would otherwise leave 0 and 2 on the capture,
// and every later error line would be lost. Text the process buffered before
// is flushed to the real output first.
class StdoutCapture {
  public:
    bool begin() {
        fflush(stdout);
        for (int fd = 0; fd < kStd; ++fd)  // each stays -1 if that descriptor was closed
            saved_[fd].reset(fcntl(fd, F_DUPFD_CLOEXEC, kStd));
        file_.reset(above_std(memfd_create("kril-out", MFD_CLOEXEC)));
        if (!file_)
            return false;
        active_ = true;
        return dup2(file_.get(), STDOUT_FILENO) >= 0;
    }
    std::string end() {
        restore();
        std::string out;
        char buf[65536];
        off_t off = 0;
        ssize_t n;
        while ((n = pread(file_.get(), buf, sizeof buf, off)) > 0) {
            out.append(buf, static_cast<size_t>(n));
            off += n;
        }
        return out;
    }
    ~StdoutCapture() { restore(); }

  private:
    static constexpr int kStd = STDERR_FILENO + 1;

    void restore() {
        if (!active_)
            return;
        fflush(stdout);
        fflush(stderr);
        for (int fd = 0; fd < kStd; ++fd) {
            if (saved_[fd])
                dup2(saved_[fd].get(), fd);
            else
                close(fd);
        }
        active_ = false;
    }
    UniqueFd file_, saved_[kStd];
    bool active_ = false;
};

// Returns whether the handler ran.
bool run_request(Request &r) {
    if (!send_all(r.conn.get(), "run\n"))
        return false;  // the requester left: its command is not wanted any more
    int32_t rv = 0;
    int32_t code;
    std::string out;
    {
        std::lock_guard<std::recursive_mutex> lock(g_capture);
        StdoutCapture cap;
        if (!cap.begin()) {
            send_all(r.conn.get(), error_line(KRIL_E_IO, std::string("cannot capture output: ") +
                                                             strerror(errno)));
            return false;
        }
        code = kril_call(r.module.c_str(), r.cmd.c_str(), r.arg.c_str(), &rv);
        out = cap.end();
    }
    if (code != 0) {
        // The module changed between the check and the run.
        Target t;
        find_target(r.module, r.cmd, &t);
        send_all(r.conn.get(),
                 error_line(code, error_text(code, r.module, r.cmd, r.arg, t.argfmt)));
        return false;
    }
    send_all(r.conn.get(),
             "out " + std::to_string(out.size()) + "\n" + out + "rv " + std::to_string(rv) + "\n");
    return true;
}

// Listener side: errors answered at once must never block the listener.
void reply(const UniqueFd &conn, const std::string &text) {
    send_all(conn.get(), text, MSG_DONTWAIT);
}

}  // namespace

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
    if (module == "list" && cmd.empty()) {
        std::string text = listing();
        return reply(conn, "out " + std::to_string(text.size()) + "\n" + text + "rv 0\n");
    }
    if (cmd.empty())
        return reply(conn, error_line(KRIL_E_ARG, "no command given for module '" + module + "'"));
    Target t;
    int32_t code = find_target(module, cmd, &t);
    if (code == 0 && !arg_fits(t.argfmt, arg.c_str()))
        code = KRIL_E_BAD_ARG;
    if (code != 0)
        return reply(conn, error_line(code, error_text(code, module, cmd, arg, t.argfmt)));

    Server &s = S();
    std::unique_lock<std::mutex> lock(s.mu);
    auto it = s.queues.find(t.owner);
    if (it == s.queues.end()) {
        lock.unlock();
        return reply(conn, error_line(KRIL_E_NO_MODULE, "module '" + module + "' has no thread"));
    }
    Queue &q = *it->second;
    if (q.pending.size() >= kMaxPending) {
        lock.unlock();
        return reply(conn, error_line(KRIL_E_BUSY, std::to_string(kMaxPending) +
                                                       " requests already wait for the thread "
                                                       "serving '" +
                                                       module + "'"));
    }
    q.pending.push_back(Request{++s.next_id, std::move(conn), module, cmd, arg});
    q.event.signal();
}

namespace {

// Returns true when the listener is done with the connection.
bool read_request(Reading &r) {
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

void accept_one(int listen_fd, std::vector<Reading> &reading) {
    UniqueFd conn(accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC));
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
    while (reading.size() >= kMaxReading) {
        // Its line may have arrived since the poll.
        if (!read_request(reading.front())) {
            reply(reading.front().conn,
                  error_line(KRIL_E_BUSY, std::to_string(kMaxReading) +
                                              " newer connections arrived before this request "
                                              "line was complete"));
        }
        reading.erase(reading.begin());
    }
    timeval tv{kSendTimeoutSec, 0};
    setsockopt(conn.get(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    reading.push_back(Reading{std::move(conn), {}, Clock::now()});
}

// A requester that hangs up while its request waits takes the request with it.
void drop_queued(uint64_t id) {
    Server &s = S();
    std::lock_guard<std::mutex> lock(s.mu);
    for (auto &[thread, q] : s.queues) {
        for (auto it = q->pending.begin(); it != q->pending.end(); ++it) {
            if (it->id == id) {
                q->pending.erase(it);
                if (q->pending.empty())
                    q->event.drain();
                return;
            }
        }
    }
}

void listen_loop() {
    Server &s = S();
    std::vector<Reading> reading;
    std::vector<pollfd> fds;
    std::vector<uint64_t> queued;
    while (!s.stop.load()) {
        try {
            fds.assign({{s.wake.fd(), POLLIN, 0}, {s.listen_fd.get(), POLLIN, 0}});
            for (const auto &r : reading)
                fds.push_back({r.conn.get(), POLLIN, 0});
            queued.clear();
            {
                std::lock_guard<std::mutex> lock(s.mu);
                for (const auto &[thread, q] : s.queues) {
                    for (const auto &r : q->pending) {
                        queued.push_back(r.id);
                        fds.push_back({r.conn.get(), 0, 0});
                    }
                }
            }
            if (poll(fds.data(), fds.size(), 1000) < 0)
                continue;
            if (fds[0].revents != 0)
                continue;  // woken to stop
            for (size_t i = reading.size(); i-- > 0;) {
                if (fds[2 + i].revents != 0 && read_request(reading[i]))
                    reading.erase(reading.begin() + static_cast<ptrdiff_t>(i));
            }
            // Hang-ups only: a request popped meanwhile is simply not found.
            for (size_t i = 0; i < queued.size(); ++i) {
                if (fds[2 + reading.size() + i].revents & (POLLHUP | POLLERR))
                    drop_queued(queued[i]);
            }
            const auto now = Clock::now();
            for (size_t i = reading.size(); i-- > 0;) {
                if (now - reading[i].since > kLineTimeout) {
                    reply(reading[i].conn,
                          error_line(KRIL_E_TIMEOUT, "request line not complete within 10 s"));
                    reading.erase(reading.begin() + static_cast<ptrdiff_t>(i));
                }
            }
            if (fds[1].revents & POLLIN)
                accept_one(s.listen_fd.get(), reading);
        } catch (...) {
            // Out of memory: lose the connections being read, keep listening.
            reading.clear();
        }
    }
}

void stop_server() {
    Server &s = S();
    if (s.creator != getpid())
        return;  // a forked child: the listener and the socket are the parent's
    s.stop = true;
    s.wake.signal();
    if (s.listener.joinable())
        s.listener.join();
    unlink(s.path.c_str());
}

void not_reachable(const std::string &why) {
    fprintf(stderr, "kril: debug shell of pid %d not reachable from outside: %s\n",
            static_cast<int>(getpid()), why.c_str());
}

void start_server() {
    Server &s = S();
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
        std::lock_guard<std::mutex> lock(s.mu);
        s.path = path;
        s.creator = getpid();
    }
    s.listen_fd = std::move(fd);
    s.wake = std::move(wake);
    s.listener = std::thread(listen_loop);
    atexit(stop_server);
}

}  // namespace

int32_t server_attach(std::thread::id thread) {
    Server &s = S();
    {
        std::lock_guard<std::mutex> lock(s.mu);
        auto &q = s.queues[thread];
        if (!q) {
            auto fresh = std::make_shared<Queue>();
            if (!fresh->event.open()) {
                s.queues.erase(thread);
                return KRIL_E_IO;
            }
            q = std::move(fresh);
        }
    }
    std::call_once(s.started, start_server);
    return 0;
}

}  // namespace kril

extern "C" int32_t kril_poll(int32_t timeout_ms) {
    return qzplat::c_barrier(KRIL_E_NOMEM, [&]() -> int32_t {
        auto q = kril::queue_of(std::this_thread::get_id());
        if (!q)
            return KRIL_E_NO_MODULE;
        if (timeout_ms != 0) {
            pollfd p{q->event.fd(), POLLIN, 0};
            poll(&p, 1, timeout_ms < 0 ? -1 : timeout_ms);
        }
        std::deque<kril::Request> batch;
        {
            std::lock_guard<std::mutex> lock(kril::S().mu);
            batch.swap(q->pending);
            q->event.drain();
        }
        int32_t ran = 0;
        for (auto &r : batch)
            ran += kril::run_request(r) ? 1 : 0;
        return ran;
    });
}

extern "C" int32_t kril_fd(void) {
    return qzplat::c_barrier(KRIL_E_NOMEM, []() -> int32_t {
        auto q = kril::queue_of(std::this_thread::get_id());
        return q ? q->event.fd() : KRIL_E_NO_MODULE;
    });
}

extern "C" int32_t kril_socket_path(char *path, size_t len) {
    return qzplat::c_barrier(KRIL_E_NOMEM, [&]() -> int32_t {
        kril::Server &s = kril::S();
        std::lock_guard<std::mutex> lock(s.mu);
        if (s.path.empty() || s.creator != getpid())
            return KRIL_E_NO_SOCKET;
        kril::copy_out(s.path, path, len);
        return 0;
    });
}

extern "C" void kril_test_set_allowed_uid(int64_t uid) {
    kril::g_allowed_uid = uid;
}
