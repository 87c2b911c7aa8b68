/* The platform's message-bus client: the operations libqz_cap calls. */
#ifndef QZ_MOM_H
#define QZ_MOM_H

#include <stddef.h>
#include <stdint.h>

#include <protobuf-c/protobuf-c.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct qz_mom_hash_res {
    void *view;          /* decoded record, NULL when nothing is stored */
    int32_t *field_nums; /* numbers of the fields the stored hash holds */
    uint32_t field_count;
    uint32_t reserved[2]; /* not used by the library */
    int32_t error_code;   /* 0 when the read succeeded */
} qz_mom_hash_res_t;

typedef struct qz_mom_pmsg {
    uint8_t header[644];       /* the bus's own; never read by the library */
    int32_t cmd;               /* event code, at byte 644 */
    qz_mom_hash_res_t *result; /* at byte 648, may be NULL */
} qz_mom_pmsg_t;

/* Event codes carried in qz_mom_pmsg_t.cmd. */
enum {
    QZ_MOM_CMD_RECORD = 1,     /* a record of an unkeyed type delivered */
    QZ_MOM_CMD_SCAN = 4,       /* a keyed record delivered by a scan */
    QZ_MOM_CMD_CHANGED = 6,    /* a keyed record changed */
    QZ_MOM_CMD_DELETED = 7,    /* a record deleted; no result */
    QZ_MOM_CMD_SUBSCRIBED = 29 /* the subscription is in place */
};

/*
 * Called with the handle, the event and the private data given with the
 * scan or subscription. The pushed message and its result belong to the bus
 * and are freed when the callback returns: never free or keep them. The
 * returned status is ignored.
 */
typedef int32_t (*qz_mom_record_cb)(void *global, qz_mom_pmsg_t *pmsg, void *privdata);
/* Called after a lost connection is back; `type` is 1. */
typedef int32_t (*qz_mom_reconnect_cb)(void *global, int32_t db, int32_t type, void *user_data);

/*
 * Stored records (every store): a hash per record, field name the decimal
 * field number. A hash field whose number the record's type lacks is
 * ignored, as protobuf ignores an unknown field, so that a newer publisher's
 * added field never breaks an older reader: the record decodes with its
 * known fields, the ignored ones are not in field_nums, and each handle says
 * so once per record with one line on stderr. A known field whose value does
 * not parse as its type, or a field name that is not a field number, makes
 * the record fail to decode (QZ_MOM_E_DECODE).
 *
 * Limitation: on a Redis store FLUSHDB and FLUSHALL produce no keyspace
 * events, so subscribers are not told of the records they remove and keep
 * the values they last saw; delete records one by one when they must know.
 *
 * Conventions of every call:
 * - `key` / `pattern` is a record of a protobuf-c type (usually built on the
 *   stack from the type's initial value); for a keyed type (one with a
 *   message field "index") the store key comes from the index values. An
 *   index that is NULL or holds only initial values is a PATTERN for every
 *   record of the type, for scans and whole-type subscriptions only; reads and
 *   field subscriptions address the one record with that key (URL "" is a
 *   real key).
 * - Failures are negative codes (QZ_MOM_E_* of qz_mom_client.h): a bad
 *   argument (NULL handle, key or callback, db < 0) is QZ_MOM_E_ARG, or a
 *   result with that error_code; no call crashes on one.
 * - A handle may be used from several threads at once.
 * - Threads: reads and scans run on the calling thread (scan callbacks too,
 *   before the scan returns). Subscription and reconnect callbacks run on the
 *   handle's one delivery thread, in order. Any callback may call the bus
 *   again.
 */

/* Connects the handle for database db, blocking. 0 or a failure code. */
int32_t qz_mom_client_connect_sync(void *global, int32_t db);

/*
 * Registers a callback run (on the delivery thread) after the connection was
 * lost and re-established; by then the handle's subscriptions are gone and
 * renewing them is the caller's job. Kept once per (cb, user_data) pair.
 */
