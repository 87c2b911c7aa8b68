// A reader: the library initialised on its own bus handle, reading keys at
// random, blocking and not. Every answer must be one the store can give
// while its server comes and goes, and a key's sequence number must never go
// back or run ahead of what the publisher has issued.
#include <unistd.h>

#include <cstdio>
#include <random>
#include <vector>

#include "items.h"
#include "libqz_cap.h"
#include "roles.h"

namespace soak {
namespace {

enum class Read { kInt32, kInt32Blocking, kBool, kBoolBlocking };

// 0, or what a read may answer while the server is away (-21) or has just
// come back empty (-22).
bool expected_status(int32_t rc) {
    return rc == 0 || rc == LIBQZ_CAP_E_BUS || rc == LIBQZ_CAP_E_NO_RECORD;
}

// Indexed by Read.
constexpr const char *kReadNames[] = {"int32 no_block", "int32 blocking", "bool no_block",
                                      "bool blocking"};

const char *name_of(Read r) {
    return kReadNames[static_cast<size_t>(r)];
}

}  // namespace

int run_reader(const RoleArgs &args) {
    Board *board = attach(args, &Config::readers);
    if (board == nullptr)
        return 2;
    const Config &cfg = board->config;
    ChildBlock &block = board->readers[args.index];
    const bool exit_after_reconnect = args.index == 0 && (cfg.inject & kInjectReaderExit) != 0;

    void *global = connect_bus(*board, args.uri);
    if (global == nullptr)
        return 0;
    int32_t rc = libqz_cap_init(global, "soak_reader");
    if (rc != 0) {
        fprintf(stderr, "soak: libqz_cap_init failed: %d\n", rc);
        return 2;
    }
    std::vector<std::string> urls;
    for (uint32_t k = 0; k < cfg.keys; ++k)
        urls.push_back(cap_url(k));
    std::vector<int64_t> last(cfg.keys, 0);
    std::mt19937_64 rng(cfg.seed ^ (0x7265616465720000ull + args.index));
    block.ready.store(1);

    uint64_t bus_failures = 0;
    while (board->phase.load() != kStopping) {
        const uint32_t k = static_cast<uint32_t>(rng() % cfg.keys);
        // Boolean reads only of boolean keys; int32 reads of any key (a
        // boolean key carries its sequence number in int32_value).
        Read kind = static_cast<Read>(rng() % 4);
        if (!is_bool_key(k) && (kind == Read::kBool || kind == Read::kBoolBlocking))
            kind = kind == Read::kBool ? Read::kInt32 : Read::kInt32Blocking;
        const char *url = urls[k].c_str();
        int32_t value = -1;
        bool flag = false;
        switch (kind) {
            case Read::kInt32:
                rc = libqz_cap_get_capacity_int32_no_block(global, url, &value);
                break;
            case Read::kInt32Blocking: {
                // A fresh context has not seen readiness yet, so the read
                // waits for the value when the key is missing.
                libqz_cap_ctrl_info_t *ctx = libqz_cap_ctrl_info_init();
                rc = libqz_cap_get_capacity_int32_thread(global, url, ctx, &value);
                libqz_cap_ctrl_info_free(ctx);
                break;
            }
            case Read::kBool:
                rc = libqz_cap_get_capacity_bool_no_block(global, url, &flag);
                break;
            case Read::kBoolBlocking:
                rc = libqz_cap_get_capacity_bool(global, url, &flag);
                break;
        }
        if (!expected_status(rc)) {
            report_fault(block, "%s read of %s returned %d", name_of(kind), url, rc);
        } else if (rc == 0 && (kind == Read::kInt32 || kind == Read::kInt32Blocking)) {
            const int64_t issued = board->publisher.issued[k].load();
            if (value < last[k] || value > issued)
                report_fault(block, "%s read of %s gave %d after %lld, %lld issued", name_of(kind),
                             url, value, static_cast<long long>(last[k]),
                             static_cast<long long>(issued));
            last[k] = value;
        }
        block.ops.fetch_add(1);
        if (rc == LIBQZ_CAP_E_BUS) {
            ++bus_failures;
        } else {
            block.progress_ns.store(now_ns());
            if (exit_after_reconnect && bus_failures > 0) {
                fprintf(stderr, "soak: reader exits as injected\n");
                return 3;
            }
        }
        usleep(static_cast<useconds_t>(1000 + rng() % 9000));
    }
    return block.faults.load() == 0 ? 0 : 1;
}

}  // namespace soak
