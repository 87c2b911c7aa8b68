#include "proc_stats.h"

#include <dirent.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace soak {

ProcStats proc_stats(pid_t pid) {
    ProcStats s;
    const std::string base = "/proc/" + std::to_string(pid);
    if (DIR *d = opendir((base + "/fd").c_str())) {
        int64_t n = 0;
        while (const dirent *e = readdir(d)) {
            if (e->d_name[0] != '.')
                ++n;
        }
        closedir(d);
        s.fds = n;
    }
    std::ifstream status(base + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) {
            s.rss_kb = std::strtoll(line.c_str() + 6, nullptr, 10);
            break;
        }
    }
    return s;
}

}  // namespace soak
