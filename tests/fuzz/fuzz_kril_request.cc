// One request line as an operator's connection delivers it to the debug
// shell (its newline removed), answered on a socket pair and run, when it
// names a command, on this thread as kril_poll does.
//
// Every line must get exactly one answer in the protocol's grammar
// (kril_shell.h), the connection must then be closed, and a handler may run
// only for a line that names its module and command, with an argument of the
// command's format.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common/unique_fd.h"
#include "kril.h"
#include "kril_shell.h"
#include "listener.h"
#include "protocol.h"

namespace {

constexpr char kModule[] = "fz";
int g_ran = 0;
std::string g_ran_arg;

void num_cmd(int32_t v) {
    ++g_ran;
    g_ran_arg = std::to_string(v);
    printf("num %d\n", v);
}
int32_t echo_cmd(const char *url) {
    ++g_ran;
    g_ran_arg = url;
    printf("url %s\n", url);
    return static_cast<int32_t>(strlen(url));
}
int32_t ping_cmd() {
    ++g_ran;
    g_ran_arg.clear();
    puts("pong");
    return 0;
}

[[noreturn]] void fault(const char *what, const std::string &line, const std::string &answer) {
    fprintf(stderr, "fuzz_kril_request: %s\n  line:   \"%s\"\n  answer: \"%s\"\n", what,
            line.c_str(), answer.c_str());
    abort();
}

// Consumes "<word> <decimal>\n"-shaped headers; false when s does not start with one.
bool header(std::string_view *s, std::string_view word, long long *n) {
    if (!s->starts_with(word))
        return false;
    std::string_view rest = s->substr(word.size());
    const size_t nl = rest.find('\n');
    if (nl == std::string_view::npos || nl == 0)
        return false;
    const std::string digits(rest.substr(0, nl));
    char *end = nullptr;
    *n = strtoll(digits.c_str(), &end, 10);
    if (*end != '\0')
        return false;
    s->remove_prefix(word.size() + nl + 1);
    return true;
}

// "err <code> <text>\n" and nothing after it.
bool error_answer(std::string_view s) {
    if (!s.starts_with("err "))
        return false;
    const size_t nl = s.find('\n');
    if (nl != s.size() - 1)
        return false;
    char *end = nullptr;
    const std::string rest(s.substr(4));
    const long code = strtol(rest.c_str(), &end, 10);
    return code <= KRIL_E_ARG && code >= KRIL_E_AMBIGUOUS && *end == ' ';
}

// "out <n>\n" <n bytes> "rv <result>\n" and nothing after it.
bool output_answer(std::string_view s) {
    long long n = 0, rv = 0;
    if (!header(&s, "out ", &n) || n < 0 || static_cast<size_t>(n) > s.size())
        return false;
    s.remove_prefix(static_cast<size_t>(n));
    return header(&s, "rv ", &rv) && s.empty();
}

std::string read_all(int fd) {
    std::string out;
    char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0)
        out.append(buf, static_cast<size_t>(n));
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    static char dir[] = "/tmp/fuzz-kril-XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        perror("fuzz_kril_request: mkdtemp");
        abort();
    }
    setenv("KRIL_RUN_DIR", dir, 1);
    // Runs after the shell's own exit handler has removed the socket.
    atexit([] { rmdir(dir); });
    uint8_t handle[16];
    if (kril_multi_thread_init(nullptr, kModule, handle) != 0 ||
        kril_multi_thread_reg_mod_cmd(handle, kModule, "num", 0, "%d",
                                      reinterpret_cast<void (*)(void)>(num_cmd)) != 0 ||
        kril_multi_thread_reg_mod_cmd(handle, kModule, "echo", 0, "url=%s",
                                      reinterpret_cast<void (*)(void)>(echo_cmd)) != 0 ||
        kril_multi_thread_reg_mod_cmd(handle, kModule, "ping", 0, "void",
                                      reinterpret_cast<void (*)(void)>(ping_cmd)) != 0) {
        fprintf(stderr, "fuzz_kril_request: cannot register module %s\n", kModule);
        abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // What the listener hands on: a line, without its newline, shorter than the limit.
    std::string line(reinterpret_cast<const char *>(data), size);
    line = line.substr(0, line.find('\n'));
    if (line.size() >= KRIL_MAX_LINE)
        line.resize(KRIL_MAX_LINE - 1);

    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) {
        perror("fuzz_kril_request: socketpair");
        abort();
    }
    g_ran = 0;
    kril::handle_line(qzplat::UniqueFd(sv[0]), line);
    kril_poll(0);
    const std::string answer = read_all(sv[1]);
    close(sv[1]);

    std::string_view a = answer;
    const bool ran = a.starts_with("run\n");
    if (ran)
        a.remove_prefix(4);
    if (!error_answer(a) && !output_answer(a))
        fault("an answer outside the protocol", line, answer);
    if (g_ran > 1 || (g_ran == 1) != (ran && a.starts_with("out ")))
        fault("a handler ran without its answer, or an answer without its handler", line, answer);
    if (g_ran == 1) {
        const kril::RequestLine r = kril::split_request(line);
        if (r.module != kModule || (r.cmd != "num" && r.cmd != "echo" && r.cmd != "ping"))
            fault("a handler ran for a line that does not name it", line, answer);
        bool same = false;
        if (r.cmd == "echo")
            same = "url=" + g_ran_arg == r.arg;
        else if (r.cmd == "ping")
            same = r.arg.empty();
        else
            same = r.arg.find('\0') == std::string::npos &&
                   std::to_string(strtoll(r.arg.c_str(), nullptr, 10)) == g_ran_arg;
        if (!same)
            fault("a handler ran with an argument that is not the line's", line, answer);
    }
    return 0;
}
