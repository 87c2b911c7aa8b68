/*
 * The debug shell stand-in's own calls (not used by libqz_cap): what a
 * process has registered, running one command of it in process, serving
 * operators from outside the process, and the client side of that.
 *
 * Reaching a process from outside
 * -------------------------------
 * The first module registered makes the process listen on a Unix stream
 * socket "<pid>.sock" (mode 0600) in the run directory, $KRIL_RUN_DIR or
 * else /tmp/kril-<euid>. The directory is created with mode 0700; one that
 * belongs to another user or that group or others may use is refused with a
 * line on standard error, and the process is then reachable only in process.
 * The socket is removed at exit; sockets of dead processes are removed when
 * the next process starts listening. A connection from a uid other than the
 * process's effective uid is answered with an error and closed.
 *
 * Protocol: a connection carries one request line of at most KRIL_MAX_LINE
 * bytes, newline included:
 *     "<module> <command> [argument text]\n"   run a command
 *     "list\n"                                 list modules and commands
 * The argument is the rest of the line, surrounding blanks removed. A line
 * holding a NUL byte is refused with KRIL_E_PROTO. Answer:
 *     "err <code> <text>\n"                    nothing ran (KRIL_E_ code)
 * or, for a command, "run\n" when its serving thread picks it up, then
 *     "out <n>\n" <n bytes of standard output> "rv <handler result>\n"
 * ("err" may also follow "run"). "list" answers "out <n>\n" with one line
 * per module, its commands below it as "    <command> <argfmt>", then "rv 0".
 * A line not complete within 10 s, or before 32 newer connections arrived,
 * is answered "err" with KRIL_E_TIMEOUT or KRIL_E_BUSY: connections that
 * never finish their line cannot keep anyone out.
 *
 * Commands run on the thread that registered their module, when it calls
 * kril_poll. Standard output of the whole process goes to the requester
 * while a handler runs, so output of other threads at that moment goes with
 * it; descriptors 0, 1 and 2 are put back as they were when it returns,
 * whatever the handler did with them. A request whose requester has gone
 * before it runs is dropped unrun.
 */
#ifndef KRIL_SHELL_H
#define KRIL_SHELL_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    KRIL_E_ARG = -2001,        /* a required argument is missing */
    KRIL_E_NO_MODULE = -2002,  /* no module of that name */
    KRIL_E_NO_COMMAND = -2003, /* the module has no such command */
    KRIL_E_BAD_ARG = -2004,    /* the argument does not match the command's format */
    KRIL_E_BAD_HANDLE = -2005, /* a handle that kril_multi_thread_init did not fill */
    KRIL_E_NOMEM = -2006,
    KRIL_E_TOO_LONG = -2007,  /* request line longer than KRIL_MAX_LINE */
    KRIL_E_BUSY = -2008,      /* too many requests waiting */
    KRIL_E_PERM = -2009,      /* the peer is another user */
    KRIL_E_TIMEOUT = -2010,   /* no answer in time */
    KRIL_E_IO = -2011,        /* a system call failed or the peer went away */
    KRIL_E_PROTO = -2012,     /* a request or answer that does not follow the protocol */
    KRIL_E_NO_SOCKET = -2013, /* no process serves what was asked for */
    KRIL_E_RUN_DIR = -2014,   /* the run directory is not safe to use */
    KRIL_E_AMBIGUOUS = -2015  /* several processes match */
};

#define KRIL_MAX_LINE 1024

/*
 * Unless said otherwise, every call below is thread-safe, copies what it is
 * given, and hands out nothing the caller must free.
 */

/* Number of registered modules, and of commands of module (-1: module is NULL or unknown). */
uint32_t kril_module_count(void);
int32_t kril_command_count(const char *module);

/*
 * Copies the i-th command (registration order) of module: its name and
 * argument format, each cut to fit its buffer and terminated (a NULL buffer
 * or a zero length is skipped), and its handler when handler is not NULL.
 * Returns 0, KRIL_E_ARG (module NULL), KRIL_E_NO_MODULE or KRIL_E_NO_COMMAND.
 */
