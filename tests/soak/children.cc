#include "children.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cstring>
#include <deque>
#include <fstream>

extern char **environ;

namespace soak {

std::string describe_end(int status) {
    if (WIFEXITED(status))
        return "exited with status " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) {
        const int sig = WTERMSIG(status);
        return "killed by signal " + std::to_string(sig) + " (" + strsignal(sig) + ")";
    }
    return "ended with wait status " + std::to_string(status);
}

bool ended_cleanly(int status) {
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

Children::Children(std::string exe, std::string log_dir, std::vector<std::string> env)
    : exe_(std::move(exe)), log_dir_(std::move(log_dir)), env_(std::move(env)) {}

Children::~Children() {
    kill_all();
}

int Children::spawn(const std::string &name, const std::vector<std::string> &args,
                    const std::vector<std::string> &wrapper, std::string *why) {
    Child c;
    c.name = name;
    c.log = log_dir_ + "/";
    for (char ch : name)
        c.log.push_back(std::isalnum(static_cast<unsigned char>(ch)) ? ch : '-');
    c.log += ".log";

    // Everything exec needs is built before fork: only async-signal-safe
    // calls may follow it.
    std::vector<std::string> argv_s = wrapper;
    argv_s.push_back(exe_);
    argv_s.insert(argv_s.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (std::string &a : argv_s)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> env_s;
    for (char **e = environ; *e != nullptr; ++e) {
        const char *eq = strchr(*e, '=');
        const std::string name_eq(*e, eq != nullptr ? static_cast<size_t>(eq - *e + 1) : 0);
        bool replaced = false;
        for (const std::string &mine : env_)
            replaced = replaced || (!name_eq.empty() && mine.rfind(name_eq, 0) == 0);
        if (!replaced)
            env_s.emplace_back(*e);
    }
    env_s.insert(env_s.end(), env_.begin(), env_.end());
    std::vector<char *> envp;
    for (std::string &e : env_s)
        envp.push_back(e.data());
    envp.push_back(nullptr);

    const pid_t parent = getpid();
    const pid_t group = group_;
    const pid_t pid = fork();
    if (pid < 0) {
        *why = std::string("fork failed: ") + strerror(errno);
        return -1;
    }
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent)
            _exit(126);
        setpgid(0, group);
        const int null = open("/dev/null", O_RDONLY);
        const int log = open(c.log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (null < 0 || log < 0)
            _exit(126);
        dup2(null, 0);
        dup2(log, 1);
        dup2(log, 2);
        close(null);
        close(log);
        execvpe(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    // Also here: whichever of the two runs first, the child is in the group
    // before the coordinator may signal it.
    setpgid(pid, group != 0 ? group : pid);
    if (group_ == 0)
        group_ = pid;
    c.pid = pid;
    children_.push_back(std::move(c));
    return static_cast<int>(children_.size() - 1);
}

std::vector<int> Children::reap() {
    std::vector<int> ended;
    for (size_t i = 0; i < children_.size(); ++i) {
        Child &c = children_[i];
        if (c.ended)
            continue;
        int status = 0;
        if (waitpid(c.pid, &status, WNOHANG) == c.pid) {
            c.ended = true;
            c.status = status;
            ended.push_back(static_cast<int>(i));
        }
    }
    return ended;
}

void Children::kill(int index) {
    Child &c = children_[static_cast<size_t>(index)];
    if (c.ended)
        return;
    ::kill(c.pid, SIGKILL);
    waitpid(c.pid, &c.status, 0);
    c.ended = true;
}

void Children::kill_all() {
    if (group_ != 0)
        ::kill(-group_, SIGKILL);
    for (size_t i = 0; i < children_.size(); ++i)
        kill(static_cast<int>(i));
}

std::string tail_of(const std::string &path, int lines) {
    std::ifstream in(path);
    std::deque<std::string> last;
    for (std::string line; std::getline(in, line);) {
        last.push_back(line);
        if (static_cast<int>(last.size()) > lines)
            last.pop_front();
    }
    std::string out;
    for (const std::string &l : last)
        out += "    | " + l + "\n";
    return out;
}

}  // namespace soak
