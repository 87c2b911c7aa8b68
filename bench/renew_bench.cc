// Renewal after a reconnection: N value subscriptions on one context, the
// server killed and started again, then the time until every subscription is
// back and has delivered a change published after it was confirmed.
//
// The plain subscribe form passes no argument to its callback, and a
// confirmation (cmd 29) carries no record, so the callback itself tells the
// subscriptions apart: one instantiation per subscription.
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "figures.h"
#include "qz_mom_test.h"
#include "raw_redis.h"
#include "renewal_tracker.h"

namespace qzbench {
namespace {

constexpr int kMaxSubs = 1000;

// ---- The library side ----------------------------------------------------

RenewRun *g_run = nullptr;  // the round in progress; read by the callbacks

template <int I>
int32_t renew_cb(void *, qz_mom_pmsg_t *pmsg, void *) {
    if (RenewRun *run = g_run)
        run->on_lib_event(I, pmsg);
    return 0;
}

template <int... I>
constexpr std::array<libqz_cap_value_cb, sizeof...(I)> make_cbs(std::integer_sequence<int, I...>) {
    return {&renew_cb<I>...};
}
constexpr std::array<libqz_cap_value_cb, kMaxSubs> kRenewCbs =
    make_cbs(std::make_integer_sequence<int, kMaxSubs>{});

struct RoundTimes {
    double initial_ms = 0;        // subscribe N and see each deliver, on a fresh handle
    double kill_ready_ms = 0;     // kill -> the new server answers PING
    double kill_recon_ms = 0;     // kill -> reconnect callback (library) / reconnected (raw)
    double recon_confirm_ms = 0;  // -> the last confirmation
    double recon_done_ms = 0;     // -> the last subscription delivered its new value
    int other = 0;                // deliveries that were not the new value
};

double ms(int64_t from, int64_t to) {
    return static_cast<double>(to - from) / 1e6;
}

// Kills the server, starts it again and waits until every subscription of
// `run` is back and has delivered generation `gen`; fills the times.
bool restart_and_wait(const Options &opts, RedisServer &server, RenewRun &run, Publisher &pub,
                      int32_t gen, RoundTimes *out, std::string *why) {
    pub.stop();
    run.reset(gen);
    int64_t t_kill = now_ns();
    server.kill();
    if (std::string err = server.start(); !err.empty()) {
        *why = "restarting redis-server: " + err;
        return false;
    }
    int64_t t_ready = now_ns();
    pub.start(server.socket());
    // The client's back-off is capped at 1 s; allow for it on top.
    if (!run.wait_done(opts.timeout_ms + 2000, why) || !run.check(why)) {
        *why = "after the restart: " + *why;
        return false;
    }
    out->kill_ready_ms = ms(t_kill, t_ready);
    out->kill_recon_ms = ms(t_kill, run.t_start);
    out->recon_confirm_ms = ms(run.t_start, run.t_confirmed);
    out->recon_done_ms = ms(run.t_start, run.t_done);
    out->other = run.n_other;
    return true;
}

bool lib_round(const Options &opts, RedisServer &server, RenewRun &run, int round, RoundTimes *out,
               std::string *why) {
    Publisher pub(&run);
    run.pub = &pub;
    g_run = &run;
    struct Clear {
        ~Clear() { g_run = nullptr; }
    } clear_after_handle;  // runs after the handle below is gone
    LibClient lib;
    if (!run.cb_ctx) {
        *why = "libqz_cap_ctrl_info_init returned NULL";
        return false;
    }
    if (!lib.open("unix:" + server.socket(), why, stamp_reconnect, &run))
        return false;

    run.reset(2 * round + 100);
    pub.start(server.socket());
    int64_t t0 = now_ns();
    for (int i = 0; i < run.n; ++i) {
        int32_t rc = libqz_cap_ce_subscribe_g_cap_int32_thread(
            lib.global, run.urls[static_cast<size_t>(i)].c_str(), kRenewCbs[static_cast<size_t>(i)],
            lib.ctx.get());
        if (rc != 0) {
            *why = format("libqz_cap_ce_subscribe_g_cap_int32_thread #%d: %d", i, rc);
            return false;
        }
    }
    if (!run.wait_done(opts.timeout_ms, why) || !run.check(why)) {
        *why = "initial subscriptions: " + *why;
        return false;
    }
    out->initial_ms = ms(t0, run.t_done);
    if (uint32_t held = qz_mom_test_subscription_count(lib.global);
        held != static_cast<uint32_t>(run.n)) {
        *why = format("the handle holds %u subscriptions, expected %d", held, run.n);
        return false;
    }

    if (!restart_and_wait(opts, server, run, pub, 2 * round + 101, out, why))
        return false;
    if (run.n_recon != 1 || run.subs_at_recon != 0) {
        *why = format(
            "reconnect callback ran %d times, saw %lld subscriptions in place (0 "
            "expected: it must run before the library's)",
            run.n_recon.load(), static_cast<long long>(run.subs_at_recon.load()));
        return false;
    }
    qz_mom_test_drain(lib.global);
    if (uint32_t held = qz_mom_test_subscription_count(lib.global);
        held != static_cast<uint32_t>(run.n)) {
        *why = format("after renewal the handle holds %u subscriptions, expected %d", held, run.n);
        return false;
    }
    pub.stop();
    return true;
}

// ---- The raw side ----------------------------------------------------------

// A raw client doing the same job: on (re)connection SUBSCRIBE every exact
// keyspace channel (pipelined), and HGETALL the hash of each notification,
// the notifications that arrived together read pipelined.
// It retries its connection every millisecond: the time it measures starts
// once it is connected, as the library's starts at its reconnect callback.
class RawRenewer {
  public:
    explicit RawRenewer(RenewRun *run) : run_(run) {}
    ~RawRenewer() { stop(); }

