// Initialisation: binds a client context to a bus handle. It wires every
// subsystem together (the registry and its renewal, the subcard node list,
// the debug module), so it sits above them all.
#include <unistd.h>

#include "core/bus.h"
#include "core/core.h"
#include "core/log.h"
#include "dbg/dbg.h"
#include "query/query.h"
#include "sub/sub.h"

extern "C" {

int32_t libqz_cap_init_thread(void *global, const char *reg_name, libqz_cap_ctrl_info_t *ctx) {
    QZ_CHECK_PTR(reg_name, "reg_name");
    QZ_CHECK_PTR(global, "global");
    QZ_CHECK_PTR(ctx, "info");
    if (ctx->global == global)
        return 0;

    libqz_cap_rec_time_thread(LIBQZ_CAP_INIT_START, ctx);
    char name[qzcap::kAppNameLen];
    libqz_cap_get_app_name(getpid(), name, sizeof name);
    libqz_cap_rec_time_thread(LIBQZ_CAP_INIT_GET_APP_NAME, ctx);

    if (int32_t rv = libqz_cap_zlog_init(name); rv != 0) {
        QZ_LOG(1, qzcap::kError, "failed,rv %d", rv);
        return rv;
    }
    qzcap::forget_subcard_nodes();
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

    int32_t rv = qz_mom_client_connect_sync(global, qzcap::kCapDb);
    libqz_cap_rec_time_thread(LIBQZ_CAP_INIT_CON_HOST, ctx);
    if (rv != 0) {
        QZ_LOG(1, qzcap::kError, "connect host failed, rv %d", rv);
        return rv;
    }

    // An existing registry keeps its subscriptions across a rebinding.
    if (ctx->sub_hash == nullptr && !qzcap::sub::create_registry(ctx)) {
        QZ_LOG(1, qzcap::kError, "global %p sub_hash create failed", global);
        return LIBQZ_CAP_E_INIT;
    }
    libqz_cap_rec_time_thread(LIBQZ_CAP_INIT_HASH, ctx);

    rv = qz_mom_client_set_reconnect_cb(global, qzcap::kCapDb, libqz_cap_reconnect_cap_thread, ctx);
    if (rv != 0) {
        QZ_LOG(1, qzcap::kError, "qz_mom_client_set_reconnect_cb cap failed, rv %d", rv);
        // Without renewal the records could never be used again.
        qzcap::sub::destroy_registry(ctx);
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
