// The core's shared pieces: the client context's helpers, start-up step
// stamps and level files. Every other subsystem builds on these.
#ifndef LIBQZ_CAP_CORE_CORE_H
#define LIBQZ_CAP_CORE_CORE_H

#include <cstddef>
#include <cstdint>

#include "libqz_cap.h"

static_assert(sizeof(void *) != 4 || sizeof(libqz_cap_ctrl_info_t) == 400,
              "client context must be 400 bytes on a 32-bit target");
static_assert(sizeof(void *) != 4 || sizeof(libqz_cap_time_rec_t) == 16,
              "step record must be 16 bytes on a 32-bit target");

extern "C" {

// The text after the last '/' of an executable's link text (all of it
// without one). Points into link_text.
const char *libqz_cap_exe_base_name(const char *link_text);

// The gate level a level file's text gives: at most the first 15 of its len
// bytes count, up to a NUL, converted as strtol does in base 10.
int32_t libqz_cap_level_from_text(const char *text, size_t len);

// Applies one level file. Returns 0 (missing file, or applied) or -11.
int libqz_cap_load_level_file(const char *path);

// Stamps start-up step `step` (0..6) of ctx with the monotonic clock.
void libqz_cap_rec_time_thread(uint32_t step, libqz_cap_ctrl_info_t *ctx);

}  // extern "C"

namespace qzcap {

// The device's buffer for the application name.
inline constexpr uint32_t kAppNameLen = 128;

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

#endif  // LIBQZ_CAP_CORE_CORE_H