    void start(const std::string &socket) {
        socket_ = socket;
        thread_ = std::thread([this] { loop(); });
    }

    void stop() {
        if (!thread_.joinable())
            return;
        {
            std::lock_guard<std::mutex> lk(mu_);
            stopping_ = true;
            if (sub_)
                shutdown(sub_->fd, SHUT_RDWR);
        }
        thread_.join();
    }

  private:
    bool connect(std::string *why) {
        int64_t deadline = now_ns() + 10'000'000'000;
        for (;;) {
            Conn s = connect_unix(socket_, why);
            Conn c = s ? connect_unix(socket_, why) : nullptr;
            if (s && c) {
                qztest::set_reply_timeout(s.get(), {});
                std::lock_guard<std::mutex> lk(mu_);
                if (stopping_)
                    return false;
                sub_ = std::move(s);
                cmd_ = std::move(c);
                return true;
            }
            if (now_ns() > deadline || stopping_)
                return false;
            usleep(1000);
        }
    }

    void loop() {
        for (int phase = 0; phase < 2; ++phase) {
            std::string why;
            if (!connect(&why)) {
                if (!stopping_)
                    run_->fail("raw client: " + why);
                return;
            }
            run_->t_start = now_ns();
            for (int i = 0; i < run_->n; ++i) {
                std::string ch = keyspace_channel(run_->keys[static_cast<size_t>(i)]);
                redisAppendCommand(sub_.get(), "SUBSCRIBE %b", ch.data(), ch.size());
            }
            // Its own flag, not the shared count: main resets that once done.
            complete_ = false;
            while (!complete_) {
                if (!serve_one(false))
                    return;
            }
            // Idle until the server goes away (phase 0) or stop() (phase 1).
            while (serve_one(true)) {
            }
            if (stopping_)
                return;
        }
    }

