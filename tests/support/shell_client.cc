#include "shell_client.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>

#include "kril_shell.h"

namespace qztest {

ShellAnswer shell_request(const std::string &request, int32_t timeout_ms, pid_t pid) {
    ShellAnswer a;
    char *text = nullptr;
    size_t len = 0;
    FILE *mem = open_memstream(&text, &len);
    EXPECT_NE(mem, nullptr) << "open_memstream";
    if (mem == nullptr) {
        a.code = KRIL_E_NOMEM;
        return a;
    }
    char err[512] = "";
    a.code = kril_client_run(pid, request.c_str(), timeout_ms, mem, &a.rv, err, sizeof err);
    fclose(mem);
    a.out.assign(text, len);
    free(text);
    a.err = err;
    return a;
}

std::vector<std::pair<dev_t, ino_t>> std_stream_identity() {
    std::vector<std::pair<dev_t, ino_t>> ids;
    for (int fd = 0; fd <= 2; ++fd) {
        struct stat st {};
        EXPECT_EQ(fstat(fd, &st), 0) << "descriptor " << fd;
        ids.emplace_back(st.st_dev, st.st_ino);
    }
    return ids;
}

}  // namespace qztest
