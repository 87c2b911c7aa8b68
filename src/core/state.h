// Process-wide state that is not exported. Every variable here (and the
// exported ones in state.cc) is shared by all threads and unsynchronised by
// design: callers that use it from several threads serialise themselves.
#ifndef LIBQZ_CAP_CORE_STATE_H
#define LIBQZ_CAP_CORE_STATE_H

#include "internal.h"

namespace qzcap {

// Device type of the card that the last card lookup matched; 0: none found.
extern int32_t g_found_config_dev_type;

// Holders of global-state and subcard-state subscriptions: appended, never
// pruned, since the bus may call back with their records at any time.
extern libqz_cap_list_head_t g_glb_state_holders;
extern libqz_cap_list_head_t g_subcard_state_holders;

// Collection: the saved copy of standard output and the open collect file;
// -1 when none.
extern int g_collect_saved_stdout;
extern int g_collect_fd;

// Appends node at the tail of a circular list.
inline void list_append(libqz_cap_list_head_t *head, libqz_cap_list_head_t *node) {
    node->next = head;
    node->prev = head->prev;
    head->prev->next = node;
    head->prev = node;
}

inline bool is_default_ctx(const libqz_cap_ctrl_info_t *ctx) {
    return ctx == &g_libqz_cap_ctrl_info;
}

}  // namespace qzcap

#endif  // LIBQZ_CAP_CORE_STATE_H
