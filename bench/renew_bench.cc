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
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>

#include "figures.h"
#include "qz_mom_client.h"
#include "qz_mom_test.h"
#include "raw_redis.h"

namespace qzbench {
namespace {

constexpr int kMaxSubs = 1000;

class Publisher;

// State of one round, shared by main, the subscriber's thread and the publisher.
struct RenewRun {
    int n = 0;
    std::vector<std::string> urls, keys;
    std::unordered_map<std::string, int> by_channel;
    libqz_cap_ctrl_info_t *cb_ctx = nullptr;  // the extractor's, on the bus's thread
    Publisher *pub = nullptr;

    std::atomic<int32_t> gen{0};  // the value this phase publishes
    std::unique_ptr<std::atomic<uint8_t>[]> confirmed, delivered;
    std::atomic<int> n_confirmed{0}, n_delivered{0}, n_other{0}, n_early{0}, n_dup{0};
    std::atomic<int> n_recon{0};
    std::atomic<int64_t> subs_at_recon{-1};
    std::atomic<int64_t> t_start{0}, t_confirmed{0}, t_done{0};

    std::mutex mu;
    std::condition_variable cv;
    std::string error;

    explicit RenewRun(int count) : n(count) {
        confirmed.reset(new std::atomic<uint8_t>[static_cast<size_t>(n)]);
        delivered.reset(new std::atomic<uint8_t>[static_cast<size_t>(n)]);
        for (int i = 0; i < n; ++i) {
            char url[64];
            std::snprintf(url, sizeof url, "bench/renew/%04d", i);
            urls.emplace_back(url);
            keys.push_back(cap_key(url));
            by_channel[keyspace_channel(keys.back())] = i;
        }
    }

    // REQUIRES: no subscriber or publisher activity.
    void reset(int32_t g) {
        gen = g;
        for (int i = 0; i < n; ++i) {
            confirmed[i] = 0;
            delivered[i] = 0;
        }
        n_confirmed = n_delivered = n_other = n_early = n_dup = n_recon = 0;
        subs_at_recon = -1;
        t_start = t_confirmed = t_done = 0;
    }

    void on_confirmed(int i);

    // True for the delivery that completes the set.
    bool on_value(int i, int32_t v) {
        int64_t t = now_ns();
        if (v != gen) {
            ++n_other;
            return false;
        }
        // The value is published only after the confirmation: anything else
        // would mean the measurement is wrong.
        if (confirmed[i] == 0)
            ++n_early;
        if (delivered[i].exchange(1) != 0) {
            ++n_dup;
            return false;
        }
        if (++n_delivered != n)
            return false;
        // Waiters look at t_done, not the count: the stamp must be in place first.
        t_done = t;
        std::lock_guard<std::mutex> lk(mu);
        cv.notify_all();
        return true;
    }

    void fail(const std::string &why) {
        std::lock_guard<std::mutex> lk(mu);
        if (error.empty())
            error = why;
        cv.notify_all();
    }

    bool wait_done(int ms, std::string *why) {
        std::unique_lock<std::mutex> lk(mu);
        bool done = cv.wait_for(lk, std::chrono::milliseconds(ms),
                                [&] { return t_done != 0 || !error.empty(); });
        if (!error.empty()) {
            *why = error;
            return false;
        }
        if (!done) {
            *why = format("after %d ms: %d of %d confirmed, %d of %d delivered a new value", ms,
                          n_confirmed.load(), n, n_delivered.load(), n);
            return false;
        }
        return true;
    }

    // Everything a finished phase must show; *why names the first miss.
    bool check(std::string *why) {
        if (n_confirmed != n || n_delivered != n || n_dup != 0 || n_early != 0) {
            *why = format(
                "%d/%d confirmed, %d/%d delivered, %d duplicates, %d deliveries "
                "before their confirmation",
                n_confirmed.load(), n, n_delivered.load(), n, n_dup.load(), n_early.load());
            return false;
        }
        return true;
    }
};

// Writes each subscription's new value once it is confirmed, on its own
// connection, pipelining whatever has queued up meanwhile.
class Publisher {
  public:
    explicit Publisher(RenewRun *run) : run_(run) {}
    ~Publisher() { stop(); }

