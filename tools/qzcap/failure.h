// How a qzcap command fails: one line for the user and the exit status.
#ifndef QZCAP_TOOL_FAILURE_H
#define QZCAP_TOOL_FAILURE_H

#include <stdexcept>
#include <string>

namespace qzcap::tool {

// Exit statuses of every command.
enum Exit : int {
    kExitOk = 0,
    kExitBadInput = 1,  // usage, or input that cannot be used
    kExitNotFound = 2,  // what was asked for is not in the store
    kExitNoStore = 3,   // the store is unreachable or did not answer in time
};

// Thrown by commands; main prints "qzcap: <what>" and exits with `exit`.
class Failure : public std::runtime_error {
  public:
    Failure(Exit exit, const std::string &what) : std::runtime_error(what), exit_(exit) {}
    Exit exit() const { return exit_; }

  private:
    Exit exit_;
};

[[noreturn]] inline void bad_input(const std::string &what) {
    throw Failure(kExitBadInput, what);
}
[[noreturn]] inline void not_found(const std::string &what) {
    throw Failure(kExitNotFound, what);
}

}  // namespace qzcap::tool

#endif  // QZCAP_TOOL_FAILURE_H
