// A push through one field subscription, timed from just before the
// publisher's HSET to the subscriber's callback: the probe of benchmarks 3
// and 5.
#ifndef QZCAP_BENCH_PUSH_PROBE_H
#define QZCAP_BENCH_PUSH_PROBE_H

#include <hiredis/hiredis.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

#include "figures.h"

namespace qzbench {

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

// The library's side: a bool value subscription whose callback stamps each
// delivery after the value is extracted.
struct LibProbe {
    Waiter waiter;
    CtxPtr ctx{libqz_cap_ctrl_info_init()};  // used only by the extractor, on the bus's thread
    std::string url;

    // Subscribes on lib and waits for the confirmation.
    bool subscribe(LibClient &lib, int timeout_ms, std::string *why);
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

}  // namespace qzbench

#endif  // QZCAP_BENCH_PUSH_PROBE_H
