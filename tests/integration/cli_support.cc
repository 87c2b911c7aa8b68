#include "cli_support.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace clitest {
namespace {

std::vector<char *> argv_of(std::vector<std::string> &args) {
    std::vector<char *> argv;
    for (std::string &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    return argv;
}

// In the child, between fork and exec: the environment changes.
void apply(const Env &env) {
    for (const auto &[name, value] : env) {
        if (value)
            setenv(name.c_str(), value->c_str(), 1);
        else
            unsetenv(name.c_str());
    }
}

std::string slurp(const std::string &path) {
    std::stringstream s;
    s << std::ifstream(path).rdbuf();
    return s.str();
}

int status_of(int wstatus) {
    return WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
}

std::string temp_file(const char *what) {
    std::string path = std::string("/tmp/qzcap-cli-") + what + "-XXXXXX";
    int fd = mkstemp(path.data());
    if (fd >= 0)
        close(fd);
    return path;
}

}  // namespace

std::vector<std::string> qzcap_command(const std::vector<std::string> &args) {
    std::vector<std::string> all;
    if (*QZCAP_EMULATOR != '\0')
        all.push_back(QZCAP_EMULATOR);
    all.push_back(QZCAP_PATH);
    all.insert(all.end(), args.begin(), args.end());
    return all;
}

Ran qzcap(const std::vector<std::string> &args, const Env &env, const std::string &input) {
    std::vector<std::string> all = qzcap_command(args);
    const std::string in_file = temp_file("in"), out_file = temp_file("out"),
                      err_file = temp_file("err");
    std::ofstream(in_file) << input;
    std::vector<char *> argv = argv_of(all);
    const pid_t pid = fork();
    if (pid == 0) {
        apply(env);
        const int in = open(in_file.c_str(), O_RDONLY);
        const int out = open(out_file.c_str(), O_WRONLY | O_TRUNC);
        const int err = open(err_file.c_str(), O_WRONLY | O_TRUNC);
        dup2(in, 0);
        dup2(out, 1);
        dup2(err, 2);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int wstatus = 0;
    waitpid(pid, &wstatus, 0);
    Ran r{status_of(wstatus), slurp(out_file), slurp(err_file)};
    for (const std::string &f : {in_file, out_file, err_file})
        unlink(f.c_str());
    return r;
}

std::vector<std::string> lines(const std::string &text) {
    std::vector<std::string> out;
    std::stringstream s(text);
    for (std::string l; std::getline(s, l);)
        out.push_back(l);
    return out;
}

Background::Background(const std::vector<std::string> &args, const Env &env) {
    std::vector<std::string> all = qzcap_command(args);
    err_file_ = temp_file("bgerr");
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe failed";
        return;
    }
    std::vector<char *> argv = argv_of(all);
    pid_ = fork();
    if (pid_ == 0) {
        apply(env);
        const int err = open(err_file_.c_str(), O_WRONLY | O_TRUNC);
        const int null = open("/dev/null", O_RDONLY);
        dup2(null, 0);
        dup2(fds[1], 1);
        dup2(err, 2);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(fds[1]);
    out_ = fds[0];
}

Background::~Background() {
    if (pid_ > 0 && status_ == -2) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    if (out_ >= 0)
        close(out_);
    unlink(err_file_.c_str());
}

std::optional<std::string> Background::line(std::chrono::milliseconds wait) {
    const auto until = std::chrono::steady_clock::now() + wait;
    for (;;) {
        if (size_t nl = buffered_.find('\n'); nl != std::string::npos) {
            std::string l = buffered_.substr(0, nl);
            buffered_.erase(0, nl + 1);
            return l;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            until - std::chrono::steady_clock::now());
        if (left.count() <= 0 || out_ < 0)
            return std::nullopt;
        pollfd p{out_, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left.count())) <= 0)
            return std::nullopt;
        char buf[4096];
        const ssize_t n = read(out_, buf, sizeof buf);
        if (n <= 0)
            return std::nullopt;
        buffered_.append(buf, static_cast<size_t>(n));
    }
}

int Background::stop(int sig) {
    if (status_ == -2) {
        kill(pid_, sig);
        int wstatus = 0;
        waitpid(pid_, &wstatus, 0);
        status_ = status_of(wstatus);
    }
    return status_;
}

std::optional<int> Background::wait_exit(std::chrono::milliseconds wait) {
    const auto until = std::chrono::steady_clock::now() + wait;
    while (status_ == -2) {
        int wstatus = 0;
        if (waitpid(pid_, &wstatus, WNOHANG) == pid_) {
            status_ = status_of(wstatus);
            break;
        }
        if (std::chrono::steady_clock::now() >= until)
            return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return status_;
}

std::string Background::err() const {
    return slurp(err_file_);
}

std::unique_ptr<qztest::TestRedisServer> CliTest::server_;

void CliTest::SetUpTestSuite() {
    server_ = std::make_unique<qztest::TestRedisServer>();
    const std::string why = server_->start();
    ASSERT_EQ(why, "");
}

void CliTest::TearDownTestSuite() {
    server_.reset();
}

void CliTest::SetUp() {
    ASSERT_EQ(server_->start(), "");  // again, when a test stopped it
    qztest::RedisPtr c = server_->client(0);
    ASSERT_NE(c, nullptr);
    qztest::ReplyPtr r = qztest::command(c.get(), {"FLUSHALL"});
    ASSERT_NE(r, nullptr);
}

qztest::ReplyPtr CliTest::redis(std::initializer_list<std::string> args) {
    qztest::RedisPtr c = server_->client();
    return qztest::command(c.get(), args);
}

std::vector<std::string> CliTest::hash(const std::string &key) {
    qztest::ReplyPtr r = redis({"HGETALL", key});
    std::vector<std::string> out;
    for (size_t i = 0; r != nullptr && i < r->elements; ++i)
        out.emplace_back(r->element[i]->str, r->element[i]->len);
    return out;
}

long long CliTest::db_size() {
    qztest::ReplyPtr r = redis({"DBSIZE"});
    return r != nullptr ? r->integer : -1;
}

TempDir::TempDir() {
    char tmpl[] = "/tmp/qzcap-cli-dir-XXXXXX";
    if (mkdtemp(tmpl) != nullptr)
        path_ = tmpl;
}

TempDir::~TempDir() {
    std::error_code ec;
    if (!path_.empty())
        std::filesystem::remove_all(path_, ec);
}

std::string TempDir::file(const std::string &name, const std::string &text) const {
    const std::string p = path_ + "/" + name;
    std::ofstream(p, std::ios::binary) << text;
    return p;
}

}  // namespace clitest
