// An owned file descriptor: closed exactly once, by whoever holds it last.
#ifndef QZ_PLATFORM_COMMON_UNIQUE_FD_H
#define QZ_PLATFORM_COMMON_UNIQUE_FD_H

#include <unistd.h>

#include <utility>

namespace qzplat {

class UniqueFd {
  public:
    UniqueFd() = default;
    // Takes ownership of fd; a negative fd means none.
    explicit UniqueFd(int fd) noexcept : fd_(fd) {}
    UniqueFd(UniqueFd &&o) noexcept : fd_(o.release()) {}
    UniqueFd &operator=(UniqueFd &&o) noexcept {
        if (this != &o)
            reset(o.release());
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    ~UniqueFd() { reset(); }

    // -1 when none is held; the descriptor stays owned by this object.
    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }

    // Closes the held descriptor, if any, and takes ownership of fd.
    void reset(int fd = -1) noexcept {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = fd;
    }
    // Gives up ownership without closing: the caller now closes it.
    [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }

  private:
    int fd_ = -1;
};

}  // namespace qzplat

#endif  // QZ_PLATFORM_COMMON_UNIQUE_FD_H
