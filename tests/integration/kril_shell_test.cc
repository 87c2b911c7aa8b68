// The debug shell reached from outside the process: a serving thread, the
// socket and its guards, krilsh, and a second serving process.
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "kril.h"
#include "kril_shell.h"
#include "shell_client.h"

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr char kModule[] = "kt";
std::string g_root;  // KRIL_RUN_DIR is g_root + "/run"

class RunDirEnv : public ::testing::Environment {
    void SetUp() override {
        char tmpl[] = "/tmp/kril-test-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        g_root = tmpl;
        setenv("KRIL_RUN_DIR", (g_root + "/run").c_str(), 1);
    }
    void TearDown() override { fs::remove_all(g_root); }
};
[[maybe_unused]] auto *const g_env = ::testing::AddGlobalTestEnvironment(new RunDirEnv);

std::atomic<int> g_runs{0}, g_set{0};
std::atomic<std::thread::id> g_ran_on;
std::atomic<bool> g_release{false};

void set_cmd(int32_t v) {
    ++g_runs;
    g_set = v;
    printf("set %d\n", v);
}
int32_t echo_cmd(const char *url) {
    ++g_runs;
    printf("url %s\n", url);
    return static_cast<int32_t>(strlen(url));
}
int32_t hello_cmd(void) {
    ++g_runs;
    g_ran_on = std::this_thread::get_id();
    printf("hello");
    puts(" world");
    printf("no newline");  // still in stdio's buffer when the handler returns
    return 7;
}
int32_t fail_cmd(void) {
    ++g_runs;
    puts("failing");
    return -4;
}
int32_t slow_cmd(void) {
    ++g_runs;
    for (int i = 0; i < 500 && !g_release; ++i)
        std::this_thread::sleep_for(10ms);
    return 1;
}

// Points standard input and error at standard output, as collection's
// restore does when standard output is the shell's capture.
int32_t grab_cmd(void) {
    ++g_runs;
    dup2(STDOUT_FILENO, STDIN_FILENO);
    dup2(STDOUT_FILENO, STDERR_FILENO);
    return 0;
}

// A thread that registers kModule and serves it from a kril_poll loop.
class Server {
  public:
    Server() {
        std::promise<void> ready;
        thread_ = std::thread([&] {
            unsigned char h[16];
            kril_multi_thread_init(nullptr, kModule, h);
            auto reg = [&](const char *cmd, const char *fmt, auto fn) {
                kril_multi_thread_reg_mod_cmd(h, kModule, cmd, 0, fmt,
                                              reinterpret_cast<void (*)(void)>(fn));
            };
            reg("set", "%d", set_cmd);
            reg("echo", "url=%s", echo_cmd);
            reg("hello", "void", hello_cmd);
            reg("slow", "void", slow_cmd);
            reg("grab", "void", grab_cmd);
            reg("fail", "void", fail_cmd);
            fd_ = kril_fd();
            ready.set_value();
            while (!stop_) {
                idle_ = paused_.load();
                if (idle_)
                    std::this_thread::sleep_for(5ms);
                else
                    kril_poll(20);
            }
        });
        ready.get_future().wait();
    }
    ~Server() {
        stop_ = true;
        thread_.join();
    }
    void pause() {
        paused_ = true;
        while (!idle_)
            std::this_thread::sleep_for(1ms);
    }
    void resume() { paused_ = false; }
    std::thread::id id() const { return thread_.get_id(); }
    int fd() const { return fd_; }

  private:
    std::atomic<bool> stop_{false}, paused_{false}, idle_{false};
    int fd_ = -1;
    std::thread thread_;
};

using Reply = qztest::ShellAnswer;

Reply ask(const std::string &request, int32_t timeout_ms = 5000, pid_t pid = getpid()) {
    return qztest::shell_request(request, timeout_ms, pid);
}

bool readable(int fd, int timeout_ms) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, timeout_ms) == 1;
}

size_t open_fds() {
    return std::distance(fs::directory_iterator("/proc/self/fd"), {});
}

