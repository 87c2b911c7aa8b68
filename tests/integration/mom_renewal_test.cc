// Renewal as the library does it: from the reconnect callback, one subscribe
// call after another, none waiting for its own confirmation. Each renewed
// subscription still gets its 29 once it is in place, in the order of the
// calls, and loses no change; a server killed while the confirmations come
// in leaves nothing half-renewed.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "mom_redis_server.h"
#include "mom_test_util.h"

namespace momtest {
namespace {

// Many field subscriptions, one per record, each with its own argument, as
// the library's registry holds them.
struct Registry {
    struct Slot {
        Registry *reg = nullptr;
        int index = 0;
    };
    struct Seen {
        int index;
        int32_t cmd;
        int32_t value;  // of a change; INT32_MIN without a record
    };

    explicit Registry(int n, const char *prefix) : slots(static_cast<size_t>(n)) {
        for (int i = 0; i < n; ++i) {
            char url[256];
            std::snprintf(url, sizeof url, "%s/%05d", prefix, i);
            urls.emplace_back(url);
            slots[static_cast<size_t>(i)] = Slot{this, i};
        }
    }

    static int32_t cb(void *, qz_mom_pmsg_t *pmsg, void *arg) {
        auto *slot = static_cast<Slot *>(arg);
        int32_t value = INT32_MIN;
        if (pmsg->result != nullptr && pmsg->result->view != nullptr)
            value = static_cast<PLibpub__CapTable *>(pmsg->result->view)->int32_value;
        Registry *reg = slot->reg;
        if (pmsg->cmd == QZ_MOM_CMD_SUBSCRIBED && reg->on_confirm)
            reg->on_confirm(slot->index);
        std::lock_guard<std::mutex> lk(reg->mu);
        reg->seen.push_back(Seen{slot->index, pmsg->cmd, value});
        reg->cv.notify_all();
        return 0;
    }

    // One subscribe call per record, in order; after_each runs right after
    // each call has returned.
    void subscribe_all(void *global, const std::function<void(int)> &after_each = nullptr) {
        for (size_t i = 0; i < urls.size(); ++i) {
            CapTable k(urls[i]);
            int32_t f = 7;
            qz_mom_record_cb cb_ = cb;
            void *arg = &slots[i];
            EXPECT_EQ(qz_mom_subscribe_field(global, kDb, k.msg(), 1, &f, &cb_, &arg, 1), 0) << i;
            if (after_each)
                after_each(static_cast<int>(i));
        }
    }

    // Waits until pred(seen) holds; false after `within`.
    bool wait(const std::function<bool(const std::vector<Seen> &)> &pred,
              std::chrono::milliseconds within = std::chrono::milliseconds(10000)) {
        std::unique_lock<std::mutex> lk(mu);
        return cv.wait_for(lk, within, [&] { return pred(seen); });
    }
    std::vector<Seen> take() {
        std::lock_guard<std::mutex> lk(mu);
        std::vector<Seen> out;
        out.swap(seen);
        return out;
    }
    static size_t count(const std::vector<Seen> &s, int32_t cmd) {
        size_t n = 0;
        for (const Seen &e : s)
            n += e.cmd == cmd;
        return n;
    }

