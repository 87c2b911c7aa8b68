#include "app_processes.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "bench.h"
#include "many_child.h"

#ifndef QZCAP_BENCH_EMULATOR
#define QZCAP_BENCH_EMULATOR ""
#endif

namespace qzbench {
namespace {

// The command that starts this program again: a cross build's bench runs
// under the target's emulator, and so must the processes it starts.
bool self_command(std::vector<std::string> *out, std::string *why) {
    std::istringstream emulator(QZCAP_BENCH_EMULATOR);
    for (std::string word; emulator >> word;)
        out->push_back(word);
    char self[4096];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) {
        *why = std::string("readlink /proc/self/exe: ") + std::strerror(errno);
        return false;
    }
    out->emplace_back(self, static_cast<size_t>(n));
    return true;
}

}  // namespace

AppProcesses::~AppProcesses() {
    std::string ignored;
    stop(0, &ignored);
}

bool AppProcesses::spawn(int count, const std::vector<std::string> &common_args, std::string *why) {
    // Two pipe ends per process stay open here.
    rlimit nofile{};
    getrlimit(RLIMIT_NOFILE, &nofile);
    if (nofile.rlim_cur != RLIM_INFINITY &&
        nofile.rlim_cur < static_cast<rlim_t>(2 * (count + static_cast<int>(procs_.size())) + 64)) {
        *why = format("%d processes need %d file descriptors here; the limit is %llu (ulimit -n)",
                      count, 2 * count + 64, static_cast<unsigned long long>(nofile.rlim_cur));
        return false;
    }
    const pid_t parent = getpid();
    for (int i = 0; i < count; ++i) {
        // Everything the child needs is built before fork: between fork and
        // exec a copy of a threaded process may only make async-signal-safe calls.
        std::vector<std::string> args;
        if (!self_command(&args, why))
            return false;
        args.push_back(kChildFlag);
        args.insert(args.end(), common_args.begin(), common_args.end());
        args.push_back(std::to_string(i));
        std::vector<char *> argv;
        for (std::string &a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);

        int to[2], from[2];
        if (pipe2(to, O_CLOEXEC) != 0) {
            *why = std::string("pipe2: ") + std::strerror(errno);
            return false;
        }
        if (pipe2(from, O_CLOEXEC) != 0) {
            *why = std::string("pipe2: ") + std::strerror(errno);
            close(to[0]);
            close(to[1]);
            return false;
        }
        std::fflush(nullptr);
        pid_t pid = fork();
        if (pid < 0) {
            *why = std::string("fork: ") + std::strerror(errno);
            for (int fd : {to[0], to[1], from[0], from[1]})
                close(fd);
            return false;
        }
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent)
                _exit(1);  // the bench died before the line above
            if (dup2(to[0], STDIN_FILENO) < 0 || dup2(from[1], STDOUT_FILENO) < 0)
                _exit(1);
            // The bench's own connections must not live on in the child.
            close_range(3, ~0U, 0);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(to[0]);
        close(from[1]);
        Proc p;
        p.pid = pid;
        p.to = to[1];
        p.from = from[0];
        procs_.push_back(std::move(p));
    }
    return true;
}

bool AppProcesses::send_all(const std::string &line, std::string *why) {
    std::string text = line + "\n";
    for (size_t i = 0; i < procs_.size(); ++i) {
        // MSG_NOSIGNAL is for sockets: SIGPIPE is ignored by the bench instead.
        if (write(procs_[i].to, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
            *why = format("process %zu: writing '%s': %s", i, line.c_str(), std::strerror(errno));
            return false;
        }
    }
    return true;
}

bool AppProcesses::read_all(int ms, std::vector<std::string> *lines, std::string *why) {
    lines->assign(procs_.size(), "");
    std::vector<bool> have(procs_.size(), false);
    size_t missing = procs_.size();
    auto take_line = [&](size_t i) {
        size_t nl = procs_[i].buf.find('\n');
        if (have[i] || nl == std::string::npos)
            return;
        (*lines)[i] = procs_[i].buf.substr(0, nl);
        procs_[i].buf.erase(0, nl + 1);
        have[i] = true;
        --missing;
    };
    for (size_t i = 0; i < procs_.size(); ++i)
        take_line(i);
    const int64_t deadline = now_ns() + int64_t{ms} * 1000000;
    std::vector<pollfd> fds;
    std::vector<size_t> which;
    while (missing > 0) {
        int64_t left_ms = (deadline - now_ns()) / 1000000;
        if (left_ms <= 0) {
            *why = format("%zu of %zu processes did not answer within %d ms", missing,
                          procs_.size(), ms);
            return false;
        }
        fds.clear();
        which.clear();
        for (size_t i = 0; i < procs_.size(); ++i) {
            if (!have[i]) {
                fds.push_back({procs_[i].from, POLLIN, 0});
                which.push_back(i);
            }
        }
        int n = poll(fds.data(), fds.size(), static_cast<int>(left_ms));
        if (n < 0 && errno != EINTR) {
            *why = std::string("poll: ") + std::strerror(errno);
            return false;
        }
        for (size_t k = 0; n > 0 && k < fds.size(); ++k) {
            if (fds[k].revents == 0)
                continue;
            size_t i = which[k];
            char buf[4096];
            ssize_t got = read(procs_[i].from, buf, sizeof buf);
            if (got <= 0) {
                reap(procs_[i], true);
                *why = format("process %zu ended before answering: %s", i,
                              describe_end(procs_[i]).c_str());
                return false;
            }
            procs_[i].buf.append(buf, static_cast<size_t>(got));
            take_line(i);
        }
    }
    return true;
}

bool AppProcesses::stop(int ms, std::string *why) {
    std::string ignored;
    send_all("quit", &ignored);
    const int64_t deadline = now_ns() + int64_t{ms} * 1000000;
    bool clean = true;
    for (size_t i = 0; i < procs_.size(); ++i) {
        Proc &p = procs_[i];
        while (p.pid > 0 && now_ns() < deadline) {
            reap(p, false);
            if (p.pid > 0)
                usleep(1000);
        }
        if (p.pid > 0) {
            kill(p.pid, SIGKILL);
            reap(p, true);
            if (clean)
                *why = format("process %zu did not quit within %d ms: killed", i, ms);
            clean = false;
        } else if (!WIFEXITED(p.status) || WEXITSTATUS(p.status) != 0) {
            if (clean)
                *why = format("process %zu: %s", i, describe_end(p).c_str());
            clean = false;
        }
        close(p.to);
        close(p.from);
    }
    procs_.clear();
    return clean;
}

void AppProcesses::reap(Proc &p, bool block) {
    if (p.pid <= 0)
        return;
    pid_t r;
    do {
        r = waitpid(p.pid, &p.status, block ? 0 : WNOHANG);
    } while (r < 0 && errno == EINTR);
    if (r == p.pid || r < 0)
        p.pid = -1;
}

std::string AppProcesses::describe_end(const Proc &p) const {
    if (p.pid > 0)
        return "still running";
    if (WIFEXITED(p.status))
        return format("exit status %d (its stderr says why)", WEXITSTATUS(p.status));
    if (WIFSIGNALED(p.status))
        return format("killed by signal %d", WTERMSIG(p.status));
    return "ended";
}

}  // namespace qzbench
