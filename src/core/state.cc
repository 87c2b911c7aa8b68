// The library's exported process-wide state. None of it is protected by a
// lock or made atomic: that is the library's contract (callers serialise).
// State that is not exported lives beside the one file that uses it.
#include "libqz_cap.h"

extern "C" {

LIBQZ_CAP_API thread_local libqz_cap_ctrl_info_t g_libqz_cap_ctrl_info;

LIBQZ_CAP_API libqz_cap_list_head_t cap_sub_card_nodes_list = {&cap_sub_card_nodes_list,
                                                               &cap_sub_card_nodes_list};

LIBQZ_CAP_API int32_t g_libqz_cap_zlog_level = 1;
LIBQZ_CAP_API void *g_libqz_cap_zlog_category = nullptr;

LIBQZ_CAP_API uint8_t g_libqz_g_cap_calc_ready = 0;

}  // extern "C"
