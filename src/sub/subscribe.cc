// Device-wide subscriptions: a capability's boolean or integer value, and
// the readiness record. Each one the bus accepts is recorded in the
// context's registry so that a reconnection can renew it.
#include <cstring>

#include "core/log.h"
#include "internal.h"
#include "sub/holder.h"
#include "sub/value_sub.h"

namespace {

using qzcap::kError;
using qzcap::kWarn;
using qzcap::sub::as_ptr;
using qzcap::sub::kOutcomeCtx;
using qzcap::sub::Text;
using qzcap::sub::ValueKind;

// Logs an outcome text, with ctx when the row's text takes it.
inline void log_outcome(const char *fn, uint32_t gate, int level, const Text &t, void *global,
                        const char *url, void *fp, void *arg, libqz_cap_ctrl_info_t *ctx,
                        int32_t rv) {
    if (t.args == kOutcomeCtx)
        QZ_LOG_FN(fn, gate, level, t.fmt, global, url, fp, arg, static_cast<void *>(ctx), rv);
    else
        QZ_LOG_FN(fn, gate, level, t.fmt, global, url, fp, arg, rv);
}

template <const ValueKind &K>
int32_t subscribe_value(const char *fn, void *global, const char *url, libqz_cap_value_cb fp,
                        void *arg, libqz_cap_ctrl_info_t *ctx) {
    QZ_CHECK_PTR_FN(fn, global, "global");
    QZ_CHECK_PTR_FN(fn, url, "url");
    QZ_CHECK_LEN_FN(fn, url, "url");
    QZ_CHECK_PTR_FN(fn, fp, "fp");
    QZ_CHECK_PTR_FN(fn, ctx, "info");
    QZ_LOG_FN(fn, 2, kWarn, "global %p, sub url %s enter, fp %p, info %p", global, url, as_ptr(fp),
              static_cast<void *>(ctx));

    const int32_t rv = qzcap::sub::subscribe_field(global, url, K.field, fp, arg);
    if (rv != 0) {
        log_outcome(fn, 1, kError, K.refused, global, url, as_ptr(fp), arg, ctx, rv);
        return rv;
    }
    log_outcome(fn, 2, kWarn, K.accepted, global, url, as_ptr(fp), arg, ctx, 0);

    // The bus subscription stays in force either way; an unrecorded one is
    // just not renewed after a reconnection.
    const int32_t add = libqz_cap_add_sub_info_thread(global, url, as_ptr(fp), arg, K.type, ctx);
    if (add != 0) {
        log_outcome(fn, 1, kError, K.add_failed, global, url, as_ptr(fp), arg, ctx, add);
        return add;
    }
    return 0;
}

// The state subscription's texts are the boolean row's.
constexpr const ValueKind &kStateTexts = qzcap::sub::kBoolKind;

constexpr qzcap::sub::HolderTexts kStateHolderTexts{"glb_state malloc error, sub fail",
                                                    "glb_state->fun malloc error, sub fail"};

}  // namespace