sockaddr_un socket_addr() {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    EXPECT_EQ(kril_socket_path(addr.sun_path, sizeof addr.sun_path), 0);
    return addr;
}

std::string read_to_eof(int fd) {
    std::string s;
    char buf[4096];
    for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;)
        s.append(buf, static_cast<size_t>(n));
    return s;
}

std::string slurp(const std::string &path) {
    std::stringstream s;
    s << std::ifstream(path).rdbuf();
    return s.str();
}

std::string loose_dir(const std::string &name) {
    std::string dir = g_root + "/" + name;
    mkdir(dir.c_str(), 0700);
    chmod(dir.c_str(), 0755);
    return dir;
}

// A shell command's exit status, standard output and standard error.
struct Ran {
    int status;
    std::string out, err;
};
Ran sh(const std::string &cmd) {
    const std::string err_file = g_root + "/stderr";
    FILE *p = popen((cmd + " 2>" + err_file).c_str(), "r");
    Ran r{-1, read_to_eof(fileno(p)), ""};
    int status = pclose(p);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.err = slurp(err_file);
    return r;
}

// The helper process, up to its "ready" line: {pid, socket or "none", in-process rv}.
// A helper that never got there keeps pid 0, and kill(0, ...) would signal this
// test runner's own process group: signal only what started.
struct Helper {
    FILE *p;
    pid_t pid = 0;
    std::string sock;
    int rv = -1;
    explicit Helper(const std::string &command) {
        p = popen((command + " 2>" + g_root + "/helper-err").c_str(), "r");
        char line[512];
        while (p != nullptr && fgets(line, sizeof line, p) != nullptr) {
            char sock_buf[256];
            if (sscanf(line, "ready %d %255s %d", &pid, sock_buf, &rv) == 3) {
                sock = sock_buf;
                break;
            }
        }
    }
    Helper(const Helper &) = delete;
    Helper &operator=(const Helper &) = delete;
    ~Helper() {
        if (p != nullptr) {  // a test that stopped early: do not wait for its "quit"
            signal(SIGKILL);
            pclose(p);
        }
    }
    bool started() const { return pid > 0; }
    bool signal(int sig) const { return started() && kill(pid, sig) == 0; }
    int finish() {
        int status = pclose(p);
        p = nullptr;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    // For a helper that did not start: how it ended and what it said.
    std::string failure() {
        const int status = p != nullptr ? finish() : -1;
        return "the helper did not start (exit status " + std::to_string(status) +
               "): " + slurp(g_root + "/helper-err");
    }
};

class KrilShell : public ::testing::Test {
  protected:
    void SetUp() override {
        g_release = false;
        g_runs = 0;
    }
    Server server_;
};

TEST_F(KrilShell, RunsOnTheRegisteringThreadAndReturnsOutputAndResult) {
    printf("left unflushed by the application ");  // must not reach the requester
    Reply r = ask("kt hello");
    printf("\n");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.rv, 7);
    EXPECT_EQ(r.out, "hello world\nno newline");
    EXPECT_EQ(g_ran_on.load(), server_.id());
    {
        Server again;  // registers the module anew while the first thread lives
        EXPECT_EQ(ask("kt hello").code, 0);
        EXPECT_EQ(g_ran_on.load(), again.id());
    }
    r = ask("list");
    EXPECT_EQ(r.code, 0);
    EXPECT_NE(r.out.find("kt\n    set %d\n    echo url=%s\n    hello void\n"), std::string::npos)
        << r.out;
}

TEST_F(KrilShell, ParsesTheThreeArgumentFormats) {
    Reply r = ask("kt set   -42  ");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "set -42\n");
    EXPECT_EQ(g_set, -42);
    r = ask("kt echo url=http://h/a b");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "url http://h/a b\n");
    EXPECT_EQ(r.rv, 12);
    EXPECT_EQ(ask("kt echo url=").rv, 0);
}

struct BadRequest {
    std::string request;
    int32_t code;
    const char *says;
};

std::ostream &operator<<(std::ostream &os, const BadRequest &b) {
    return os << '"' << b.request.substr(0, 40) << '"';
}

