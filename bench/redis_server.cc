#include "redis_server.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "bench.h"
#include "raw_redis.h"

namespace qzbench {

std::string find_redis_server(const std::string &configured, std::string *why) {
    if (!configured.empty()) {
        if (access(configured.c_str(), X_OK) == 0)
            return configured;
        *why = "redis-server '" + configured + "' is not an executable file";
        return "";
    }
    const char *path = std::getenv("PATH");
    std::stringstream dirs(path != nullptr ? path : "/usr/bin:/bin");
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        std::string candidate = (dir.empty() ? "." : dir) + "/redis-server";
        if (access(candidate.c_str(), X_OK) == 0)
            return candidate;
    }
    *why =
        "redis-server not found on PATH: the benchmarks need a real server (Debian package "
        "redis-server; scripts/install-deps.sh installs it, or pass --redis-server=PATH)";
    return "";
}

RedisServer::~RedisServer() {
    stop();
}

namespace {

std::string log_tail(const std::string &file) {
    std::ifstream in(file);
    std::vector<std::string> lines;
    for (std::string l; std::getline(in, l);)
        lines.push_back(l);
    std::string out;
    for (size_t i = lines.size() > 5 ? lines.size() - 5 : 0; i < lines.size(); ++i)
        out += "\n    " + lines[i];
    return out;
}

}  // namespace

bool RedisServer::start(std::string *why, int64_t *ready_ns) {
    if (pid_ > 0) {
        *why = "redis-server already running";
        return false;
    }
    if (dir_.empty()) {
        const char *tmp = std::getenv("TMPDIR");
        std::string tmpl =
            std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/qzcap-bench.XXXXXX";
        std::vector<char> buf(tmpl.begin(), tmpl.end());
        buf.push_back('\0');
        if (mkdtemp(buf.data()) == nullptr) {
            *why = "mkdtemp " + tmpl + ": " + std::strerror(errno);
            return false;
        }
        dir_ = buf.data();
        socket_ = dir_ + "/redis.sock";
    }
    std::string logfile = dir_ + "/redis.log";
    std::vector<std::string> args = {
        binary_, "--port", "0",  "--unixsocket", socket_, "--unixsocketperm",
        "700",   "--save", "",   "--appendonly", "no",    "--notify-keyspace-events",
        "KA",    "--dir",  dir_, "--logfile",    logfile, "--daemonize",
        "no"};
    std::vector<char *> argv;
    for (std::string &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);

    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid < 0) {
        *why = std::string("fork: ") + std::strerror(errno);
        return false;
    }
    if (pid == 0) {
        // A benchmark that dies must not leave its server behind.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent)
            _exit(127);
        int devnull = open("/dev/null", O_RDWR);
        if (devnull >= 0) {
            dup2(devnull, STDIN_FILENO);
            dup2(devnull, STDOUT_FILENO);
        }
        execv(binary_.c_str(), argv.data());
        _exit(127);
    }
    pid_ = pid;

    int64_t deadline = now_ns() + 5'000'000'000;
    while (now_ns() < deadline) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            *why = "redis-server exited at start (status " + std::to_string(status) +
                   "); its log:" + log_tail(logfile);
            return false;
        }
        std::string ignored;
        if (Conn c = connect_unix(socket_, &ignored)) {
            if (Reply r = command(c.get(), &ignored, "PING")) {
                if (ready_ns != nullptr)
                    *ready_ns = now_ns();
                if (version_.empty()) {
                    if (Reply info = command(c.get(), &ignored, "INFO server");
                        info && info->type == REDIS_REPLY_STRING) {
                        std::string s(info->str, info->len);
                        size_t at = s.find("redis_version:");
                        if (at != std::string::npos)
                            version_ = s.substr(at + 14, s.find('\r', at) - at - 14);
                    }
                }
                return true;
            }
        }
        usleep(200);
    }
    *why = "redis-server did not answer PING on " + socket_ +
           " within 5 s; its log:" + log_tail(logfile);
    kill_hard(why);
    return false;
}

bool RedisServer::kill_hard(std::string *why) {
    if (pid_ <= 0) {
        *why = "redis-server is not running";
        return false;
    }
    ::kill(pid_, SIGKILL);
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return true;
}

void RedisServer::stop() {
    if (pid_ > 0) {
        ::kill(pid_, SIGTERM);
        int status = 0;
        while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        pid_ = -1;
    }
    if (!dir_.empty()) {
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
        dir_.clear();
    }
}

}  // namespace qzbench
