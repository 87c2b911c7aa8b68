// Initialisation: binds a client context to a bus handle.
#include <unistd.h>

#include <cstdlib>

#include "core/log.h"
#include "core/state.h"
#include "internal.h"
#include "qz_mom.h"

namespace {

// The device's buffer for the application name.
constexpr uint32_t kAppNameLen = 128;
// Subscriptions the registry is sized for (42 buckets).
constexpr uint32_t kRegistrySize = 32;

int32_t free_record_cb(void *item, void *registry) {
    qz_cap_hash_del_item(static_cast<qz_cap_hash_table *>(registry), item);
    free(item);
    return 0;
}

// The table's destroy frees neither its nodes nor its items, so the records
// leave the table (freeing their nodes) and are freed before it goes.
void destroy_registry(libqz_cap_ctrl_info_t *ctx) {
    qz_cap_hash_each_item_op(ctx->sub_hash, free_record_cb, ctx->sub_hash);
    qz_cap_destroy_hash(ctx->sub_hash);
    ctx->sub_hash = nullptr;
}

}  // namespace

extern "C" {

int32_t libqz_cap_init_thread(void *global, const char *reg_name, libqz_cap_ctrl_info_t *ctx) {
    QZ_CHECK_PTR(reg_name, "reg_name");
    QZ_CHECK_PTR(global, "global");
    QZ_CHECK_PTR(ctx, "info");
    if (ctx->global == global)
        return 0;

    libqz_cap_rec_time_thread(LIBQZ_CAP_INIT_START, ctx);
    char name[kAppNameLen];
    libqz_cap_get_app_name(getpid(), name, sizeof name);
    libqz_cap_rec_time_thread(LIBQZ_CAP_INIT_GET_APP_NAME, ctx);

    if (int32_t rv = libqz_cap_zlog_init(name); rv != 0) {
        QZ_LOG(1, qzcap::kError, "failed,rv %d", rv);
        return rv;
    }
    // Emptied, not freed: nodes handed out stay valid for their holders.
    cap_sub_card_nodes_list.next = &cap_sub_card_nodes_list;
    cap_sub_card_nodes_list.prev = &cap_sub_card_nodes_list;
    libqz_cap_rec_time_thread(LIBQZ_CAP_INIT_ZLOG_INIT, ctx);

    QZ_LOG(2, qzcap::kWarn, "enter global %p reg_name %s info %p", global, reg_name, ctx);
    // A thread's default context rebound to another handle usually means two
    // threads share one thread's initialisation: say so at every gate level.
    if (qzcap::is_default_ctx(ctx) && ctx->global != nullptr) {
        QZ_LOG_UNGATED(
            qzcap::kFatal,
            "maybe multi_thread call libqz_cap_init global %p, reg_name %s; old global %p", global,
            reg_name, ctx->global);
    }

    int32_t rv = qz_mom_client_connect_sync(global, LIBQZ_CAP_DB);
    libqz_cap_rec_time_thread(LIBQZ_CAP_INIT_CON_HOST, ctx);
    if (rv != 0) {
        QZ_LOG(1, qzcap::kError, "connect host failed, rv %d", rv);
        return rv;
    }

    // An existing registry keeps its subscriptions across a rebinding.
    if (ctx->sub_hash == nullptr) {
        ctx->sub_hash = qz_cap_create_hash(kRegistrySize, libqz_cap_sub_hash_index_cb,
                                           libqz_cap_cmp_sub_hash_item);
        if (ctx->sub_hash == nullptr) {
            QZ_LOG(1, qzcap::kError, "global %p sub_hash create failed", global);
            return LIBQZ_CAP_E_INIT;
        }
    }
    libqz_cap_rec_time_thread(LIBQZ_CAP_INIT_HASH, ctx);

    rv = qz_mom_client_set_reconnect_cb(global, LIBQZ_CAP_DB, libqz_cap_reconnect_cap_thread, ctx);
    if (rv != 0) {
        QZ_LOG(1, qzcap::kError, "qz_mom_client_set_reconnect_cb cap failed, rv %d", rv);
        // Without renewal the records could never be used again.
        destroy_registry(ctx);
        return rv;
    }
    libqz_cap_rec_time_thread(LIBQZ_CAP_INIT_RECON_HOST, ctx);

    // The module's handlers use the default context of the thread that runs
    // them, so only a default context registers it; its failure is not ours.
    if (qzcap::is_default_ctx(ctx))
        libqz_cap_kril_init_thread(global, name, ctx);
    libqz_cap_rec_time_thread(LIBQZ_CAP_INIT_KRIL_INIT, ctx);

    QZ_LOG(2, qzcap::kWarn, "global %p, reg_name %s libqz_cap_init success", global, name);
    ctx->global = global;
    return 0;
}

int32_t libqz_cap_init(void *global, const char *reg_name) {
    return libqz_cap_init_thread(global, reg_name, &g_libqz_cap_ctrl_info);
}

}  // extern "C"