class KrilShellBadRequest : public KrilShell, public ::testing::WithParamInterface<BadRequest> {};

TEST_P(KrilShellBadRequest, IsRejectedClearlyAndRunsNothing) {
    const BadRequest &c = GetParam();
    Reply r = ask(c.request);
    EXPECT_EQ(r.code, c.code);
    EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
    EXPECT_EQ(g_runs, 0);
    EXPECT_EQ(ask("kt set 5").code, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Requests, KrilShellBadRequest,
    ::testing::ValuesIn(std::vector<BadRequest>{
        {"nosuch hello", KRIL_E_NO_MODULE, "no module 'nosuch'"},
        {"kt nosuch", KRIL_E_NO_COMMAND, "module 'kt' has no command 'nosuch'"},
        {"kt set abc", KRIL_E_BAD_ARG, "takes a decimal integer (format %d), not 'abc'"},
        {"kt set 12abc", KRIL_E_BAD_ARG, "decimal integer"},
        {"kt set 99999999999", KRIL_E_BAD_ARG, "decimal integer"},
        {"kt set", KRIL_E_BAD_ARG, "decimal integer"},
        {"kt echo http://h/", KRIL_E_BAD_ARG, "takes url=<text>"},
        {"kt hello extra", KRIL_E_BAD_ARG, "takes no argument"},
        {"", KRIL_E_ARG, "empty request"},
        {"kt", KRIL_E_ARG, "no command given"},
        {"kt set 1\nkt set 2", KRIL_E_ARG, "one line"},
        {"nosuch " + std::string(1016, 'a'), KRIL_E_NO_MODULE, "no module"},  // 1024 with '\n'
        {"nosuch " + std::string(1017, 'a'), KRIL_E_TOO_LONG, "longer than 1024 bytes"},
        {std::string(5000, 'm'), KRIL_E_TOO_LONG, "longer than 1024 bytes"},
    }));

// A client that is not krilsh can send any bytes: a NUL must not cut a
// request down to another command that then runs.
TEST_F(KrilShell, RejectsARequestHoldingANulByte) {
    using namespace std::string_literals;
    const std::string requests[] = {"kt echo url=ab\0cd\n"s, "kt set 5\0 junk\n"s,
                                    "kt\0other hello\n"s, "kt hello\0\n"s};
    for (const std::string &req : requests) {
        int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr = socket_addr();
        ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        ASSERT_EQ(write(fd, req.data(), req.size()), static_cast<ssize_t>(req.size()));
        const std::string answer = read_to_eof(fd);
        close(fd);
        EXPECT_EQ(answer, "err -2012 request holds a NUL byte: requests are text\n");
    }
    EXPECT_EQ(g_runs, 0);
    EXPECT_EQ(ask("kt echo url=ab").rv, 2);
}

TEST_F(KrilShell, DescriptorIsReadableWhileARequestWaits) {
    server_.pause();
    EXPECT_FALSE(readable(server_.fd(), 0));
    auto pending = std::async(std::launch::async, [] { return ask("kt set 3"); });
    EXPECT_TRUE(readable(server_.fd(), 5000));
    server_.resume();
    EXPECT_EQ(pending.get().code, 0);
    EXPECT_EQ(g_set, 3);
    EXPECT_FALSE(readable(server_.fd(), 0));
}

TEST_F(KrilShell, RequesterThatLeavesCostsNothing) {
    ask("kt set 0");  // the listener's first connection is behind us
    server_.pause();  // and its descriptor closed when kril_poll returned
    const size_t baseline = open_fds();
    server_.resume();
    auto expect_fds_back = [&] {
        for (int i = 0; i < 200 && open_fds() != baseline; ++i)
            std::this_thread::sleep_for(10ms);
        EXPECT_EQ(open_fds(), baseline);
    };

    // Gone while its command runs.
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr = socket_addr();
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    ASSERT_EQ(write(fd, "kt slow\n", 8), 8);
    char run[4];
    ASSERT_EQ(read(fd, run, 4), 4);
    EXPECT_EQ(std::string(run, 4), "run\n");
    close(fd);
    g_release = true;
    EXPECT_EQ(ask("kt set 9").code, 0);
    expect_fds_back();

    // Gone before its thread polled: timed out, and the request goes with it.
    server_.pause();
    const int runs = g_runs;
    Reply r = ask("kt set 13", 300);
    EXPECT_EQ(r.code, KRIL_E_TIMEOUT);
    EXPECT_NE(r.err.find("does not call kril_poll"), std::string::npos) << r.err;
    for (int i = 0; i < 200 && readable(server_.fd(), 0); ++i)
        std::this_thread::sleep_for(10ms);
    EXPECT_FALSE(readable(server_.fd(), 0)) << "a dropped request still signals";
    server_.resume();
    EXPECT_EQ(ask("kt set 14").code, 0);
    EXPECT_EQ(g_runs, runs + 1);
    expect_fds_back();
}

// The listener polls the connections of queued requests for hang-ups; the
// serving thread that answers one must still end it at once, not when the
// listener's poll next returns.
TEST_F(KrilShell, AnswerEndsAtOnceWhileTheListenerStillPollsItsConnection) {
    for (int round = 0; round < 2; ++round) {
        server_.pause();
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr = socket_addr();
        ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        ASSERT_EQ(write(fd, "kt set 4\n", 9), 9);
        ASSERT_TRUE(readable(server_.fd(), 5000)) << "the request was never queued";
        std::this_thread::sleep_for(50ms);  // the listener is back in its poll
        server_.resume();

        std::string answer;
        char buf[256];
        while (!answer.ends_with("rv 0\n") && readable(fd, 5000)) {
            ssize_t n = read(fd, buf, sizeof buf);
            if (n <= 0)
                break;
            answer.append(buf, static_cast<size_t>(n));
        }
        EXPECT_EQ(answer, "run\nout 6\nset 4\nrv 0\n");
        const auto answered = std::chrono::steady_clock::now();
        ASSERT_TRUE(readable(fd, 5000));
        EXPECT_EQ(read(fd, buf, sizeof buf), 0) << "more than the answer";
        EXPECT_LT(std::chrono::steady_clock::now() - answered, 500ms)
            << "the end of the answer waited for the listener's poll round";
        close(fd);
    }
}

TEST_F(KrilShell, StandardDescriptorsAreAsBeforeAfterACommand) {
    const auto before = qztest::std_stream_identity();
    Reply r = ask("kt grab");
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(qztest::std_stream_identity(), before);
    // The capture itself still works for the next command.
    r = ask("kt set 21");
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "set 21\n");
}

