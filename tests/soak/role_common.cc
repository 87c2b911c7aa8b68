#include <unistd.h>

#include <cstdarg>
#include <cstdio>

#include "qz_mom_client.h"
#include "roles.h"

namespace soak {

void report_fault(ChildBlock &block, const char *fmt, ...) {
    constexpr uint64_t kTold = 20;  // then only counted: a broken store would flood the log
    const uint64_t n = block.faults.fetch_add(1) + 1;
    if (n > kTold)
        return;
    va_list ap;
    va_start(ap, fmt);
    fprintf(stderr, "soak fault: ");
    vfprintf(stderr, fmt, ap);
    fprintf(stderr, n == kTold ? " (further faults only counted)\n" : "\n");
    va_end(ap);
}

Board *attach(const RoleArgs &args, uint32_t Config::*children) {
    std::string why;
    Board *b = open_board(args.board, &why);
    if (b == nullptr) {
        fprintf(stderr, "soak: %s\n", why.c_str());
        return nullptr;
    }
    if (children != nullptr && args.index >= b->config.*children) {
        fprintf(stderr, "soak: child %u of a run of %u\n", args.index, b->config.*children);
        return nullptr;
    }
    return b;
}

void *connect_bus(const Board &board, const std::string &uri) {
    for (;;) {
        if (void *global = qz_mom_client_create(uri.c_str()))
            return global;
        if (board.phase.load() == kStopping)
            return nullptr;
        usleep(100 * 1000);
    }
}

}  // namespace soak
