// Where the sockets live, and whether that place is safe: a directory only
// its user may enter, so that the socket's own mode is not the only guard.
#include <dirent.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/c_barrier.h"
#include "common/parse_int.h"
#include "internal.h"

namespace kril {

std::string run_dir() {
    const char *env = getenv("KRIL_RUN_DIR");
    if (env != nullptr && env[0] != '\0')
        return env;
    return "/tmp/kril-" + std::to_string(geteuid());
}

std::string socket_path(const std::string &dir, pid_t pid) {
    return dir + "/" + std::to_string(pid) + ".sock";
}

int32_t check_run_dir(const std::string &dir, bool create, std::string *why) {
    if (create) {
        if (mkdir(dir.c_str(), 0700) == 0) {
            // The umask may have taken bits the owner needs.
            chmod(dir.c_str(), 0700);
        } else if (errno != EEXIST) {
            *why = "cannot create run directory " + dir + ": " + strerror(errno);
            return KRIL_E_RUN_DIR;
        }
    }
    struct stat st;
    if (lstat(dir.c_str(), &st) != 0) {
        *why = "cannot use run directory " + dir + ": " + strerror(errno);
        return KRIL_E_RUN_DIR;
    }
    if (!S_ISDIR(st.st_mode)) {
        *why = "run directory " + dir + " is not a directory";
        return KRIL_E_RUN_DIR;
    }
    if (st.st_uid != geteuid()) {
        *why = "run directory " + dir + " belongs to uid " + std::to_string(st.st_uid) +
               ", not to uid " + std::to_string(geteuid());
        return KRIL_E_RUN_DIR;
    }
    if ((st.st_mode & 077) != 0) {
        char mode[8];
        snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
        *why = "run directory " + dir + " has mode " + mode +
               "; group and others must have no access (chmod 0700)";
        return KRIL_E_RUN_DIR;
    }
    return 0;
}

std::vector<pid_t> socket_pids(const std::string &dir) {
    std::vector<pid_t> pids;
    DIR *d = opendir(dir.c_str());
    if (d == nullptr)
        return pids;
    while (const dirent *e = readdir(d)) {
        std::string_view name(e->d_name);
        pid_t pid = 0;
        if (name.ends_with(".sock") && qzplat::parse_int(name.substr(0, name.size() - 5), &pid) &&
            pid > 0)
            pids.push_back(pid);
    }
    closedir(d);
    return pids;
}

bool send_all(int fd, const std::string &data, int flags) {
    size_t off = 0;
    while (off < data.size()) {
        ssize_t n = send(fd, data.data() + off, data.size() - off, flags | MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        off += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace kril

extern "C" int32_t kril_check_run_dir(const char *dir, int32_t create, char *why, size_t why_len) {
    if (dir == nullptr)
        return KRIL_E_ARG;
    return qzplat::c_barrier(KRIL_E_NOMEM, [&]() -> int32_t {
        std::string reason;
        int32_t rv = kril::check_run_dir(dir, create != 0, &reason);
        kril::copy_out(reason, why, why_len);
        return rv;
    });
}
