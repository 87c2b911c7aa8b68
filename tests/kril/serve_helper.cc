// A second process with a debug shell: it registers MODULE with "ping" and
// "quit", says "ready <pid> <socket|none> <in-process rv>", then serves from
// an event loop until "quit" runs, and returns from main.
#include <poll.h>
#include <unistd.h>

#include <cstdio>

#include "kril.h"
#include "kril_shell.h"

namespace {

bool g_quit = false;

int32_t ping(void) {
    printf("pong %d\n", static_cast<int>(getpid()));
    return 7;
}

int32_t quit(void) {
    g_quit = true;
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2)
        return 2;
    unsigned char h[16];
    if (kril_multi_thread_init(nullptr, argv[1], h) != 0 ||
        kril_multi_thread_reg_mod_cmd(h, argv[1], "ping", 0, "void",
                                      reinterpret_cast<void (*)(void)>(ping)) != 0 ||
        kril_multi_thread_reg_mod_cmd(h, argv[1], "quit", 0, "void",
                                      reinterpret_cast<void (*)(void)>(quit)) != 0) {
        fprintf(stderr, "registration failed\n");
        return 1;
    }
    int32_t rv = -1;
    kril_call(argv[1], "ping", nullptr, &rv);
    char path[256];
    printf("ready %d %s %d\n", static_cast<int>(getpid()),
           kril_socket_path(path, sizeof path) == 0 ? path : "none", rv);
    fflush(stdout);
    pollfd p{kril_fd(), POLLIN, 0};
    while (!g_quit) {
        if (poll(&p, 1, -1) == 1)
            kril_poll(0);
    }
    return 0;
}
