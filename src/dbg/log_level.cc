// The gate-level setter; also the debug shell's "log-level" handler.
#include "core/log.h"

extern "C" void libqz_cap_log_level(int32_t level) {
    // The gate in force before the change decides whether the change is logged.
    QZ_DBG_LOG(4, qzcap::kInfo, "set debug level %d", level);
    g_libqz_cap_zlog_level = level;
}
