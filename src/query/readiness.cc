// Readiness reads: whether the local capability table is complete, and
// whether the device as a whole is ready. The subscription to the latter
// lives with the subscriptions.
#include "core/bus.h"
#include "core/keys.h"
#include "core/log.h"
#include "p_libpub.pb-c.h"
#include "s_frame.pb-c.h"

namespace {

// How one readiness read reports: its trace of the flag and its failure.
struct Readiness {
    uint32_t gate;
    int level;
    int32_t failure;
};

// One read of an unkeyed state record. The error code decides, whatever
// came back with it; nothing published yet reads as not ready.
template <class Record, class Key>
int32_t read_ready_flag(const char *fn, const Readiness &how, void *global, bool *ready) {
    const Key key;
    int32_t error_code = 0;
    qzcap::ObjPtr<Record> state(
        static_cast<Record *>(qz_mom_get_sync(global, qzcap::kCapDb, key.msg(), &error_code)));
    if (error_code != 0) {
        QZ_LOG_FN(fn, 1, qzcap::kError, "errorcode %d", error_code);
        *ready = false;
        state.reset();
        return how.failure;
    }
    if (!state) {
        QZ_LOG_FN(fn, how.gate, how.level, "tmp_state is NULL");
        *ready = false;
    } else {
        QZ_LOG_FN(fn, how.gate, how.level, "ready is %d", state->ready);
        *ready = state->ready != 0;
        state.reset();
    }
    QZ_LOG_FN(fn, 4, qzcap::kInfo, "leave");
    return 0;
}

constexpr Readiness kLocal{4, qzcap::kInfo, LIBQZ_CAP_E_BUS};
constexpr Readiness kGlobal{2, qzcap::kWarn, LIBQZ_CAP_E_GLB_READ};

}  // namespace

extern "C" {

int32_t libqz_cap_get_local_ready_thread(void *global, libqz_cap_ctrl_info_t *ctx, bool *ready) {
    QZ_CHECK_PTR(global, "global");
    QZ_CHECK_PTR(ready, "ready");
    QZ_CHECK_PTR(ctx, "info");
    QZ_LOG(4, qzcap::kInfo, "enter");
    return read_ready_flag<PLibpub__CapState, qzcap::LocalStateKey>(__func__, kLocal, global,
                                                                    ready);
}

int32_t libqz_cap_get_local_ready(void *global, bool *ready) {
    return libqz_cap_get_local_ready_thread(global, &g_libqz_cap_ctrl_info, ready);
}

int32_t libqz_cap_ce_get_glb_ready(void *global, bool *ready) {
    QZ_CHECK_PTR(global, "global");
    QZ_CHECK_PTR(ready, "ready");
    QZ_LOG(4, qzcap::kInfo, "enter %p", global);
    return read_ready_flag<SFrame__CapGlbState, qzcap::GlbStateKey>(__func__, kGlobal, global,
                                                                    ready);
}

}  // extern "C"
