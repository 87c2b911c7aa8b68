// The debug module's shared pieces: argument checks that log under its
// source name, the state prints that both the shell's commands and the full
// dump produce, the handlers that are not exported, and collection's state.
#ifndef LIBQZ_CAP_DBG_DBG_H
#define LIBQZ_CAP_DBG_DBG_H

#include <cstdint>

#include "core/log.h"
#include "libqz_cap.h"

// "<name> NULL pointer, addr error!\n" from source libqz_cap_dbg, and -4.
#define QZ_DBG_CHECK_PTR_FN(func, ptr, name) QZ_CHECK_PTR_SRC_FN(::qzcap::kSrcDbg, func, ptr, name)
#define QZ_DBG_CHECK_PTR(ptr, name) QZ_DBG_CHECK_PTR_FN(__func__, ptr, name)

extern "C" {

int32_t libqz_cap_dbg_dump_stat(void);
int32_t libqz_cap_dbg_dump_sub_hash(void);
int32_t libqz_cap_dbg_dump_all(void);
// Registry walk callback printing one record; returns 0.
int32_t libqz_cap_dbg_print_sub_item(void *item, void *arg);
// Value callbacks of the debug subscriptions.
int32_t libqz_cap_dbg_bool_sub_cb(void *global, struct qz_mom_pmsg *pmsg, void *arg);
int32_t libqz_cap_dbg_int32_sub_cb(void *global, struct qz_mom_pmsg *pmsg, void *arg);

}  // extern "C"

namespace qzcap {

// Collection: the saved copy of standard output and the open collect file;
// -1 when none. Shared by all threads and unsynchronised.
extern int g_collect_saved_stdout;
extern int g_collect_fd;

namespace dbg {

// Readiness flag and gate level. REQUIRES: ctx != nullptr.
void print_stat(const libqz_cap_ctrl_info_t *ctx);

// Header, then one line per registry record. Returns the walk's result: -1
// when ctx has no registry. REQUIRES: ctx != nullptr.
int32_t print_sub_hash(const libqz_cap_ctrl_info_t *ctx);

}  // namespace dbg
}  // namespace qzcap

#endif  // LIBQZ_CAP_DBG_DBG_H
