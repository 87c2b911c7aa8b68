// The publisher: writes every item once per cycle with its next sequence
// number, each write through the bus client or through a plain Redis
// connection (HSET on the store's key layout) at random, and retries a write
// until the store has it, so that it always knows each item's final value.
#include <signal.h>
#include <unistd.h>

#include <hiredis.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "items.h"
#include "p_libpub.pb-c.h"
#include "qz_mom.h"
#include "qz_mom_client.h"
#include "redis_client.h"
#include "roles.h"
#include "s_frame.pb-c.h"

namespace soak {
namespace {

// A plain Redis connection, as an operator's redis-cli would use: connected
// when needed, dropped on any failure.
class RawClient {
  public:
    explicit RawClient(std::string socket) : socket_(std::move(socket)) {}

    // Runs the commands in order; false when any failed or answered an error.
    bool run(const std::vector<std::vector<std::string>> &commands) {
        if (!connected())
            return false;
        for (const auto &cmd : commands) {
            std::vector<const char *> argv;
            std::vector<size_t> lens;
            for (const std::string &a : cmd) {
                argv.push_back(a.data());
                lens.push_back(a.size());
            }
            auto *r = static_cast<redisReply *>(redisCommandArgv(
                c_.get(), static_cast<int>(argv.size()), argv.data(), lens.data()));
            if (r == nullptr) {
                c_.reset();
                return false;
            }
            const bool error = r->type == REDIS_REPLY_ERROR;
            freeReplyObject(r);
            if (error)
                return false;
        }
        return true;
    }

  private:
    bool connected() {
        if (c_ != nullptr)
            return true;
        std::string why;
        c_ = qztest::connect("unix:" + socket_, qztest::kCapDb, &why, std::chrono::seconds(1));
        return c_ != nullptr;
    }

    std::string socket_;
    qztest::RedisPtr c_;
};

class Publisher {
  public:
    Publisher(const Config &cfg, void *global, const std::string &socket)
        : cfg_(cfg), global_(global), raw_(socket) {}

    // Writes item (or, past the items, the local readiness record) with
    // sequence number seq; false when the store did not take it.
    bool write(uint32_t item, int64_t seq, bool through_bus) {
        if (item < cfg_.keys)
            return through_bus ? bus_cap(item, seq) : raw_cap(item, seq);
        if (item < cfg_.keys + cfg_.subcards) {
            const auto node = static_cast<int32_t>(item - cfg_.keys + 1);
            return through_bus ? bus_subcard(node, seq) : raw_subcard(node, seq);
        }
        if (item == cfg_.state_item())
            return through_bus ? bus_glb_state(seq)
                               : raw_run({{"HSET", kGlbStateKey, "5", bit(seq)}});
        return through_bus ? bus_local_state() : raw_run({{"HSET", kLocalStateKey, "5", "1"}});
    }

  private:
    static std::string bit(int64_t seq) { return (seq & 1) != 0 ? "1" : "0"; }

    bool bus_cap(uint32_t k, int64_t seq) {
        const std::string url = cap_url(k);
        PLibpub__CapTableIndex index = P_LIBPUB__CAP_TABLE_INDEX__INIT;
        index.url = const_cast<char *>(url.c_str());
        PLibpub__CapTable rec = P_LIBPUB__CAP_TABLE__INIT;
        rec.index = &index;
        rec.bool_value = seq & 1;
        rec.int32_value = static_cast<int32_t>(seq);
        static const int32_t kBoolFields[] = {6, 7};
        static const int32_t kInt32Fields[] = {7};
        return is_bool_key(k)
                   ? qz_mom_write(global_, qztest::kCapDb, &rec.base, 2, kBoolFields) == 0
                   : qz_mom_write(global_, qztest::kCapDb, &rec.base, 1, kInt32Fields) == 0;
    }

    bool raw_cap(uint32_t k, int64_t seq) {
        const std::string key = cap_store_key(cap_url(k));
        if (is_bool_key(k))
            return raw_run({{"HSET", key, "6", bit(seq), "7", std::to_string(seq)}});
        return raw_run({{"HSET", key, "7", std::to_string(seq)}});
    }

