/*
 * Fault injection and accounting of the bus stand-in, for tests.
 * Injected faults apply to the next call(s) of one operation on one handle.
 */
#ifndef QZ_MOM_TEST_H
#define QZ_MOM_TEST_H

#include <stdint.h>

#include "qz_mom.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum qz_mom_op {
    QZ_MOM_OP_CONNECT,
    QZ_MOM_OP_SET_RECONNECT_CB,
    QZ_MOM_OP_SET_WRITE_BUF_LEN,
    QZ_MOM_OP_GET,
    QZ_MOM_OP_HGETALL,
    QZ_MOM_OP_HGETALL_EXT,
    QZ_MOM_OP_SCAN,
    QZ_MOM_OP_SUBSCRIBE,
    QZ_MOM_OP_SUBSCRIBE_FIELD,
    QZ_MOM_OP_COUNT
} qz_mom_op_t;

/*
 * The next `times` calls of a status-returning op return `status` without
 * doing anything. On a result-returning op: `times` results carrying
 * error_code `status` (no view).
 */
void qz_mom_test_fail_status(void *global, qz_mom_op_t op, int32_t status, uint32_t times);

/*
 * The next call of a result-returning op (GET, HGETALL, HGETALL_EXT) returns
 * NULL (GET: leaves *error_code untouched). Ignored, with a stderr line, for
 * other ops.
 */
void qz_mom_test_fail_null(void *global, qz_mom_op_t op);

/*
 * The next call of a result-returning op carries error_code; with_view makes
 * it carry the decoded record as well, when one is stored (GET: the object
 * comes back with the error code set). On a status op: the next call returns
 * error_code.
 */
void qz_mom_test_fail_error(void *global, qz_mom_op_t op, int32_t error_code, int with_view);

/* Clears every pending injected fault of the handle. */
void qz_mom_test_clear_faults(void *global);

/*
 * Simulates a lost and re-established connection: the handle's subscriptions
 * are dropped, then every registered reconnect callback runs on the handle's
 * delivery thread with (global, db, type 1, user data). Returns once the
 * callbacks have returned.
 */
int32_t qz_mom_test_reconnect(void *global);

/*
 * Waits until every delivery queued for the handle so far has been handled.
 * Returns at once when called on the handle's own delivery thread.
 */
void qz_mom_test_drain(void *global);

/*
 * Results and objects handed out by the reads (hgetall/_ext, get) and not yet
 * released, process-wide. The bus's own pushed results are not counted, so
 * freeing one of them shows up as a negative count.
 */
int64_t qz_mom_test_live_results(void);
int64_t qz_mom_test_live_objects(void);

/* Subscriptions the handle holds now (whole-type and field ones). */
uint32_t qz_mom_test_subscription_count(void *global);

#ifdef __cplusplus
}
#endif

#endif /* QZ_MOM_TEST_H */
