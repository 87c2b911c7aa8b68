/* The platform's in-process debug shell. Handlers are registered untyped. */
#ifndef KRIL_H
#define KRIL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* handle: 16 bytes of caller storage that registration calls are given. */
int32_t kril_multi_thread_init(void *global, const char *module, void *handle);
int32_t kril_multi_thread_reg_mod_cmd(void *handle, const char *module, const char *cmd,
                                      int32_t flag, const char *argfmt, void (*handler)(void));
int32_t kril_lib_set_mem(void *global, uint32_t len);

#ifdef __cplusplus
}
#endif

#endif /* KRIL_H */
