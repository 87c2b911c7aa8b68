// Start-up step stamps and their report.
#include <cstdio>

#include "core/log.h"
#include "internal.h"
#include "qz_monotime.h"

extern "C" {

// Constant, so it sits with its one user rather than with the mutable state.
const char g_libqz_cap_time_rec_name[LIBQZ_CAP_INIT_STEPS][32] = {
    "INIT_START", "INIT_GET_APP_NAME", "INIT_ZLOG_INIT", "INIT_CON_HOST",
    "INIT_HASH",  "INIT_RECON_HOST",   "INIT_KRIL_INIT",
};

void libqz_cap_rec_time_thread(uint32_t step, libqz_cap_ctrl_info_t *ctx) {
    if (ctx == nullptr) {
        QZ_LOG(1, qzcap::kError, "info is NULL");
        return;
    }
    if (step >= LIBQZ_CAP_INIT_STEPS) {
        QZ_LOG(1, qzcap::kError, "step %u out of range", step);
        return;
    }
    libqz_cap_time_rec_t &rec = ctx->time_rec[step];
    rec.valid = 1;
    qz_monotime_t now{};
    qz_monotime(&now);
    rec.sec = now.sec;
    rec.nsec = now.nsec;
    ++rec.count;
}

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

}  // extern "C"
