// The bus callbacks of the two state subscriptions, device-wide readiness
// and subcard readiness. They share one path; what the bus delivers and how
// it reaches the subscriber is what sets them apart.
#include "core/alloc.h"
#include "core/bus.h"
#include "core/keys.h"
#include "core/log.h"
#include "sub/sub.h"

namespace {

using qzcap::kError;
using qzcap::kInfo;
using qzcap::kWarn;

// Positive on purpose: a delivery without a record is not a failure of ours.
constexpr int32_t kNoStateDelivered = 22;

struct GlbState {
    using Key = qzcap::GlbStateKey;
    static constexpr qz_mom_record_cb kSelf = libqz_cap_ce_glb_ready_pmsg_f;
    static constexpr bool kTraced = true;  // "enter" and "subscribe ok"

    static bool delivers(int32_t cmd) { return cmd == QZ_MOM_CMD_RECORD; }

    // Any delivered record counts: the subscriber reads the state itself.
    static int32_t deliver(const char *fn, void *global, const qz_mom_pmsg_t &pmsg,
                           const struct fun &fun) {
        if (pmsg.result == nullptr) {
            QZ_LOG_FN(fn, 2, kWarn, "tmp_state is NULL");
            return kNoStateDelivered;
        }
        QZ_LOG_FN(fn, 2, kWarn, "glb_state is ready exec callback");
        reinterpret_cast<libqz_cap_state_fp>(fun.fp)(global, fun.arg);
        return 0;
    }
};

// Every subcard's state record, delivered as a small subcard_msg.
struct SubcardState {
    using Key = qzcap::SubcardStateKey;  // at its initial value: every subcard
    static constexpr qz_mom_record_cb kSelf = subscribe_subcard_state_cb;
    static constexpr bool kTraced = false;

    static bool delivers(int32_t cmd) {
        return cmd == QZ_MOM_CMD_SCAN || cmd == QZ_MOM_CMD_CHANGED;
    }

    static int32_t deliver(const char *fn, void *global, const qz_mom_pmsg_t &pmsg,
                           const struct fun &fun) {
        // Allocated per delivery: the subscriber sees it for the call only.
        qzcap::XPtr<libqz_cap_subcard_msg_t> msg = qzcap::xcalloc_one<libqz_cap_subcard_msg_t>();
        if (!msg) {
            QZ_LOG_FN(fn, 1, kError, "subcard_msg malloc error, sub failed");
            return LIBQZ_CAP_E_NOMEM;
        }
        const qz_mom_hash_res_t *res = pmsg.result;  // the bus's: never freed here
        if (res == nullptr) {
            QZ_LOG_FN(fn, 1, kError, "subcard_state_res NULL");
            return LIBQZ_CAP_E_BUS;
        }
        if (res->error_code != 0) {
            QZ_LOG_FN(fn, 1, kError, "result error_code %d", res->error_code);
            return LIBQZ_CAP_E_BUS;
        }
        const auto *state = static_cast<const PLibpub__CapSubcardState *>(res->view);
        if (state == nullptr) {
            QZ_LOG_FN(fn, 1, kError, "tmp is NULL");
            return LIBQZ_CAP_E_NO_RECORD;
        }
        if (state->index == nullptr) {
            QZ_LOG_FN(fn, 1, kError, "tmp index is NULL");
            return LIBQZ_CAP_E_NO_INDEX;
        }
        msg->nodeid = state->index->nodeid;
        msg->config_dev_type = state->index->config_dev_type;
        msg->ready = state->ready != 0;
        reinterpret_cast<libqz_cap_subcard_cb>(fun.fp)(global, msg.get(), fun.arg);
        return 0;
    }
};

template <class Kind>
int32_t on_state_push(const char *fn, void *global, qz_mom_pmsg_t *pmsg, void *privdata) {
    QZ_CHECK_PTR_FN(fn, pmsg, "pmsg");
    QZ_CHECK_PTR_FN(fn, privdata, "arg");
    if constexpr (Kind::kTraced)
        QZ_LOG_FN(fn, 4, kInfo, "enter");
    const auto &fun = *static_cast<const struct fun *>(privdata);
    if (fun.fp == nullptr) {
        QZ_LOG_FN(fn, 1, kError, "fun->fp NULL pointer, addr error!\n");
        return LIBQZ_CAP_E_ARG;
    }

    if (Kind::delivers(pmsg->cmd))
        return Kind::deliver(fn, global, *pmsg, fun);
    if (pmsg->cmd != QZ_MOM_CMD_SUBSCRIBED) {
        QZ_LOG_FN(fn, 4, kInfo, "pmsg->cmd %d", pmsg->cmd);
        return 0;
    }
    if constexpr (Kind::kTraced)
        QZ_LOG_FN(fn, 2, kWarn, "subscribe ok");
    // Records stored before the subscription are never pushed: fetch them
    // through this same callback.
    const typename Kind::Key key;
    const int32_t rv = qz_mom_scan_sync(global, qzcap::kCapDb, key.msg(), 0, Kind::kSelf, privdata);
    if (rv != 0) {
        QZ_LOG_FN(fn, 1, kError, "failed,rv %d", rv);
        return rv;
    }
    return 0;
}

}  // namespace

namespace qzcap {

libqz_cap_list_head_t g_glb_state_holders = {&g_glb_state_holders, &g_glb_state_holders};
libqz_cap_list_head_t g_subcard_state_holders = {&g_subcard_state_holders,
                                                 &g_subcard_state_holders};

}  // namespace qzcap

extern "C" {

int32_t libqz_cap_ce_glb_ready_pmsg_f(void *global, struct qz_mom_pmsg *pmsg, void *privdata) {
    return on_state_push<GlbState>(__func__, global, pmsg, privdata);
}

int32_t subscribe_subcard_state_cb(void *global, struct qz_mom_pmsg *pmsg, void *privdata) {
    return on_state_push<SubcardState>(__func__, global, pmsg, privdata);
}

}  // extern "C"
