// The per-context subscription registry: a hash table of sub_info records,
// kept so that subscriptions can be made again after the bus reconnects.
#include <cstdlib>
#include <cstring>

#include "core/alloc.h"
#include "core/log.h"
#include "sub/sub.h"

namespace {

constexpr size_t kUrlCap = sizeof(sub_info::url);
// Subscriptions the registry is sized for (42 buckets).
constexpr uint32_t kRegistrySize = 32;

int32_t free_record_cb(void *item, void *registry) {
    qz_cap_hash_del_item(static_cast<qz_cap_hash_table *>(registry), item);
    free(item);
    return 0;
}

int32_t dump_item_cb(void *item, void * /*arg*/) {
    libqz_cap_dump_sub_hash_item(static_cast<sub_info *>(item));
    return 0;
}

}  // namespace

extern "C" {

uint32_t libqz_cap_get_sub_hash_index(sub_info *item) {
    if (item == nullptr)
        return 0;
    uint32_t h = 0;
    // Bytes as uint8_t: char's signedness differs between x86 and ARM, and
    // the index must not.
    for (size_t i = 0; i < kUrlCap && item->url[i] != '\0'; ++i)
        h = h * 31 + static_cast<uint8_t>(item->url[i]);
    return h + item->type;
}

uint32_t libqz_cap_sub_hash_index_cb(void *item) {
    return libqz_cap_get_sub_hash_index(static_cast<sub_info *>(item));
}

int32_t libqz_cap_cmp_sub_hash_item(void *stored, void *key) {
    auto *a = static_cast<const sub_info *>(stored);
    auto *b = static_cast<const sub_info *>(key);
    if (a == nullptr || b == nullptr)
        return -1;
    if (a->global != b->global)
        return -1;
    size_t len = strnlen(a->url, kUrlCap);
    if (len != strnlen(b->url, kUrlCap) || memcmp(a->url, b->url, len) != 0)
        return -1;
    if (a->type != b->type || a->fp != b->fp || a->arg != b->arg)
        return -1;
    return 0;
}

// REQUIRES: ctx->sub_hash is the context's registry. A context that was never
// initialised has none: the record is then refused with -1 ("failed,rv -1").
int32_t libqz_cap_add_sub_info_thread(void *global, const char *url, void *fp, void *arg,
                                      uint32_t type, libqz_cap_ctrl_info_t *ctx) {
    QZ_CHECK_PTR(global, "global");
    QZ_CHECK_PTR(url, "url");
    QZ_CHECK_LEN(url, "url");
    QZ_CHECK_PTR(fp, "fp");
    QZ_CHECK_PTR(ctx, "info");

    sub_info probe;
    memset(&probe, 0, sizeof probe);
    memcpy(probe.url, url, strlen(url) + 1);
    probe.global = global;
    probe.fp = fp;
    probe.type = type;
    probe.arg = arg;
    if (qz_cap_hash_find_item(ctx->sub_hash, &probe) != nullptr)
        return 0;

    qzcap::XPtr<sub_info> rec = qzcap::xmalloc_n<sub_info>(1);
    if (!rec) {
        QZ_LOG(1, qzcap::kError, "sub_info malloc failed");
        return LIBQZ_CAP_E_NOMEM;
    }
    memcpy(rec.get(), &probe, sizeof probe);
    // A refused record is freed here: nothing else refers to it.
    if (int32_t rv = qz_cap_hash_insert_item(ctx->sub_hash, rec.get()); rv != 0) {
        QZ_LOG(1, qzcap::kError, "failed,rv %d", rv);
        return rv;
    }
    static_cast<void>(rec.release());  // the registry's now
    return 0;
}

void libqz_cap_dump_sub_hash_thread(struct qz_cap_hash_table **registry_ref, const char *label) {
    QZ_LOG(4, qzcap::kInfo, "\r\n====================dump sub hash %s======================\r\n",
           label == nullptr ? "" : label);
    if (registry_ref == nullptr || *registry_ref == nullptr)
        return;
    // Runs at every gate level; each item tests the gate itself.
    qz_cap_hash_each_item_op(*registry_ref, dump_item_cb, nullptr);
}

void libqz_cap_dump_sub_hash_item(sub_info *item) {
    if (item == nullptr)
        return;
    QZ_LOG(4, qzcap::kInfo, "fp %8p, global %8p, type %2d, arg %8p, url %s", item->fp, item->global,
           static_cast<int>(item->type), item->arg, item->url);
}

}  // extern "C"

namespace qzcap::sub {

bool create_registry(libqz_cap_ctrl_info_t *ctx) {
    ctx->sub_hash =
        qz_cap_create_hash(kRegistrySize, libqz_cap_sub_hash_index_cb, libqz_cap_cmp_sub_hash_item);
    return ctx->sub_hash != nullptr;
}

// The table's destroy frees neither its nodes nor its items, so the records
// leave the table (freeing their nodes) and are freed before it goes.
void destroy_registry(libqz_cap_ctrl_info_t *ctx) {
    qz_cap_hash_each_item_op(ctx->sub_hash, free_record_cb, ctx->sub_hash);
    qz_cap_destroy_hash(ctx->sub_hash);
    ctx->sub_hash = nullptr;
}

}  // namespace qzcap::sub
