// Extractors for value subscribers' callbacks: the capability URL and the
// new value of the record the bus pushed.
#include <cstring>

#include "core/bus.h"
#include "core/log.h"
#include "core/value_kind.h"
#include "p_libpub.pb-c.h"

namespace {

constexpr size_t kMaxUrl = 255;

// REQUIRES: url holds a terminated text. A size below 1 leaves url untouched.
// The boolean form rejects a null context (kChecksCtx); the integer one
// never reads it.
template <bool kChecksCtx, class T>
int32_t extract(const char *fn, const qzcap::ValueKind<T> &kind, qz_mom_pmsg_t *pmsg, int32_t size,
                char *url, const libqz_cap_ctrl_info_t *ctx, T *value, uint32_t *length) {
    QZ_CHECK_PTR_FN(fn, pmsg, "pmsg");
    QZ_CHECK_PTR_FN(fn, url, "url");
    QZ_CHECK_LEN_FN(fn, url, "url");
    QZ_CHECK_PTR_FN(fn, value, "value");
    if constexpr (kChecksCtx)
        QZ_CHECK_PTR_FN(fn, ctx, "info");
    QZ_CHECK_PTR_FN(fn, length, "length");
    QZ_LOG_FN(fn, 4, qzcap::kInfo, "enter size %d", size);

    if (size >= 1)
        memset(url, 0, static_cast<size_t>(size));
    *length = 0;
    *value = kind.initial;

    const qz_mom_hash_res_t *res = pmsg->result;  // the bus's: never freed here
    if (res == nullptr) {
        QZ_LOG_FN(fn, 1, qzcap::kError, "result NULL");
        return LIBQZ_CAP_E_BUS;
    }
    if (res->error_code != 0) {
        QZ_LOG_FN(fn, 1, qzcap::kError, "result error_code %d", res->error_code);
        return LIBQZ_CAP_E_BUS;
    }
    if (res->view == nullptr) {
        QZ_LOG_FN(fn, 1, qzcap::kError, "view is NULL, may be not exist");
        return LIBQZ_CAP_E_NO_RECORD;
    }
    const auto &rec = *static_cast<const PLibpub__CapTable *>(res->view);
    if (rec.index == nullptr) {
        QZ_LOG_FN(fn, 1, qzcap::kError, "view index is NULL");
        return LIBQZ_CAP_E_NO_INDEX;
    }
    // The decoded field reads 0 when the record lacks it; only the list tells.
    if (!qzcap::holds_field(*res, kind.field)) {
        QZ_LOG_FN(fn, 1, qzcap::kError, "%s", kind.extract_no_field);
        return LIBQZ_CAP_E_NO_FIELD;
    }

    size_t n = 0;
    if (size >= 1 && rec.index->url != nullptr) {
        n = strnlen(rec.index->url, kMaxUrl);
        if (static_cast<size_t>(size) <= n)
            n = static_cast<size_t>(size) - 1;
        memcpy(url, rec.index->url, n);  // the zeroed buffer terminates it
    }
    *length = static_cast<uint32_t>(n);
    *value = qzcap::value_of(kind, rec);
    QZ_LOG_FN(fn, 4, qzcap::kInfo, "url %s, value is %d length %d", size >= 1 ? url : "",
              static_cast<int>(*value), static_cast<int>(*length));
    return 0;
}

}  // namespace

extern "C" {

// An extractor under its two names: the full one and the default context.
// `type` names the value's type, which cannot be parenthesised.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define QZCAP_PMSG_EXTRACTOR(kind, type, value_kind, is_bool)                                      \
    int32_t libqz_cap_ce_get_g_cap_##kind##_by_pmsg_thread(struct qz_mom_pmsg *pmsg, int32_t size, \
                                                           char *url, libqz_cap_ctrl_info_t *ctx,  \
                                                           type *value, uint32_t *length) {        \
        return extract<is_bool>(__func__, value_kind, pmsg, size, url, ctx, value, length);        \
    }                                                                                              \
    int32_t libqz_cap_ce_get_g_cap_##kind##_by_pmsg(struct qz_mom_pmsg *pmsg, int32_t size,        \
                                                    char *url, type *value, uint32_t *length) {    \
        return libqz_cap_ce_get_g_cap_##kind##_by_pmsg_thread(                                     \
            pmsg, size, url, &g_libqz_cap_ctrl_info, value, length);                               \
    }
// NOLINTEND(bugprone-macro-parentheses)

QZCAP_PMSG_EXTRACTOR(bool, bool, qzcap::kBoolKind, true)
QZCAP_PMSG_EXTRACTOR(int32, int32_t, qzcap::kInt32Kind, false)

#undef QZCAP_PMSG_EXTRACTOR

}  // extern "C"
