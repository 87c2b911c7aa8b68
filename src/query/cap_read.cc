// Device-wide capability reads, their second names, the read with a default
// and the forming of platform capability URLs.
#include <cstdio>
#include <cstring>

#include "core/keys.h"
#include "p_libpub.pb-c.h"
#include "query/value_read.h"
#include "sub/sub.h"

namespace {

using qzcap::read::Member;

// Keyed by URL; readiness is cached and waits are counted in the context.
struct Device {
    static constexpr bool kHasCtx = true;
    using Record = PLibpub__CapTable;
    libqz_cap_ctrl_info_t *ctx;

    // Refers to the caller's URL text for the duration of the call.
    qzcap::CapKey key(const char *url) const {
        return qzcap::CapKey(
            [url](PLibpub__CapTableIndex &index) { index.url = const_cast<char *>(url); });
    }
    int32_t prepare(const char *) const { return 0; }
    bool ready() const { return ctx->ready != 0; }
    void waited(void *global) const {
        ++ctx->sleep_time;
        // A failed readiness read leaves the flag false: keep waiting.
        bool flag = false;
        libqz_cap_get_local_ready_thread(global, ctx, &flag);
        ctx->ready = flag;
    }
    void dump(const char *label) const { libqz_cap_dump_sub_hash_thread(&ctx->sub_hash, label); }
};

// The members and everything that tells them apart.
constexpr char kEntry[] = "global %p, url %s";
constexpr char kStrFound[] = "url %s, str: %s, length %d";

constexpr Member kBool{.func = "libqz_cap_get_capacity_bool_thread",
                       .blocking = true,
                       .dump = true,
                       .entry = kEntry,
                       .found_waiting = "url %s value: %d",
                       .found = "url %s, value: %d"};
constexpr Member kBoolNoBlock{.func = "libqz_cap_get_capacity_bool_no_block_thread",
                              .entry = kEntry,
                              .found = "url %s value: %d",
                              .tmp_null = "url %s tmp NULL",
                              .field_invalid = "url %s field invalid"};
constexpr Member kInt32{.func = "libqz_cap_get_capacity_int32_thread",
                        .blocking = true,
                        .dump = true,
                        .entry = kEntry,
                        .found_waiting = "url %s, value: %d",
                        .found = "url %s, value: %d"};
constexpr Member kInt32NoBlock{.func = "libqz_cap_get_capacity_int32_no_block_thread",
                               .entry = kEntry,
                               .found = "url %s, value: %d"};
constexpr Member kStr{.func = "libqz_cap_get_capacity_str_thread",
                      .blocking = true,
                      .entry = kEntry,
                      .found_waiting = kStrFound,
                      .found = kStrFound};
constexpr Member kStrNoBlock{
    .func = "libqz_cap_get_capacity_str_no_block_thread", .entry = kEntry, .found = kStrFound};

constexpr char kPlatformPrefix[] = "global_spec/platform/";

}  // namespace

// A second exported name at the address of an existing definition.
#define QZCAP_ALIAS_OF(target) __attribute__((alias(#target)))

