// Device-wide readiness: the one-shot read and the callback that turns a
// readiness subscription into calls of the subscriber's state callback.
#include "core/bus.h"
#include "core/log.h"
#include "internal.h"
#include "s_frame.pb-c.h"

namespace {

constexpr int32_t kCmdDelivered = 1;
constexpr int32_t kCmdSubscribed = 29;
// Positive on purpose: a delivery without a record is not a failure of ours.
constexpr int32_t kNoStateDelivered = 22;

}  // namespace

extern "C" {

int32_t libqz_cap_ce_get_glb_ready(void *global, bool *ready) {
    QZ_CHECK_PTR(global, "global");
    QZ_CHECK_PTR(ready, "ready");
    QZ_LOG(4, qzcap::kInfo, "enter %p", global);

    SFrame__CapGlbState key = S_FRAME__CAP_GLB_STATE__INIT;
    int32_t error_code = 0;
    qzcap::ObjPtr<SFrame__CapGlbState> state(static_cast<SFrame__CapGlbState *>(
        qz_mom_get_sync(global, LIBQZ_CAP_DB, &key.base, &error_code)));
    // The error code decides, whatever came back with it.
    if (error_code != 0) {
        QZ_LOG(1, qzcap::kError, "errorcode %d", error_code);
        *ready = false;
        state.reset();
        return LIBQZ_CAP_E_GLB_READ;
    }
    if (!state) {
        QZ_LOG(2, qzcap::kWarn, "tmp_state is NULL");
        *ready = false;
    } else {
        QZ_LOG(2, qzcap::kWarn, "ready is %d", state->ready);
        *ready = state->ready != 0;
        state.reset();
    }
    QZ_LOG(4, qzcap::kInfo, "leave");
    return 0;
}

int32_t libqz_cap_ce_glb_ready_pmsg_f(void *global, struct qz_mom_pmsg *pmsg, void *privdata) {
    QZ_CHECK_PTR(pmsg, "pmsg");
    QZ_CHECK_PTR(privdata, "arg");
    QZ_LOG(4, qzcap::kInfo, "enter");
    const auto *fun = static_cast<const struct fun *>(privdata);
    if (fun->fp == nullptr) {
        QZ_LOG(1, qzcap::kError, "fun->fp NULL pointer, addr error!\n");
        return LIBQZ_CAP_E_ARG;
    }

    switch (pmsg->cmd) {
        case kCmdDelivered:
            if (pmsg->result == nullptr) {
                QZ_LOG(2, qzcap::kWarn, "tmp_state is NULL");
                return kNoStateDelivered;
            }
            // Any delivered record counts: the subscriber reads the state itself.
            QZ_LOG(2, qzcap::kWarn, "glb_state is ready exec callback");
            reinterpret_cast<libqz_cap_state_fp>(fun->fp)(global, fun->arg);
            return 0;
        case kCmdSubscribed: {
            QZ_LOG(2, qzcap::kWarn, "subscribe ok");
            // A record stored before the subscription would never be pushed:
            // fetch it through this same callback.
            SFrame__CapGlbState key = S_FRAME__CAP_GLB_STATE__INIT;
            const int32_t rv = qz_mom_scan_sync(global, LIBQZ_CAP_DB, &key.base, 0,
                                                libqz_cap_ce_glb_ready_pmsg_f, privdata);
            if (rv != 0) {
                QZ_LOG(1, qzcap::kError, "failed,rv %d", rv);
                return rv;
            }
            return 0;
        }
        default:
            QZ_LOG(4, qzcap::kInfo, "pmsg->cmd %d", pmsg->cmd);
            return 0;
    }
}

}  // extern "C"
