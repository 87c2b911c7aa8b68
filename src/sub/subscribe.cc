// The subscribe operations. A value or readiness subscription the bus
// accepts is recorded in the context's registry so that a reconnection can
// renew it; the subcard readiness subscription is not recorded, so a
// reconnection does not renew it.
#include "core/alloc.h"
#include "core/core.h"
#include "core/keys.h"
#include "core/log.h"
#include "core/value_kind.h"
#include "sub/sub.h"
#include "sub/subscribe_calls.h"

namespace {

using qzcap::Fmt;
using qzcap::kError;
using qzcap::kOutcomeCtx;
using qzcap::kWarn;
using qzcap::ValueKind;
using qzcap::sub::as_ptr;

// Logs an outcome text, with ctx when the row's text takes it.
void log_outcome(const char *fn, uint32_t gate, int level, const Fmt &t, void *global,
                 const char *url, void *fp, void *arg, libqz_cap_ctrl_info_t *ctx, int32_t rv) {
    if (t.args == kOutcomeCtx)
        QZ_LOG_FN(fn, gate, level, t.fmt, global, url, fp, arg, static_cast<void *>(ctx), rv);
    else
        QZ_LOG_FN(fn, gate, level, t.fmt, global, url, fp, arg, rv);
}

// The bus answer and the registry record of a device-wide subscription,
// logged with K's texts. The bus subscription stays in force either way; an
// unrecorded one is just not renewed after a reconnection.
template <class T>
int32_t record_outcome(const char *fn, const ValueKind<T> &k, int32_t rv, void *global,
                       const char *url, void *fp, void *arg, void *recorded_fp, void *recorded_arg,
                       uint32_t type, libqz_cap_ctrl_info_t *ctx) {
    if (rv != 0) {
        log_outcome(fn, 1, kError, k.refused, global, url, fp, arg, ctx, rv);
        return rv;
    }
    log_outcome(fn, 2, kWarn, k.accepted, global, url, fp, arg, ctx, 0);
    const int32_t add =
        libqz_cap_add_sub_info_thread(global, url, recorded_fp, recorded_arg, type, ctx);
    if (add != 0) {
        log_outcome(fn, 1, kError, k.add_failed, global, url, fp, arg, ctx, add);
        return add;
    }
    return 0;
}

template <class T>
int32_t subscribe_value(const char *fn, const ValueKind<T> &k, void *global, const char *url,
                        libqz_cap_value_cb fp, void *arg, libqz_cap_ctrl_info_t *ctx) {
    QZ_CHECK_PTR_FN(fn, global, "global");
    QZ_CHECK_PTR_FN(fn, url, "url");
    QZ_CHECK_LEN_FN(fn, url, "url");
    QZ_CHECK_PTR_FN(fn, fp, "fp");
    QZ_CHECK_PTR_FN(fn, ctx, "info");
    QZ_LOG_FN(fn, 2, kWarn, "global %p, sub url %s enter, fp %p, info %p", global, url, as_ptr(fp),
              static_cast<void *>(ctx));

    const int32_t rv = qzcap::sub::subscribe_field(global, url, k.field, fp, arg);
    return record_outcome(fn, k, rv, global, url, as_ptr(fp), arg, as_ptr(fp), arg, k.registry_type,
                          ctx);
}

// Appends a holder of a new fun {fp, arg} to list and returns the fun, or
// logs under fn and returns NULL (nothing is kept then). Listed fun records
// are never freed: the bus may call back with them at any time.
struct fun *hold_callback(const char *fn, const char *holder_failed, const char *fun_failed,
                          libqz_cap_list_head_t *list, void *fp, void *arg) {
    qzcap::XPtr<libqz_cap_holder_t> holder = qzcap::xcalloc_one<libqz_cap_holder_t>();
    if (!holder) {
        QZ_LOG_FN(fn, 1, kError, "%s", holder_failed);
        return nullptr;
    }
    qzcap::XPtr<struct fun> fun = qzcap::xcalloc_one<struct fun>();
    if (!fun) {
        QZ_LOG_FN(fn, 1, kError, "%s", fun_failed);
        return nullptr;
    }
    fun->fp = fp;
    fun->arg = arg;
    holder->fun = fun.release();
    struct fun *held = holder->fun;
    qzcap::list_append(list, &holder.release()->list);
    return held;
}

}  // namespace