extern "C" {

int32_t libqz_cap_get_capacity_bool_thread(void *global, const char *url,
                                           libqz_cap_ctrl_info_t *ctx, bool *value) {
    return qzcap::read::read<kBool>(global, url, Device{ctx}, qzcap::read::BoolOut{value});
}

int32_t libqz_cap_get_capacity_bool_no_block_thread(void *global, const char *url,
                                                    libqz_cap_ctrl_info_t *ctx, bool *value) {
    return qzcap::read::read<kBoolNoBlock>(global, url, Device{ctx}, qzcap::read::BoolOut{value});
}

int32_t libqz_cap_get_capacity_int32_thread(void *global, const char *url,
                                            libqz_cap_ctrl_info_t *ctx, int32_t *value) {
    return qzcap::read::read<kInt32>(global, url, Device{ctx}, qzcap::read::Int32Out{value});
}

int32_t libqz_cap_get_capacity_int32_no_block_thread(void *global, const char *url,
                                                     libqz_cap_ctrl_info_t *ctx, int32_t *value) {
    return qzcap::read::read<kInt32NoBlock>(global, url, Device{ctx}, qzcap::read::Int32Out{value});
}

int32_t libqz_cap_get_capacity_str_thread(void *global, const char *url, uint32_t str_len,
                                          libqz_cap_ctrl_info_t *ctx, char *str, uint32_t *length) {
    return qzcap::read::read<kStr>(global, url, Device{ctx},
                                   qzcap::read::StrOut{str_len, str, length});
}

int32_t libqz_cap_get_capacity_str_no_block_thread(void *global, const char *url, uint32_t str_len,
                                                   libqz_cap_ctrl_info_t *ctx, char *str,
                                                   uint32_t *length) {
    return qzcap::read::read<kStrNoBlock>(global, url, Device{ctx},
                                          qzcap::read::StrOut{str_len, str, length});
}

int32_t libqz_cap_get_capacity_bool(void *global, const char *url, bool *value) {
    return libqz_cap_get_capacity_bool_thread(global, url, &g_libqz_cap_ctrl_info, value);
}

int32_t libqz_cap_get_capacity_bool_no_block(void *global, const char *url, bool *value) {
    return libqz_cap_get_capacity_bool_no_block_thread(global, url, &g_libqz_cap_ctrl_info, value);
}

int32_t libqz_cap_get_capacity_int32(void *global, const char *url, int32_t *value) {
    return libqz_cap_get_capacity_int32_thread(global, url, &g_libqz_cap_ctrl_info, value);
}

int32_t libqz_cap_get_capacity_int32_no_block(void *global, const char *url, int32_t *value) {
    return libqz_cap_get_capacity_int32_no_block_thread(global, url, &g_libqz_cap_ctrl_info, value);
}

int32_t libqz_cap_get_capacity_str(void *global, const char *url, uint32_t str_len, char *str,
                                   uint32_t *length) {
    return libqz_cap_get_capacity_str_thread(global, url, str_len, &g_libqz_cap_ctrl_info, str,
                                             length);
}

int32_t libqz_cap_get_capacity_str_no_block(void *global, const char *url, uint32_t str_len,
                                            char *str, uint32_t *length) {
    return libqz_cap_get_capacity_str_no_block_thread(global, url, str_len, &g_libqz_cap_ctrl_info,
                                                      str, length);
}

LIBQZ_CAP_API int32_t libqz_cap_ce_get_g_cap_bool_thread(void *, const char *,
                                                         libqz_cap_ctrl_info_t *, bool *)
    QZCAP_ALIAS_OF(libqz_cap_get_capacity_bool_thread);
LIBQZ_CAP_API int32_t libqz_cap_ce_get_g_cap_bool(void *, const char *, bool *)
    QZCAP_ALIAS_OF(libqz_cap_get_capacity_bool);
LIBQZ_CAP_API int32_t libqz_cap_ce_get_g_cap_bool_no_block_thread(void *, const char *,
                                                                  libqz_cap_ctrl_info_t *, bool *)
    QZCAP_ALIAS_OF(libqz_cap_get_capacity_bool_no_block_thread);
LIBQZ_CAP_API int32_t libqz_cap_ce_get_g_cap_bool_no_block(void *, const char *, bool *)
    QZCAP_ALIAS_OF(libqz_cap_get_capacity_bool_no_block);
LIBQZ_CAP_API int32_t libqz_cap_ce_get_g_cap_int32_thread(void *, const char *,
                                                          libqz_cap_ctrl_info_t *, int32_t *)
    QZCAP_ALIAS_OF(libqz_cap_get_capacity_int32_thread);
LIBQZ_CAP_API int32_t libqz_cap_ce_get_g_cap_int32(void *, const char *, int32_t *)
    QZCAP_ALIAS_OF(libqz_cap_get_capacity_int32);
LIBQZ_CAP_API int32_t libqz_cap_ce_get_g_cap_int32_no_block_thread(void *, const char *,
                                                                   libqz_cap_ctrl_info_t *,
                                                                   int32_t *)
    QZCAP_ALIAS_OF(libqz_cap_get_capacity_int32_no_block_thread);
LIBQZ_CAP_API int32_t libqz_cap_ce_get_g_cap_int32_no_block(void *, const char *, int32_t *)
    QZCAP_ALIAS_OF(libqz_cap_get_capacity_int32_no_block);

int32_t libqz_cap_ce_get_g_cap_int32_default(void *global, const char *url, int32_t *value,
                                             int32_t default_value) {
    const int32_t rv = libqz_cap_get_capacity_int32(global, url, value);
    if (rv == 0)
        return 0;
    QZ_LOG(1, qzcap::kError, "get url: %s failed, rv : %d", url != nullptr ? url : "(null)", rv);
    if (value != nullptr)
        *value = default_value;
    return rv;
}

char *libqz_cap_form_spec_url_thread(const char *name, libqz_cap_ctrl_info_t *ctx) {
    if (name == nullptr || ctx == nullptr) {
        QZ_LOG(1, qzcap::kError, "name or ctrl_info is NULL");
        return nullptr;
    }
    memset(ctx->url, 0, sizeof ctx->url);
    // The device's limit: 255 including the terminator, so 254 characters.
    snprintf(ctx->url, sizeof ctx->url - 1, "%s%s", kPlatformPrefix, name);
    return ctx->url;
}

char *libqz_cap_form_spec_url(const char *name) {
    return libqz_cap_form_spec_url_thread(name, &g_libqz_cap_ctrl_info);
}

}  // extern "C"
