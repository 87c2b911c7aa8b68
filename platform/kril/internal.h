// What the shell's pieces share: the registry as the server sees it, the
// run directory, and descriptor ownership.
#ifndef KRIL_INTERNAL_H
#define KRIL_INTERNAL_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "common/unique_fd.h"
#include "kril_shell.h"

namespace kril {

using qzplat::UniqueFd;

void copy_out(const std::string &text, char *buf, size_t len);

// Registry (kril.cc).
struct Target {
    std::thread::id owner;
    std::string argfmt;
};
int32_t find_target(const std::string &module, const std::string &cmd, Target *t);
bool arg_fits(const std::string &argfmt, const char *arg);
std::string listing();

// Server (server.cc): gives the calling thread a request queue and, the first
// time, starts listening.
int32_t server_attach(std::thread::id thread);
// Answers or queues one request line (its newline removed) that arrived on conn.
void handle_line(UniqueFd conn, std::string_view line);

// Request lines (request.cc).
struct RequestLine {
    std::string module, cmd, arg;
};
// The first two blank-separated words and the rest without its surrounding
// blanks; a trailing '\r' is not part of the line.
RequestLine split_request(std::string_view line);

// Run directory (rundir.cc).
std::string run_dir();
std::string socket_path(const std::string &dir, pid_t pid);
int32_t check_run_dir(const std::string &dir, bool create, std::string *why);
// Pids that have a socket in dir, alive or not.
std::vector<pid_t> socket_pids(const std::string &dir);

// Writes everything, without SIGPIPE; false when the peer is gone.
bool send_all(int fd, const std::string &data, int flags = 0);

}  // namespace kril

#endif  // KRIL_INTERNAL_H
