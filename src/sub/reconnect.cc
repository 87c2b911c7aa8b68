// Renewal after the bus reconnects: every subscription in a context's
// registry is made again with the record's own handle, callback and
// argument. Nothing is added, removed or allocated.
#include <cstring>

#include "core/log.h"
#include "core/value_kind.h"
#include "sub/sub.h"
#include "sub/subscribe_calls.h"

namespace {

using qzcap::kError;
using qzcap::kInfo;
using qzcap::kWarn;
using qzcap::ValueKind;

// A record that cannot be renewed is skipped with its reason. The state
// record's url is its name, and its arg is the fun the bus must get back.
template <bool kState>
int32_t check_record(const char *fn, const sub_info &r) {
    QZ_CHECK_PTR_FN(fn, r.global, "global");
    // Bounded: a record is only as good as the walk that hands it over.
    const size_t len = strnlen(r.url, sizeof r.url);
    if (len >= sizeof r.url) {
        QZ_LOG_FN(fn, 1, kError, kState ? "name len too long %zu!\n" : "url len too long %zu!\n",
                  len);
        return LIBQZ_CAP_E_ARG;
    }
    QZ_CHECK_PTR_FN(fn, r.fp, "fp");
    if constexpr (kState)
        QZ_CHECK_PTR_FN(fn, r.arg, "arg");
    return 0;
}

template <class T>
void log_outcome(const char *fn, const ValueKind<T> &k, const sub_info &r, int32_t rv) {
    if (rv != 0)
        QZ_LOG_FN(fn, 1, kError, k.recon_refused.fmt, r.global, r.url, r.fp, r.arg, rv);
    else
        QZ_LOG_FN(fn, 2, kWarn, k.recon_accepted.fmt, r.global, r.url, r.fp, r.arg, 0);
}

template <const auto &K>
void renew_value(const char *fn, const sub_info &r) {
    if (check_record<false>(fn, r) != 0)
        return;
    if constexpr (K.recon_entry.args.size() == 4)
        QZ_LOG_FN(fn, 2, kWarn, K.recon_entry.fmt, r.global, r.url, r.fp, r.arg);
    else
        QZ_LOG_FN(fn, 2, kWarn, K.recon_entry.fmt, r.global, r.url, r.fp);
    const int32_t rv = qzcap::sub::subscribe_field(r.global, r.url, K.field,
                                                   reinterpret_cast<qz_mom_record_cb>(r.fp), r.arg);
    log_outcome(fn, K, r, rv);
}

void libqz_cap_ce_subscribe_g_cap_bool_ext_recon_thread(const sub_info &r) {
    renew_value<qzcap::kBoolKind>(__func__, r);
}

void libqz_cap_ce_subscribe_g_cap_int32_ext_recon_thread(const sub_info &r) {
    renew_value<qzcap::kInt32Kind>(__func__, r);
}

// fp is the library's readiness callback and arg its fun, still held in the
// global state holder list.
void libqz_cap_ce_subscribe_g_cap_state_ext_recon_thread(const sub_info &r) {
    if (check_record<true>(__func__, r) != 0)
        return;
    QZ_LOG(2, kWarn, "global %p, sub name %s enter, fp %p", r.global, r.url, r.fp);
    const int32_t rv =
        qzcap::sub::subscribe_glb_state(r.global, reinterpret_cast<qz_mom_record_cb>(r.fp), r.arg);
    log_outcome(__func__, qzcap::kBoolKind, r, rv);
}

}  // namespace

extern "C" {

int32_t libqz_cap_reconnect_cap_thread(void * /*global*/, int32_t db, int32_t type, void *ctx) {
    QZ_LOG(2, kWarn, "db %d type %d", db, type);
    auto *info = static_cast<libqz_cap_ctrl_info_t *>(ctx);
    // A context without registry is a null table to the walk: nothing to do.
    qz_cap_hash_each_item_op(info != nullptr ? info->sub_hash : nullptr,
                             libqz_cap_ce_subscribe_g_cap_recon_thread, ctx);
    return 0;
}

// Returns 0 whatever the renewal did, so that the walk tries every record.
int32_t libqz_cap_ce_subscribe_g_cap_recon_thread(void *item, void *ctx) {
    QZ_CHECK_PTR(item, "item");
    QZ_CHECK_PTR(ctx, "para");
    QZ_LOG(4, kInfo, "enter");
    const auto &r = *static_cast<const sub_info *>(item);
    switch (r.type) {
        case LIBQZ_CAP_SUB_BOOL:
            libqz_cap_ce_subscribe_g_cap_bool_ext_recon_thread(r);
            break;
        case LIBQZ_CAP_SUB_INT32:
            libqz_cap_ce_subscribe_g_cap_int32_ext_recon_thread(r);
            break;
        case LIBQZ_CAP_SUB_STATE:
            libqz_cap_ce_subscribe_g_cap_state_ext_recon_thread(r);
            break;
        default:
            break;
    }
    QZ_LOG(4, kInfo, "leave");
    return 0;
}

}  // extern "C"
