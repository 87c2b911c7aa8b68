/*
 * libqz_cap: the capability client library of the device platform.
 *
 * Capabilities are named boolean, int32 and string values that platform
 * services publish in database 3 of the message bus. Every operation returns
 * a signed 32-bit status (0 success, negative failure) unless noted, and
 * delivers values through out-parameters.
 *
 * Calling forms: X_thread(...) takes a client context; the plain X(...)
 * passes the calling thread's default context g_libqz_cap_ctrl_info.
 *
 * The library takes no locks: callers serialise their use of one context.
 */
#ifndef LIBQZ_CAP_H
#define LIBQZ_CAP_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#if defined(LIBQZ_CAP_BUILDING)
#define LIBQZ_CAP_API __attribute__((visibility("default")))
#else
#define LIBQZ_CAP_API
#endif

#ifdef __cplusplus
#define LIBQZ_CAP_THREAD_LOCAL thread_local
extern "C" {
#else
#define LIBQZ_CAP_THREAD_LOCAL _Thread_local
#endif

struct qz_mom_pmsg;
struct qz_cap_hash_table;

/* Status codes. */
enum {
    LIBQZ_CAP_OK = 0,
    LIBQZ_CAP_E_HASH_WALK = -1,  /* null table or bad slice in a hash walk */
    LIBQZ_CAP_E_NOMEM = -2,      /* out of memory in a subscription */
    LIBQZ_CAP_E_ARG = -4,        /* null pointer, or a text of 256 characters or more */
    LIBQZ_CAP_E_NODE = -6,       /* no subcard node could be created */
    LIBQZ_CAP_E_GLB_READ = -8,   /* bus error code on the global readiness read */
    LIBQZ_CAP_E_INIT = -11,      /* registry, level file or debug module failure */
    LIBQZ_CAP_E_HASH_NODE = -12, /* no hash node could be allocated */
    LIBQZ_CAP_E_BUS = -21,       /* bus read failed, or no card matched the node id */
    LIBQZ_CAP_E_NO_RECORD = -22, /* no record stored under the key */
    LIBQZ_CAP_E_NO_INDEX = -23,  /* a delivered record has no index */
    LIBQZ_CAP_E_NO_FIELD = -24   /* the record does not hold the wanted value */
};

/* ---- Client context ---------------------------------------------------- */

typedef struct libqz_cap_time_rec {
    uint8_t valid; /* 1 once the step was recorded */
    uint32_t sec;  /* monotonic time of the last recording */
    uint32_t nsec;
    uint32_t count; /* how often the step was recorded */
} libqz_cap_time_rec_t;

/* Start-up steps of initialisation, indexes of time_rec. */
enum {
    LIBQZ_CAP_INIT_START = 0,
    LIBQZ_CAP_INIT_GET_APP_NAME = 1,
    LIBQZ_CAP_INIT_ZLOG_INIT = 2,
    LIBQZ_CAP_INIT_CON_HOST = 3,
    LIBQZ_CAP_INIT_HASH = 4,
    LIBQZ_CAP_INIT_RECON_HOST = 5,
    LIBQZ_CAP_INIT_KRIL_INIT = 6,
    LIBQZ_CAP_INIT_STEPS = 7
};

typedef struct libqz_cap_ctrl_info {
    uint8_t ready;                      /* cached local readiness */
    uint32_t sleep_time;                /* one-second waits of blocking reads */
    void *global;                       /* bus handle of the last successful initialisation */
    char url[256];                      /* scratch buffer of libqz_cap_form_spec_url_thread */
    struct qz_cap_hash_table *sub_hash; /* subscription registry */
    libqz_cap_time_rec_t time_rec[LIBQZ_CAP_INIT_STEPS];
    uint8_t kril_handle[16]; /* debug-shell registration storage */
} libqz_cap_ctrl_info_t;     /* 400 bytes on a 32-bit target */

typedef struct libqz_cap_list_head {
    struct libqz_cap_list_head *next, *prev;
} libqz_cap_list_head_t;

/* The calling thread's default context, zero-filled at thread start. */
LIBQZ_CAP_API extern LIBQZ_CAP_THREAD_LOCAL libqz_cap_ctrl_info_t g_libqz_cap_ctrl_info;

/* Process-wide list of subcard nodes, kept in node-id order. */
LIBQZ_CAP_API extern libqz_cap_list_head_t cap_sub_card_nodes_list;

/* Returns a new zero-filled context, or NULL. The caller owns it. */
LIBQZ_CAP_API libqz_cap_ctrl_info_t *libqz_cap_ctrl_info_init(void);

/*
 * Releases a context made by libqz_cap_ctrl_info_init (NULL is ignored). Its
 * registry and bus callbacks are not touched: no callback may still use it.
 */
LIBQZ_CAP_API void libqz_cap_ctrl_info_free(libqz_cap_ctrl_info_t *ctx);

/* Sets the bus write buffer and the debug-shell buffer to 1024 bytes.
 * Returns 0, -4, or the debug shell's result. */
LIBQZ_CAP_API int32_t libqz_cap_set_mem_size_thread(void *global, libqz_cap_ctrl_info_t *ctx);
LIBQZ_CAP_API int32_t libqz_cap_set_mem_size(void *global);

/* Writes the base name of process pid's executable ("app" when unreadable)
 * into name, cut to len - 1 bytes and terminated. Returns name (NULL for a
 * NULL name; len 0 leaves it untouched). */
LIBQZ_CAP_API char *libqz_cap_get_app_name(int32_t pid, char *name, uint32_t len);

/* ---- Logging ------------------------------------------------------------ */

/* Gate level: 0 silent, 1 errors (default), 2 entry and exit lines, 4 traces.
 * Compared as unsigned, so a negative level enables everything. */
LIBQZ_CAP_API extern int32_t g_libqz_cap_zlog_level;

/* Logging category handle; no record is emitted while it is NULL. */
LIBQZ_CAP_API extern void *g_libqz_cap_zlog_category;

/* Sets the gate level; any value is accepted. */
LIBQZ_CAP_API void libqz_cap_log_level(int32_t level);

/* Applies the level files and opens the "libqz_cap" category. Returns 0 (a
 * NULL name is logged and only skips the per-application file). */
LIBQZ_CAP_API int32_t libqz_cap_zlog_init(const char *app_name);

/* ---- Start-up step timing ---------------------------------------------- */

/* Step names, one per 32-byte slot, indexed by step number. */
LIBQZ_CAP_API extern const char g_libqz_cap_time_rec_name[LIBQZ_CAP_INIT_STEPS][32];

/* Prints the step-time report of ctx. Returns 0, or -4 for a NULL ctx. */
LIBQZ_CAP_API int libqz_cap_dbg_show_time_thread(libqz_cap_ctrl_info_t *ctx);
LIBQZ_CAP_API int libqz_cap_dbg_show_time(void);

/* ---- Readiness ---------------------------------------------------------- */

/* Reads whether the local capability table is complete. A missing state
 * record reads as not ready. Returns 0, -4 or -21. */
LIBQZ_CAP_API int32_t libqz_cap_get_local_ready_thread(void *global, libqz_cap_ctrl_info_t *ctx,
                                                       bool *ready);
LIBQZ_CAP_API int32_t libqz_cap_get_local_ready(void *global, bool *ready);

/* Whether the device-wide capability table is complete; reads once. A missing
 * record reads as not ready. Returns 0, -4 or -8. */
LIBQZ_CAP_API int32_t libqz_cap_ce_get_glb_ready(void *global, bool *ready);

/* Whether subcard nodeid's capability table is complete (found through the
 * card inventory). Returns 0, -4, -21 or the scan's status. */
LIBQZ_CAP_API int32_t libqz_cap_get_sub_card_local_ready_thread(void *global, bool *ready,
                                                                int32_t nodeid);

/* Exported flag for other components of the process; the library never
 * touches it. */
LIBQZ_CAP_API extern uint8_t g_libqz_g_cap_calc_ready;

/* ---- Capability reads -----------------------------------------------------
 * Blocking reads poll once a second until the value is published or the
 * device reports its table complete, then read once more; _no_block reads
 * read once. Returns 0, -4, -21 (bus failure), -22 (no record) or -24 (the
 * record lacks the value). Outputs are set first (false, -1, "" with length
 * 0) and keep that value on any failure after the argument checks.
 * Strings: at most min(255, str_len - 1) characters are copied. */
LIBQZ_CAP_API int32_t libqz_cap_get_capacity_bool_thread(void *global, const char *url,
                                                         libqz_cap_ctrl_info_t *ctx, bool *value);
LIBQZ_CAP_API int32_t libqz_cap_get_capacity_bool(void *global, const char *url, bool *value);
LIBQZ_CAP_API int32_t libqz_cap_get_capacity_bool_no_block_thread(void *global, const char *url,
                                                                  libqz_cap_ctrl_info_t *ctx,
                                                                  bool *value);
LIBQZ_CAP_API int32_t libqz_cap_get_capacity_bool_no_block(void *global, const char *url,
                                                           bool *value);
LIBQZ_CAP_API int32_t libqz_cap_get_capacity_int32_thread(void *global, const char *url,
                                                          libqz_cap_ctrl_info_t *ctx,
                                                          int32_t *value);
LIBQZ_CAP_API int32_t libqz_cap_get_capacity_int32(void *global, const char *url, int32_t *value);
LIBQZ_CAP_API int32_t libqz_cap_get_capacity_int32_no_block_thread(void *global, const char *url,
                                                                   libqz_cap_ctrl_info_t *ctx,
                                                                   int32_t *value);
LIBQZ_CAP_API int32_t libqz_cap_get_capacity_int32_no_block(void *global, const char *url,
                                                            int32_t *value);
LIBQZ_CAP_API int32_t libqz_cap_get_capacity_str_thread(void *global, const char *url,
                                                        uint32_t str_len,
                                                        libqz_cap_ctrl_info_t *ctx, char *str,
                                                        uint32_t *length);
LIBQZ_CAP_API int32_t libqz_cap_get_capacity_str(void *global, const char *url, uint32_t str_len,
                                                 char *str, uint32_t *length);
LIBQZ_CAP_API int32_t libqz_cap_get_capacity_str_no_block_thread(void *global, const char *url,
                                                                 uint32_t str_len,
                                                                 libqz_cap_ctrl_info_t *ctx,
                                                                 char *str, uint32_t *length);
LIBQZ_CAP_API int32_t libqz_cap_get_capacity_str_no_block(void *global, const char *url,
                                                          uint32_t str_len, char *str,
                                                          uint32_t *length);

/* Second names of the device-wide reads: the same functions. */
LIBQZ_CAP_API int32_t libqz_cap_ce_get_g_cap_bool_thread(void *global, const char *url,
                                                         libqz_cap_ctrl_info_t *ctx, bool *value);
LIBQZ_CAP_API int32_t libqz_cap_ce_get_g_cap_bool(void *global, const char *url, bool *value);
LIBQZ_CAP_API int32_t libqz_cap_ce_get_g_cap_bool_no_block_thread(void *global, const char *url,
                                                                  libqz_cap_ctrl_info_t *ctx,
                                                                  bool *value);
LIBQZ_CAP_API int32_t libqz_cap_ce_get_g_cap_bool_no_block(void *global, const char *url,
                                                           bool *value);
LIBQZ_CAP_API int32_t libqz_cap_ce_get_g_cap_int32_thread(void *global, const char *url,
                                                          libqz_cap_ctrl_info_t *ctx,
                                                          int32_t *value);
LIBQZ_CAP_API int32_t libqz_cap_ce_get_g_cap_int32(void *global, const char *url, int32_t *value);
LIBQZ_CAP_API int32_t libqz_cap_ce_get_g_cap_int32_no_block_thread(void *global, const char *url,
                                                                   libqz_cap_ctrl_info_t *ctx,
                                                                   int32_t *value);
LIBQZ_CAP_API int32_t libqz_cap_ce_get_g_cap_int32_no_block(void *global, const char *url,
                                                            int32_t *value);

/* The blocking int32 read on the default context; on failure *value gets
 * default_value and the failing status is returned. */
LIBQZ_CAP_API int32_t libqz_cap_ce_get_g_cap_int32_default(void *global, const char *url,
                                                           int32_t *value, int32_t default_value);

/* "global_spec/platform/<name>" built in ctx->url (at most 254 characters);
 * NULL when name or ctx is NULL. Valid until the next call on ctx. */
LIBQZ_CAP_API char *libqz_cap_form_spec_url_thread(const char *name, libqz_cap_ctrl_info_t *ctx);
LIBQZ_CAP_API char *libqz_cap_form_spec_url(const char *name);

/* Subcard reads: as the device-wide ones, keyed by node id and URL, waiting
 * on the subcard's readiness (cached per node id). -6: no node. */
LIBQZ_CAP_API int32_t libqz_cap_get_subcard_capacity_bool(void *global, int32_t nodeid,
                                                          const char *url, bool *value);
LIBQZ_CAP_API int32_t libqz_cap_get_subcard_capacity_bool_no_block(void *global, int32_t nodeid,
                                                                   const char *url, bool *value);
LIBQZ_CAP_API int32_t libqz_cap_get_subcard_capacity_int32(void *global, int32_t nodeid,
                                                           const char *url, int32_t *value);
LIBQZ_CAP_API int32_t libqz_cap_get_subcard_capacity_int32_no_block(void *global, int32_t nodeid,
                                                                    const char *url,
                                                                    int32_t *value);

/* ---- Pushed-message values ------------------------------------------------
 * For a value subscriber's callback: the URL (cut to size - 1 and 255) and
 * the value of the pushed record. url must hold a terminated string on entry.
 * Returns 0, -4, -21, -22, -23 or -24; on failure the outputs are cleared. */
LIBQZ_CAP_API int32_t libqz_cap_ce_get_g_cap_bool_by_pmsg_thread(struct qz_mom_pmsg *pmsg,
                                                                 int32_t size, char *url,
                                                                 libqz_cap_ctrl_info_t *ctx,
                                                                 bool *value, uint32_t *length);
LIBQZ_CAP_API int32_t libqz_cap_ce_get_g_cap_bool_by_pmsg(struct qz_mom_pmsg *pmsg, int32_t size,
                                                          char *url, bool *value, uint32_t *length);
LIBQZ_CAP_API int32_t libqz_cap_ce_get_g_cap_int32_by_pmsg_thread(struct qz_mom_pmsg *pmsg,
                                                                  int32_t size, char *url,
                                                                  libqz_cap_ctrl_info_t *ctx,
                                                                  int32_t *value, uint32_t *length);
LIBQZ_CAP_API int32_t libqz_cap_ce_get_g_cap_int32_by_pmsg(struct qz_mom_pmsg *pmsg, int32_t size,
                                                           char *url, int32_t *value,
                                                           uint32_t *length);

/* ---- Subscriptions ---------------------------------------------------------
 * Each successful global subscription is recorded in the context's registry
 * and renewed after the bus reconnects. Callbacks run on the bus's thread.
 * Returns 0, -4, -2, or the bus's or the registry's code. */

/* A value subscriber's callback; take the URL and value out with the
 * libqz_cap_ce_get_g_cap_*_by_pmsg extractors. */
typedef int32_t (*libqz_cap_value_cb)(void *global, struct qz_mom_pmsg *pmsg, void *arg);
typedef int32_t (*libqz_cap_state_cb)(void *global, void *arg);

typedef struct libqz_cap_subcard_msg {
    int32_t nodeid;
    int32_t config_dev_type;
    bool ready;
} libqz_cap_subcard_msg_t;
/* msg lives for the call only. */
typedef int32_t (*libqz_cap_subcard_cb)(void *global, libqz_cap_subcard_msg_t *msg, void *arg);

LIBQZ_CAP_API int32_t libqz_cap_ce_subscribe_g_cap_bool_ext_thread(void *global, const char *url,
                                                                   libqz_cap_value_cb fp, void *arg,
                                                                   libqz_cap_ctrl_info_t *ctx);
LIBQZ_CAP_API int32_t libqz_cap_ce_subscribe_g_cap_bool_ext(void *global, const char *url,
                                                            libqz_cap_value_cb fp, void *arg);
LIBQZ_CAP_API int32_t libqz_cap_ce_subscribe_g_cap_bool_thread(void *global, const char *url,
                                                               libqz_cap_value_cb fp,
                                                               libqz_cap_ctrl_info_t *ctx);
LIBQZ_CAP_API int32_t libqz_cap_ce_subscribe_g_cap_bool(void *global, const char *url,
                                                        libqz_cap_value_cb fp);
LIBQZ_CAP_API int32_t libqz_cap_ce_subscribe_g_cap_int32_ext_thread(void *global, const char *url,
                                                                    libqz_cap_value_cb fp,
                                                                    void *arg,
                                                                    libqz_cap_ctrl_info_t *ctx);
LIBQZ_CAP_API int32_t libqz_cap_ce_subscribe_g_cap_int32_ext(void *global, const char *url,
                                                             libqz_cap_value_cb fp, void *arg);
LIBQZ_CAP_API int32_t libqz_cap_ce_subscribe_g_cap_int32_thread(void *global, const char *url,
                                                                libqz_cap_value_cb fp,
                                                                libqz_cap_ctrl_info_t *ctx);
LIBQZ_CAP_API int32_t libqz_cap_ce_subscribe_g_cap_int32(void *global, const char *url,
                                                         libqz_cap_value_cb fp);

/* fp(global, arg) runs whenever the device-wide readiness record is
 * delivered (also one stored before the subscription). */
LIBQZ_CAP_API int32_t libqz_cap_ce_subscribe_g_cap_state_thread(void *global, const char *name,
                                                                libqz_cap_state_cb fp, void *arg,
                                                                libqz_cap_ctrl_info_t *ctx);
LIBQZ_CAP_API int32_t libqz_cap_ce_subscribe_g_cap_state(void *global, const char *name,
                                                         libqz_cap_state_cb fp, void *arg);

/* fp runs for every subcard readiness record delivered. Not recorded in a
 * registry, so not renewed after a reconnection. mod must not be NULL. */
LIBQZ_CAP_API int32_t libqz_cap_subscribe_subcard_state(void *global, void *mod,
                                                        libqz_cap_subcard_cb fp, void *arg);

/* ---- Hash table ---------------------------------------------------------- */

/* Maps an item (or a key shaped like one) to its index value. */
typedef uint32_t (*qz_cap_hash_index_fn)(void *item);
/* Returns 0 when the stored item equals the key. */
typedef int32_t (*qz_cap_hash_compare_fn)(void *stored, void *key);
/* Walk callback; a non-zero result stops the walk and is returned by it. */
typedef int32_t (*qz_cap_hash_item_fn)(void *item, void *arg);

typedef struct qz_cap_hash_table qz_cap_hash_table;

/* A table sized for `size` items (size / 0.75 buckets; 0 means 1365 buckets).
 * Returns NULL when memory runs out or the size does not fit. */
LIBQZ_CAP_API qz_cap_hash_table *qz_cap_create_hash(uint32_t size, qz_cap_hash_index_fn get_index,
                                                    qz_cap_hash_compare_fn compare);
/* Frees the table but neither its nodes nor its items. */
LIBQZ_CAP_API void qz_cap_destroy_hash(qz_cap_hash_table *table);
/* Adds item at the front of its bucket. Returns 0, -1 (NULL table) or -12. */
LIBQZ_CAP_API int32_t qz_cap_hash_insert_item(qz_cap_hash_table *table, void *item);
/* Removes the newest item equal to key; the item itself is not freed. */
LIBQZ_CAP_API void qz_cap_hash_del_item(qz_cap_hash_table *table, void *key);
/* Returns the newest item equal to key, or NULL. */
LIBQZ_CAP_API void *qz_cap_hash_find_item(qz_cap_hash_table *table, void *key);
/* Calls fn on every item, bucket by bucket; fn may delete the item it is
 * given. Returns -1 for a NULL table or fn, else fn's first non-zero result,
 * else 0. */
LIBQZ_CAP_API int32_t qz_cap_hash_each_item_op(qz_cap_hash_table *table, qz_cap_hash_item_fn fn,
                                               void *arg);
/* The same over slice cur_part of max_part slices of the buckets. Returns -1
 * for invalid slice numbers. */
LIBQZ_CAP_API int32_t qz_cap_hash_each_item_op_partly(qz_cap_hash_table *table,
                                                      qz_cap_hash_item_fn fn, void *arg,
                                                      uint32_t max_part, uint32_t cur_part);
LIBQZ_CAP_API uint32_t qz_cap_hash_get_current_item_num(qz_cap_hash_table *table);
/* The 8-bit item count of key's bucket (it wraps at 256). */
LIBQZ_CAP_API uint32_t qz_cap_hash_get_current_bucket_num(qz_cap_hash_table *table, void *key);
/* Prints a warning on every insertion into a bucket holding more than size
 * items; 0 disables it. */
LIBQZ_CAP_API void qz_cap_hash_set_bucket_warning_size(qz_cap_hash_table *table, uint32_t size);

/* ---- Subscription registry ----------------------------------------------- */

/* Registry record types. */
enum { LIBQZ_CAP_SUB_BOOL = 0, LIBQZ_CAP_SUB_INT32 = 1, LIBQZ_CAP_SUB_STATE = 3 };

/* One recorded subscription of a context (272 bytes on a 32-bit target). */
typedef struct sub_info {
    void *global;  /* bus handle the subscription was made with */
    char url[256]; /* capability URL, or the state subscription's name */
    uint32_t type; /* LIBQZ_CAP_SUB_* */
    void *fp;      /* callback given to the bus */
    void *arg;     /* its argument; may be NULL */
} sub_info;

/* The registry's index value: the URL's bytes hashed by 31, plus the type. */
LIBQZ_CAP_API uint32_t libqz_cap_get_sub_hash_index(sub_info *item);

/* ---- Initialisation ---------------------------------------------------------
 * Binds ctx to the bus handle: logging set-up, connection to database 3, the
 * subscription registry, the reconnect callback and, for a thread's default
 * context, the debug module. A second call with the same handle does nothing.
 * reg_name only labels log records. Returns 0, -4, -11 or the bus's result. */
LIBQZ_CAP_API int32_t libqz_cap_init_thread(void *global, const char *reg_name,
                                            libqz_cap_ctrl_info_t *ctx);
LIBQZ_CAP_API int32_t libqz_cap_init(void *global, const char *reg_name);

/* ---- Diagnostics ---------------------------------------------------------------
 * The debug module "libqz_cap_<application>" and its command handlers. The
 * handlers use the calling thread's default context and print to standard
 * output. */

/* Registers the debug module and its 19 commands. Returns 0, -4 (a NULL
 * argument) or -11 (the shell refused the module). */
LIBQZ_CAP_API int32_t libqz_cap_kril_init_thread(void *global, const char *app_name,
                                                 libqz_cap_ctrl_info_t *ctx);

LIBQZ_CAP_API int32_t libqz_cap_dbg_get_cap_bool(const char *url);
LIBQZ_CAP_API int32_t libqz_cap_dbg_get_cap_int32(const char *url);
LIBQZ_CAP_API int32_t libqz_cap_dbg_get_cap_str(const char *url);
LIBQZ_CAP_API int32_t libqz_cap_dbg_get_cap_bool_no_block(const char *url);
LIBQZ_CAP_API int32_t libqz_cap_dbg_get_cap_int32_no_block(const char *url);
LIBQZ_CAP_API int32_t libqz_cap_dbg_get_cap_str_no_block(const char *url);
LIBQZ_CAP_API int32_t libqz_cap_dbg_ce_get_g_cap_bool(const char *url);
LIBQZ_CAP_API int32_t libqz_cap_dbg_ce_get_g_cap_int32(const char *url);
LIBQZ_CAP_API int32_t libqz_cap_dbg_ce_get_g_cap_bool_no_block(const char *url);
LIBQZ_CAP_API int32_t libqz_cap_dbg_ce_get_g_cap_int32_no_block(const char *url);
LIBQZ_CAP_API int32_t libqz_cap_dbg_ce_subscribe_g_cap_bool(const char *url);
LIBQZ_CAP_API int32_t libqz_cap_dbg_ce_subscribe_g_cap_int32(const char *url);

/* Memory estimate of a context's registry. Returns 0, or -4 for a NULL ctx. */
LIBQZ_CAP_API int32_t libqz_cap_dbg_show_memory_thread(libqz_cap_ctrl_info_t *ctx);
LIBQZ_CAP_API int32_t libqz_cap_dbg_show_memory(void);

/* Readiness, gate level, registry, memory estimate and step times of ctx.
 * Returns 0, or -4 for a NULL ctx. */
LIBQZ_CAP_API int32_t libqz_cap_dbg_dump_all_thread(libqz_cap_ctrl_info_t *ctx);

/* Standard input, output and error into "/data/collect/libqz_cap_<app>.log",
 * and back to the saved standard output. */
LIBQZ_CAP_API int32_t libqz_cap_dbg_log_redirect2file(void);
LIBQZ_CAP_API int32_t libqz_cap_dbg_log_redirect2std(void);

/* The full dump of the default context, written into the collect file. */
LIBQZ_CAP_API int32_t libqz_cap_dbg_collect(void);

#ifdef __cplusplus
}
#endif

#endif /* LIBQZ_CAP_H */
