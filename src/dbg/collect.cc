// Collection: the process's standard streams into the collect file for one
// full dump, then back.
#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>

#include "core/core.h"
#include "core/paths.h"
#include "dbg/dbg.h"

namespace {

// The device's buffer for the collect path.
constexpr size_t kCollectPathLen = 256;

}  // namespace

namespace qzcap {

int g_collect_saved_stdout = -1;
int g_collect_fd = -1;

}  // namespace qzcap

extern "C" {

int32_t libqz_cap_dbg_log_redirect2file(void) {
    char name[qzcap::kAppNameLen] = {};
    libqz_cap_get_app_name(getpid(), name, sizeof name);
    // Cut with the device's limit first, so every target writes the same file.
    char device_path[kCollectPathLen];
    snprintf(device_path, sizeof device_path, "%s/libqz_cap_%s.log", qzcap::kCollectDir, name);
    char dir[PATH_MAX];
    char path[PATH_MAX];
    qzcap::rooted_path(qzcap::kCollectDir, dir, sizeof dir);
    qzcap::rooted_path(device_path, path, sizeof path);

    // A failure shows as the open's failure below.
    char cmd[PATH_MAX + 16];
    snprintf(cmd, sizeof cmd, "mkdir -p '%s'", dir);
    [[maybe_unused]] int mkdir_status = system(cmd);

    int saved = dup(STDOUT_FILENO);
    // Only the newest copy is needed to restore; older ones would leak.
    if (qzcap::g_collect_saved_stdout >= 0 && qzcap::g_collect_saved_stdout != saved)
        close(qzcap::g_collect_saved_stdout);
    qzcap::g_collect_saved_stdout = saved;

    // Descriptors 0 to 2 keep an earlier collect file open by themselves.
    if (qzcap::g_collect_fd >= 0)
        close(qzcap::g_collect_fd);
    // Neither truncated nor appended: a shorter dump overwrites in place.
    qzcap::g_collect_fd = open(path, O_RDWR | O_CREAT, 0666);
    if (qzcap::g_collect_fd < 0)
        return printf("%s open fail\r\n", path);

    // Text already buffered belongs to the output in use before.
    fflush(stdout);
    dup2(qzcap::g_collect_fd, STDIN_FILENO);
    dup2(qzcap::g_collect_fd, STDOUT_FILENO);
    return dup2(qzcap::g_collect_fd, STDERR_FILENO);
}

int32_t libqz_cap_dbg_log_redirect2std(void) {
    if (qzcap::g_collect_fd >= 0) {
        close(qzcap::g_collect_fd);
        qzcap::g_collect_fd = -1;
    }
    // Descriptors 0 to 2 still refer to the file: the dump reaches it.
    fflush(stdout);
    // The saved copy stays open, so a second restore finds it still valid.
    int saved = qzcap::g_collect_saved_stdout;
    dup2(saved, STDIN_FILENO);
    dup2(saved, STDOUT_FILENO);
    return dup2(saved, STDERR_FILENO);
}

int32_t libqz_cap_dbg_collect(void) {
    // A failed open leaves the streams alone: the dump then reaches the
    // operator's output instead.
    libqz_cap_dbg_log_redirect2file();
    libqz_cap_dbg_dump_all_thread(&g_libqz_cap_ctrl_info);
    return libqz_cap_dbg_log_redirect2std();
}

}  // extern "C"
