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

typedef int32_t (*qz_mom_record_cb)(void *global, qz_mom_pmsg_t *pmsg, void *privdata);
typedef int32_t (*qz_mom_reconnect_cb)(void *global, int32_t db, int32_t type, void *user_data);

int32_t qz_mom_client_connect_sync(void *global, int32_t db);
int32_t qz_mom_client_set_reconnect_cb(void *global, int32_t db, qz_mom_reconnect_cb cb,
                                       void *user_data);
int32_t qz_mom_set_write_buf_len(void *global, int32_t db, uint32_t len);
void *qz_mom_get_sync(void *global, int32_t db, const ProtobufCMessage *key, int32_t *error_code);
qz_mom_hash_res_t *qz_mom_hgetall_sync(void *global, int32_t db, const ProtobufCMessage *key);
qz_mom_hash_res_t *qz_mom_hgetall_ext_sync(void *global, int32_t db, int32_t *option,
                                           const ProtobufCMessage *key);
int32_t qz_mom_scan_sync(void *global, int32_t db, const ProtobufCMessage *pattern, int32_t flags,
                         qz_mom_record_cb cb, void *privdata);
int32_t qz_mom_subscribe(void *global, int32_t db, const ProtobufCMessage *pattern, int32_t flags,
                         qz_mom_record_cb cb, void *privdata);
int32_t qz_mom_subscribe_field(void *global, int32_t db, const ProtobufCMessage *key,
                               uint32_t field_count, const int32_t *fields, qz_mom_record_cb *cbs,
                               void **args, int32_t flag);
void qz_mom_hash_res_free(qz_mom_hash_res_t *res);
void qz_mom_qz_obj_free(void *obj);

#ifdef __cplusplus
}
#endif

#endif /* QZ_MOM_H */
