// Publish-to-callback latency of a field subscription: the library's value
// subscription against a raw subscriber that reads the hash on each
// keyspace notification. The publisher is raw HSET on its own connection for
// both; each side watches its own key (same shape), so neither side's
// subscriber does the other's work.
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>

#include "figures.h"
#include "qz_mom_client.h"
#include "qz_mom_test.h"
#include "raw_redis.h"

namespace qzbench {
namespace {

// One expected delivery at a time: the publisher arms it, the subscriber's
// thread stamps it.
class Waiter {
  public:
    void arm(uint64_t seq, int expected) {
        std::lock_guard<std::mutex> lk(mu_);
        armed_ = seq;
        expected_ = expected;
    }

    // From the subscriber's thread, with the value it saw and when.
    void deliver(int value, int64_t t) {
        std::lock_guard<std::mutex> lk(mu_);
        ++deliveries_;
        if (armed_ != done_ && value == expected_) {
            stamp_ = t;
            done_ = armed_;
            cv_.notify_all();
        } else {
            ++unexpected_;
        }
    }

    void fail(const std::string &why) {
        std::lock_guard<std::mutex> lk(mu_);
        if (error_.empty())
            error_ = why;
        cv_.notify_all();
    }

    void confirmed() {
        std::lock_guard<std::mutex> lk(mu_);
        ++confirmations_;
        cv_.notify_all();
    }

    bool wait_confirmed(int ms) {
        std::unique_lock<std::mutex> lk(mu_);
        return cv_.wait_for(lk, std::chrono::milliseconds(ms), [&] { return confirmations_ > 0; });
    }

    bool wait(uint64_t seq, int ms, int64_t *stamp, std::string *why) {
        std::unique_lock<std::mutex> lk(mu_);
        bool got = cv_.wait_for(lk, std::chrono::milliseconds(ms),
                                [&] { return done_ == seq || !error_.empty(); });
        if (!error_.empty()) {
            *why = error_;
            return false;
        }
        if (!got) {
            *why = format("no callback within %d ms for publication %llu", ms,
                          static_cast<unsigned long long>(seq));
            return false;
        }
        *stamp = stamp_;
        return true;
    }

    uint64_t deliveries() {
        std::lock_guard<std::mutex> lk(mu_);
        return deliveries_;
    }
    uint64_t unexpected() {
        std::lock_guard<std::mutex> lk(mu_);
        return unexpected_;
    }
    int confirmations() {
        std::lock_guard<std::mutex> lk(mu_);
        return confirmations_;
    }

  private:
    std::mutex mu_;
    std::condition_variable cv_;
    uint64_t armed_ = 0, done_ = 0;
    int expected_ = -1;
    int64_t stamp_ = 0;
    uint64_t deliveries_ = 0, unexpected_ = 0;
    int confirmations_ = 0;
    std::string error_;
};

struct LibProbe {
    Waiter waiter;
    libqz_cap_ctrl_info_t *ctx = nullptr;  // used only by the extractor, on the bus's thread
    std::string url;
};

// What an application's value callback does: take URL and value out.
int32_t lib_push_cb(void *, qz_mom_pmsg *pmsg, void *arg) {
    auto *p = static_cast<LibProbe *>(arg);
    if (pmsg->cmd == QZ_MOM_CMD_SUBSCRIBED) {
        p->waiter.confirmed();
        return 0;
    }
    char url[256] = "";
    bool v = false;
    uint32_t len = 0;
    int32_t rc =
        libqz_cap_ce_get_g_cap_bool_by_pmsg_thread(pmsg, sizeof url, url, p->ctx, &v, &len);
    int64_t t = now_ns();
    if (rc != 0 || p->url != url) {
        p->waiter.fail(
            format("library callback: cmd %d, extractor %d, url '%s'", pmsg->cmd, rc, url));
        return 0;
    }
    p->waiter.deliver(v ? 1 : 0, t);
    return 0;
}

// The baseline subscriber: SUBSCRIBE to the key's keyspace channel; on each
// notification HGETALL the hash on a second connection (a subscribed
// connection takes no other command).
class RawSubscriber {
  public:
    ~RawSubscriber() { stop(); }