    // Handles what arrived on the subscribed connection: one reply, waiting
    // for it, and every one already read with it, the hashes behind their
    // notifications read in one pipelined round trip. False when the
    // connection is lost.
    bool serve_one(bool idle) {
        void *rv = nullptr;
        if (redisGetReply(sub_.get(), &rv) != REDIS_OK) {
            if (!idle && !stopping_)
                run_->fail(std::string("raw client lost its connection: ") + sub_->errstr);
            std::lock_guard<std::mutex> lk(mu_);
            sub_.reset();
            cmd_.reset();
            return false;
        }
        std::vector<int> changed;
        while (rv != nullptr) {
            Reply r(static_cast<redisReply *>(rv));
            rv = nullptr;
            if (idle) {
                ++run_->n_other;
            } else if (int i = -1; (i = subscription_of(r.get())) >= 0) {
                if (std::string_view(r->element[0]->str, r->element[0]->len) == "subscribe")
                    run_->on_confirmed(i);
                else
                    changed.push_back(i);
            }
            if (redisReaderGetReply(sub_->reader, &rv) != REDIS_OK)
                break;  // the next redisGetReply reports it
        }
        for (int i : changed) {
            const std::string &k = run_->keys[static_cast<size_t>(i)];
            redisAppendCommand(cmd_.get(), "HGETALL %b", k.data(), k.size());
        }
        for (int i : changed) {
            void *hv = nullptr;
            if (redisGetReply(cmd_.get(), &hv) != REDIS_OK) {
                run_->fail(std::string("raw client's reads: ") + cmd_->errstr);
                return false;
            }
            Reply h(static_cast<redisReply *>(hv));
            std::string_view val;
            if (!hash_field(h.get(), "7", &val)) {
                ++run_->n_other;
                continue;
            }
            const auto v = static_cast<int32_t>(std::strtol(std::string(val).c_str(), nullptr, 10));
            if (run_->on_value(i, v))
                complete_ = true;
        }
        return true;
    }

    // The subscription a "subscribe" or "message" reply is about; -1 (and
    // counted as other) for anything else.
    int subscription_of(const redisReply *r) {
        if (r->type != REDIS_REPLY_ARRAY || r->elements != 3 ||
            r->element[0]->type != REDIS_REPLY_STRING ||
            r->element[1]->type != REDIS_REPLY_STRING) {
            ++run_->n_other;
            return -1;
        }
        std::string_view kind(r->element[0]->str, r->element[0]->len);
        auto it = run_->by_channel.find(std::string(r->element[1]->str, r->element[1]->len));
        if (it == run_->by_channel.end() || (kind != "subscribe" && kind != "message")) {
            ++run_->n_other;
            return -1;
        }
        return it->second;
    }

