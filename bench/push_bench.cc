// Publish-to-callback latency of a field subscription: the library's value
// subscription against a raw subscriber that reads the hash on each
// keyspace notification. The publisher is raw HSET on its own connection for
// both; each side watches its own key (same shape), so neither side's
// subscriber does the other's work.
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "figures.h"
#include "push_probe.h"
#include "qz_mom_test.h"
#include "raw_redis.h"

namespace qzbench {
namespace {

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
        qztest::set_reply_timeout(sub_.get(), {});
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

}  // namespace

Figure bench_push(const Options &opts, RedisServer &server) {
    Figure f(3, "publish-to-callback latency of a field subscription");
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
    Conn pub = connect_unix(server.socket(), &why);
    if (!pub || !put_cap_record(pub.get(), lib_key, "6", "0", &why) ||
        !put_cap_record(pub.get(), raw_key, "6", "0", &why)) {
        f.error = "publishing the records: " + why;
        return f;
    }

    // Declared before the client: the handle (and its callbacks) go first.
    LibProbe probe;
    probe.url = lib_url;
    LibClient lib;
    if (!lib.open("unix:" + server.socket(), &why) ||
        !probe.subscribe(lib, opts.timeout_ms, &why)) {
        f.error = why;
        return f;
    }

    Waiter raw_waiter;
    RawSubscriber raw_sub;
    if (!raw_sub.start(server.socket(), raw_key, &raw_waiter, &why)) {
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
    judge_paired_p50(&f, c, print_overall(c, "lib", "raw", 1000.0, "us"), 1.10);
    return f;
}

}  // namespace qzbench
