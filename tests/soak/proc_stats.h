// What a process holds, as /proc shows it: open descriptors and resident memory.
#ifndef QZCAP_TESTS_SOAK_PROC_STATS_H
#define QZCAP_TESTS_SOAK_PROC_STATS_H

#include <sys/types.h>

#include <cstdint>

namespace soak {

struct ProcStats {
    int64_t fds = -1;     // entries of /proc/<pid>/fd
    int64_t rss_kb = -1;  // VmRSS of /proc/<pid>/status
    bool valid() const { return fds >= 0 && rss_kb >= 0; }
};

// Not valid when the process is gone or /proc does not tell.
ProcStats proc_stats(pid_t pid);

}  // namespace soak

#endif  // QZCAP_TESTS_SOAK_PROC_STATS_H
