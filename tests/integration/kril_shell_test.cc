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

#include <gtest/gtest.h>

#include "kril.h"
#include "kril_shell.h"

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

struct Reply {
    int32_t code, rv;
    std::string out, err;
};

Reply ask(const std::string &request, int32_t timeout_ms = 5000, pid_t pid = getpid()) {
    char *text = nullptr;
    size_t len = 0;
    FILE *mem = open_memstream(&text, &len);
    Reply r{0, -1, "", ""};
    char err[512] = "";
    r.code = kril_client_run(pid, request.c_str(), timeout_ms, mem, &r.rv, err, sizeof err);
    fclose(mem);
    r.out.assign(text, len);
    free(text);
    r.err = err;
    return r;
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
struct Helper {
    FILE *p;
    pid_t pid = 0;
    std::string sock;
    int rv = -1;
    explicit Helper(const std::string &env_module) {
        p = popen((env_module + " 2>" + g_root + "/helper-err").c_str(), "r");
        char line[512];
        while (fgets(line, sizeof line, p) != nullptr) {
            char sock_buf[256];
            if (sscanf(line, "ready %d %255s %d", &pid, sock_buf, &rv) == 3) {
                sock = sock_buf;
                break;
            }
        }
    }
    int finish() {
        int status = pclose(p);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
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

TEST_F(KrilShell, RejectsBadRequestsClearlyAndRunsNothing) {
    const struct {
        std::string request;
        int32_t code;
        const char *says;
    } cases[] = {
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
    };
    for (const auto &c : cases) {
        Reply r = ask(c.request);
        EXPECT_EQ(r.code, c.code) << c.request.substr(0, 40);
        EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
    }
    EXPECT_EQ(g_runs, 0);
    EXPECT_EQ(ask("kt set 5").code, 0);
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
    const std::string krilsh = std::string(KRILSH_PATH) + " ", pid = std::to_string(getpid());
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
    const std::string krilsh = std::string(KRILSH_PATH) + " ", pid = std::to_string(getpid());
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
    const std::string krilsh = std::string(KRILSH_PATH) + " ";
    Helper other(std::string(KRIL_SERVE_HELPER_PATH) + " other");
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
    Helper killed(std::string(KRIL_SERVE_HELPER_PATH) + " killed");
    kill(killed.pid, SIGKILL);
    killed.finish();
    EXPECT_TRUE(fs::exists(killed.sock));
    Helper next(std::string(KRIL_SERVE_HELPER_PATH) + " next");
    EXPECT_FALSE(fs::exists(killed.sock));
    EXPECT_EQ(ask("next quit", 5000, next.pid).code, 0);
    EXPECT_EQ(next.finish(), 0);
}

TEST(KrilServe, RefusedRunDirLeavesTheShellInProcess) {
    const std::string dir = loose_dir("shared");
    Helper h("KRIL_RUN_DIR=" + dir + " exec " + KRIL_SERVE_HELPER_PATH + " m");
    EXPECT_EQ(h.sock, "none");
    EXPECT_EQ(h.rv, 7);
    kill(h.pid, SIGTERM);
    h.finish();
    const std::string err = slurp(g_root + "/helper-err");
    EXPECT_NE(err.find("not reachable from outside: run directory " + dir + " has mode 0755"),
              std::string::npos)
        << err;
    EXPECT_TRUE(fs::is_empty(dir));
}

}  // namespace
