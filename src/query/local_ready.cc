// Local readiness: whether the local capability table is complete.
#include "core/bus.h"
#include "core/log.h"
#include "internal.h"
#include "p_libpub.pb-c.h"

extern "C" {

int32_t libqz_cap_get_local_ready_thread(void *global, libqz_cap_ctrl_info_t *ctx, bool *ready) {
    QZ_CHECK_PTR(global, "global");
    QZ_CHECK_PTR(ready, "ready");
    QZ_CHECK_PTR(ctx, "info");
    QZ_LOG(4, qzcap::kInfo, "enter");

    PLibpub__CapState key = P_LIBPUB__CAP_STATE__INIT;
    int32_t error_code = 0;
    qzcap::ObjPtr<PLibpub__CapState> state(static_cast<PLibpub__CapState *>(
        qz_mom_get_sync(global, LIBQZ_CAP_DB, &key.base, &error_code)));
    // The error code decides, whatever came back with it.
    if (error_code != 0) {
        QZ_LOG(1, qzcap::kError, "errorcode %d", error_code);
        *ready = false;
        state.reset();
        return LIBQZ_CAP_E_BUS;
    }
    if (!state) {
        // Nothing published yet reads as not ready.
        QZ_LOG(4, qzcap::kInfo, "tmp_state is NULL");
        *ready = false;
    } else {
        QZ_LOG(4, qzcap::kInfo, "ready is %d", state->ready);
        *ready = state->ready != 0;
        state.reset();
    }
    QZ_LOG(4, qzcap::kInfo, "leave");
    return 0;
}

int32_t libqz_cap_get_local_ready(void *global, bool *ready) {
    return libqz_cap_get_local_ready_thread(global, &g_libqz_cap_ctrl_info, ready);
}

}  // extern "C"