    std::vector<std::string> urls;
    std::vector<Slot> slots;
    std::function<void(int index)> on_confirm;  // on the delivery thread, before recording
    std::mutex mu;
    std::condition_variable cv;
    std::vector<Seen> seen;
};

// Writes base + k to record k of reg, as an operator would, pipelined.
void write_all(const RedisServer &server, const Registry &reg, int32_t base) {
    RedisPtr op = server.client();
    ASSERT_NE(op, nullptr);
    for (size_t k = 0; k < reg.urls.size(); ++k) {
        const std::string key = "p_libpub.cap_table|" + reg.urls[k];
        redisAppendCommand(op.get(), "HSET %b 7 %d", key.data(), key.size(),
                           base + static_cast<int32_t>(k));
    }
    for (size_t k = 0; k < reg.urls.size(); ++k) {
        void *r = nullptr;
        ASSERT_EQ(redisGetReply(op.get(), &r), REDIS_OK);
        ReplyPtr owned(static_cast<redisReply *>(r));
        ASSERT_EQ(owned->type, REDIS_REPLY_INTEGER);
    }
}

// Writes base + k to every record k and expects each subscriber of app to
// get exactly that change, once.
void each_delivers_a_change(const RedisServer &server, Registry &reg, void *app, int32_t base) {
    const size_t n = reg.urls.size();
    ASSERT_NO_FATAL_FAILURE(write_all(server, reg, base));
    ASSERT_TRUE(reg.wait([&](const auto &s) { return s.size() >= n; }));
    qz_mom_test_drain(app);
    std::vector<int> delivered(n, 0);
    for (const Registry::Seen &e : reg.take()) {
        ASSERT_EQ(e.cmd, QZ_MOM_CMD_CHANGED);
        EXPECT_EQ(e.value, base + e.index);
        ++delivered[static_cast<size_t>(e.index)];
    }
    for (size_t k = 0; k < n; ++k)
        EXPECT_EQ(delivered[k], 1) << k;
}

std::function<void(void *)> *g_renew;
int32_t renew_cb(void *global, int32_t, int32_t, void *) {
    (*g_renew)(global);
    return 0;
}

class MomRenewal : public MomFixture {
  protected:
    void TearDown() override {
        MomFixture::TearDown();
        g_renew = nullptr;
    }
    void set_int(const std::string &url, int32_t v) {
        CapTable k(url);
        k.rec.int32_value = v;
        write(k.msg(), {7});
    }
};

// A change written right after a renewing call returned, before the server
// has confirmed it, is delivered after that subscription's 29, and the 29s
// come in the order of the calls.
TEST_P(MomRenewal, RenewalsConfirmInCallOrderAndDeliverChangesMadeBeforeTheirConfirmation) {
    constexpr int kN = 300;
    Registry reg(kN, "renewal/order");
    reg.subscribe_all(app_);
    ASSERT_TRUE(reg.wait([&](const auto &s) { return s.size() >= kN; }));
    reg.take();

    std::function<void(void *)> renew = [&](void *global) {
        // Some change while the subscriptions are dropped, some right after their call.
        for (int i = 0; i < kN; i += 3)
            set_int(reg.urls[static_cast<size_t>(i)], 1000 + i);
        reg.subscribe_all(global, [&](int i) {
            if (i % 3 != 2)
                set_int(reg.urls[static_cast<size_t>(i)], 2000 + i);
        });
    };
    g_renew = &renew;
    ASSERT_EQ(qz_mom_client_set_reconnect_cb(app_, kDb, renew_cb, nullptr), 0);
    ASSERT_EQ(qz_mom_test_reconnect(app_), 0);

    const size_t changed = kN - kN / 3;  // every index but those with i % 3 == 2
    ASSERT_TRUE(reg.wait([&](const auto &s) { return s.size() >= kN + changed; }));
    qz_mom_test_drain(app_);
    const std::vector<Registry::Seen> seen = reg.take();
    ASSERT_EQ(seen.size(), kN + changed);
    std::vector<int> confirms, per_sub(kN, 0);
    for (const Registry::Seen &e : seen) {
        if (e.cmd == QZ_MOM_CMD_SUBSCRIBED) {
            confirms.push_back(e.index);
            continue;
        }
        ASSERT_EQ(e.cmd, QZ_MOM_CMD_CHANGED) << e.index;
        EXPECT_EQ(++per_sub[static_cast<size_t>(e.index)], 1) << "changed twice: " << e.index;
        EXPECT_EQ(e.value, 2000 + e.index) << "the latest value";
        EXPECT_TRUE(std::find(confirms.begin(), confirms.end(), e.index) != confirms.end())
            << "a change before the 29: " << e.index;
    }
    ASSERT_EQ(confirms.size(), static_cast<size_t>(kN));
    for (int i = 0; i < kN; ++i)
        EXPECT_EQ(confirms[static_cast<size_t>(i)], i) << "29s out of call order";
    EXPECT_EQ(qz_mom_test_subscription_count(app_), static_cast<uint32_t>(kN));

    // In place: a later change reaches each one.
    for (int i = 0; i < kN; ++i)
        set_int(reg.urls[static_cast<size_t>(i)], 3000 + i);
    ASSERT_TRUE(reg.wait([&](const auto &s) { return s.size() >= kN; }));
    qz_mom_test_drain(app_);
    const std::vector<Registry::Seen> later = reg.take();
    ASSERT_EQ(later.size(), static_cast<size_t>(kN));
    for (const Registry::Seen &e : later) {
        EXPECT_EQ(e.cmd, QZ_MOM_CMD_CHANGED);
        EXPECT_EQ(e.value, 3000 + e.index);
    }
}

INSTANTIATE_TEST_SUITE_P(Stores, MomRenewal, ::testing::Values(embedded_store(), redis_store()),
                         [](const auto &info) { return info.param.name; });

// The server is killed from the first 29 of a renewal of many subscriptions,
// while most confirmations are still on their way. Whatever had been
// confirmed got its one 29; the rest none. The next reconnection renews every
// record again: each gets exactly one 29 and then delivers.
TEST(MomRenewalKill, KillWhileConfirmationsArriveLeavesNothingHalfRenewed) {
    // Enough confirmations (about 1 MB) to fill the socket buffers and what
    // the client reads in one go several times over, so that the server
    // still holds some when it dies.
    constexpr int kN = 4000;
    RedisServer server;
    ASSERT_EQ(server.start(), "");
    void *app = qz_mom_client_create(server.uri().c_str());
    ASSERT_NE(app, nullptr);
    Registry reg(kN,
                 "renewal/under/a/server/killed/while/confirming/its/subscriptions/with/urls/"
                 "long/enough/to/make/each/confirmation/a/quarter/of/a/kilobyte/so/that/the/"
                 "server/still/holds/some/of/them/when/it/dies");
    reg.subscribe_all(app);
    ASSERT_TRUE(reg.wait([&](const auto &s) { return s.size() >= kN; }));
    reg.take();

    // 29s per renewal and record; renewal 1 is killed, renewal 2 follows the restart.
    std::mutex mu;
    std::condition_variable cv;
    int renewals = 0;
    bool killed = false;
    std::vector<std::vector<int>> confirmed(3, std::vector<int>(kN, 0));
    int last_done = 0;
    std::function<void(void *)> renew = [&](void *global) {
        {
            std::lock_guard<std::mutex> lk(mu);
            ++renewals;
        }
        reg.subscribe_all(global);
    };
    reg.on_confirm = [&](int index) {
        std::lock_guard<std::mutex> lk(mu);
        ASSERT_TRUE(renewals == 1 || renewals == 2) << renewals;
        ++confirmed[static_cast<size_t>(renewals)][static_cast<size_t>(index)];
        if (renewals == 1 && !killed) {
            server.kill();
            killed = true;
        }
        if (renewals == 2)
            ++last_done;
        cv.notify_all();
    };
    g_renew = &renew;
    ASSERT_EQ(qz_mom_client_set_reconnect_cb(app, kDb, renew_cb, nullptr), 0);

    StderrCapture quiet;  // the lost and back lines
    ASSERT_EQ(qz_mom_test_reconnect(app), 0);
    {
        std::unique_lock<std::mutex> lk(mu);
        ASSERT_TRUE(cv.wait_for(lk, kWait, [&] { return killed; }));
    }
    ASSERT_EQ(server.start(), "");
    {
        std::unique_lock<std::mutex> lk(mu);
        ASSERT_TRUE(cv.wait_for(lk, std::chrono::seconds(10), [&] { return last_done >= kN; }))
            << "the renewal after the restart confirmed " << last_done << " of " << kN;
    }
    qz_mom_test_drain(app);
    EXPECT_EQ(Registry::count(reg.take(), QZ_MOM_CMD_CHANGED), 0u) << "nothing was written";
    {
        std::lock_guard<std::mutex> lk(mu);
        EXPECT_EQ(renewals, 2);
        int before_kill = 0;
        for (int k = 0; k < kN; ++k) {
            const int first = confirmed[1][static_cast<size_t>(k)];
            EXPECT_LE(first, 1) << "record " << k;
            // Confirmed in order: a record past the kill's reach gets none.
            if (k > 0) {
                EXPECT_LE(first, confirmed[1][static_cast<size_t>(k - 1)]) << "record " << k;
            }
            before_kill += first;
            EXPECT_EQ(confirmed[2][static_cast<size_t>(k)], 1) << "record " << k;
        }
        EXPECT_GT(before_kill, 0);
        EXPECT_LT(before_kill, kN) << "the kill came after every confirmation: it tested nothing";
    }
    EXPECT_EQ(qz_mom_test_subscription_count(app), static_cast<uint32_t>(kN));

    // None lost: a change of each record reaches its subscriber.
    ASSERT_NO_FATAL_FAILURE(each_delivers_a_change(server, reg, app, 500));
    qz_mom_client_destroy(app);
    g_renew = nullptr;
    quiet.take();
}

// The connections that read the records are cut (the subscriber's stays)
// from the first 29 of a renewal, before the read that compares each renewed
// subscription with the store. Unread is not absent: nothing is delivered
// then, and the renewal after the reconnection compares from the values the
// subscriptions had, which nobody changed.
TEST(MomRenewalKill, AReadCutOffAfterThe29sDeliversNoFalseChange) {
    constexpr int kN = 50;
    RedisServer server;
    ASSERT_EQ(server.start(), "");
    ASSERT_NO_FATAL_FAILURE(write_all(server, Registry(kN, "renewal/cut"), 100));
    void *app = qz_mom_client_create(server.uri().c_str());
    ASSERT_NE(app, nullptr);
    Registry reg(kN, "renewal/cut");
    reg.subscribe_all(app);
    ASSERT_TRUE(reg.wait([&](const auto &s) { return s.size() >= kN; }));
    reg.take();

    std::mutex mu;
    int renewals = 0;
    bool cut = false;
    std::function<void(void *)> renew = [&](void *global) {
        {
            std::lock_guard<std::mutex> lk(mu);
            ++renewals;
        }
        reg.subscribe_all(global);
    };
    RedisPtr op = server.client();
    ASSERT_NE(op, nullptr);
    reg.on_confirm = [&](int) {
        std::lock_guard<std::mutex> lk(mu);
        if (renewals != 1 || cut)
            return;
        cut = true;
        ReplyPtr r = command(op.get(), {"CLIENT", "KILL", "TYPE", "normal"});
        ASSERT_NE(r, nullptr);
        EXPECT_EQ(r->type, REDIS_REPLY_INTEGER);
        EXPECT_GE(r->integer, 1) << "no connection of the handle was cut";
    };
    g_renew = &renew;
    ASSERT_EQ(qz_mom_client_set_reconnect_cb(app, kDb, renew_cb, nullptr), 0);

    StderrCapture quiet;  // the lost and back lines
    ASSERT_EQ(qz_mom_test_reconnect(app), 0);
    ASSERT_TRUE(reg.wait([&](const auto &s) {
        std::lock_guard<std::mutex> lk(mu);
        return renewals == 2 && Registry::count(s, QZ_MOM_CMD_SUBSCRIBED) >= 2 * kN;
    })) << "the renewal after the cut did not confirm every record";
    qz_mom_test_drain(app);
    std::vector<int> confirmations(kN, 0);
    for (const Registry::Seen &e : reg.take()) {
        ASSERT_EQ(e.cmd, QZ_MOM_CMD_SUBSCRIBED)
            << "record " << e.index << " delivered " << e.value << " though nothing changed";
        ++confirmations[static_cast<size_t>(e.index)];
    }
    for (int k = 0; k < kN; ++k)
        EXPECT_EQ(confirmations[static_cast<size_t>(k)], 2) << "one per renewal: record " << k;

    // Still in place: a change of each record reaches its subscriber once.
    ASSERT_NO_FATAL_FAILURE(each_delivers_a_change(server, reg, app, 700));
    qz_mom_client_destroy(app);
    g_renew = nullptr;
    quiet.take();
}

}  // namespace
}  // namespace momtest
