// The callback record of a state subscription and the holder that keeps it
// on a process-wide list, made the same way by the global and the subcard
// state subscriptions.
#ifndef LIBQZ_CAP_SUB_HOLDER_H
#define LIBQZ_CAP_SUB_HOLDER_H

#include "core/alloc.h"
#include "core/log.h"
#include "core/state.h"
#include "internal.h"

namespace qzcap::sub {

struct HolderTexts {
    const char *holder_failed;
    const char *fun_failed;
};

// Appends a holder of a new fun {fp, arg} to list and returns the fun, or
// logs under fn and returns NULL (nothing is kept then). Listed fun records
// are never freed: the bus may call back with them at any time.
inline struct fun *hold_callback(const char *fn, const HolderTexts &texts,
                                 libqz_cap_list_head_t *list, void *fp, void *arg) {
    XPtr<libqz_cap_holder_t> holder = xcalloc_one<libqz_cap_holder_t>();
    if (!holder) {
        QZ_LOG_FN(fn, 1, kError, "%s", texts.holder_failed);
        return nullptr;
    }
    XPtr<struct fun> fun = xcalloc_one<struct fun>();
    if (!fun) {
        QZ_LOG_FN(fn, 1, kError, "%s", texts.fun_failed);
        return nullptr;
    }
    fun->fp = fp;
    fun->arg = arg;
    holder->fun = fun.release();
    struct fun *held = holder->fun;
    list_append(list, &holder.release()->list);
    return held;
}

}  // namespace qzcap::sub

#endif  // LIBQZ_CAP_SUB_HOLDER_H
