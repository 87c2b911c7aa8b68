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

/* Returns 0 and fills *out, or -1 with *out untouched. */
int qz_monotime(qz_monotime_t *out);

#ifdef __cplusplus
}
#endif

#endif /* QZ_MONOTIME_H */
