#include "private_redis_server.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "redis_client.h"

namespace qztest {
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

bool answers_ping(const std::string &socket) {
    std::string why;
    RedisPtr c = connect("unix:" + socket, 0, &why, std::chrono::milliseconds(500));
    // Any answer will do: a server wanting a password answers NOAUTH.
    return c != nullptr && command(c.get(), {"PING"}, &why) != nullptr;
}

}  // namespace

PrivateRedisServer::PrivateRedisServer(Options opt) : opt_(std::move(opt)) {
    char tmpl[] = "/tmp/qz_mom_redis.XXXXXX";  // short: a socket path has 107 bytes
    if (mkdtemp(tmpl) != nullptr) {
        dir_ = tmpl;
        socket_ = dir_ + "/redis.sock";
    }
}

PrivateRedisServer::~PrivateRedisServer() {
    stop();
    if (!dir_.empty()) {
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
}

std::string PrivateRedisServer::start() {
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
    argv.reserve(args.size() + 1);
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
        // Only async-signal-safe calls between fork and exec. SIGKILL, not
        // SIGTERM: a paused server would keep a SIGTERM pending forever.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
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
    paused_ = false;
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
        if (answers_ping(socket_))
            return "";
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    stop();
    return "redis-server did not answer within 10 s";
}

void PrivateRedisServer::kill() {
    if (pid_ <= 0)
        return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
    paused_ = false;
}

void PrivateRedisServer::stop() {
    if (pid_ <= 0)
        return;
    ::kill(pid_, SIGTERM);
    resume();
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

void PrivateRedisServer::pause() {
    if (pid_ <= 0 || paused_)
        return;
    ::kill(pid_, SIGSTOP);
    int status = 0;
    if (waitpid(pid_, &status, WUNTRACED) == pid_ && !WIFSTOPPED(status)) {
        pid_ = -1;  // it was already gone
        return;
    }
    paused_ = true;
}

void PrivateRedisServer::resume() {
    if (pid_ <= 0 || !paused_)
        return;
    ::kill(pid_, SIGCONT);
    paused_ = false;
}

}  // namespace qztest
