// The soak's child processes: the driver run again in a role, with its
// standard output and error in a log file of its own. Every child is in one
// process group and dies with the coordinator (PR_SET_PDEATHSIG), so nothing
// outlives a run, even one that is killed.
#ifndef QZCAP_TESTS_SOAK_CHILDREN_H
#define QZCAP_TESTS_SOAK_CHILDREN_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace soak {

struct Child {
    std::string name;  // "subscriber 2"
    pid_t pid = -1;
    std::string log;
    bool ended = false;
    int status = 0;  // waitpid status, once ended
};

// "exited with status 1", "killed by signal 11 (Segmentation fault)".
std::string describe_end(int status);
// A clean end: exit status 0.
bool ended_cleanly(int status);

class Children {
  public:
    // exe: the driver; log_dir: where the logs go; env: NAME=VALUE entries
    // that replace the coordinator's for every child.
    Children(std::string exe, std::string log_dir, std::vector<std::string> env);
    ~Children();  // kills and reaps whatever still runs
    Children(const Children &) = delete;
    Children &operator=(const Children &) = delete;

    // Starts `[wrapper...] exe args...`; its index in all(), or -1 with *why.
    // A wrapper (a profiler, valgrind) runs the driver itself.
    int spawn(const std::string &name, const std::vector<std::string> &args,
              const std::vector<std::string> &wrapper, std::string *why);

    // Reaps the children that ended; returns their indexes.
    std::vector<int> reap();

    // SIGKILL to one child, or to the whole group.
    void kill(int index);
    void kill_all();

    const std::vector<Child> &all() const { return children_; }
    const Child &at(int index) const { return children_[static_cast<size_t>(index)]; }

  private:
    std::string exe_, log_dir_;
    std::vector<std::string> env_;
    std::vector<Child> children_;
    pid_t group_ = 0;
};

// The last lines of a log file, for a crash report.
std::string tail_of(const std::string &path, int lines);

}  // namespace soak

#endif  // QZCAP_TESTS_SOAK_CHILDREN_H
