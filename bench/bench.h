// Shared pieces of the benchmark program: options, the clock, percentiles,
// the block runner that alternates the library with its baseline, and the
// result every benchmark hands back to main.
#ifndef QZCAP_BENCH_BENCH_H
#define QZCAP_BENCH_BENCH_H

#include <time.h>

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace qzbench {

struct Options {
    bool smoke = false;
    int blocks = 20;                    // blocks per side, alternating
    int ops = 1000;                     // operations per block
    int warmup = 500;                   // untimed operations per side before the first block
    int batch = 1000;                   // reads per timed batch (embedded store)
    int batches = 100;                  // batches per block (embedded store)
    int subs = 1000;                    // subscriptions renewed after a restart
    int renew_rounds = 5;               // restarts per side
    int load_rounds = 10;               // loads of 10,000 capabilities per side
    std::vector<int> procs{1, 10, 50};  // application processes on one bus
    int per_proc = 1000;                // value subscriptions in each
    int pushes = 20000;                 // timed pushes per side and process count
    int timeout_ms = 5000;              // longest wait for one expected callback
    std::vector<int> only;              // benchmarks to run (empty: all)
    std::string redis_server;

    bool wants(int n) const;
};

// CLOCK_MONOTONIC: one clock for every thread, so stamps taken on the bus's
// thread compare with stamps taken on the publisher's.
inline int64_t now_ns() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t{ts.tv_sec} * 1000000000 + ts.tv_nsec;
}

// Nearest-rank percentile (q in [0, 1]); 0 for no samples.
int64_t percentile(std::vector<int64_t> v, double q);

// One target of a benchmark: what it asks, the figures that judge it, and
// whether this run met it.
struct Target {
    std::string what;
    std::string figures;
    bool met = false;
};

// What one benchmark reports for the summary.
struct Figure {
    Figure(int n, std::string t) : number(n), title(std::move(t)) {}

    int number;
    std::string title;
    bool ran_ok = false;  // every operation succeeded and every callback arrived
    std::string error;    // why not
    std::string summary;  // one line for the final table
    std::vector<Target> targets;

    void judge(std::string what, bool met, std::string figures) {
        targets.push_back({std::move(what), std::move(figures), met});
    }
    bool all_met() const;
};

// One timed operation: returns false on failure (with *why set) and its
// latency in nanoseconds in *ns.
using Op = std::function<bool(int64_t *ns, std::string *why)>;

struct SideSamples {
    std::vector<int64_t> all;
    std::vector<std::vector<int64_t>> blocks;
};

struct Comparison {
    SideSamples lib, raw;
    bool ok = true;
    std::string error;
};

// Runs warm-up, then opts.blocks blocks of each side, alternating (the side
// that goes first alternates too, so drift of the machine hits both), and
// prints one line per block pair. `unit_div` turns samples into the printed
// unit (1000: microseconds).
Comparison run_blocks(const Options &opts, const char *lib_name, const Op &lib,
                      const char *raw_name, const Op &raw, double unit_div, const char *unit);

// Library-over-baseline ratios of one comparison. Pooled: percentiles over
// all samples of each side. Paired: the median over blocks of the ratio within
// a block pair; the two halves of a pair run back to back, so a burst of load
// from elsewhere on the machine moves both, where pooling lets it land on one.
struct Ratios {
    double pooled_p50 = 0, pooled_p99 = 0;
    double paired_p50 = 0, paired_p99 = 0;
};

// Prints overall p50/p99 of both sides and the ratios.
Ratios print_overall(const Comparison &c, const char *lib_name, const char *raw_name,
                     double unit_div, const char *unit);

// The figure of a comparison of single-request latencies (benchmarks 1 and 3),
// judged on the paired p50 ratio.
void judge_paired_p50(Figure *f, const Comparison &c, const Ratios &r, double limit);

std::string format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace qzbench

#endif  // QZCAP_BENCH_BENCH_H
