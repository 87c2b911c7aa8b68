/*
 * Calls of the bus stand-in that the library never makes: creating and
 * destroying a client handle, and writing and deleting records. Publishers,
 * tools and tests use them.
 */
#ifndef QZ_MOM_CLIENT_H
#define QZ_MOM_CLIENT_H

#include <stddef.h>
#include <stdint.h>

#include "qz_mom.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Status codes of the stand-in's own failures (never 0). */
enum {
    QZ_MOM_E_ARG = -1001,    /* a required argument is missing or malformed */
    QZ_MOM_E_DECODE = -1002, /* a stored value does not parse as its field's type */
    QZ_MOM_E_CONN = -1003,   /* no connection to the store */
    QZ_MOM_E_NOMEM = -1004,  /* out of memory */
    QZ_MOM_E_REPLY = -1005,  /* the store answered something unexpected (a key that is
                                not a hash, a database the server does not have) */
    QZ_MOM_E_TYPE = -1006    /* a key names a record type the client does not know */
};

/*
 * Creates a client handle (the `global` of every bus call).
 *   uri NULL         : $QZ_MOM_URI, or the embedded store "mem:" when unset
 *   "mem:" "mem:NAME": the embedded in-process store NAME; handles on the same
 *                      name share its records and see each other's changes
 *   "redis://host:port", "unix:/path": a redis-server (records in the
 *                      database each call names, 3 for the library)
 * Returns NULL when the URI is malformed or the store cannot be set up.
 * Starts the client's delivery thread, on which subscription and reconnect
 * callbacks run.
 *
 * A redis-server is reached at creation (1 s timeouts), and its keyspace
 * notifications are turned on (flags K, g, h, x, e added to those already
 * set). NULL, with one stderr line saying why, when it does not answer,
 * requires a password or refuses CONFIG. Later, when the connection is lost,
 * every call fails at once with QZ_MOM_E_CONN while the handle reconnects by
 * itself (back-off from 10 ms doubling to 1 s); once back, its subscriptions
 * are gone and the reconnect callbacks run. One stderr line when the
 * connection is lost, one when it is back.
 */
void *qz_mom_client_create(const char *uri);

/*
 * As qz_mom_client_create, for tools that report failures in their own
 * words: it prints nothing. On failure it returns NULL with *error_code set
 * to QZ_MOM_E_ARG (a malformed URI), QZ_MOM_E_CONN (the store does not
 * answer) or QZ_MOM_E_REPLY (it answers but refuses this client: a password,
 * CONFIG refused), and the reason in why (cut to why_len - 1 bytes and
 * terminated). error_code and why may be NULL.
 */
void *qz_mom_client_open(const char *uri, int32_t *error_code, char *why, size_t why_len);

/*
 * Told on the delivery thread when the connection to the store is lost (up
 * 0, why says how) and when it is back (up 1, why ""), in order with the
 * deliveries: a lost connection after the deliveries made before it, a
 * returned one before the reconnect callbacks run.
 */
typedef void (*qz_mom_conn_cb)(void *global, int32_t up, const char *why, void *user_data);

/*
 * Sets the handle's connection-state callback (one per handle; NULL removes
 * it). While one is set, the client leaves the reporting of these two
 * events to it and prints no line of its own for them. The embedded store
 * never loses its connection; qz_mom_test_reconnect tells the callback too.
 * Returns 0 or QZ_MOM_E_ARG.
 */
int32_t qz_mom_client_set_conn_cb(void *global, qz_mom_conn_cb cb, void *user_data);

/*
 * Stops the delivery thread, drops the client's subscriptions and frees the
 * handle. A callback the delivery thread is running is waited for; until it
 * returns, its calls on the handle are answered (QZ_MOM_E_CONN once the store
 * is closed). REQUIRES: not called from one of the handle's own callbacks.
 */
void qz_mom_client_destroy(void *global);

/*
 * Writes the listed fields of `record` (key from the record type and its
 * index) in one step and notifies subscribers. Listing the index field, a
 * number that is not a field of the type, or no field is QZ_MOM_E_ARG. A
 * NULL message field removes that hash field (a record left without fields
 * is deleted). Returns 0 or a QZ_MOM_E_ code.
 */
int32_t qz_mom_write(void *global, int32_t db, const ProtobufCMessage *record, uint32_t field_count,
                     const int32_t *fields);

/*
 * One record's part of qz_mom_write_batch: `record` names the record (key
 * from its type and index) and holds the values of the `fields` to store.
 * `clear` lists fields to remove from the stored record. With `replace`
 * non-zero the stored record is emptied first, so that it ends up holding
 * exactly the listed fields; replace with no field deletes the record.
 */
typedef struct qz_mom_write_op {
    const ProtobufCMessage *record;
    uint32_t field_count;
    const int32_t *fields;
    uint32_t clear_count;
    const int32_t *clear;
    int32_t replace;
} qz_mom_write_op_t;

/*
 * Applies `count` record writes in one step: every op is checked first (as
 * qz_mom_write checks its fields, for both lists; an op that stores and
 * clears nothing without `replace`, or a field listed twice, is
 * QZ_MOM_E_ARG), and nothing is written unless all of them pass. Then all
 * are applied together (a Redis store sends one pipelined MULTI/EXEC, so no
 * reader sees part of the batch) and subscribers are notified of each
 * record. Returns 0 or a QZ_MOM_E_ code; when one op was at fault, *failed
 * (may be NULL) is its position, else count. After QZ_MOM_E_CONN it is not
 * known whether the batch was applied.
 */
int32_t qz_mom_write_batch(void *global, int32_t db, const qz_mom_write_op_t *ops, uint32_t count,
                           uint32_t *failed);

/* Deletes the record named by `key`. Returns 0 (also when nothing was stored). */
int32_t qz_mom_delete(void *global, int32_t db, const ProtobufCMessage *key);

/*
 * Raw access by store key and hash field, for tools and tests that need to
 * write what a typed write cannot (a malformed value, an unknown field).
 * `value` may hold any bytes. Subscribers are notified as for a typed write.
 *
 * Store layout (the same on every store, so an operator can publish with
 * `redis-cli -n 3 HSET 'p_libpub.cap_table|global_spec/platform/foo' 6 1`):
 * key = type full name, plus for a keyed type '|' and each index value in
 * field-number order ('|' and '\' in values escaped by '\'); hash field =
 * decimal field number; value = decimal text for integers and bool, raw
 * bytes for string and bytes, packed protobuf for message fields. The index
 * is rebuilt from the key, never stored as a field. A value that does not
 * parse makes reads fail with QZ_MOM_E_DECODE and scans and pushes skip the
 * record with one stderr line.
 */
int32_t qz_mom_hset_raw(void *global, int32_t db, const char *key, const char *field,
                        const void *value, size_t value_len);
int32_t qz_mom_del_raw(void *global, int32_t db, const char *key);

/*
 * Builds the store key of a record or key record into buf (NUL-terminated).
 * Returns the key's length, or a negative QZ_MOM_E_ code (also when buf is too
 * small).
 */
int32_t qz_mom_format_key(const ProtobufCMessage *key, char *buf, size_t buf_len);

#ifdef __cplusplus
}
#endif

#endif /* QZ_MOM_CLIENT_H */
