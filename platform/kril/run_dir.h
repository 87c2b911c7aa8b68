// Where the shell's sockets live: one directory per user that nobody else
// may enter, one "<pid>.sock" in it per serving process.
#ifndef KRIL_RUN_DIR_H
#define KRIL_RUN_DIR_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kril {

// $KRIL_RUN_DIR, or else /tmp/kril-<euid>.
std::string run_dir();
std::string socket_path(const std::string &dir, pid_t pid);
// 0 when dir is safe to use (creating it first when create is set), else
// KRIL_E_RUN_DIR with the reason in *why.
int32_t check_run_dir(const std::string &dir, bool create, std::string *why);
// Pids that have a socket in dir, alive or not.
std::vector<pid_t> socket_pids(const std::string &dir);

}  // namespace kril

#endif  // KRIL_RUN_DIR_H
