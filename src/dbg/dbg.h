// Pieces the debug module's files share: argument checks that log under the
// debug module's source name, and the state prints that both the shell's
// commands and the full dump produce.
#ifndef LIBQZ_CAP_DBG_DBG_H
#define LIBQZ_CAP_DBG_DBG_H

#include <cstdint>

#include "core/log.h"
#include "internal.h"

// "<name> NULL pointer, addr error!\n" from source libqz_cap_dbg, and -4.
#define QZ_DBG_CHECK_PTR_FN(func, ptr, name)                                              \
    do {                                                                                  \
        if ((ptr) == nullptr) {                                                           \
            QZ_DBG_LOG_FN(func, 1, ::qzcap::kError, name " NULL pointer, addr error!\n"); \
            return LIBQZ_CAP_E_ARG;                                                       \
        }                                                                                 \
    } while (0)
#define QZ_DBG_CHECK_PTR(ptr, name) QZ_DBG_CHECK_PTR_FN(__func__, ptr, name)

namespace qzcap::dbg {

// Readiness flag and gate level. REQUIRES: ctx != nullptr.
void print_stat(const libqz_cap_ctrl_info_t *ctx);

// Header, then one line per registry record. Returns the walk's result: -1
// when ctx has no registry. REQUIRES: ctx != nullptr.
int32_t print_sub_hash(const libqz_cap_ctrl_info_t *ctx);

}  // namespace qzcap::dbg

#endif  // LIBQZ_CAP_DBG_DBG_H
