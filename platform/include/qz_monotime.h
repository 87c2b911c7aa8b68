/* The platform's monotonic clock. */
#ifndef QZ_MONOTIME_H
#define QZ_MONOTIME_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct qz_monotime {
    uint32_t sec;
    uint32_t nsec;
} qz_monotime_t;

/*
 * Reads the monotonic clock (time since an unspecified start, never set back,
 * not counting suspend): returns 0 and fills *out, or -1 with *out untouched
 * when out is NULL or the clock cannot be read. sec wraps after 2^32 s.
 * Thread-safe; allocates nothing.
 */
int qz_monotime(qz_monotime_t *out);

#ifdef __cplusplus
}
#endif

#endif /* QZ_MONOTIME_H */