    // Subcard n's record is replaced by one keyed by the next sequence number.
    bool bus_subcard(int32_t node, int64_t seq) {
        PLibpub__CapSubcardStateIndex index = P_LIBPUB__CAP_SUBCARD_STATE_INDEX__INIT;
        index.nodeid = node;
        index.config_dev_type = static_cast<int32_t>(seq);
        PLibpub__CapSubcardState rec = P_LIBPUB__CAP_SUBCARD_STATE__INIT;
        rec.index = &index;
        rec.ready = seq & 1;
        static const int32_t kFields[] = {6};
        if (qz_mom_write(global_, qztest::kCapDb, &rec.base, 1, kFields) != 0)
            return false;
        if (seq <= 1)
            return true;
        index.config_dev_type = static_cast<int32_t>(seq - 1);
        return qz_mom_delete(global_, qztest::kCapDb, &rec.base) == 0;
    }

    bool raw_subcard(int32_t node, int64_t seq) {
        std::vector<std::vector<std::string>> cmds{
            {"HSET", subcard_store_key(node, static_cast<int32_t>(seq)), "6", bit(seq)}};
        if (seq > 1)
            cmds.push_back({"DEL", subcard_store_key(node, static_cast<int32_t>(seq - 1))});
        return raw_run(cmds);
    }

    bool bus_glb_state(int64_t seq) {
        SFrame__CapGlbState rec = S_FRAME__CAP_GLB_STATE__INIT;
        rec.ready = seq & 1;
        static const int32_t kFields[] = {5};
        return qz_mom_write(global_, qztest::kCapDb, &rec.base, 1, kFields) == 0;
    }

    // Blocking reads of missing keys end once the local table is complete.
    bool bus_local_state() {
        PLibpub__CapState rec = P_LIBPUB__CAP_STATE__INIT;
        rec.ready = 1;
        static const int32_t kFields[] = {5};
        return qz_mom_write(global_, qztest::kCapDb, &rec.base, 1, kFields) == 0;
    }

    bool raw_run(const std::vector<std::vector<std::string>> &cmds) { return raw_.run(cmds); }

    const Config &cfg_;
    void *global_;
    RawClient raw_;
};

}  // namespace

int run_publisher(const RoleArgs &args) {
    signal(SIGPIPE, SIG_IGN);  // hiredis writes to a socket the server may have closed
    Board *board = attach(args);
    if (board == nullptr)
        return 2;
    const Config &cfg = board->config;
    PublisherBlock &pub = board->publisher;
    const std::string prefix = "unix:";
    if (args.uri.rfind(prefix, 0) != 0) {
        fprintf(stderr, "soak: the publisher needs a unix: store, not %s\n", args.uri.c_str());
        return 2;
    }
    void *global = connect_bus(*board, args.uri);
    if (global == nullptr)
        return 0;
    Publisher publisher(cfg, global, args.uri.substr(prefix.size()));
    std::mt19937_64 rng(cfg.seed ^ 0x7075626c69736865ull);
    const uint32_t writes_per_cycle = cfg.items() + 1;  // and the local readiness record
    std::vector<int64_t> seq(cfg.items(), 0);
    pub.ready.store(1);

    bool final_round = false;
    while (board->phase.load() != kStopping) {
        final_round = board->phase.load() == kFinalRound;
        const int64_t cycle_start = now_ns();
        for (uint32_t i = 0; i < writes_per_cycle; ++i) {
            const bool tracked = i < cfg.items();
            const int64_t next = tracked ? seq[i] + 1 : 1;
            if (tracked)
                pub.issued[i].store(next);
            for (;;) {
                const bool through_bus = (rng() & 1) != 0;
                if (publisher.write(i, next, through_bus)) {
                    (through_bus ? pub.bus_writes : pub.raw_writes).fetch_add(1);
                    break;
                }
                pub.failed_writes.fetch_add(1);
                if (board->phase.load() == kStopping)
                    return 0;
                usleep(20 * 1000);
            }
            pub.progress_ns.store(now_ns());
            if (tracked)
                seq[i] = next;
            const int64_t due = cycle_start + static_cast<int64_t>(cfg.cycle_ms) * 1000000 *
                                                  (i + 1) / writes_per_cycle;
            const int64_t wait_ns = due - now_ns();
            if (wait_ns > 0)
                usleep(static_cast<useconds_t>(wait_ns / 1000));
        }
        if (final_round)
            break;
    }
    if (final_round) {
        for (uint32_t i = 0; i < cfg.items(); ++i)
            pub.final_seq[i].store(seq[i]);
        pub.final_done.store(1);
        while (board->phase.load() != kStopping)
            usleep(20 * 1000);
    }
    qz_mom_client_destroy(global);
    return 0;
}

}  // namespace soak