    bool start(const std::string &socket, std::string *why) {
        conn_ = connect_unix(socket, why);
        if (!conn_)
            return false;
        stopping_ = false;
        thread_ = std::thread([this] { loop(); });
        return true;
    }

    void push(int i) {
        std::lock_guard<std::mutex> lk(mu_);
        queue_.push_back(i);
        cv_.notify_one();
    }

    void stop() {
        if (!thread_.joinable())
            return;
        {
            std::lock_guard<std::mutex> lk(mu_);
            stopping_ = true;
            cv_.notify_one();
        }
        thread_.join();
        conn_.reset();
    }

  private:
    void loop() {
        std::deque<int> batch;
        for (;;) {
            {
                std::unique_lock<std::mutex> lk(mu_);
                cv_.wait(lk, [&] { return stopping_ || !queue_.empty(); });
                if (stopping_)
                    return;
                batch.swap(queue_);
            }
            int32_t g = run_->gen;
            for (int i : batch) {
                const std::string &k = run_->keys[static_cast<size_t>(i)];
                redisAppendCommand(conn_.get(), "HSET %b 7 %d", k.data(), k.size(), g);
            }
            for (size_t j = 0; j < batch.size(); ++j) {
                void *rv = nullptr;
                if (redisGetReply(conn_.get(), &rv) != REDIS_OK) {
                    run_->fail(std::string("publisher: ") + conn_->errstr);
                    return;
                }
                Reply r(static_cast<redisReply *>(rv));
                if (r->type != REDIS_REPLY_INTEGER) {
                    run_->fail("publisher: HSET answered something other than an integer");
                    return;
                }
            }
            batch.clear();
        }
    }

