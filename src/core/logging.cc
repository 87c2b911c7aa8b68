// Level files and the logging category.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/core.h"
#include "core/log.h"
#include "core/paths.h"
#include "qz_zlog.h"

namespace {

// The device's buffer for the per-application path; longer names are cut.
constexpr size_t kAppPathLen = 128;
// Only the first 15 bytes of a level file count.
constexpr size_t kLevelTextLen = 16;

class Fd {
  public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0)
            close(fd_);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const { return fd_; }

  private:
    int fd_;
};

// strtol saturates at the range of long, which is 32 bits on the device;
// clamp so that a long run of digits gives the same level on every target.
int32_t to_level(long v) {
    if (v > INT32_MAX)
        return INT32_MAX;
    if (v < INT32_MIN)
        return INT32_MIN;
    return static_cast<int32_t>(v);
}

}  // namespace

extern "C" {

int32_t libqz_cap_level_from_text(const char *text, size_t len) {
    char buf[kLevelTextLen] = {};
    memcpy(buf, text, std::min(len, sizeof buf - 1));
    return to_level(strtol(buf, nullptr, 10));
}

int libqz_cap_load_level_file(const char *path) {
    // Only a regular file is a level file; anything else counts as one that
    // cannot be opened. Opening without blocking and checking the opened
    // file leaves no moment where a FIFO put in its place could block us.
    Fd fd(open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (fd.get() < 0)
        return 0;
    struct stat st;
    if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode))
        return 0;
    char text[kLevelTextLen - 1];
    const ssize_t n = read(fd.get(), text, sizeof text);
    if (n < 0)
        return LIBQZ_CAP_E_INIT;
    libqz_cap_log_level(libqz_cap_level_from_text(text, static_cast<size_t>(n)));
    return 0;
}

int32_t libqz_cap_zlog_init(const char *app_name) {
    char rooted[PATH_MAX];
    libqz_cap_load_level_file(qzcap::rooted_path(qzcap::kCommonLevelFile, rooted, sizeof rooted));

    if (app_name == nullptr) {
        // No per-application file to look for; logging is set up all the
        // same, since initialisation relies on this call succeeding.
        QZ_LOG(1, qzcap::kError, "name NULL pointer, addr error!\n");
    } else {
        // Cut with the device's limit first, so the same file is looked up on
        // every target whatever the data root.
        char app_path[kAppPathLen];
        snprintf(app_path, sizeof app_path, "%s%s", qzcap::kLevelDir, app_name);
        libqz_cap_load_level_file(qzcap::rooted_path(app_path, rooted, sizeof rooted));
    }

    // A NULL category is stored too: logging stays off until a later call gets one.
    g_libqz_cap_zlog_category = qz_zlog_init("libqz_cap");
    return 0;
}

}  // extern "C"
