// The operator's side: one request to one process, and finding the process.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include <string>
#include <vector>

#include "common/c_barrier.h"
#include "common/unique_fd.h"
#include "c_buffer.h"
#include "protocol.h"
#include "kril_shell.h"
#include "run_dir.h"

namespace kril {
namespace {

using qzplat::UniqueFd;

constexpr int32_t kDefaultTimeoutMs = 10000;

// Reads the answer; every wait is bounded by the time-out.
class Reader {
  public:
    Reader(int fd, int timeout_ms) : fd_(fd), timeout_ms_(timeout_ms) {}

    int32_t line(std::string *out) {
        size_t nl;
        while ((nl = buf_.find('\n')) == std::string::npos) {
            if (int32_t rv = fill(); rv != 0)
                return rv;
        }
        *out = buf_.substr(0, nl);
        buf_.erase(0, nl + 1);
        return 0;
    }
    int32_t bytes(size_t n, FILE *out) {
        while (n > 0) {
            if (buf_.empty()) {
                if (int32_t rv = fill(); rv != 0)
                    return rv;
            }
            size_t take = std::min(n, buf_.size());
            if (out != nullptr)
                fwrite(buf_.data(), 1, take, out);
            buf_.erase(0, take);
            n -= take;
        }
        return 0;
    }