    RenewRun *run_;
    Conn conn_;
    std::thread thread_;
    std::mutex mu_;
    std::condition_variable cv_;
    std::deque<int> queue_;
    bool stopping_ = false;
};

void RenewRun::on_confirmed(int i) {
    if (confirmed[i].exchange(1) != 0) {
        ++n_dup;
        return;
    }
    if (++n_confirmed == n)
        t_confirmed = now_ns();
    pub->push(i);
}

// ---- The library side ----------------------------------------------------

RenewRun *g_run = nullptr;  // the round in progress; read by the callbacks

int32_t on_lib_event(int i, qz_mom_pmsg_t *pmsg) {
    RenewRun *run = g_run;
    if (run == nullptr || i >= run->n)
        return 0;
    if (pmsg->cmd == QZ_MOM_CMD_SUBSCRIBED) {
        run->on_confirmed(i);
        return 0;
    }
    // A deletion (the record gone with the old server) has no value to take out.
    if (pmsg->cmd == QZ_MOM_CMD_DELETED) {
        ++run->n_other;
        return 0;
    }
    char url[256] = "";
    int32_t v = 0;
    uint32_t len = 0;
    if (libqz_cap_ce_get_g_cap_int32_by_pmsg_thread(pmsg, sizeof url, url, run->cb_ctx, &v, &len) !=
        0) {
        run->fail(format("callback %d: cmd %d without a value", i, pmsg->cmd));
        return 0;
    }
    if (run->urls[static_cast<size_t>(i)] != url) {
        run->fail(format("callback %d got the record of '%s'", i, url));
        return 0;
    }
    run->on_value(i, v);
    return 0;
}

template <int I>
int32_t renew_cb(void *, qz_mom_pmsg_t *pmsg, void *) {
    return on_lib_event(I, pmsg);
}

template <int... I>
constexpr std::array<libqz_cap_value_cb, sizeof...(I)> make_cbs(std::integer_sequence<int, I...>) {
    return {&renew_cb<I>...};
}
constexpr std::array<libqz_cap_value_cb, kMaxSubs> kRenewCbs =
    make_cbs(std::make_integer_sequence<int, kMaxSubs>{});

// Registered before libqz_cap_init_thread on the same handle, so it runs
// first: it stamps the start of the library's reconnect callback.
int32_t bench_recon_cb(void *global, int32_t, int32_t, void *user) {
    auto *run = static_cast<RenewRun *>(user);
    int64_t t = now_ns();
    // Proof of the order: nothing is renewed yet when this runs.
    run->subs_at_recon = qz_mom_test_subscription_count(global);
    run->t_start = t;
    ++run->n_recon;
    return 0;
}

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

bool lib_round(const Options &opts, RedisServer &server, RenewRun &run, int round, RoundTimes *out,
               std::string *why) {
    Publisher pub(&run);
    run.pub = &pub;
    run.cb_ctx = libqz_cap_ctrl_info_init();
    struct CtxFree {
        libqz_cap_ctrl_info_t *c;
        ~CtxFree() { libqz_cap_ctrl_info_free(c); }
    } cb_ctx{run.cb_ctx};
    g_run = &run;
    struct Clear {
        ~Clear() { g_run = nullptr; }
    } clear_after_handle;  // runs after the handle below is gone
    LibClient lib;
    if (run.cb_ctx == nullptr ||
        !lib.open("unix:" + server.socket_path(), why, bench_recon_cb, &run))
        return false;

    run.reset(2 * round + 100);
    if (!pub.start(server.socket_path(), why))
        return false;
    int64_t t0 = now_ns();
    for (int i = 0; i < run.n; ++i) {
        int32_t rc = libqz_cap_ce_subscribe_g_cap_int32_thread(
            lib.global, run.urls[static_cast<size_t>(i)].c_str(), kRenewCbs[static_cast<size_t>(i)],
            lib.ctx);
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
    pub.stop();

    run.reset(2 * round + 101);
    int64_t t_kill = now_ns(), t_ready = 0;
    if (!server.kill_hard(why) || !server.start(why, &t_ready) ||
        !pub.start(server.socket_path(), why))
        return false;
    // The client's back-off is capped at 1 s; allow for it on top.
    if (!run.wait_done(opts.timeout_ms + 2000, why) || !run.check(why)) {
        *why = "after the restart: " + *why;
        return false;
    }
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
    out->kill_ready_ms = ms(t_kill, t_ready);
    out->kill_recon_ms = ms(t_kill, run.t_start);
    out->recon_confirm_ms = ms(run.t_start, run.t_confirmed);
    out->recon_done_ms = ms(run.t_start, run.t_done);
    out->other = run.n_other;
    pub.stop();
    return true;
}

// ---- The raw side ----------------------------------------------------------

// A raw client doing the same job: on (re)connection SUBSCRIBE every exact
// keyspace channel (pipelined), and on each notification HGETALL the hash.
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
                timeval none = {0, 0};
                redisSetTimeout(s.get(), none);
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

    // Handles one reply of the subscribed connection; false when it is lost.
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
        Reply r(static_cast<redisReply *>(rv));
        if (r->type != REDIS_REPLY_ARRAY || r->elements != 3 ||
            r->element[0]->type != REDIS_REPLY_STRING ||
            r->element[1]->type != REDIS_REPLY_STRING || idle) {
            ++run_->n_other;
            return true;
        }
        std::string_view kind(r->element[0]->str, r->element[0]->len);
        auto it = run_->by_channel.find(std::string(r->element[1]->str, r->element[1]->len));
        if (it == run_->by_channel.end()) {
            ++run_->n_other;
            return true;
        }
        int i = it->second;
        if (kind == "subscribe") {
            run_->on_confirmed(i);
        } else if (kind == "message") {
            const std::string &k = run_->keys[static_cast<size_t>(i)];
            Reply h(static_cast<redisReply *>(
                redisCommand(cmd_.get(), "HGETALL %b", k.data(), k.size())));
            std::string_view val;
            if (!hash_field(h.get(), "7", &val)) {
                ++run_->n_other;
                return true;
            }
            complete_ = run_->on_value(
                i, static_cast<int32_t>(std::strtol(std::string(val).c_str(), nullptr, 10)));
        }
        return true;
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
    if (!pub.start(server.socket_path(), why))
        return false;
    RawRenewer raw(&run);
    int64_t t0 = now_ns();
    raw.start(server.socket_path());
    if (!run.wait_done(opts.timeout_ms, why) || !run.check(why)) {
        *why = "initial subscriptions: " + *why;
        return false;
    }
    out->initial_ms = ms(t0, run.t_done);
    pub.stop();

    run.reset(2 * round + 5101);
    int64_t t_kill = now_ns(), t_ready = 0;
    if (!server.kill_hard(why) || !server.start(why, &t_ready) ||
        !pub.start(server.socket_path(), why))
        return false;
    if (!run.wait_done(opts.timeout_ms + 2000, why) || !run.check(why)) {
        *why = "after the restart: " + *why;
        return false;
    }
    out->kill_ready_ms = ms(t_kill, t_ready);
    out->kill_recon_ms = ms(t_kill, run.t_start);
    out->recon_confirm_ms = ms(run.t_start, run.t_confirmed);
    out->recon_done_ms = ms(run.t_start, run.t_done);
    out->other = run.n_other;
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
    Figure f;
    f.number = 4;
    f.title = "renewal after a reconnection";
    f.target = "library p50 < 250 ms";
    int n = std::min(opts.subs, kMaxSubs);
    std::printf(
        "\n[4] Renewal after a reconnection: %d value subscriptions on one context\n"
        "    (libqz_cap_ce_subscribe_g_cap_int32_thread); redis-server killed (SIGKILL) and\n"
        "    started again on the same socket. Timed from the start of the reconnect\n"
        "    callback (lib) or the reconnection (raw: hiredis, pipelined SUBSCRIBE of\n"
        "    each exact keyspace channel, HGETALL per notification) until every\n"
        "    subscription is confirmed again and has delivered a value published after\n"
        "    its confirmation. %d rounds per side, alternating.\n",
        n, opts.renew_rounds);
    std::printf("  %-5s %-4s %10s %11s %11s %13s %13s %6s\n", "round", "side", "initial",
                "kill->ready", "kill->recon", "->confirmed", "->delivered", "other");

    RenewRun run(n);
    std::vector<double> lib_done, raw_done, lib_kill_recon;
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
                std::string ignored;
                server.kill_hard(&ignored);
                server.start(&ignored);
                return f;
            }
            std::printf("  %-5d %-4s %7.1f ms %8.1f ms %8.1f ms %10.1f ms %10.1f ms %6d\n", round,
                        lib_side ? "lib" : "raw", t.initial_ms, t.kill_ready_ms, t.kill_recon_ms,
                        t.recon_confirm_ms, t.recon_done_ms, t.other);
            (lib_side ? lib_done : raw_done).push_back(t.recon_done_ms);
            if (lib_side)
                lib_kill_recon.push_back(t.kill_recon_ms);
        }
    }
    std::printf(
        "  (other: callbacks or notifications that carried no new value, e.g. the record\n"
        "  gone with the old server)\n");
    double l50 = median(lib_done), r50 = median(raw_done);
    double lmax = *std::max_element(lib_done.begin(), lib_done.end());
    double rmax = *std::max_element(raw_done.begin(), raw_done.end());
    double ratio = r50 > 0 ? l50 / r50 : 0;
    std::printf(
        "  reconnect -> all %d renewed and delivered: library p50 %.1f ms max %.1f ms | raw "
        "p50 %.1f ms max %.1f ms | ratio p50 %.2fx\n",
        n, l50, lmax, r50, rmax, ratio);
    std::printf("  kill -> library reconnect callback: p50 %.1f ms max %.1f ms\n",
                median(lib_kill_recon),
                *std::max_element(lib_kill_recon.begin(), lib_kill_recon.end()));
    f.ran_ok = true;
    f.target_met = l50 < 250.0;
    f.summary = format(
        "%d subs: lib p50 %.1f ms max %.1f ms | raw p50 %.1f ms max %.1f ms | "
        "ratio p50 %.2fx | kill->reconnect cb p50 %.0f ms",
        n, l50, lmax, r50, rmax, ratio, median(lib_kill_recon));
    return f;
}

}  // namespace qzbench