int32_t kril_command_at(const char *module, uint32_t i, char *cmd, size_t cmd_len, char *argfmt,
                        size_t argfmt_len, void (**handler)(void));

/*
 * Parses `arg` by the command's format ("%d": a decimal integer; "url=%s":
 * "url=" followed by the text; "void": nothing) and calls the handler on the
 * calling thread, without any lock of the shell held (it may register or
 * call again). *handler_rv, when not NULL, receives its result (0 for
 * handlers that return nothing). Returns 0 when the handler ran, else
 * KRIL_E_ARG (module or cmd NULL), KRIL_E_NO_MODULE, KRIL_E_NO_COMMAND,
 * KRIL_E_BAD_ARG or KRIL_E_NOMEM, and nothing ran.
 */
int32_t kril_call(const char *module, const char *cmd, const char *arg, int32_t *handler_rv);

/* Buffer size last set with kril_lib_set_mem (0 before any). */
uint32_t kril_mem_size(void);

/*
 * Runs the requests waiting for modules that the calling thread registered,
 * first waiting up to timeout_ms (-1: without limit) for one to arrive.
 * timeout_ms 0 does not wait. Each requester gets its answer and the end of
 * the connection as soon as its handler returns.
 * Returns how many handlers ran, KRIL_E_NO_MODULE when the thread
 * registered none, or KRIL_E_NOMEM.
 */
int32_t kril_poll(int32_t timeout_ms);

/*
 * A descriptor of the calling thread that is readable while requests wait
 * for it; for event loops, which then call kril_poll(0). Owned by the shell.
 * KRIL_E_NO_MODULE when the thread registered no module.
 */
int32_t kril_fd(void);

/*
 * Copies the path of this process's socket into path (cut to len and
 * terminated). Returns 0, or KRIL_E_NO_SOCKET when the process has none
 * (nothing registered yet, the run directory refused, or a forked child of
 * the process that listens).
 */
int32_t kril_socket_path(char *path, size_t len);

/*
 * Checks that dir is a directory of the effective user that nobody else may
 * use, creating it with mode 0700 first when create is non-zero and it does
 * not exist. Returns 0 (why set to ""), KRIL_E_ARG (dir NULL), or
 * KRIL_E_RUN_DIR with the reason in why (cut to why_len and terminated;
 * why may be NULL).
 */
int32_t kril_check_run_dir(const char *dir, int32_t create, char *why, size_t why_len);

/*
 * Sends one request line (without its newline) to process pid and waits at
 * most timeout_ms (<= 0: 10 s) for each step of the answer. The command's
 * output is written to out (NULL: dropped); out stays the caller's. Returns 0
 * when the handler ran, its result in *handler_rv (when not NULL), err set
 * to ""; else a KRIL_E_ code with the reason in err (cut to err_len and
 * terminated; err may be NULL). Blocks the calling thread only.
 */
int32_t kril_client_run(int32_t pid, const char *request, int32_t timeout_ms, FILE *out,
                        int32_t *handler_rv, char *err, size_t err_len);

/*
 * Finds the one live process of this user that serves module (NULL: that
 * serves a debug shell at all), asking each candidate with "list". Returns
 * 0 with *pid set, KRIL_E_ARG when pid is NULL, else KRIL_E_RUN_DIR,
 * KRIL_E_NO_SOCKET or KRIL_E_AMBIGUOUS with the reason in err (as for
 * kril_client_run).
 */
int32_t kril_client_find(const char *module, int32_t *pid, char *err, size_t err_len);

/* For tests: accept peers of this uid instead of the effective uid (< 0: reset). */
void kril_test_set_allowed_uid(int64_t uid);

#ifdef __cplusplus
}
#endif

#endif /* KRIL_SHELL_H */