int32_t qz_mom_client_set_reconnect_cb(void *global, int32_t db, qz_mom_reconnect_cb cb,
                                       void *user_data);

/* Sets the client's write buffer length in bytes. */
int32_t qz_mom_set_write_buf_len(void *global, int32_t db, uint32_t len);

/*
 * The decoded record named by key, or NULL with *error_code 0 when none is
 * stored. A record that does not decode gives NULL and a non-zero
 * *error_code. Free a non-NULL object with qz_mom_qz_obj_free (also when it
 * comes with an error code). error_code may be NULL.
 */
void *qz_mom_get_sync(void *global, int32_t db, const ProtobufCMessage *key, int32_t *error_code);

/*
 * Reads the record named by key. The result's view is NULL when none is
 * stored; field_nums lists what the stored hash holds: for a keyed type the
 * index field (5) first, then the stored fields ascending. A failure is a
 * result with error_code set (and no view). Free with qz_mom_hash_res_free.
 */
qz_mom_hash_res_t *qz_mom_hgetall_sync(void *global, int32_t db, const ProtobufCMessage *key);

/*
 * As qz_mom_hgetall_sync. *option 2 (or option NULL) is one plain read; any
 * other option gives a result with error_code QZ_MOM_E_ARG.
 */
qz_mom_hash_res_t *qz_mom_hgetall_ext_sync(void *global, int32_t db, int32_t *option,
                                           const ProtobufCMessage *key);

/*
 * Calls cb once per matching stored record (a pattern: every record of the
 * type, in key order), on the calling thread, before returning; cmd 4 for a
 * keyed type, 1 for an unkeyed one. A record that does not decode is skipped
 * with one line on stderr. `flags` is not used.
 */
int32_t qz_mom_scan_sync(void *global, int32_t db, const ProtobufCMessage *pattern, int32_t flags,
                         qz_mom_record_cb cb, void *privdata);

/*
 * Subscribes cb to the records matching pattern (a pattern: every record of
 * the type; else that one record). cb first gets cmd 29 (no result) once the
 * subscription is in place, then for every later change the whole record
 * after it: cmd 6 (keyed) or 1 (unkeyed); cmd 7 (no result) on a delete.
 * Each call is its own subscription: two identical calls deliver twice.
 * `flags` is not used. On a Redis store, which reads a record after each
 * change event, changes in quick succession may arrive as one delivery of
 * the latest record, and a rewrite of identical values delivers nothing.
 */
int32_t qz_mom_subscribe(void *global, int32_t db, const ProtobufCMessage *pattern, int32_t flags,
                         qz_mom_record_cb cb, void *privdata);

/*
 * Subscribes to changes of the listed fields of the one record named by key:
 * field i goes to cbs[i] with args[i] (args NULL: every argument NULL). Each
 * distinct (callback, argument) pair gets cmd 29 (no result) first; then,
 * whenever one of its fields changes (a different value, appears or
 * disappears), the whole record once per change (cmd 6 keyed, 1 unkeyed; 7
 * without result when the record is deleted). Writing the same value again
 * delivers nothing. After a reconnect, an identical renewed subscription
 * delivers a change made while it was dropped. `flag` is not used. On a
 * Redis store, as for qz_mom_subscribe, changes in quick succession may
 * arrive as one delivery of the latest record: no final value is lost, but
 * intermediate ones may be.
 */
int32_t qz_mom_subscribe_field(void *global, int32_t db, const ProtobufCMessage *key,
                               uint32_t field_count, const int32_t *fields, qz_mom_record_cb *cbs,
                               void **args, int32_t flag);

/* Frees a result of qz_mom_hgetall_sync/_ext_sync with its view (NULL: nothing). */
void qz_mom_hash_res_free(qz_mom_hash_res_t *res);
/* Frees an object of qz_mom_get_sync (NULL: nothing). */
void qz_mom_qz_obj_free(void *obj);

#ifdef __cplusplus
}
#endif

#endif /* QZ_MOM_H */
