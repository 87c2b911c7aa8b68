/*
 * The debug shell stand-in's own calls (not used by libqz_cap): what a
 * process has registered, and running one command of it.
 */
#ifndef KRIL_SHELL_H
#define KRIL_SHELL_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    KRIL_E_ARG = -2001,        /* a required argument is missing */
    KRIL_E_NO_MODULE = -2002,  /* no module of that name */
    KRIL_E_NO_COMMAND = -2003, /* the module has no such command */
    KRIL_E_BAD_ARG = -2004,    /* the argument does not match the command's format */
    KRIL_E_BAD_HANDLE = -2005, /* a handle that kril_multi_thread_init did not fill */
    KRIL_E_NOMEM = -2006
};

/* Number of registered modules, and of commands of one module (-1: none). */
uint32_t kril_module_count(void);
int32_t kril_command_count(const char *module);

/*
 * Copies the i-th command (registration order) of module: its name and
 * argument format. Returns 0, or a KRIL_E_ code.
 */
int32_t kril_command_at(const char *module, uint32_t i, char *cmd, size_t cmd_len, char *argfmt,
                        size_t argfmt_len, void (**handler)(void));

/*
 * Parses `arg` by the command's format ("%d": a decimal integer; "url=%s":
 * "url=" followed by the text; "void": nothing) and calls the handler on the
 * calling thread. *handler_rv receives its result (0 for handlers that return
 * nothing). Returns 0 when the handler ran, else a KRIL_E_ code.
 */
int32_t kril_call(const char *module, const char *cmd, const char *arg, int32_t *handler_rv);

/* Buffer size last set with kril_lib_set_mem (0 before). */
uint32_t kril_mem_size(void);

#ifdef __cplusplus
}
#endif

#endif /* KRIL_SHELL_H */
