// Compiled, never run, with the flags of the 32-bit target being built (a
// native x86_64 build checks i386 with -m32): the device's layouts must hold
// there, and this file proves the compiler saw them with 4-byte pointers.
#include <sys/types.h>

#include <cstddef>
#include <ctime>

#include "core/core.h"
#include "query/query.h"
#include "sub/sub.h"
#include "qz_mom.h"

static_assert(sizeof(void *) == 4, "this check must be compiled for a 32-bit target");
static_assert(sizeof(libqz_cap_ctrl_info_t) == 400);
static_assert(sizeof(sub_info) == 272);
static_assert(sizeof(libqz_cap_time_rec_t) == 16);
static_assert(sizeof(libqz_cap_subcard_node_payload_t) == 404);
static_assert(offsetof(qz_mom_pmsg_t, cmd) == 644);
static_assert(offsetof(qz_mom_pmsg_t, result) == 648);

// Built with the large-file and 64-bit time interfaces, as every target is.
static_assert(sizeof(time_t) == 8, "time_t would end in 2038");
static_assert(sizeof(off_t) == 8, "readdir would fail with EOVERFLOW");
