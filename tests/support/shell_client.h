// An operator's request to a process's debug shell, as krilsh sends it, and
// what tests compare around one: the identity of the standard streams.
#ifndef QZCAP_TESTS_SUPPORT_SHELL_CLIENT_H
#define QZCAP_TESTS_SUPPORT_SHELL_CLIENT_H

#include <sys/types.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace qztest {

struct ShellAnswer {
    int32_t code = 0;  // kril_client_run's result
    int32_t rv = -1;   // the handler's; -1 when none ran
    std::string out;   // the command's standard output
    std::string err;   // the reason when code is not 0
};

// Runs one request line on pid's debug shell through kril_client_run.
ShellAnswer shell_request(const std::string &request, int32_t timeout_ms = 5000,
                          pid_t pid = getpid());

// (device, inode) of descriptors 0, 1 and 2; a closed one fails the test.
std::vector<std::pair<dev_t, ino_t>> std_stream_identity();

}  // namespace qztest

#endif  // QZCAP_TESTS_SUPPORT_SHELL_CLIENT_H