extern "C" {

// A value subscription under its four names: the full one, and the
// default context or no argument or both.
#define QZCAP_VALUE_SUBSCRIBE(kind, value_kind)                                                 \
    int32_t libqz_cap_ce_subscribe_g_cap_##kind##_ext_thread(void *global, const char *url,     \
                                                             libqz_cap_value_cb fp, void *arg,  \
                                                             libqz_cap_ctrl_info_t *ctx) {      \
        return subscribe_value(__func__, value_kind, global, url, fp, arg, ctx);                \
    }                                                                                           \
    int32_t libqz_cap_ce_subscribe_g_cap_##kind##_ext(void *global, const char *url,            \
                                                      libqz_cap_value_cb fp, void *arg) {       \
        return libqz_cap_ce_subscribe_g_cap_##kind##_ext_thread(global, url, fp, arg,           \
                                                                &g_libqz_cap_ctrl_info);        \
    }                                                                                           \
    int32_t libqz_cap_ce_subscribe_g_cap_##kind##_thread(                                       \
        void *global, const char *url, libqz_cap_value_cb fp, libqz_cap_ctrl_info_t *ctx) {     \
        return libqz_cap_ce_subscribe_g_cap_##kind##_ext_thread(global, url, fp, nullptr, ctx); \
    }                                                                                           \
    int32_t libqz_cap_ce_subscribe_g_cap_##kind(void *global, const char *url,                  \
                                                libqz_cap_value_cb fp) {                        \
        return libqz_cap_ce_subscribe_g_cap_##kind##_ext_thread(global, url, fp, nullptr,       \
                                                                &g_libqz_cap_ctrl_info);        \
    }

QZCAP_VALUE_SUBSCRIBE(bool, qzcap::kBoolKind)
QZCAP_VALUE_SUBSCRIBE(int32, qzcap::kInt32Kind)

#undef QZCAP_VALUE_SUBSCRIBE

// The holder and its fun are listed before the bus is asked and kept
// whatever it answers. The texts are the boolean row's.
int32_t libqz_cap_ce_subscribe_g_cap_state_thread(void *global, const char *name,
                                                  libqz_cap_state_cb fp, void *arg,
                                                  libqz_cap_ctrl_info_t *ctx) {
    QZ_CHECK_PTR(global, "global");
    QZ_CHECK_PTR(name, "name");
    QZ_CHECK_LEN(name, "name");
    QZ_CHECK_PTR(fp, "fp");
    QZ_CHECK_PTR(ctx, "info");

    struct fun *fun = hold_callback(__func__, "glb_state malloc error, sub fail",
                                    "glb_state->fun malloc error, sub fail",
                                    &qzcap::g_glb_state_holders, as_ptr(fp), arg);
    if (fun == nullptr)
        return LIBQZ_CAP_E_NOMEM;

    QZ_LOG(2, kWarn, "global %p, sub name %s enter, fp %p, info %p", global, name, as_ptr(fp),
           static_cast<void *>(ctx));
    const int32_t rv = qzcap::sub::subscribe_glb_state(global, libqz_cap_ce_glb_ready_pmsg_f, fun);
    return record_outcome(__func__, qzcap::kBoolKind, rv, global, name, as_ptr(fp), arg,
                          as_ptr(libqz_cap_ce_glb_ready_pmsg_f), fun, LIBQZ_CAP_SUB_STATE, ctx);
}

int32_t libqz_cap_ce_subscribe_g_cap_state(void *global, const char *name, libqz_cap_state_cb fp,
                                           void *arg) {
    return libqz_cap_ce_subscribe_g_cap_state_thread(global, name, fp, arg, &g_libqz_cap_ctrl_info);
}

// global is the bus's to judge; mod only has to be present. The holder is
// kept whatever the bus answers.
int32_t libqz_cap_subscribe_subcard_state(void *global, void *mod, libqz_cap_subcard_cb fp,
                                          void *arg) {
    QZ_CHECK_PTR(mod, "mod");
    QZ_CHECK_PTR(fp, "fp");

    struct fun *fun = hold_callback(__func__, "sub_state malloc error, sub failed",
                                    "fun malloc error, sub failed", &qzcap::g_subcard_state_holders,
                                    as_ptr(fp), arg);
    if (fun == nullptr)
        return LIBQZ_CAP_E_NOMEM;

    const qzcap::SubcardStateKey every_subcard;
    const int32_t rv = qz_mom_subscribe(global, qzcap::kCapDb, every_subcard.msg(), 0,
                                        subscribe_subcard_state_cb, fun);
    if (rv != 0) {
        QZ_LOG(1, kError, "failed,rv %d", rv);
        return rv;
    }
    return 0;
}

}  // extern "C"
