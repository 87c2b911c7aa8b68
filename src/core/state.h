// Process-wide state that is not exported. Every variable here (and the
// exported ones in state.cc) is shared by all threads and unsynchronised by
// design: callers that use it from several threads serialise themselves.
#ifndef LIBQZ_CAP_CORE_STATE_H
#define LIBQZ_CAP_CORE_STATE_H

#include "internal.h"

namespace qzcap {

inline bool is_default_ctx(const libqz_cap_ctrl_info_t *ctx) {
    return ctx == &g_libqz_cap_ctrl_info;
}

}  // namespace qzcap

#endif  // LIBQZ_CAP_CORE_STATE_H