    bool start(const std::string &socket, const std::string &key, Waiter *w, std::string *why) {
        key_ = key;
        waiter_ = w;
        sub_ = connect_unix(socket, why);
        cmd_ = connect_unix(socket, why);
        if (!sub_ || !cmd_)
            return false;
        std::string ch = keyspace_channel(key);
        if (!command(sub_.get(), why, "SUBSCRIBE %b", ch.data(), ch.size()))
            return false;
        // Idle between its blocks; stop() ends the wait.
        timeval none = {0, 0};
        redisSetTimeout(sub_.get(), none);
        thread_ = std::thread([this] { run(); });
        return true;
    }

    void stop() {
        if (!thread_.joinable())
            return;
        stopping_ = true;
        shutdown(sub_->fd, SHUT_RDWR);
        thread_.join();
    }

  private:
    void run() {
        for (;;) {
            void *rv = nullptr;
            if (redisGetReply(sub_.get(), &rv) != REDIS_OK) {
                if (!stopping_)
                    waiter_->fail(std::string("raw subscriber: ") + sub_->errstr);
                return;
            }
            Reply msg(static_cast<redisReply *>(rv));
            if (msg->type != REDIS_REPLY_ARRAY || msg->elements != 3)
                continue;
            auto *r = static_cast<redisReply *>(
                redisCommand(cmd_.get(), "HGETALL %b", key_.data(), key_.size()));
            std::string_view val;
            bool found = hash_field(r, "6", &val);
            int v = found && val != "0" ? 1 : 0;
            freeReplyObject(r);
            int64_t t = now_ns();
            if (!found) {
                waiter_->fail("raw subscriber: field 6 absent");
                return;
            }
            waiter_->deliver(v, t);
        }
    }

    std::string key_;
    Waiter *waiter_ = nullptr;
    Conn sub_, cmd_;
    std::thread thread_;
    std::atomic<bool> stopping_{false};
};

// One side: HSET flips field 6, then waits for its subscriber.
class PushSide {
  public:
    PushSide(redisContext *pub, std::string key, Waiter *w, int timeout_ms)
        : pub_(pub), key_(std::move(key)), w_(w), timeout_ms_(timeout_ms) {}

    bool op(int64_t *ns, std::string *why) {
        ++seq_;
        int v = static_cast<int>(seq_ & 1);  // the record starts at 0: every write changes it
        w_->arm(seq_, v);
        int64_t t0 = now_ns();
        auto *r = static_cast<redisReply *>(
            redisCommand(pub_, "HSET %b 6 %d", key_.data(), key_.size(), v));
        bool ok = r != nullptr && r->type == REDIS_REPLY_INTEGER;
        freeReplyObject(r);
        if (!ok) {
            *why = "publisher HSET failed";
            return false;
        }
        int64_t stamp = 0;
        if (!w_->wait(seq_, timeout_ms_, &stamp, why))
            return false;
        *ns = stamp - t0;
        return true;
    }
    uint64_t published() const { return seq_; }

