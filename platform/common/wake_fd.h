// A descriptor that wakes a poll loop: readable from signal() until drain().
// Signals do not count: many signals before one drain wake the loop once.
#ifndef QZ_PLATFORM_COMMON_WAKE_FD_H
#define QZ_PLATFORM_COMMON_WAKE_FD_H

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

#include "unique_fd.h"

namespace qzplat {

class WakeFd {
  public:
    // Opens the descriptor (close-on-exec, non-blocking). Returns false, with
    // errno set, when the process has no descriptor to spare; the object
    // then holds none and signal() and drain() do nothing.
    bool open() noexcept {
        fd_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        return static_cast<bool>(fd_);
    }
    // For poll(); -1 before a successful open(). Owned by this object.
    int fd() const noexcept { return fd_.get(); }
    explicit operator bool() const noexcept { return static_cast<bool>(fd_); }

    // Thread-safe: may be called from any thread, also while another polls.
    void signal() const noexcept {
        const uint64_t one = 1;
        [[maybe_unused]] ssize_t n = ::write(fd_.get(), &one, sizeof one);
        // A failed write means the counter is already non-zero: still readable.
    }
    void drain() const noexcept { drain(fd_.get()); }

    // Drains a wake-up descriptor this object does not own (one a caller
    // hands to a poll loop it does not own).
    static void drain(int fd) noexcept {
        uint64_t v = 0;
        [[maybe_unused]] ssize_t n = ::read(fd, &v, sizeof v);
        // Nothing to read is not an error: the descriptor was not signalled.
    }

  private:
    UniqueFd fd_;
};

}  // namespace qzplat

#endif  // QZ_PLATFORM_COMMON_WAKE_FD_H
