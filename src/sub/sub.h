// The subscription side: the generic hash table, the per-context registry
// of subscriptions, the state subscriptions' callbacks and the renewal of
// every registry record after the bus reconnects.
#ifndef LIBQZ_CAP_SUB_SUB_H
#define LIBQZ_CAP_SUB_SUB_H

#include <cstdint>

#include "libqz_cap.h"

static_assert(sizeof(void *) != 4 || sizeof(sub_info) == 272,
              "subscription record must be 272 bytes on a 32-bit target");

// ---- Hash table ------------------------------------------------------------

struct qz_cap_hash_node {
    qz_cap_hash_node *next, *prev;  // first two words double as a chain head
    void *item;
};

struct qz_cap_hash_list {
    qz_cap_hash_node *next, *prev;
};

struct qz_cap_hash_table {
    uint32_t table_size;           // buckets, fixed at creation
    uint32_t item_num;             // items held
    uint32_t bucket_warning_size;  // 0: no warning
    uint8_t *bucket_num;           // per-bucket item counts, modulo 256
    qz_cap_hash_list *buckets;     // circular chains, newest first
    qz_cap_hash_index_fn get_index;
    qz_cap_hash_compare_fn compare;
};

// ---- State subscriptions ---------------------------------------------------

using libqz_cap_state_fp = int32_t (*)(void *global, void *arg);

// Callback record of a state subscription: the bus's private data.
struct fun {
    void *fp;  // the caller's callback
    void *arg;
};

// Holder list node of a state subscription; never freed.
struct libqz_cap_holder_t {
    libqz_cap_list_head_t list;
    struct fun *fun;
};

extern "C" {

// ---- Subscription registry -------------------------------------------------

// 0 when all five fields of the two records are equal, else -1.
int32_t libqz_cap_cmp_sub_hash_item(void *stored, void *key);

// Registry index in the table's callback shape.
uint32_t libqz_cap_sub_hash_index_cb(void *item);

// Records a subscription in ctx's registry unless an equal one is held.
// Returns 0, -4, -2 or the insertion's code.
int32_t libqz_cap_add_sub_info_thread(void *global, const char *url, void *fp, void *arg,
                                      uint32_t type, libqz_cap_ctrl_info_t *ctx);

// Logs every record of *registry_ref at gate 4 under a labelled header.
void libqz_cap_dump_sub_hash_thread(struct qz_cap_hash_table **registry_ref, const char *label);
void libqz_cap_dump_sub_hash_item(sub_info *item);

// ---- Bus callbacks -----------------------------------------------------------

// The global-state callback given to the bus; privdata is a struct fun.
int32_t libqz_cap_ce_glb_ready_pmsg_f(void *global, struct qz_mom_pmsg *pmsg, void *privdata);

// The subcard-state callback given to the bus; privdata is a struct fun.
int32_t subscribe_subcard_state_cb(void *global, struct qz_mom_pmsg *pmsg, void *privdata);

// Reconnect callback: renews every record of ctx's registry. Returns 0.
int32_t libqz_cap_reconnect_cap_thread(void *global, int32_t db, int32_t type, void *ctx);

// Registry walk callback of the renewal; arg is the context.
int32_t libqz_cap_ce_subscribe_g_cap_recon_thread(void *item, void *ctx);

}  // extern "C"

namespace qzcap {

// Holders of global-state and subcard-state subscriptions: appended, never
// pruned, since the bus may call back with their records at any time.
// Shared by all threads and unsynchronised, as all the library's state.
extern libqz_cap_list_head_t g_glb_state_holders;
extern libqz_cap_list_head_t g_subcard_state_holders;

namespace sub {

// Gives ctx an empty registry. Returns false (ctx unchanged) without memory.
bool create_registry(libqz_cap_ctrl_info_t *ctx);

// Frees every record of ctx's registry and the registry itself.
void destroy_registry(libqz_cap_ctrl_info_t *ctx);

}  // namespace sub
}  // namespace qzcap

#endif  // LIBQZ_CAP_SUB_SUB_H