  private:
    redisContext *pub_;
    std::string key_;
    Waiter *w_;
    int timeout_ms_;
    uint64_t seq_ = 0;
};

}  // namespace

Figure bench_push(const Options &opts, RedisServer &server) {
    Figure f;
    f.number = 3;
    f.title = "publish-to-callback latency of a field subscription";
    f.target = "paired p50 ratio <= 1.10";
    std::printf(
        "\n[3] Publish-to-callback latency of a field subscription; publisher: hiredis HSET\n"
        "    on its own connection, timed from just before the HSET\n"
        "    lib: libqz_cap_ce_subscribe_g_cap_bool_ext_thread, stamped in the callback\n"
        "         after the value is extracted\n"
        "    raw: hiredis SUBSCRIBE to the key's keyspace channel, HGETALL on each\n"
        "         notification, stamped when the reply is parsed\n"
        "    %d blocks x %d ops per side, alternating\n",
        opts.blocks, opts.ops);

    const std::string lib_url = "bench/push/lib", raw_url = "bench/push/raw";
    const std::string lib_key = cap_key(lib_url), raw_key = cap_key(raw_url);
    std::string why;
    Conn pub = connect_unix(server.socket_path(), &why);
    if (!pub || !put_cap_record(pub.get(), lib_key, "6", "0", &why) ||
        !put_cap_record(pub.get(), raw_key, "6", "0", &why)) {
        f.error = "publishing the records: " + why;
        return f;
    }

    // Declared before the client: the handle (and its callbacks) go first.
    LibProbe probe;
    probe.url = lib_url;
    probe.ctx = libqz_cap_ctrl_info_init();
    struct CtxFree {
        libqz_cap_ctrl_info_t *c;
        ~CtxFree() { libqz_cap_ctrl_info_free(c); }
    } probe_ctx{probe.ctx};
    if (probe.ctx == nullptr) {
        f.error = "libqz_cap_ctrl_info_init returned NULL";
        return f;
    }
    LibClient lib;
    if (!lib.open("unix:" + server.socket_path(), &why)) {
        f.error = why;
        return f;
    }
    int32_t rc = libqz_cap_ce_subscribe_g_cap_bool_ext_thread(lib.global, lib_url.c_str(),
                                                              lib_push_cb, &probe, lib.ctx);
    if (rc != 0 || !probe.waiter.wait_confirmed(opts.timeout_ms)) {
        f.error = rc != 0 ? format("libqz_cap_ce_subscribe_g_cap_bool_ext_thread: %d", rc)
                          : "the library subscription was never confirmed (no cmd 29)";
        return f;
    }

    Waiter raw_waiter;
    RawSubscriber raw_sub;
    if (!raw_sub.start(server.socket_path(), raw_key, &raw_waiter, &why)) {
        f.error = "raw subscriber: " + why;
        return f;
    }

    PushSide lib_side(pub.get(), lib_key, &probe.waiter, opts.timeout_ms);
    PushSide raw_side(pub.get(), raw_key, &raw_waiter, opts.timeout_ms);
    Op lib_op = [&](int64_t *ns, std::string *err) { return lib_side.op(ns, err); };
    Op raw_op = [&](int64_t *ns, std::string *err) { return raw_side.op(ns, err); };
    Comparison c = run_blocks(opts, "lib", lib_op, "raw", raw_op, 1000.0, "us");

    // Every publication must have produced exactly one callback: give a late
    // duplicate the time to show up before counting.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    qz_mom_test_drain(lib.global);
    raw_sub.stop();
    if (!c.ok) {
        f.error = c.error;
        return f;
    }
    if (probe.waiter.deliveries() != lib_side.published() || probe.waiter.unexpected() != 0 ||
        probe.waiter.confirmations() != 1) {
        f.error = format(
            "library: %llu publications, %llu callbacks (%llu unexpected), %d "
            "confirmations",
            static_cast<unsigned long long>(lib_side.published()),
            static_cast<unsigned long long>(probe.waiter.deliveries()),
            static_cast<unsigned long long>(probe.waiter.unexpected()),
            probe.waiter.confirmations());
        return f;
    }
    if (raw_waiter.deliveries() != raw_side.published() || raw_waiter.unexpected() != 0) {
        f.error = format("raw: %llu publications, %llu notifications (%llu unexpected)",
                         static_cast<unsigned long long>(raw_side.published()),
                         static_cast<unsigned long long>(raw_waiter.deliveries()),
                         static_cast<unsigned long long>(raw_waiter.unexpected()));
        return f;
    }
    std::printf("    every publication gave exactly one callback (library %llu, raw %llu)\n",
                static_cast<unsigned long long>(lib_side.published()),
                static_cast<unsigned long long>(raw_side.published()));
    Ratios r = print_overall(c, "lib", "raw", 1000.0, "us");
    f.ran_ok = true;
    f.target_met = r.paired_p50 <= 1.10;
    f.summary = format(
        "lib p50 %.1f us p99 %.1f us | raw p50 %.1f us p99 %.1f us\n      ratio p50 %.2fx "
        "p99 %.2fx pooled; p50 %.2fx p99 %.2fx paired",
        percentile(c.lib.all, 0.5) / 1e3, percentile(c.lib.all, 0.99) / 1e3,
        percentile(c.raw.all, 0.5) / 1e3, percentile(c.raw.all, 0.99) / 1e3, r.pooled_p50,
        r.pooled_p99, r.paired_p50, r.paired_p99);
    return f;
}

}  // namespace qzbench
