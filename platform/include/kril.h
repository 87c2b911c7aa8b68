/* The platform's in-process debug shell. Handlers are registered untyped. */
#ifndef KRIL_H
#define KRIL_H

#include <stdint.h>

/* The KRIL_E_ codes are in kril_shell.h. */

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Registers module, to be served by the calling thread: its commands run on
 * this thread when it calls kril_poll (kril_shell.h). Registering a name
 * again empties its command table and moves it to the calling thread. The
 * first registration of the process also starts listening for operators.
 * handle: 16 bytes of caller storage, filled here and passed to
 * kril_multi_thread_reg_mod_cmd; the caller owns it, the shell keeps no
 * pointer to it. global is kept, never dereferenced.
 * Returns 0, KRIL_E_ARG (module NULL or empty, handle NULL), KRIL_E_IO or
 * KRIL_E_NOMEM. Thread-safe.
 */
int32_t kril_multi_thread_init(void *global, const char *module, void *handle);

/*
 * Adds command cmd to module, or replaces the command of that name. argfmt
 * is "%d" (handler is called as void (*)(int32_t)), "url=%s" (as
 * int32_t (*)(const char *), given the text after "url=") or "void" (as
 * int32_t (*)(void)). flag is ignored. The strings are copied.
 * Returns 0, KRIL_E_ARG (a NULL argument), KRIL_E_BAD_HANDLE (handle not
 * filled by kril_multi_thread_init), KRIL_E_NO_MODULE (handle is another
 * module's), KRIL_E_BAD_ARG (another argfmt) or KRIL_E_NOMEM. Thread-safe.
 */
int32_t kril_multi_thread_reg_mod_cmd(void *handle, const char *module, const char *cmd,
                                      int32_t flag, const char *argfmt, void (*handler)(void));

/* Records len as the shell's buffer size (kril_mem_size reads it). Returns 0. Thread-safe. */
int32_t kril_lib_set_mem(void *global, uint32_t len);

#ifdef __cplusplus
}
#endif

#endif /* KRIL_H */
