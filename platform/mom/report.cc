#include "report.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace qzmom {

void report(const char *fmt, ...) {
    char line[1024];
    static const char kPrefix[] = "qz_mom: ";
    memcpy(line, kPrefix, sizeof kPrefix - 1);
    const size_t room = sizeof line - (sizeof kPrefix - 1) - 1;  // keep one byte for '\n'
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(line + sizeof kPrefix - 1, room + 1, fmt, ap);
    va_end(ap);
    size_t len = sizeof kPrefix - 1 + (n < 0 ? 0 : (static_cast<size_t>(n) < room ? n : room));
    line[len++] = '\n';
    fflush(stderr);
    ssize_t w = write(STDERR_FILENO, line, len);
    (void)w;
}

}  // namespace qzmom
