// Extractors for value subscribers' callbacks: the capability URL and the
// new value of the record the bus pushed.
#include <cstring>

#include "core/bus.h"
#include "core/log.h"
#include "internal.h"
#include "p_libpub.pb-c.h"

namespace {

// What tells the boolean and the integer extractor apart.
template <class T>
struct Extractor {
    int32_t field;
    T initial;
    bool checks_ctx;  // the boolean form rejects a null context; the integer one never reads it
    const char *field_invalid;
    T (*take)(const PLibpub__CapTable &);
};

constexpr Extractor<bool> kBool{6, false, true, "bool value field invalid",
                                // A stored 256 is true, not a truncated 0.
                                [](const PLibpub__CapTable &r) { return r.bool_value != 0; }};
constexpr Extractor<int32_t> kInt32{7, -1, false, "int32 value field invalid",
                                    [](const PLibpub__CapTable &r) { return r.int32_value; }};

constexpr size_t kMaxUrl = 255;

// REQUIRES: url holds a terminated text. A size below 1 leaves url untouched.
template <class T, const Extractor<T> &E>
int32_t extract(const char *fn, qz_mom_pmsg_t *pmsg, int32_t size, char *url,
                const libqz_cap_ctrl_info_t *ctx, T *value, uint32_t *length) {
    QZ_CHECK_PTR_FN(fn, pmsg, "pmsg");
    QZ_CHECK_PTR_FN(fn, url, "url");
    QZ_CHECK_LEN_FN(fn, url, "url");
    QZ_CHECK_PTR_FN(fn, value, "value");
    if constexpr (E.checks_ctx)
        QZ_CHECK_PTR_FN(fn, ctx, "info");
    QZ_CHECK_PTR_FN(fn, length, "length");
    QZ_LOG_FN(fn, 4, qzcap::kInfo, "enter size %d", size);

    if (size >= 1)
        memset(url, 0, static_cast<size_t>(size));
    *length = 0;
    *value = E.initial;

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
    if (!qzcap::holds_field(*res, E.field)) {
        QZ_LOG_FN(fn, 1, qzcap::kError, "%s", E.field_invalid);
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
    *value = E.take(rec);
    QZ_LOG_FN(fn, 4, qzcap::kInfo, "url %s, value is %d length %d", size >= 1 ? url : "",
              static_cast<int>(*value), static_cast<int>(*length));
    return 0;
}

}  // namespace

extern "C" {

int32_t libqz_cap_ce_get_g_cap_bool_by_pmsg_thread(struct qz_mom_pmsg *pmsg, int32_t size,
                                                   char *url, libqz_cap_ctrl_info_t *ctx,
                                                   bool *value, uint32_t *length) {
    return extract<bool, kBool>(__func__, pmsg, size, url, ctx, value, length);
}

int32_t libqz_cap_ce_get_g_cap_bool_by_pmsg(struct qz_mom_pmsg *pmsg, int32_t size, char *url,
                                            bool *value, uint32_t *length) {
    return libqz_cap_ce_get_g_cap_bool_by_pmsg_thread(pmsg, size, url, &g_libqz_cap_ctrl_info,
                                                      value, length);
}

int32_t libqz_cap_ce_get_g_cap_int32_by_pmsg_thread(struct qz_mom_pmsg *pmsg, int32_t size,
                                                    char *url, libqz_cap_ctrl_info_t *ctx,
                                                    int32_t *value, uint32_t *length) {
    return extract<int32_t, kInt32>(__func__, pmsg, size, url, ctx, value, length);
}

int32_t libqz_cap_ce_get_g_cap_int32_by_pmsg(struct qz_mom_pmsg *pmsg, int32_t size, char *url,
                                             int32_t *value, uint32_t *length) {
    return libqz_cap_ce_get_g_cap_int32_by_pmsg_thread(pmsg, size, url, &g_libqz_cap_ctrl_info,
                                                       value, length);
}

}  // extern "C"