// Connections that never send their line, or only part of it, give way to
// newer ones: an operator is never kept out by them.
TEST_F(KrilShell, IdleAndHalfSentConnectionsNeverKeepAnOperatorOut) {
    const sockaddr_un addr = socket_addr();
    auto open_conn = [&] {
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_GE(fd, 0);
        timeval tv{5, 0};  // a missing answer fails the test instead of hanging it
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr), 0);
        return fd;
    };
    std::vector<int> idle, half;
    for (int i = 0; i < 40; ++i)
        idle.push_back(open_conn());
    for (int i = 0; i < 8; ++i) {
        half.push_back(open_conn());
        EXPECT_EQ(write(half.back(), "kt set 4", 8), 8);
    }

    Reply r = ask("kt set 7");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "set 7\n");
    Ran k = sh(std::string(KRILSH_COMMAND) + " -p " + std::to_string(getpid()) + " kt set 8");
    EXPECT_EQ(k.status, 0) << k.err;
    EXPECT_EQ(k.out, "set 8\nrv 0\n");

    // The longest waiting gave way, and was told why.
    EXPECT_EQ(read_to_eof(idle.front()).rfind("err -2008 ", 0), 0u);
    // The newest still finish their line and are served.
    const int runs = g_runs;
    const std::string served = "run\nout 6\nset 4\nrv 0\n";
    for (int fd : half) {
        EXPECT_EQ(write(fd, "\n", 1), 1);
        std::string answer;
        char buf[64];
        for (ssize_t n; answer.size() < served.size() && (n = read(fd, buf, sizeof buf)) > 0;)
            answer.append(buf, static_cast<size_t>(n));
        EXPECT_EQ(answer, served);
    }
    EXPECT_EQ(g_runs, runs + 8);
    for (int fd : idle)
        close(fd);
    for (int fd : half)
        close(fd);
}

