// The soak's coordinator: starts a private redis-server, the publisher, the
// subscribers and the readers, hurts the server on a seeded schedule, and
// counts what did not survive. Its last line is
//   soak: R restarts, S stalls, L lost subscriptions, U lost updates, C crashes,
//   fd growth F, rss growth K kB
// (one line), and its exit status is non-zero when S, L, U or C is, or a
// growth passes its bound.
#ifndef QZCAP_TESTS_SOAK_COORDINATOR_H
#define QZCAP_TESTS_SOAK_COORDINATOR_H

#include <cstdint>

#include "board.h"
#include "chaos.h"

namespace soak {

struct RunOptions {
    Config config;  // a zero seed is replaced by a random one
    uint32_t restarts = 100;
    ChaosShares shares;
    // A subscription (or reader, or the publisher) that shows nothing new
    // this long after the server is back is stalled.
    int64_t stall_ms = 10000;
    int64_t start_ms = 60000;  // for every subscription's first delivery
    int64_t final_ms = 30000;  // for the final values, once the last round is written
    // Growth allowed between the first quiet point and the last, for every child.
    int64_t max_fd_growth = 0;
    int64_t max_rss_growth_kb = 2048;
    bool keep_logs = false;  // else the logs are removed after a clean run
    // A command that runs subscriber 0 (a heap profiler, valgrind), split at spaces.
    std::string wrap_subscriber;
};

// Runs the soak; returns the process's exit status: 0 clean, 1 a fault was
// counted, 2 the run could not be set up or the server did not come back,
// 128 + N interrupted by signal N.
int run_soak(RunOptions opt);

}  // namespace soak

#endif  // QZCAP_TESTS_SOAK_COORDINATOR_H
