// The application processes of benchmark 5, seen from the bench: each is the
// bench binary started again in its child mode, told what to do one line at
// a time on its stdin and answering one line at a time on its stdout. They
// die with the bench (PR_SET_PDEATHSIG) and are always reaped.
#ifndef QZCAP_BENCH_APP_PROCESSES_H
#define QZCAP_BENCH_APP_PROCESSES_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace qzbench {

class AppProcesses {
  public:
    AppProcesses() = default;
    ~AppProcesses();
    AppProcesses(const AppProcesses &) = delete;
    AppProcesses &operator=(const AppProcesses &) = delete;

    // Starts `count` processes, process i with args(i) after the program name.
    bool spawn(int count, const std::vector<std::string> &common_args, std::string *why);

    // Sends one line to every process.
    bool send_all(const std::string &line, std::string *why);

    // Reads the next line of every process; fails when one dies, or when
    // not all have answered within `ms`.
    bool read_all(int ms, std::vector<std::string> *lines, std::string *why);

    // Asks every process to quit, waits up to `ms` and kills what is left;
    // every process is reaped. False when one did not end with status 0.
    bool stop(int ms, std::string *why);

    size_t size() const { return procs_.size(); }

  private:
    struct Proc {
        pid_t pid = -1;
        int to = -1, from = -1;
        std::string buf;
        int status = 0;
    };
    void reap(Proc &p, bool block);
    std::string describe_end(const Proc &p) const;

    std::vector<Proc> procs_;
};

}  // namespace qzbench

#endif  // QZCAP_BENCH_APP_PROCESSES_H
