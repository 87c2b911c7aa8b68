// The library's process-wide state, in one place. None of it is protected by
// a lock or made atomic: that is the library's contract (callers serialise).
#include "core/state.h"

extern "C" {

LIBQZ_CAP_API thread_local libqz_cap_ctrl_info_t g_libqz_cap_ctrl_info;

LIBQZ_CAP_API libqz_cap_list_head_t cap_sub_card_nodes_list = {&cap_sub_card_nodes_list,
                                                               &cap_sub_card_nodes_list};

LIBQZ_CAP_API int32_t g_libqz_cap_zlog_level = 1;
LIBQZ_CAP_API void *g_libqz_cap_zlog_category = nullptr;

LIBQZ_CAP_API uint8_t g_libqz_g_cap_calc_ready = 0;

}  // extern "C"

namespace qzcap {

int32_t g_found_config_dev_type = 0;
libqz_cap_list_head_t g_glb_state_holders = {&g_glb_state_holders, &g_glb_state_holders};
libqz_cap_list_head_t g_subcard_state_holders = {&g_subcard_state_holders,
                                                 &g_subcard_state_holders};

int g_collect_saved_stdout = -1;
int g_collect_fd = -1;

}  // namespace qzcap