extern "C" {

int32_t libqz_cap_ce_subscribe_g_cap_bool_ext_thread(void *global, const char *url,
                                                     libqz_cap_value_cb fp, void *arg,
                                                     libqz_cap_ctrl_info_t *ctx) {
    return subscribe_value<qzcap::sub::kBoolKind>(__func__, global, url, fp, arg, ctx);
}

int32_t libqz_cap_ce_subscribe_g_cap_bool_ext(void *global, const char *url, libqz_cap_value_cb fp,
                                              void *arg) {
    return libqz_cap_ce_subscribe_g_cap_bool_ext_thread(global, url, fp, arg,
                                                        &g_libqz_cap_ctrl_info);
}

int32_t libqz_cap_ce_subscribe_g_cap_bool_thread(void *global, const char *url,
                                                 libqz_cap_value_cb fp,
                                                 libqz_cap_ctrl_info_t *ctx) {
    return libqz_cap_ce_subscribe_g_cap_bool_ext_thread(global, url, fp, nullptr, ctx);
}

int32_t libqz_cap_ce_subscribe_g_cap_bool(void *global, const char *url, libqz_cap_value_cb fp) {
    return libqz_cap_ce_subscribe_g_cap_bool_ext_thread(global, url, fp, nullptr,
                                                        &g_libqz_cap_ctrl_info);
}

int32_t libqz_cap_ce_subscribe_g_cap_int32_ext_thread(void *global, const char *url,
                                                      libqz_cap_value_cb fp, void *arg,
                                                      libqz_cap_ctrl_info_t *ctx) {
    return subscribe_value<qzcap::sub::kInt32Kind>(__func__, global, url, fp, arg, ctx);
}

int32_t libqz_cap_ce_subscribe_g_cap_int32_ext(void *global, const char *url, libqz_cap_value_cb fp,
                                               void *arg) {
    return libqz_cap_ce_subscribe_g_cap_int32_ext_thread(global, url, fp, arg,
                                                         &g_libqz_cap_ctrl_info);
}

int32_t libqz_cap_ce_subscribe_g_cap_int32_thread(void *global, const char *url,
                                                  libqz_cap_value_cb fp,
                                                  libqz_cap_ctrl_info_t *ctx) {
    return libqz_cap_ce_subscribe_g_cap_int32_ext_thread(global, url, fp, nullptr, ctx);
}

int32_t libqz_cap_ce_subscribe_g_cap_int32(void *global, const char *url, libqz_cap_value_cb fp) {
    return libqz_cap_ce_subscribe_g_cap_int32_ext_thread(global, url, fp, nullptr,
                                                         &g_libqz_cap_ctrl_info);
}

// The holder and its fun are listed before the bus is asked and kept
// whatever it answers.
int32_t libqz_cap_ce_subscribe_g_cap_state_thread(void *global, const char *name,
                                                  libqz_cap_state_cb fp, void *arg,
                                                  libqz_cap_ctrl_info_t *ctx) {
    QZ_CHECK_PTR(global, "global");
    QZ_CHECK_PTR(name, "name");
    QZ_CHECK_LEN(name, "name");
    QZ_CHECK_PTR(fp, "fp");
    QZ_CHECK_PTR(ctx, "info");

    struct fun *fun = qzcap::sub::hold_callback(__func__, kStateHolderTexts,
                                                &qzcap::g_glb_state_holders, as_ptr(fp), arg);
    if (fun == nullptr)
        return LIBQZ_CAP_E_NOMEM;

    QZ_LOG(2, kWarn, "global %p, sub name %s enter, fp %p, info %p", global, name, as_ptr(fp),
           static_cast<void *>(ctx));
    const int32_t rv = qzcap::sub::subscribe_glb_state(global, libqz_cap_ce_glb_ready_pmsg_f, fun);
    if (rv != 0) {
        log_outcome(__func__, 1, kError, kStateTexts.refused, global, name, as_ptr(fp), arg, ctx,
                    rv);
        return rv;
    }
    log_outcome(__func__, 2, kWarn, kStateTexts.accepted, global, name, as_ptr(fp), arg, ctx, 0);

    const int32_t add = libqz_cap_add_sub_info_thread(
        global, name, as_ptr(libqz_cap_ce_glb_ready_pmsg_f), fun, LIBQZ_CAP_SUB_STATE, ctx);
    if (add != 0) {
        log_outcome(__func__, 1, kError, kStateTexts.add_failed, global, name, as_ptr(fp), arg, ctx,
                    add);
        return add;
    }
    return 0;
}

int32_t libqz_cap_ce_subscribe_g_cap_state(void *global, const char *name, libqz_cap_state_cb fp,
                                           void *arg) {
    return libqz_cap_ce_subscribe_g_cap_state_thread(global, name, fp, arg, &g_libqz_cap_ctrl_info);
}

}  // extern "C"
