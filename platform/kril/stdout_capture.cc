#include "stdout_capture.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <cstdio>

namespace kril {
namespace {

// Moves fd above the standard descriptors (one of them may be closed and
// have been reused); -1 stays -1.
int above_std(int fd) {
    if (fd < 0 || fd > STDERR_FILENO)
        return fd;
    int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(fd);
    return moved;
}

}  // namespace

std::recursive_mutex &capture_mutex() {
    static std::recursive_mutex *mu = new std::recursive_mutex;  // outlives static destructors
    return *mu;
}

StdoutCapture::~StdoutCapture() {
    restore();
}

bool StdoutCapture::begin() {
    fflush(stdout);
    for (int fd = 0; fd < kStd; ++fd)  // each stays -1 if that descriptor was closed
        saved_[fd].reset(fcntl(fd, F_DUPFD_CLOEXEC, kStd));
    file_.reset(above_std(memfd_create("kril-out", MFD_CLOEXEC)));
    if (!file_)
        return false;
    active_ = true;
    return dup2(file_.get(), STDOUT_FILENO) >= 0;
}

std::string StdoutCapture::end() {
    restore();
    std::string out;
    char buf[65536];
    off_t off = 0;
    ssize_t n;
    while ((n = pread(file_.get(), buf, sizeof buf, off)) > 0) {
        out.append(buf, static_cast<size_t>(n));
        off += n;
    }
    return out;
}

void StdoutCapture::restore() {
    if (!active_)
        return;
    fflush(stdout);
    fflush(stderr);
    for (int fd = 0; fd < kStd; ++fd) {
        if (saved_[fd])
            dup2(saved_[fd].get(), fd);
        else
            close(fd);
    }
    active_ = false;
}

}  // namespace kril