TEST_F(KrilShell, SocketAndDirectoryAreTheUsersAlone) {
    const std::string path = socket_addr().sun_path;
    EXPECT_EQ(path, g_root + "/run/" + std::to_string(getpid()) + ".sock");
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    ASSERT_EQ(stat((g_root + "/run").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0700u);
    EXPECT_EQ(st.st_uid, geteuid());

    kril_test_set_allowed_uid(geteuid() + 1);
    Reply r = ask("kt set 1");
    kril_test_set_allowed_uid(-1);
    EXPECT_EQ(r.code, KRIL_E_PERM);
    EXPECT_NE(r.err.find("refused: uid " + std::to_string(geteuid())), std::string::npos) << r.err;
    EXPECT_EQ(g_runs, 0);
    EXPECT_EQ(ask("kt set 1").code, 0);
}

// Another uid that gets past the file modes is still turned away.
TEST_F(KrilShell, RefusesAnotherUser) {
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to connect as uid 65534";
    sockaddr_un addr = socket_addr();
    auto connect_as_nobody = [&] {
        int out[2];
        EXPECT_EQ(pipe(out), 0);
        pid_t pid = fork();
        if (pid == 0) {  // only async-signal-safe calls from here
            int fd = socket(AF_UNIX, SOCK_STREAM, 0);
            if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0)
                _exit(3);
            if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0)
                _exit(errno == EACCES ? 4 : 5);
            char buf[512];
            ssize_t n = read(fd, buf, sizeof buf);
            _exit(n > 0 && write(out[1], buf, static_cast<size_t>(n)) == n ? 0 : 6);
        }
        close(out[1]);
        std::string answer = read_to_eof(out[0]);
        close(out[0]);
        int status = 0;
        waitpid(pid, &status, 0);
        return std::make_pair(WEXITSTATUS(status), answer);
    };
    EXPECT_EQ(connect_as_nobody().first, 4) << "the 0700 directory lets uid 65534 in";

    auto open_up = [&](mode_t dirs, mode_t sock) {
        chmod(g_root.c_str(), dirs);
        chmod((g_root + "/run").c_str(), dirs);
        chmod(addr.sun_path, sock);
    };
    open_up(0711, 0666);
    auto [status, answer] = connect_as_nobody();
    open_up(0700, 0600);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(answer.rfind("err -2009 refused: uid 65534 may not use", 0), 0u) << answer;
    EXPECT_EQ(ask("kt set 2").code, 0);
}

TEST_F(KrilShell, InProcessCallStillWorks) {
    int32_t rv = -1;
    EXPECT_EQ(kril_call(kModule, "echo", "url=abc", &rv), 0);
    EXPECT_EQ(rv, 3);
    EXPECT_EQ(kril_call(kModule, "set", "x", &rv), KRIL_E_BAD_ARG);
    EXPECT_EQ(kril_call(kModule, "nope", nullptr, &rv), KRIL_E_NO_COMMAND);
    // This thread registered nothing, so it has nothing to serve.
    EXPECT_EQ(kril_poll(0), KRIL_E_NO_MODULE);
    EXPECT_EQ(kril_fd(), KRIL_E_NO_MODULE);
}

