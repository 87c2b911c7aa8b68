/*
 * Internal declarations of libqz_cap: types and functions that are not
 * exported from libqz_cap.so but that the library's files share and the unit
 * tests reach through the static archive.
 */
#ifndef LIBQZ_CAP_INTERNAL_H
#define LIBQZ_CAP_INTERNAL_H

#include <stdint.h>

#include "libqz_cap.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Capability database of every bus call. */
#define LIBQZ_CAP_DB 3

/* ---- Hash table ---------------------------------------------------------- */

typedef struct qz_cap_hash_node {
    struct qz_cap_hash_node *next, *prev; /* first two words double as a chain head */
    void *item;
} qz_cap_hash_node;

typedef struct qz_cap_hash_list {
    qz_cap_hash_node *next, *prev;
} qz_cap_hash_list;

struct qz_cap_hash_table {
    uint32_t table_size;          /* buckets, fixed at creation */
    uint32_t item_num;            /* items held */
    uint32_t bucket_warning_size; /* 0: no warning */
    uint8_t *bucket_num;          /* per-bucket item counts, modulo 256 */
    qz_cap_hash_list *buckets;    /* circular chains, newest first */
    qz_cap_hash_index_fn get_index;
    qz_cap_hash_compare_fn compare;
};

/* ---- Client context --------------------------------------------------------- */

/* The text after the last '/' of an executable's link text (all of it
 * without one). Points into link_text. */
const char *libqz_cap_exe_base_name(const char *link_text);

/* ---- Logging and start-up steps ------------------------------------------ */

/* The gate level a level file's text gives: at most the first 15 of its len
 * bytes count, up to a NUL, converted as strtol does in base 10. */
int32_t libqz_cap_level_from_text(const char *text, size_t len);

/* Applies one level file. Returns 0 (missing file, or applied) or -11. */
int libqz_cap_load_level_file(const char *path);

/* Stamps start-up step `step` (0..6) of ctx with the monotonic clock. */
void libqz_cap_rec_time_thread(uint32_t step, libqz_cap_ctrl_info_t *ctx);

/* ---- Subscription registry ----------------------------------------------- */

/* 0 when all five fields of the two records are equal, else -1. */
int32_t libqz_cap_cmp_sub_hash_item(void *stored, void *key);

/* Records a subscription in ctx's registry unless an equal one is held.
 * Returns 0, -4, -2 or the insertion's code. */
int32_t libqz_cap_add_sub_info_thread(void *global, const char *url, void *fp, void *arg,
                                      uint32_t type, libqz_cap_ctrl_info_t *ctx);

/* Logs every record of *registry_ref at gate 4 under a labelled header. */
void libqz_cap_dump_sub_hash_thread(struct qz_cap_hash_table **registry_ref, const char *label);
void libqz_cap_dump_sub_hash_item(sub_info *item);

/* Registry index and compare functions in the table's callback shapes. */
uint32_t libqz_cap_sub_hash_index_cb(void *item);

/* ---- Subcard nodes --------------------------------------------------------- */

typedef struct libqz_cap_subcard_node_payload {
    int32_t nodeid;
    uint8_t ready; /* cached subcard readiness; never cleared */
    uint32_t sleep_time;
    uint8_t reserved[392];
} libqz_cap_subcard_node_payload_t; /* 404 bytes */

typedef struct libqz_cap_subcard_node {
    libqz_cap_list_head_t list;
    libqz_cap_subcard_node_payload_t payload;
} libqz_cap_subcard_node_t;

/* ---- Callback holders of state subscriptions ------------------------------ */

typedef int32_t (*libqz_cap_state_fp)(void *global, void *arg);

/* Callback record of a state subscription: the bus's private data. */
struct fun {
    void *fp; /* the caller's callback */
    void *arg;
};

/* Holder list node of a state subscription; never freed. */
typedef struct libqz_cap_holder {
    libqz_cap_list_head_t list;
    struct fun *fun;
} libqz_cap_holder_t;

/* ---- Reads, pushed messages and subscriptions ------------------------------- */

/* Card-information scan callback; privdata points to the wanted node id. */
int32_t libqz_cap_card_info_cb(void *global, struct qz_mom_pmsg *pmsg, void *privdata);

/* A node for payload->nodeid, linked in node-id order; NULL without memory. */
libqz_cap_subcard_node_t *libqz_cap_node_init(const libqz_cap_subcard_node_payload_t *payload);

/* The global-state callback given to the bus; privdata is a struct fun. */
int32_t libqz_cap_ce_glb_ready_pmsg_f(void *global, struct qz_mom_pmsg *pmsg, void *privdata);

/* The subcard-state callback given to the bus; privdata is a struct fun. */
int32_t subscribe_subcard_state_cb(void *global, struct qz_mom_pmsg *pmsg, void *privdata);

/* Reconnect callback: renews every record of ctx's registry. Returns 0. */
int32_t libqz_cap_reconnect_cap_thread(void *global, int32_t db, int32_t type, void *ctx);

/* Registry walk callback of the renewal; arg is the context. */
int32_t libqz_cap_ce_subscribe_g_cap_recon_thread(void *item, void *ctx);

/* ---- Debug module (handlers that are not exported) ------------------------------ */

int32_t libqz_cap_dbg_dump_stat(void);
int32_t libqz_cap_dbg_dump_sub_hash(void);
int32_t libqz_cap_dbg_dump_all(void);
/* Registry walk callback printing one record; returns 0. */
int32_t libqz_cap_dbg_print_sub_item(void *item, void *arg);
/* Value callbacks of the debug subscriptions. */
int32_t libqz_cap_dbg_bool_sub_cb(void *global, struct qz_mom_pmsg *pmsg, void *arg);
int32_t libqz_cap_dbg_int32_sub_cb(void *global, struct qz_mom_pmsg *pmsg, void *arg);

#ifdef __cplusplus
}
#endif

/* Sizes that the device's 32-bit ABI fixes. */
#ifdef __cplusplus
#define LIBQZ_CAP_STATIC_ASSERT static_assert
#else
#define LIBQZ_CAP_STATIC_ASSERT _Static_assert
#endif
LIBQZ_CAP_STATIC_ASSERT(sizeof(void *) != 4 || sizeof(libqz_cap_ctrl_info_t) == 400,
                        "client context must be 400 bytes on a 32-bit target");
LIBQZ_CAP_STATIC_ASSERT(sizeof(void *) != 4 || sizeof(sub_info) == 272,
                        "subscription record must be 272 bytes on a 32-bit target");
LIBQZ_CAP_STATIC_ASSERT(sizeof(void *) != 4 || sizeof(libqz_cap_time_rec_t) == 16,
                        "step record must be 16 bytes on a 32-bit target");
LIBQZ_CAP_STATIC_ASSERT(sizeof(libqz_cap_subcard_node_payload_t) == 404,
                        "subcard node payload must be 404 bytes");

#endif /* LIBQZ_CAP_INTERNAL_H */
