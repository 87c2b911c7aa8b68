#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "core/log.h"
#include "qz_zlog.h"

namespace qzcap {

void emit(const char *src, const char *func, long line, int level, const char *fmt, ...) {
    char buf[1024] = {};
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    void *category = g_libqz_cap_zlog_category;
    if (category == nullptr)
        return;
    qzdf_zlog(category, src, strlen(src), func, strlen(func), line, level, "%s", buf);
}

}  // namespace qzcap
