// Subcard readiness subscription: every subcard's state record, delivered to
// the subscriber as a small subcard_msg. Not recorded in a registry, so a
// reconnection does not renew it.
#include "core/alloc.h"
#include "core/log.h"
#include "internal.h"
#include "p_libpub.pb-c.h"
#include "qz_mom.h"
#include "sub/holder.h"

namespace {

using qzcap::kError;

constexpr int32_t kCmdScanned = 4;
constexpr int32_t kCmdChanged = 6;
constexpr int32_t kCmdSubscribed = 29;

constexpr qzcap::sub::HolderTexts kHolderTexts{"sub_state malloc error, sub failed",
                                               "fun malloc error, sub failed"};

// An index at its initial value: the pattern of every subcard's record.
class EverySubcard {
  public:
    EverySubcard() { rec_.index = &index_; }
    EverySubcard(const EverySubcard &) = delete;
    EverySubcard &operator=(const EverySubcard &) = delete;
    const ProtobufCMessage *msg() const { return &rec_.base; }

  private:
    PLibpub__CapSubcardStateIndex index_ = P_LIBPUB__CAP_SUBCARD_STATE_INDEX__INIT;
    PLibpub__CapSubcardState rec_ = P_LIBPUB__CAP_SUBCARD_STATE__INIT;
};

int32_t deliver(const char *fn, void *global, const qz_mom_pmsg_t &pmsg, const struct fun &fun) {
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

}  // namespace

extern "C" {

// global is the bus's to judge; mod only has to be present.
int32_t libqz_cap_subscribe_subcard_state(void *global, void *mod, libqz_cap_subcard_cb fp,
                                          void *arg) {
    QZ_CHECK_PTR(mod, "mod");
    QZ_CHECK_PTR(fp, "fp");

    // Kept whatever the bus answers.
    struct fun *fun = qzcap::sub::hold_callback(
        __func__, kHolderTexts, &qzcap::g_subcard_state_holders, reinterpret_cast<void *>(fp), arg);
    if (fun == nullptr)
        return LIBQZ_CAP_E_NOMEM;

    const EverySubcard key;
    const int32_t rv =
        qz_mom_subscribe(global, LIBQZ_CAP_DB, key.msg(), 0, subscribe_subcard_state_cb, fun);
    if (rv != 0) {
        QZ_LOG(1, kError, "failed,rv %d", rv);
        return rv;
    }
    return 0;
}

int32_t subscribe_subcard_state_cb(void *global, struct qz_mom_pmsg *pmsg, void *privdata) {
    QZ_CHECK_PTR(pmsg, "pmsg");
    QZ_CHECK_PTR(privdata, "arg");
    const auto *fun = static_cast<const struct fun *>(privdata);
    if (fun->fp == nullptr) {
        QZ_LOG(1, kError, "fun->fp NULL pointer, addr error!\n");
        return LIBQZ_CAP_E_ARG;
    }

    switch (pmsg->cmd) {
        case kCmdScanned:
        case kCmdChanged:
            return deliver(__func__, global, *pmsg, *fun);
        case kCmdSubscribed: {
            // Records stored before the subscription are never pushed: fetch
            // them through this same callback.
            const EverySubcard key;
            const int32_t rv = qz_mom_scan_sync(global, LIBQZ_CAP_DB, key.msg(), 0,
                                                subscribe_subcard_state_cb, privdata);
            if (rv != 0) {
                QZ_LOG(1, kError, "failed,rv %d", rv);
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
