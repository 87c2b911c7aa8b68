// Standard output of the whole process, captured while one handler runs.
#ifndef KRIL_STDOUT_CAPTURE_H
#define KRIL_STDOUT_CAPTURE_H

#include <unistd.h>

#include <mutex>
#include <string>

#include "common/unique_fd.h"

namespace kril {

// Redirects descriptor 1 to an anonymous file while a handler runs, and puts
// descriptors 0, 1 and 2 back as they were afterwards: a handler that points
// the standard streams elsewhere and "restores" them to the descriptor it
// found on 1 (collection does) would otherwise leave 0 and 2 on the capture,
// and every later error line would be lost. Text the process buffered before
// is flushed to the real output first.
//
// REQUIRES: capture_mutex() held for the object's whole life: standard output
// is one descriptor for the whole process.
class StdoutCapture {
  public:
    StdoutCapture() = default;
    StdoutCapture(const StdoutCapture &) = delete;
    StdoutCapture &operator=(const StdoutCapture &) = delete;
    // Puts the descriptors back if end() was not called.
    ~StdoutCapture();

    // Starts capturing. False, with errno set, when it could not; the
    // descriptors are then as they were.
    bool begin();
    // Stops capturing and returns what was written meanwhile.
    std::string end();

  private:
    static constexpr int kStd = STDERR_FILENO + 1;

    void restore();

    qzplat::UniqueFd file_, saved_[kStd];
    bool active_ = false;
};

// Serialises captures (recursive: a handler may run another command).
std::recursive_mutex &capture_mutex();

}  // namespace kril

#endif  // KRIL_STDOUT_CAPTURE_H
