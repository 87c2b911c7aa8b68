/* The platform's logging service, with zlog's call shape and level numbers. */
#ifndef QZ_ZLOG_H
#define QZ_ZLOG_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    QZ_ZLOG_LEVEL_DEBUG = 20,
    QZ_ZLOG_LEVEL_INFO = 40,
    QZ_ZLOG_LEVEL_NOTICE = 60,
    QZ_ZLOG_LEVEL_WARN = 80,
    QZ_ZLOG_LEVEL_ERROR = 100,
    QZ_ZLOG_LEVEL_FATAL = 120
};

/* Returns the category handle, or NULL when the service cannot provide one. */
void *qz_zlog_init(const char *category);

void qzdf_zlog(void *category, const char *file, size_t filelen, const char *func, size_t funclen,
               long line, int level, const char *format, ...) __attribute__((format(printf, 8, 9)));

#ifdef __cplusplus
}
#endif

#endif /* QZ_ZLOG_H */