TEST(KrilRunDir, AcceptsOnlyAPrivateDirectoryOfTheUser) {
    char why[256];
    std::string tmp = g_root + "/dirs-XXXXXX";
    ASSERT_NE(mkdtemp(tmp.data()), nullptr);
    const std::string fresh = tmp + "/fresh", file = tmp + "/file", link = tmp + "/link";
    EXPECT_EQ(kril_check_run_dir(fresh.c_str(), 1, why, sizeof why), 0) << why;
    close(open(file.c_str(), O_CREAT | O_WRONLY, 0600));
    ASSERT_EQ(symlink(fresh.c_str(), link.c_str()), 0);
    const std::pair<std::string, const char *> cases[] = {{loose_dir("g"), "has mode 0755"},
                                                          {file, "is not a directory"},
                                                          {link, "is not a directory"}};
    for (const auto &[dir, says] : cases) {
        EXPECT_EQ(kril_check_run_dir(dir.c_str(), 0, why, sizeof why), KRIL_E_RUN_DIR) << dir;
        EXPECT_NE(strstr(why, says), nullptr) << why;
    }
    if (geteuid() == 0) {
        ASSERT_EQ(chown(fresh.c_str(), 65534, 65534), 0);
        EXPECT_EQ(kril_check_run_dir(fresh.c_str(), 1, why, sizeof why), KRIL_E_RUN_DIR);
        EXPECT_NE(strstr(why, "belongs to uid 65534"), nullptr) << why;
    }
}

TEST_F(KrilShell, KrilshPrintsOutputAndResult) {
    const std::string krilsh = KRILSH_COMMAND " ", pid = std::to_string(getpid());
    Ran r = sh(krilsh + "-p " + pid + " kt hello");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "hello world\nno newline\nrv 7\n");
    r = sh(krilsh + "kt set -5");  // the only live shell of the user
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "set -5\nrv 0\n");
    r = sh(krilsh + "-m kt echo url=a b");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "url a b\nrv 3\n");

    r = sh(krilsh + "-p " + pid + " kt set abc");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "krilsh: command 'set' takes a decimal integer (format %d), not 'abc'\n");
    EXPECT_EQ(sh(krilsh + "kt").status, 2);
    r = sh("KRIL_RUN_DIR=" + loose_dir("loose") + " " + krilsh + "-p " + pid + " list");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("has mode 0755"), std::string::npos) << r.err;
}

TEST_F(KrilShell, KrilshLongOptionsHelpAndCheckedResults) {
    const std::string krilsh = std::string(KRILSH_COMMAND) + " ", pid = std::to_string(getpid());
    Ran r = sh(krilsh + "--help");
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("Usage: krilsh [OPTIONS] MODULE COMMAND [ARG...]\n"), std::string::npos)
        << r.out;
    for (const char *opt : {"--pid PID", "--module MODULE", "--timeout SECONDS", "--check"})
        EXPECT_NE(r.out.find(opt), std::string::npos) << opt;

    r = sh(krilsh + "--pid " + pid + " --timeout 5 kt hello");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "hello world\nno newline\nrv 7\n");
    r = sh(krilsh + "--module kt echo url=x");
    EXPECT_EQ(r.out, "url x\nrv 1\n") << r.err;

    // A negative result is still a command that ran, unless the caller asks.
    r = sh(krilsh + "-p " + pid + " kt fail");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "failing\nrv -4\n");
    EXPECT_EQ(r.err, "");
    for (const std::string &how :
         {"--check -p " + pid + " kt fail", std::string("-c -m kt fail")}) {
        r = sh(krilsh + how);
        EXPECT_EQ(r.status, 3) << how;
        EXPECT_EQ(r.out, "failing\nrv -4\n") << how;
        EXPECT_EQ(r.err, "krilsh: kt fail returned -4\n") << how;
    }
    EXPECT_EQ(sh(krilsh + "--check kt set -1").status, 0) << "set returns nothing";
    EXPECT_EQ(sh(krilsh + "--check -p " + pid + " list").status, 0);

    // Bad options run nothing; out-of-range pids are refused, never cut.
    const int runs = g_runs;
    const std::pair<std::string, std::string> bad[] = {
        {"-p 4294967297 kt hello", "krilsh: -p wants a pid, not '4294967297'\n"},
        {"--pid 99999999999999999999 kt hello",
         "krilsh: -p wants a pid, not '99999999999999999999'\n"},
        {"-p -1 kt hello", "krilsh: -p wants a pid, not '-1'\n"},
        {"-p 0 kt hello", "krilsh: -p wants a pid, not '0'\n"},
        {"-p 12x kt hello", "krilsh: -p wants a pid, not '12x'\n"},
        {"-t 86401 kt hello", "krilsh: -t wants seconds, not '86401'\n"},
        {"--timeout abc kt hello", "krilsh: -t wants seconds, not 'abc'\n"},
        {"--bogus kt hello", "krilsh: unknown option '--bogus' (see krilsh --help)\n"},
        {"-p " + pid + " -m kt hello",
         "krilsh: --pid and --module name the process twice (see krilsh --help)\n"},
        {"", "krilsh: no request (see krilsh --help)\n"},
    };
    for (const auto &[args, err] : bad) {
        r = sh(krilsh + args);
        EXPECT_EQ(r.status, 2) << args;
        EXPECT_EQ(r.out, "") << args;
        EXPECT_EQ(r.err, err) << args;
    }
    EXPECT_EQ(g_runs, runs);
}

