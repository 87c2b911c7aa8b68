#include "mom_redis_server.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

namespace momtest {
namespace {

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

}  // namespace

RedisServer::RedisServer(Options opt) : opt_(std::move(opt)) {
    char tmpl[] = "/tmp/qz_mom_redis.XXXXXX";
    if (mkdtemp(tmpl) != nullptr) {
        dir_ = tmpl;
        socket_ = dir_ + "/redis.sock";
    }
}

RedisServer::~RedisServer() {
    stop();
    if (!dir_.empty()) {
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
}

std::string RedisServer::start() {
    if (dir_.empty())
        return "cannot make a temporary directory";
    if (pid_ > 0)
        return "";
    const std::string exe = find_redis_server();
    if (exe.empty())
        return kRedisMissing;
    std::vector<std::string> args{exe};
    if (!opt_.config.empty()) {
        std::ofstream(dir_ + "/redis.conf") << opt_.config;
        args.push_back(dir_ + "/redis.conf");
    }
    for (const char *a : {"--port", "0", "--unixsocketperm", "700", "--save", "", "--appendonly",
                          "no", "--daemonize", "no"}) {
        args.emplace_back(a);
    }
    args.insert(args.end(), {"--unixsocket", socket_, "--dir", dir_, "--logfile",
                             dir_ + "/redis.log", "--notify-keyspace-events", opt_.notify});
    args.insert(args.end(), opt_.args.begin(), opt_.args.end());
    std::vector<char *> argv;
    for (std::string &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);

    // The server's own stderr (start-up errors) goes to a file: a test may be
    // capturing ours.
    const std::string err_path = dir_ + "/stderr.log";
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ < 0)
        return "fork failed";
    if (pid_ == 0) {
        // Only async-signal-safe calls between fork and exec.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent)
            _exit(1);
        int null = open("/dev/null", O_RDWR);
        int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(null, 0);
        dup2(null, 1);
        dup2(err, 2);
        execv(argv[0], argv.data());
        _exit(127);
    }
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < until) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            std::stringstream text;
            for (const char *f : {"/stderr.log", "/redis.log"}) {
                std::ifstream log(dir_ + f);
                text << log.rdbuf();
            }
            return "redis-server exited at start: " + text.str();
        }
        RedisPtr c(redisConnectUnix(socket_.c_str()));
        if (c != nullptr && c->err == 0) {
            // Any answer will do: a server wanting a password answers NOAUTH.
            ReplyPtr r(static_cast<redisReply *>(redisCommand(c.get(), "PING")));
            if (r != nullptr)
                return "";
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    stop();
    return "redis-server did not answer within 10 s";
}

void RedisServer::kill() {
    if (pid_ <= 0)
        return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

void RedisServer::stop() {
    if (pid_ <= 0)
        return;
    ::kill(pid_, SIGTERM);
    ::kill(pid_, SIGCONT);  // a paused server would never see the SIGTERM
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

void RedisServer::pause() {
    if (pid_ > 0)
        ::kill(pid_, SIGSTOP);
}

void RedisServer::resume() {
    if (pid_ > 0)
        ::kill(pid_, SIGCONT);
}

RedisPtr RedisServer::client(int db) const {
    RedisPtr c(redisConnectUnix(socket_.c_str()));
    if (c == nullptr || c->err != 0) {
        ADD_FAILURE() << "cannot connect to " << socket_ << ": "
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
