// Diagnostic dumps of a context: state, registry, memory estimate and the
// full dump that collection writes.
#include <cstddef>
#include <cstdio>

#include "dbg/dbg.h"
#include "sub/sub.h"

namespace {

// The estimate's figures are those of the device's 32-bit layout, so an
// operator reads the same numbers on every target.
constexpr size_t kTableBytes = 32;    // the table's control block
constexpr size_t kBucketBytes = 9;    // an 8-byte chain head and a 1-byte count
constexpr size_t kRecordBytes = 272;  // one sub_info
constexpr size_t kFixedBytes = 404;

}  // namespace

namespace qzcap::dbg {

void print_stat(const libqz_cap_ctrl_info_t *ctx) {
    printf("g_libqz_cap_ready is %d\n", static_cast<int>(ctx->ready));
    printf("g_libqz_cap_zlog_level is %d\n", static_cast<int>(g_libqz_cap_zlog_level));
}

int32_t print_sub_hash(const libqz_cap_ctrl_info_t *ctx) {
    puts("\r\n====================dump sub hash======================\r\n");
    return qz_cap_hash_each_item_op(ctx->sub_hash, libqz_cap_dbg_print_sub_item, nullptr);
}

}  // namespace qzcap::dbg

extern "C" {

// Step names, in step order; the show-time report is their one user.
const char g_libqz_cap_time_rec_name[LIBQZ_CAP_INIT_STEPS][32] = {
    "INIT_START", "INIT_GET_APP_NAME", "INIT_ZLOG_INIT", "INIT_CON_HOST",
    "INIT_HASH",  "INIT_RECON_HOST",   "INIT_KRIL_INIT",
};

int libqz_cap_dbg_show_time_thread(libqz_cap_ctrl_info_t *ctx) {
    QZ_CHECK_PTR(ctx, "info");
    puts("=================show time====================\r\n");
    printf("sleep time %d\n", static_cast<int>(ctx->sleep_time));
    for (int step = 0; step < LIBQZ_CAP_INIT_STEPS; ++step) {
        const libqz_cap_time_rec_t &rec = ctx->time_rec[step];
        printf("type %d type_name %32s valid %d count %6d, last_time %lu:%lu\r\n\n", step,
               g_libqz_cap_time_rec_name[step], static_cast<int>(rec.valid),
               static_cast<int>(rec.count), static_cast<unsigned long>(rec.sec),
               static_cast<unsigned long>(rec.nsec));
    }
    return 0;
}

int libqz_cap_dbg_show_time(void) {
    return libqz_cap_dbg_show_time_thread(&g_libqz_cap_ctrl_info);
}

int32_t libqz_cap_dbg_print_sub_item(void *item, void * /*arg*/) {
    const auto *rec = static_cast<const sub_info *>(item);
    if (rec != nullptr) {
        printf("fp %8p, global %8p, type %2d, arg %8p, url %s\n", rec->fp, rec->global,
               static_cast<int>(rec->type), rec->arg, rec->url);
    }
    return 0;
}

int32_t libqz_cap_dbg_show_memory_thread(libqz_cap_ctrl_info_t *ctx) {
    QZ_DBG_CHECK_PTR(ctx, "info");
    puts("=========show memory================");
    size_t registry = 0;
    if (ctx->sub_hash != nullptr) {
        uint32_t items = qz_cap_hash_get_current_item_num(ctx->sub_hash);
        printf("item_num is %d\n", static_cast<int>(items));
        registry = kTableBytes + kBucketBytes * ctx->sub_hash->table_size + kRecordBytes * items;
    }
    printf("memory_of_hash is %zu\n", registry);
    printf("total memory is %zu\n", registry + kFixedBytes);
    return 0;
}

int32_t libqz_cap_dbg_show_memory(void) {
    return libqz_cap_dbg_show_memory_thread(&g_libqz_cap_ctrl_info);
}

int32_t libqz_cap_dbg_dump_all_thread(libqz_cap_ctrl_info_t *ctx) {
    QZ_DBG_CHECK_PTR(ctx, "info");
    qzcap::dbg::print_stat(ctx);
    // A context without a registry shows the header alone.
    qzcap::dbg::print_sub_hash(ctx);
    libqz_cap_dbg_show_memory_thread(ctx);
    libqz_cap_dbg_show_time_thread(ctx);
    return 0;
}

int32_t libqz_cap_dbg_dump_all(void) {
    return libqz_cap_dbg_dump_all_thread(&g_libqz_cap_ctrl_info);
}

}  // extern "C"