  private:
    int32_t fill() {
        pollfd p{fd_, POLLIN, 0};
        int ready;
        do {
            ready = poll(&p, 1, timeout_ms_);
        } while (ready < 0 && errno == EINTR);
        if (ready == 0)
            return KRIL_E_TIMEOUT;
        char chunk[65536];
        ssize_t n = ready < 0 ? -1 : recv(fd_, chunk, sizeof chunk, 0);
        if (n <= 0)
            return KRIL_E_IO;
        buf_.append(chunk, static_cast<size_t>(n));
        return 0;
    }
    int fd_;
    int timeout_ms_;
    std::string buf_;
};

int32_t connect_to(pid_t pid, UniqueFd *fd, std::string *why) {
    const std::string dir = run_dir();
    if (int32_t rv = check_run_dir(dir, false, why); rv != 0)
        return rv;
    const std::string path = socket_path(dir, pid);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) {
        *why = "socket path " + path + " is too long";
        return KRIL_E_ARG;
    }
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    fd->reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (*fd && connect(fd->get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0)
        return 0;
    if (errno == ENOENT) {
        *why = "no debug shell for pid " + std::to_string(pid) + " (no " + path + ")";
        return KRIL_E_NO_SOCKET;
    }
    *why = "cannot connect to " + path + ": " + strerror(errno);
    return errno == ECONNREFUSED ? KRIL_E_NO_SOCKET : KRIL_E_IO;
}

int32_t run(pid_t pid, const char *request, int timeout_ms, FILE *out, int32_t *handler_rv,
            std::string *why) {
    if (request == nullptr || strchr(request, '\n') != nullptr) {
        *why = "a request is one line without a newline";
        return KRIL_E_ARG;
    }
    if (pid <= 0) {
        *why = "no such pid " + std::to_string(pid);
        return KRIL_E_ARG;
    }
    UniqueFd fd;
    if (int32_t rv = connect_to(pid, &fd, why); rv != 0)
        return rv;
    // A refused request may be answered before it is all sent: read the answer anyway.
    send_all(fd.get(), std::string(request) + "\n");

    const std::string who = "pid " + std::to_string(pid);
    Reader rd(fd.get(), timeout_ms);
    bool started = false;
    for (;;) {
        std::string line;
        int32_t rv = rd.line(&line);
        if (rv == KRIL_E_TIMEOUT) {
            *why = started ? "the command in " + who + " did not finish within " +
                                 std::to_string(timeout_ms) + " ms"
                           : "no answer from " + who + " within " + std::to_string(timeout_ms) +
                                 " ms: the thread that registered the module does not call "
                                 "kril_poll";
            return rv;
        }
        if (rv != 0) {
            *why = who + " closed the connection before answering completely";
            return rv;
        }
        const AnswerLine a = parse_answer_line(line);
        switch (a.kind) {
            case AnswerLine::kRun:
                started = true;
                break;
            case AnswerLine::kError:
                *why = a.text;
                return a.value;
            case AnswerLine::kOutput:
                if (rd.bytes(static_cast<size_t>(a.value), out) != 0) {
                    *why = who + " stopped sending the command's output";
                    return KRIL_E_IO;
                }
                break;
            case AnswerLine::kResult:
                if (handler_rv != nullptr)
                    *handler_rv = a.value;
                return 0;
            case AnswerLine::kBadError:
                *why = "malformed error line from " + who;
                return KRIL_E_PROTO;
            case AnswerLine::kUnexpected:
                *why = "unexpected answer from ";
                *why += who;
                *why += ": '";
                *why += line;
                *why += "'";
                return KRIL_E_PROTO;
        }
    }
}

bool serves(pid_t pid, const std::string &module) {
    char *text = nullptr;
    size_t len = 0;
    FILE *mem = open_memstream(&text, &len);
    if (mem == nullptr)
        return false;
    std::string why;
    int32_t rv = run(pid, "list", 2000, mem, nullptr, &why);
    fclose(mem);
    std::string listing(text, len);
    free(text);
    return rv == 0 && ("\n" + listing).find("\n" + module + "\n") != std::string::npos;
}

int32_t find(const char *module, pid_t *pid, std::string *why) {
    const std::string dir = run_dir();
    if (int32_t rv = check_run_dir(dir, false, why); rv != 0)
        return rv;
    std::vector<pid_t> found;
    for (pid_t p : socket_pids(dir)) {
        UniqueFd probe;
        std::string ignored;
        if (kill(p, 0) != 0 || connect_to(p, &probe, &ignored) != 0)
            continue;  // a dead process's socket
        probe.reset();
        if (module == nullptr || serves(p, module))
            found.push_back(p);
    }
    std::sort(found.begin(), found.end());
    const std::string what =
        module == nullptr ? std::string("a debug shell") : "module '" + std::string(module) + "'";
    if (found.empty()) {
        *why = "no process of uid " + std::to_string(geteuid()) + " serves " + what + " in " + dir;
        return KRIL_E_NO_SOCKET;
    }
    if (found.size() > 1) {
        std::string pids;
        for (pid_t p : found)
            pids += (pids.empty() ? "" : ", ") + std::to_string(p);
        *why = "pids " + pids + " all serve " + what + "; choose one with -p PID";
        return KRIL_E_AMBIGUOUS;
    }
    *pid = found[0];
    return 0;
}

}  // namespace
}  // namespace kril

extern "C" int32_t kril_client_run(int32_t pid, const char *request, int32_t timeout_ms, FILE *out,
                                   int32_t *handler_rv, char *err, size_t err_len) {
    std::string why;
    int32_t rv = qzplat::c_barrier(KRIL_E_NOMEM, [&]() -> int32_t {
        return kril::run(pid, request, timeout_ms > 0 ? timeout_ms : kril::kDefaultTimeoutMs, out,
                         handler_rv, &why);
    });
    kril::copy_out(rv == KRIL_E_NOMEM && why.empty() ? "out of memory" : why, err, err_len);
    return rv;
}

extern "C" int32_t kril_client_find(const char *module, int32_t *pid, char *err, size_t err_len) {
    if (pid == nullptr)
        return KRIL_E_ARG;
    std::string why;
    int32_t rv = qzplat::c_barrier(KRIL_E_NOMEM, [&]() -> int32_t {
        pid_t found = 0;
        int32_t r = kril::find(module, &found, &why);
        *pid = found;
        return r;
    });
    kril::copy_out(rv == KRIL_E_NOMEM && why.empty() ? "out of memory" : why, err, err_len);
    return rv;
}
