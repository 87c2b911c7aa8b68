// Compiled with -m32: the layout asserts of the internal header must hold for
// the device's 32-bit target, and this file proves the compiler saw them with
// 4-byte pointers.
#include "internal.h"

static_assert(sizeof(void *) == 4, "this check must be compiled with -m32");
static_assert(sizeof(libqz_cap_ctrl_info_t) == 400);
static_assert(sizeof(sub_info) == 272);
static_assert(sizeof(libqz_cap_time_rec_t) == 16);
static_assert(sizeof(libqz_cap_subcard_node_payload_t) == 404);