    RenewRun *run_;
    std::string socket_;
    std::thread thread_;
    std::mutex mu_;  // guards sub_ against stop()'s shutdown
    Conn sub_, cmd_;
    std::atomic<bool> stopping_{false};
    bool complete_ = false;  // this phase's set is complete (thread only)
};

bool raw_round(const Options &opts, RedisServer &server, RenewRun &run, int round, RoundTimes *out,
               std::string *why) {
    Publisher pub(&run);
    run.pub = &pub;
    run.reset(2 * round + 5100);
    pub.start(server.socket());
    RawRenewer raw(&run);
    int64_t t0 = now_ns();
    raw.start(server.socket());
    if (!run.wait_done(opts.timeout_ms, why) || !run.check(why)) {
        *why = "initial subscriptions: " + *why;
        return false;
    }
    out->initial_ms = ms(t0, run.t_done);
    if (!restart_and_wait(opts, server, run, pub, 2 * round + 5101, out, why))
        return false;
    raw.stop();
    pub.stop();
    return true;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[(v.size() - 1) / 2];
}

}  // namespace

Figure bench_renewal(const Options &opts, RedisServer &server) {
    Figure f(4, "renewal after a reconnection");
    int n = std::min(opts.subs, kMaxSubs);
    std::printf(
        "\n[4] Renewal after a reconnection: %d value subscriptions on one context\n"
        "    (libqz_cap_ce_subscribe_g_cap_int32_thread); redis-server killed (SIGKILL) and\n"
        "    started again on the same socket. Timed from the start of the reconnect\n"
        "    callback (lib) or the reconnection (raw: hiredis, pipelined SUBSCRIBE of\n"
        "    each exact keyspace channel, HGETALLs of a batch of notifications\n"
        "    pipelined) until every\n"
        "    subscription is confirmed again and has delivered a value published after\n"
        "    its confirmation. %d rounds per side, alternating.\n",
        n, opts.renew_rounds);
    std::printf("  %-5s %-4s %10s %11s %11s %13s %13s %6s\n", "round", "side", "initial",
                "kill->ready", "kill->recon", "->confirmed", "->delivered", "other");

    RenewRun run(n, "bench/renew/");
    std::vector<double> lib_done, raw_done, lib_confirmed, raw_confirmed, lib_kill_recon;
    for (int round = 0; round < opts.renew_rounds; ++round) {
        for (int side = 0; side < 2; ++side) {
            RoundTimes t;
            std::string why;
            bool lib_side = (side + round) % 2 == 0;
            bool ok = lib_side ? lib_round(opts, server, run, round, &t, &why)
                               : raw_round(opts, server, run, round, &t, &why);
            if (!ok) {
                f.error =
                    format("round %d (%s): %s", round, lib_side ? "library" : "raw", why.c_str());
                // Later figures need a server whatever state this left it in.
                server.kill();
                if (std::string err = server.start(); !err.empty())
                    f.error += "; restarting redis-server: " + err;
                return f;
            }
            std::printf("  %-5d %-4s %7.1f ms %8.1f ms %8.1f ms %10.1f ms %10.1f ms %6d\n", round,
                        lib_side ? "lib" : "raw", t.initial_ms, t.kill_ready_ms, t.kill_recon_ms,
                        t.recon_confirm_ms, t.recon_done_ms, t.other);
            (lib_side ? lib_done : raw_done).push_back(t.recon_done_ms);
            (lib_side ? lib_confirmed : raw_confirmed).push_back(t.recon_confirm_ms);
            if (lib_side)
                lib_kill_recon.push_back(t.kill_recon_ms);
        }
    }
    std::printf(
        "  (other: callbacks or notifications that carried no new value, e.g. the record\n"
        "  gone with the old server)\n");
    auto max_of = [](const std::vector<double> &v) {
        return *std::max_element(v.begin(), v.end());
    };
    double l50 = median(lib_done), r50 = median(raw_done);
    double c50 = median(lib_confirmed), rc50 = median(raw_confirmed);
    double ratio = r50 > 0 ? l50 / r50 : 0;
    std::printf(
        "  reconnect -> all %d confirmed: library p50 %.1f ms max %.1f ms | raw p50 %.1f ms max "
        "%.1f ms\n",
        n, c50, max_of(lib_confirmed), rc50, max_of(raw_confirmed));
    std::printf(
        "  reconnect -> all %d renewed and delivered: library p50 %.1f ms max %.1f ms | raw "
        "p50 %.1f ms max %.1f ms | ratio p50 %.2fx\n",
        n, l50, max_of(lib_done), r50, max_of(raw_done), ratio);
    std::printf("  kill -> library reconnect callback: p50 %.1f ms max %.1f ms\n",
                median(lib_kill_recon), max_of(lib_kill_recon));
    f.ran_ok = true;
    f.summary = format(
        "%d subs: confirmed lib p50 %.1f ms | raw p50 %.1f ms; delivered lib p50 %.1f ms max %.1f "
        "ms | raw p50 %.1f ms max %.1f ms\n      "
        "ratio p50 %.2fx | kill->reconnect cb p50 %.0f ms",
        n, c50, rc50, l50, max_of(lib_done), r50, max_of(raw_done), ratio, median(lib_kill_recon));
    f.judge(
        format("all %d confirmed within 5 ms of the reconnect callback (p50)", n), c50 <= 5.0,
        format("lib p50 %.2f ms max %.2f ms (raw p50 %.2f ms)", c50, max_of(lib_confirmed), rc50));
    f.judge("all delivering within 2x the raw client's time (p50)", l50 <= 2 * r50,
            format("lib p50 %.1f ms, raw p50 %.1f ms: %.2fx", l50, r50, ratio));
    return f;
}

}  // namespace qzbench
