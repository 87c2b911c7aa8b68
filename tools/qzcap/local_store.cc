#include "local_store.h"

#include <fcntl.h>
#include <csignal>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <hiredis.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>
#include <vector>

#include "failure.h"
#include "kril_shell.h"

namespace qzcap::tool {
namespace {

using Clock = std::chrono::steady_clock;

struct RedisFree {
    void operator()(redisContext *c) const { redisFree(c); }
    void operator()(redisReply *r) const { freeReplyObject(r); }
};

std::string find_redis_server() {
    const char *path = getenv("PATH");
    std::stringstream dirs(path != nullptr ? path : "/usr/bin:/bin");
    for (std::string dir; std::getline(dirs, dir, ':');) {
        std::string exe = (dir.empty() ? "." : dir) + "/redis-server";
        if (access(exe.c_str(), X_OK) == 0)
            return exe;
    }
    return "";
}

// One command on the socket, with a short timeout; null when nothing answers.
std::unique_ptr<redisReply, RedisFree> ask(const std::string &socket, const char *command) {
    // The timeout is set on the socket here, not handed to hiredis: a 32-bit
    // target's hiredis may take a 32-bit timeval where this build has a
    // 64-bit one. A Unix socket connects at once or fails.
    std::unique_ptr<redisContext, RedisFree> c(redisConnectUnix(socket.c_str()));
    if (c == nullptr || c->err != 0)
        return nullptr;
    const timeval tv{0, 500000};
    if (setsockopt(c->fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) != 0 ||
        setsockopt(c->fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv) != 0)
        return nullptr;
    return std::unique_ptr<redisReply, RedisFree>(
        static_cast<redisReply *>(redisCommand(c.get(), command)));
}

bool answers(const std::string &socket) {
    return ask(socket, "PING") != nullptr;
}

std::string last_line(const std::string &file) {
    std::ifstream in(file);
    std::string line, last;
    while (std::getline(in, line)) {
        if (!line.empty())
            last = line;
    }
    return last;
}

pid_t read_pid(const std::string &file) {
    std::ifstream in(file);
    long pid = 0;
    in >> pid;
    return pid > 0 && pid <= INT32_MAX ? static_cast<pid_t>(pid) : 0;
}

// Whether process pid has ended: gone, or a zombie that its parent (the
// daemon's is init, which may take its time) has not reaped yet.
bool ended(pid_t pid) {
    if (kill(pid, 0) != 0 && errno == ESRCH)
        return true;
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(stat, text);
    const size_t close = text.rfind(')');  // the name may hold anything
    return close != std::string::npos && text.compare(close, 3, ") Z") == 0;
}

Clock::time_point deadline_after(double s) {
    return Clock::now() + std::chrono::microseconds(static_cast<int64_t>(s * 1e6));
}

// Ends the daemon that store_up started and then gave up on, so that no
// server is left running that nobody knows of. It is empty: SIGKILL loses
// nothing and works on a server that hangs.
void end_abandoned(const std::string &pid_file, const std::string &socket) {
    // The daemon writes its pid file right after it detaches.
    const auto deadline = deadline_after(2.0);
    pid_t pid = read_pid(pid_file);
    while (pid == 0 && Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        pid = read_pid(pid_file);
    }
    if (pid > 0 && kill(pid, SIGKILL) == 0) {
        while (!ended(pid) && Clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    unlink(socket.c_str());
    unlink(pid_file.c_str());
}

std::string seconds_text(double s) {
    char buf[32];
    snprintf(buf, sizeof buf, "%g s", s);
    return buf;
}

}  // namespace

std::string default_store_dir() {
    const char *xdg = getenv("XDG_RUNTIME_DIR");
    if (xdg != nullptr && xdg[0] == '/')
        return std::string(xdg) + "/qzcap";
    return "/tmp/qzcap-" + std::to_string(geteuid());
}

LocalStore store_up(const std::string &dir, double timeout_s) {
    LocalStore s;
    s.dir = dir;
    s.socket = dir + "/redis.sock";
    if (s.socket.size() >= sizeof(sockaddr_un{}.sun_path))
        bad_input("store directory " + dir + " is too long for a Unix socket path");
    char why[512] = "";
    if (kril_check_run_dir(dir.c_str(), 1, why, sizeof why) != 0)
        bad_input(why);
    const std::string pid_file = dir + "/redis.pid", log = dir + "/redis.log",
                      err_file = dir + "/redis.err";
    if (answers(s.socket)) {
        s.pid = read_pid(pid_file);
        s.already_up = true;
        return s;
    }
    const std::string exe = find_redis_server();
    if (exe.empty())
        throw Failure(kExitNoStore,
                      "redis-server not found: install the redis-server package "
                      "(scripts/install-deps.sh does)");
    // Left by a server that died; the pid file must name none but ours.
    unlink(s.socket.c_str());
    unlink(pid_file.c_str());
    std::vector<std::string> args{
        exe,      "--port",      "0",  "--unixsocket", s.socket, "--unixsocketperm",
        "700",    "--save",      "",   "--appendonly", "no",     "--notify-keyspace-events",
        "Kghxe",  "--dir",       dir,  "--logfile",    log,      "--pidfile",
        pid_file, "--daemonize", "yes"};
    std::vector<char *> argv;
    argv.reserve(args.size() + 1);
    for (std::string &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    const pid_t child = fork();
    if (child < 0)
        throw Failure(kExitNoStore,
                      std::string("cannot start redis-server: fork: ") + strerror(errno));
    if (child == 0) {
        // Start-up errors come before the daemon detaches: keep them.
        const int null = open("/dev/null", O_RDWR);
        const int err = open(err_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(null, 0);
        dup2(null, 1);
        dup2(err >= 0 ? err : null, 2);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);  // the daemon's parent returns once it has forked
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::string said = last_line(err_file);
        if (said.empty())
            said = last_line(log);
        throw Failure(kExitNoStore,
                      "redis-server did not start" + (said.empty() ? std::string() : ": " + said));
    }
    const auto deadline = deadline_after(timeout_s);
    while (!answers(s.socket)) {
        if (Clock::now() >= deadline) {
            const std::string said = last_line(log);
            end_abandoned(pid_file, s.socket);
            throw Failure(kExitNoStore, "redis-server in " + dir + " did not answer within " +
                                            seconds_text(timeout_s) +
                                            (said.empty() ? std::string() : ": " + said));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    unlink(err_file.c_str());
    s.pid = read_pid(pid_file);
    return s;
}

void store_down(const std::string &dir, double timeout_s) {
    const std::string socket = dir + "/redis.sock", pid_file = dir + "/redis.pid";
    const pid_t pid = read_pid(pid_file);
    if (!answers(socket)) {
        unlink(socket.c_str());
        unlink(pid_file.c_str());
        not_found("no store is running in " + dir);
    }
    // The server ends the connection without an answer when it shuts down.
    ask(socket, "SHUTDOWN NOSAVE");
    const auto deadline = deadline_after(timeout_s);
    for (;;) {
        const bool gone = pid > 0 ? ended(pid) : !answers(socket);
        if (gone)
            return;
        if (Clock::now() >= deadline) {
            throw Failure(kExitNoStore, "the store in " + dir + " did not stop within " +
                                            seconds_text(timeout_s));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

}  // namespace qzcap::tool
