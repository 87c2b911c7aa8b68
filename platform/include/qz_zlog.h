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

/*
 * Returns the handle of the named category, or NULL when category is NULL or
 * empty or the service is out of memory. Every call with the same name
 * returns the same handle; handles stay valid until the process exits and
 * are never freed by the caller. Thread-safe.
 */
void *qz_zlog_init(const char *category);

/*
 * Writes one record: a time stamp, the level's name, pid and thread id,
 * file:line, func and the formatted message, as one line (trailing line
 * breaks of the message are dropped; a message is cut at 2047 bytes). file
 * and func need not be terminated: filelen and funclen bytes of them are
 * written. Records go to the file named by $QZ_ZLOG_FILE (appended, opened at
 * the first record) or else to standard error, and are flushed at once.
 * Does nothing when category or format is NULL. Thread-safe: records of
 * concurrent callers never interleave. A level outside the enum above is
 * written as "LEVEL?".
 */
void qzdf_zlog(void *category, const char *file, size_t filelen, const char *func, size_t funclen,
               long line, int level, const char *format, ...) __attribute__((format(printf, 8, 9)));

#ifdef __cplusplus
}
#endif

#endif /* QZ_ZLOG_H */