TEST_F(KrilShell, FindsTheRightProcessAndTidiesSockets) {
    const std::string krilsh = KRILSH_COMMAND " ";
    Helper other(KRIL_SERVE_HELPER_COMMAND " other");
    ASSERT_TRUE(other.started()) << other.failure();
    EXPECT_EQ(other.sock, g_root + "/run/" + std::to_string(other.pid) + ".sock");
    Ran r = sh(krilsh + "kt set 1");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("choose one with -p"), std::string::npos) << r.err;
    r = sh(krilsh + "-m other ping");
    EXPECT_EQ(r.out, "pong " + std::to_string(other.pid) + "\nrv 7\n") << r.err;
    EXPECT_EQ(ask("other quit", 5000, other.pid).code, 0);
    EXPECT_EQ(other.finish(), 0);
    EXPECT_FALSE(fs::exists(other.sock)) << "left behind at exit";

    // A killed process leaves its socket; the next one to start removes it.
    Helper killed(KRIL_SERVE_HELPER_COMMAND " killed");
    ASSERT_TRUE(killed.started()) << killed.failure();
    EXPECT_TRUE(killed.signal(SIGKILL));
    killed.finish();
    EXPECT_TRUE(fs::exists(killed.sock));
    Helper next(KRIL_SERVE_HELPER_COMMAND " next");
    ASSERT_TRUE(next.started()) << next.failure();
    EXPECT_FALSE(fs::exists(killed.sock));
    EXPECT_EQ(ask("next quit", 5000, next.pid).code, 0);
    EXPECT_EQ(next.finish(), 0);
}

TEST(KrilServe, RefusedRunDirLeavesTheShellInProcess) {
    const std::string dir = loose_dir("shared");
    Helper h("KRIL_RUN_DIR=" + dir + " exec " KRIL_SERVE_HELPER_COMMAND " m");
    ASSERT_TRUE(h.started()) << h.failure();
    EXPECT_EQ(h.sock, "none");
    EXPECT_EQ(h.rv, 7);
    EXPECT_TRUE(h.signal(SIGTERM));
    h.finish();
    const std::string err = slurp(g_root + "/helper-err");
    EXPECT_NE(err.find("not reachable from outside: run directory " + dir + " has mode 0755"),
              std::string::npos)
        << err;
    EXPECT_TRUE(fs::is_empty(dir));
}

// A helper that cannot start is reported with its reason, and signalling it
// reaches nobody (pid 0 would be this test runner's own group).
TEST(KrilServe, HelperThatCannotStartIsReportedAndNeverSignalled) {
    Helper h(g_root + "/no-such-helper m");
    EXPECT_FALSE(h.started());
    EXPECT_FALSE(h.signal(SIGKILL));
    const std::string why = h.failure();
    EXPECT_NE(why.find("exit status 127"), std::string::npos) << why;
    EXPECT_NE(why.find("no-such-helper"), std::string::npos) << why;
}

}  // namespace
