// Start-up step stamps.
#include "core/core.h"
#include "core/log.h"
#include "qz_monotime.h"

extern "C" {

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

}  // extern "C"
