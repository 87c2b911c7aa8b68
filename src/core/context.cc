// Client contexts, the bus buffer sizing and the application name.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/alloc.h"
#include "core/bus.h"
#include "core/core.h"
#include "core/log.h"
#include "kril.h"
#include "qz_mom.h"

namespace {
// Both the bus write buffer and the debug shell's buffer are fixed.
constexpr int kBufLen = 1024;
// The device's buffer for the link path and for the link text.
constexpr size_t kProcPathLen = 128;
}  // namespace

extern "C" {

libqz_cap_ctrl_info_t *libqz_cap_ctrl_info_init(void) {
    qzcap::XPtr<libqz_cap_ctrl_info_t> ctx = qzcap::xcalloc_one<libqz_cap_ctrl_info_t>();
    if (!ctx)
        QZ_LOG(1, qzcap::kError, "malloc mem fail\r\n");
    return ctx.release();  // the caller's, freed by libqz_cap_ctrl_info_free
}

void libqz_cap_ctrl_info_free(libqz_cap_ctrl_info_t *ctx) {
    free(ctx);
}

int32_t libqz_cap_set_mem_size_thread(void *global, libqz_cap_ctrl_info_t *ctx) {
    QZ_CHECK_PTR(global, "global");
    QZ_CHECK_PTR(ctx, "info");
    int32_t rv = qz_mom_set_write_buf_len(global, qzcap::kCapDb, kBufLen);
    // A bus client that keeps its default buffer still works: report, carry on.
    if (rv != 0) {
        QZ_LOG(1, qzcap::kError,
               "qz_mom_set_write_buf_len global %p db %d buf_len %d, failed, rv %d", global,
               qzcap::kCapDb, kBufLen, rv);
    }
    rv = kril_lib_set_mem(global, kBufLen);
    if (rv != 0) {
        QZ_LOG(1, qzcap::kError, "kril_lib_set_mem global %p buf_len %d, failed, rv %d", global,
               kBufLen, rv);
    }
    return rv;
}

int32_t libqz_cap_set_mem_size(void *global) {
    return libqz_cap_set_mem_size_thread(global, &g_libqz_cap_ctrl_info);
}

const char *libqz_cap_exe_base_name(const char *link_text) {
    const char *slash = strrchr(link_text, '/');
    return slash != nullptr ? slash + 1 : link_text;
}

char *libqz_cap_get_app_name(int32_t pid, char *name, uint32_t len) {
    if (name == nullptr) {
        QZ_LOG(1, qzcap::kError, "name NULL pointer, addr error!\n");
        return nullptr;
    }
    // No room even for the terminator: leave the caller's buffer alone.
    if (len == 0)
        return name;
    memset(name, 0, len);

    char path[kProcPathLen];
    snprintf(path, sizeof path, "/proc/%d/exe", pid);
    char link_text[kProcPathLen] = {};
    const char *base = "app";
    ssize_t n = readlink(path, link_text, sizeof link_text - 1);
    if (n < 0) {
        perror("readlink");
    } else {
        link_text[n] = '\0';
        base = libqz_cap_exe_base_name(link_text);
    }
    // name is zero-filled, so copying at most len - 1 bytes keeps it terminated.
    memcpy(name, base, strnlen(base, len - 1));
    return name;
}

}  // extern "C"
