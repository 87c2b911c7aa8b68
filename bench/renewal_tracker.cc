#include "renewal_tracker.h"

#include <chrono>
#include <cstdio>

#include "qz_mom_test.h"

namespace qzbench {

RenewRun::RenewRun(int count, const std::string &url_prefix)
    : n(count), cb_ctx(libqz_cap_ctrl_info_init()) {
    confirmed.reset(new std::atomic<uint8_t>[static_cast<size_t>(n)]);
    delivered.reset(new std::atomic<uint8_t>[static_cast<size_t>(n)]);
    for (int i = 0; i < n; ++i) {
        urls.push_back(url_prefix + format("%04d", i));
        keys.push_back(cap_key(urls.back()));
        by_channel[keyspace_channel(keys.back())] = i;
    }
}

void RenewRun::reset(int32_t g) {
    gen = g;
    for (int i = 0; i < n; ++i) {
        confirmed[i] = 0;
        delivered[i] = 0;
    }
    n_confirmed = n_delivered = n_other = n_early = n_dup = n_recon = 0;
    subs_at_recon = -1;
    t_start = t_confirmed = t_done = 0;
}

void RenewRun::on_confirmed(int i) {
    if (confirmed[i].exchange(1) != 0) {
        ++n_dup;
        return;
    }
    if (++n_confirmed == n)
        t_confirmed = now_ns();
    pub->push(i);
}

bool RenewRun::on_value(int i, int32_t v) {
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

void RenewRun::on_lib_event(int i, qz_mom_pmsg_t *pmsg) {
    if (i < 0 || i >= n)
        return;
    if (pmsg->cmd == QZ_MOM_CMD_SUBSCRIBED) {
        on_confirmed(i);
        return;
    }
    // A deletion (the record gone with the old server) has no value to take out.
    if (pmsg->cmd == QZ_MOM_CMD_DELETED) {
        ++n_other;
        return;
    }
    char url[256] = "";
    int32_t v = 0;
    uint32_t len = 0;
    if (libqz_cap_ce_get_g_cap_int32_by_pmsg_thread(pmsg, sizeof url, url, cb_ctx.get(), &v,
                                                    &len) != 0) {
        fail(format("callback %d: cmd %d without a value", i, pmsg->cmd));
        return;
    }
    if (urls[static_cast<size_t>(i)] != url) {
        fail(format("callback %d got the record of '%s'", i, url));
        return;
    }
    on_value(i, v);
}

void RenewRun::fail(const std::string &why) {
    std::lock_guard<std::mutex> lk(mu);
    if (error.empty())
        error = why;
    cv.notify_all();
}

bool RenewRun::wait_done(int ms, std::string *why) {
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

bool RenewRun::check(std::string *why) {
    if (n_confirmed != n || n_delivered != n || n_dup != 0 || n_early != 0) {
        *why = format(
            "%d/%d confirmed, %d/%d delivered, %d duplicates, %d deliveries "
            "before their confirmation",
            n_confirmed.load(), n, n_delivered.load(), n, n_dup.load(), n_early.load());
        return false;
    }
    return true;
}

int32_t stamp_reconnect(void *global, int32_t, int32_t, void *user) {
    auto *run = static_cast<RenewRun *>(user);
    int64_t t = now_ns();
    run->subs_at_recon = qz_mom_test_subscription_count(global);
    run->t_start = t;
    ++run->n_recon;
    return 0;
}

void Publisher::start(const std::string &socket) {
    socket_ = socket;
    stopping_ = false;
    thread_ = std::thread([this] { loop(); });
}

void Publisher::push(int i) {
    std::lock_guard<std::mutex> lk(mu_);
    queue_.push_back(i);
    cv_.notify_one();
}

void Publisher::stop() {
    if (!thread_.joinable())
        return;
    {
        std::lock_guard<std::mutex> lk(mu_);
        stopping_ = true;
        cv_.notify_one();
    }
    thread_.join();
    conn_.reset();
    queue_.clear();
}

void Publisher::loop() {
    std::deque<int> batch;
    for (;;) {
        {
            std::unique_lock<std::mutex> lk(mu_);
            cv_.wait(lk, [&] { return stopping_ || !queue_.empty(); });
            if (stopping_)
                return;
            batch.swap(queue_);
        }
        if (!write(batch))
            return;
        batch.clear();
    }
}

bool Publisher::write(const std::deque<int> &batch) {
    if (!conn_) {
        std::string why;
        conn_ = connect_unix(socket_, &why);
        if (!conn_) {
            run_->fail("publisher: " + why);
            return false;
        }
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
            return false;
        }
        Reply r(static_cast<redisReply *>(rv));
        if (r->type != REDIS_REPLY_INTEGER) {
            run_->fail("publisher: HSET answered something other than an integer");
            return false;
        }
    }
    return true;
}

}  // namespace qzbench
