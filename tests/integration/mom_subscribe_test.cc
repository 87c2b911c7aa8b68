// The bus stand-in's pushes: record and field subscriptions, their events and
// threads, reconnection and renewal. Runs unchanged on every store.
//
// "Nothing was delivered" is shown store-neutrally: a later change that must
// be delivered (a sentinel) is awaited, and deliveries keep their order per
// subscription, so anything wrongly delivered before it would be seen.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "mom_redis_server.h"
#include "mom_test_util.h"

namespace momtest {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class MomSubscribe : public MomFixture {
  protected:
    int32_t sub_field(ProtobufCMessage *key, std::vector<int32_t> fields,
                      std::vector<qz_mom_record_cb> cbs, std::vector<void *> args) {
        return qz_mom_subscribe_field(app_, kDb, key, static_cast<uint32_t>(fields.size()),
                                      fields.data(), cbs.data(),
                                      args.empty() ? nullptr : args.data(), 1);
    }
    void set_int(CapTable &t, int32_t v) {
        t.rec.int32_value = v;
        write(t.msg(), {7});
    }
    void set_bool(CapTable &t, bool v) {
        t.rec.bool_value = v;
        write(t.msg(), {6});
    }
    // The whole table to `all_rec` and field 7 of `one` to `field_rec`, both
    // confirmed.
    void sub_table_and_field(CapTable &all, Recorder &all_rec, CapTable &one, Recorder &field_rec) {
        ASSERT_EQ(qz_mom_subscribe(app_, kDb, all.msg(), 0, Recorder::cb, &all_rec), 0);
        ASSERT_EQ(sub_field(one.msg(), {7}, {Recorder::cb}, {&field_rec}), 0);
        ASSERT_TRUE(all_rec.wait_for(1));
        ASSERT_TRUE(field_rec.wait_for(1));
    }
};

TEST_P(MomSubscribe, RecordSubscriptionConfirmsThenPushesChangesOnTheClientThread) {
    Recorder &rec = recorder();
    CapTable all("");
    ASSERT_EQ(qz_mom_subscribe(app_, kDb, all.msg(), 0, Recorder::cb, &rec), 0);
    ASSERT_TRUE(rec.wait_for(1));
    CapTable t("global_spec/platform/a");
    set_bool(t, true);
    ASSERT_TRUE(rec.wait_for(2));
    set_int(t, -4);
    ASSERT_TRUE(rec.wait_for(3));
    PLibpub__CapSubcardTable other = P_LIBPUB__CAP_SUBCARD_TABLE__INIT;  // another type
    write(&other.base, {7});
    ASSERT_EQ(qz_mom_delete(pub_, kDb, t.msg()), 0);
    ASSERT_TRUE(rec.wait_for(4));

    std::vector<Event> ev = rec.events();
    ASSERT_EQ(ev.size(), 4u);
    EXPECT_EQ(ev[0].cmd, QZ_MOM_CMD_SUBSCRIBED);
    EXPECT_FALSE(ev[0].has_result);
    EXPECT_EQ(ev[1].cmd, QZ_MOM_CMD_CHANGED);
    EXPECT_EQ(ev[1].key, "p_libpub.cap_table|global_spec/platform/a");
    EXPECT_THAT(ev[1].fields, ElementsAre(5, 6));
    EXPECT_EQ(ev[2].cmd, QZ_MOM_CMD_CHANGED);
    EXPECT_THAT(ev[2].fields, ElementsAre(5, 6, 7));  // the whole record after the change
    EXPECT_EQ(int_of(ev[2]), -4);
    EXPECT_EQ(ev[3].cmd, QZ_MOM_CMD_DELETED);
    EXPECT_FALSE(ev[3].has_result);
    for (const Event &e : ev) {
        EXPECT_NE(e.thread, std::this_thread::get_id());
        EXPECT_EQ(e.thread, ev[0].thread);  // one delivery thread
        EXPECT_EQ(e.global, app_);
        EXPECT_EQ(e.arg, &rec);
    }
}

TEST_P(MomSubscribe, UnkeyedAndSingleRecordSubscriptions) {
    Recorder &glb = recorder();
    Recorder &one = recorder();
    SFrame__CapGlbState g = S_FRAME__CAP_GLB_STATE__INIT;
    CapTable a("x/a"), b("x/b");
    ASSERT_EQ(qz_mom_subscribe(app_, kDb, &g.base, 0, Recorder::cb, &glb), 0);
    ASSERT_EQ(qz_mom_subscribe(app_, kDb, a.msg(), 0, Recorder::cb, &one), 0);
    ASSERT_TRUE(glb.wait_for(1));
    ASSERT_TRUE(one.wait_for(1));
    g.ready = 1;
    write(&g.base, {5});
    set_int(b, 1);  // not a's record
    set_int(a, 2);
    ASSERT_TRUE(glb.wait_for(2));
    ASSERT_TRUE(one.wait_for(2));
    std::vector<Event> ge = glb.events(), oe = one.events();
    EXPECT_THAT(glb.cmds(), ElementsAre(QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_RECORD));
    EXPECT_THAT(ge[1].fields, ElementsAre(5));
    EXPECT_THAT(one.cmds(), ElementsAre(QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_CHANGED));
    EXPECT_EQ(oe[1].key, "p_libpub.cap_table|x/a");
}

TEST_P(MomSubscribe, EachSubscribeCallIsItsOwnSubscription) {
    Recorder &rec = recorder();
    CapTable all("");
    ASSERT_EQ(qz_mom_subscribe(app_, kDb, all.msg(), 0, Recorder::cb, &rec), 0);
    ASSERT_EQ(qz_mom_subscribe(app_, kDb, all.msg(), 0, Recorder::cb, &rec), 0);
    EXPECT_EQ(qz_mom_test_subscription_count(app_), 2u);
    ASSERT_TRUE(rec.wait_for(2));
    CapTable t("x/twice");
    set_int(t, 1);
    ASSERT_TRUE(rec.wait_for(4));
    EXPECT_THAT(rec.cmds(), ElementsAre(QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_SUBSCRIBED,
                                        QZ_MOM_CMD_CHANGED, QZ_MOM_CMD_CHANGED));
}

TEST_P(MomSubscribe, ChangesArriveInOrderWithTheLastOneLast) {
    Recorder &rec = recorder();
    CapTable t("x/seq");
    ASSERT_EQ(qz_mom_subscribe(app_, kDb, t.msg(), 0, Recorder::cb, &rec), 0);
    ASSERT_TRUE(rec.wait_for(1));
    constexpr int kN = 500;
    for (int i = 1; i <= kN; ++i)
        set_int(t, i);
    // Wait for the last value; a server store may fold bursts, never reorder them.
    for (auto until = std::chrono::steady_clock::now() + kWait;;) {
        std::vector<Event> ev = rec.events();
        if (ev.size() > 1 && int_of(ev.back()) == kN)
            break;
        ASSERT_LT(std::chrono::steady_clock::now(), until) << "last change not delivered";
        rec.wait_for(ev.size() + 1);
    }
    int prev = 0;
    for (const Event &e : rec.events()) {
        if (e.cmd == QZ_MOM_CMD_SUBSCRIBED)
            continue;
        EXPECT_GT(int_of(e), prev);
        prev = int_of(e);
    }
}

TEST_P(MomSubscribe, FieldSubscriptionFiresOnlyWhenAListedFieldChanges) {
    Recorder &rec = recorder();
    CapTable t("global_spec/platform/f"), empty("");
    set_bool(t, false);
    ASSERT_EQ(sub_field(t.msg(), {6}, {Recorder::cb}, {&rec}), 0);
    ASSERT_TRUE(rec.wait_for(1));
    EXPECT_EQ(rec.events()[0].cmd, QZ_MOM_CMD_SUBSCRIBED);
    EXPECT_FALSE(rec.events()[0].has_result);

    set_int(t, 5);       // another field
    set_bool(t, false);  // the same value again
    set_bool(t, true);   // a change
    ASSERT_TRUE(rec.wait_for(2));
    set_bool(t, true);
    ASSERT_EQ(qz_mom_delete(pub_, kDb, t.msg()), 0);  // disappears
    ASSERT_TRUE(rec.wait_for(3));
    set_int(t, 6);      // record back, field still absent
    set_bool(t, true);  // appears
    ASSERT_TRUE(rec.wait_for(4));

    std::vector<Event> ev = rec.events();
    ASSERT_EQ(ev.size(), 4u);
    EXPECT_EQ(ev[1].cmd, QZ_MOM_CMD_CHANGED);
    EXPECT_THAT(ev[1].fields, ElementsAre(5, 6, 7));  // the whole record
    EXPECT_EQ(ev[1].key, "p_libpub.cap_table|global_spec/platform/f");
    EXPECT_EQ(ev[2].cmd, QZ_MOM_CMD_DELETED);
    EXPECT_EQ(ev[3].cmd, QZ_MOM_CMD_CHANGED);
    EXPECT_EQ(int_of(ev[3]), 6);

    // A field subscription on URL "" watches that one record, not a pattern.
    Recorder &e = recorder();
    ASSERT_EQ(sub_field(empty.msg(), {7}, {Recorder::cb}, {&e}), 0);
    ASSERT_TRUE(e.wait_for(1));
    set_int(t, 7);      // another record of the type
    set_int(empty, 8);  // the record with url ""
    ASSERT_TRUE(e.wait_for(2));
    EXPECT_EQ(e.events()[1].key, "p_libpub.cap_table|");
    EXPECT_EQ(e.size(), 2u);
}

TEST_P(MomSubscribe, FieldChangeMadeBeforeTheConfirmationIsDeliveredAfterIt) {
    // Hold the delivery thread in a callback, so that the field subscription's
    // 29 stays queued while its field changes.
    std::mutex mu;
    std::condition_variable cv;
    bool release = false;
    Recorder &gate = recorder();
    gate.on_event = [&](void *, qz_mom_pmsg_t *) {
        std::unique_lock<std::mutex> lk(mu);
        cv.wait_for(lk, kWait, [&] { return release; });
    };
    SFrame__CapGlbState g = S_FRAME__CAP_GLB_STATE__INIT;
    ASSERT_EQ(qz_mom_subscribe(app_, kDb, &g.base, 0, Recorder::cb, &gate), 0);

    CapTable t("x/early");
    set_int(t, 1);
    Recorder &rec = recorder();
    ASSERT_EQ(sub_field(t.msg(), {7}, {Recorder::cb}, {&rec}), 0);
    set_int(t, 2);  // after the call returned, before its 29 went out
    {
        std::lock_guard<std::mutex> lk(mu);
        release = true;
    }
    cv.notify_all();
    ASSERT_TRUE(rec.wait_for(2));
    EXPECT_THAT(rec.cmds(), ElementsAre(QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_CHANGED));
    EXPECT_EQ(int_of(rec.events()[1]), 2);
}

TEST_P(MomSubscribe, SubscriptionsFromOtherThreadsDoNotWaitForABusyDeliveryThread) {
    std::mutex mu;
    std::condition_variable cv;
    bool entered = false, release = false;
    Recorder &gate = recorder();
    gate.on_event = [&](void *, qz_mom_pmsg_t *) {
        std::unique_lock<std::mutex> lk(mu);
        entered = true;
        cv.notify_all();
        cv.wait_for(lk, kWait, [&] { return release; });
    };
    SFrame__CapGlbState g = S_FRAME__CAP_GLB_STATE__INIT;
    ASSERT_EQ(qz_mom_subscribe(app_, kDb, &g.base, 0, Recorder::cb, &gate), 0);
    {
        std::unique_lock<std::mutex> lk(mu);
        ASSERT_TRUE(cv.wait_for(lk, kWait, [&] { return entered; }));
    }

    // Several threads, each subscribing in turn, so that the replies come in
    // while different threads wait.
    constexpr int kThreads = 4, kEach = 25;
    std::vector<Recorder *> recs;
    for (int i = 0; i < kThreads * kEach; ++i)
        recs.push_back(&recorder());
    std::atomic<int> failed{0}, slow{0};
    std::vector<std::thread> ts;
    for (int n = 0; n < kThreads; ++n) {
        ts.emplace_back([&, n] {
            for (int k = 0; k < kEach; ++k) {
                const int i = n * kEach + k;
                CapTable t("busy/" + std::to_string(i));
                const auto t0 = std::chrono::steady_clock::now();
                int32_t rc = i % 2 == 0
                                 ? sub_field(t.msg(), {7}, {Recorder::cb}, {recs[i]})
                                 : qz_mom_subscribe(app_, kDb, t.msg(), 0, Recorder::cb, recs[i]);
                failed += rc != 0;
                slow += std::chrono::steady_clock::now() - t0 > std::chrono::milliseconds(300);
            }
        });
    }
    for (auto &t : ts)
        t.join();
    {
        std::lock_guard<std::mutex> lk(mu);
        release = true;
    }
    cv.notify_all();
    EXPECT_EQ(failed.load(), 0);
    EXPECT_EQ(slow.load(), 0);
    for (Recorder *r : recs)
        EXPECT_TRUE(r->wait_for(1));
}

Recorder *g_null_arg;  // for callbacks given no argument
int32_t to_null_arg_recorder(void *global, qz_mom_pmsg_t *pmsg, void *arg) {
    g_null_arg->add(global, pmsg, arg);
    return 0;
}

TEST_P(MomSubscribe, FieldSubscriptionCallsEachCallbackArgumentPairOncePerChange) {
    Recorder &a = recorder();
    Recorder &b = recorder();
    CapTable t("x/pairs");
    // Fields 6 and 7 to the same pair, field 8 to another.
    ASSERT_EQ(
        sub_field(t.msg(), {6, 7, 8}, {Recorder::cb, Recorder::cb, Recorder::cb}, {&a, &a, &b}), 0);
    ASSERT_TRUE(a.wait_for(1));
    ASSERT_TRUE(b.wait_for(1));
    t.rec.bool_value = 1;
    t.rec.int32_value = 1;
    write(t.msg(), {6, 7});  // both of a's fields in one change: one call
    t.rec.str_value = const_cast<char *>("s");
    write(t.msg(), {8});
    ASSERT_TRUE(b.wait_for(2));
    ASSERT_TRUE(a.wait_for(2));
    EXPECT_THAT(a.cmds(), ElementsAre(QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_CHANGED));
    EXPECT_THAT(b.cmds(), ElementsAre(QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_CHANGED));
    EXPECT_EQ(a.events()[1].arg, &a);

    // No argument array: every callback gets NULL.
    Recorder &n = recorder();
    g_null_arg = &n;
    ASSERT_EQ(sub_field(t.msg(), {7}, {to_null_arg_recorder}, {}), 0);
    ASSERT_TRUE(n.wait_for(1));
    set_int(t, 2);
    ASSERT_TRUE(n.wait_for(2));
    for (const Event &e : n.events())
        EXPECT_EQ(e.arg, nullptr);
}

TEST_P(MomSubscribe, CallbacksOnTheDeliveryThreadMayCallTheBus) {
    CapTable t("x/re"), u("x/re2");
    set_int(t, 1);
    Recorder &rec = recorder();
    Recorder &nested = recorder();
    Recorder &scanned = recorder();
    int read_value = 0;
    rec.on_event = [&](void *global, qz_mom_pmsg_t *pmsg) {
        if (pmsg->cmd != QZ_MOM_CMD_SUBSCRIBED)
            return;
        CapTable all("");
        EXPECT_EQ(qz_mom_scan_sync(global, kDb, all.msg(), 0, Recorder::cb, &scanned), 0);
        ResPtr r(qz_mom_hgetall_sync(global, kDb, t.msg()));
        if (r != nullptr && r->view != nullptr) {
            read_value = static_cast<PLibpub__CapTable *>(r->view)->int32_value;
        }
        EXPECT_EQ(qz_mom_subscribe(global, kDb, u.msg(), 0, Recorder::cb, &nested), 0);
        u.rec.int32_value = 9;
        int32_t f = 7;
        EXPECT_EQ(qz_mom_write(global, kDb, u.msg(), 1, &f), 0);
        qz_mom_test_drain(global);  // on its own thread: returns at once
    };
    ASSERT_EQ(qz_mom_subscribe(app_, kDb, t.msg(), 0, Recorder::cb, &rec), 0);
    ASSERT_TRUE(rec.wait_for(1));
    // The callback's own write delivered before the next: a server store
    // reads after the event and would show only the later value.
    ASSERT_TRUE(nested.wait_for(2));
    EXPECT_EQ(scanned.size(), 1u);
    EXPECT_EQ(scanned.events()[0].thread, rec.events()[0].thread);
    EXPECT_EQ(read_value, 1);
    u.rec.int32_value = 10;
    write(u.msg(), {7});
    ASSERT_TRUE(nested.wait_for(3));  // 29, the callback's own write, this one
    std::vector<Event> ne = nested.events();
    EXPECT_THAT(nested.cmds(),
                ElementsAre(QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_CHANGED, QZ_MOM_CMD_CHANGED));
    EXPECT_EQ(int_of(ne[1]), 9);
    EXPECT_EQ(int_of(ne[2]), 10);
}

TEST_P(MomSubscribe, MalformedPushesAreSkippedWithOneLine) {
    Recorder &all_rec = recorder();
    Recorder &one_rec = recorder();
    CapTable all(""), bad("x/bad"), good("x/good");
    ASSERT_EQ(qz_mom_subscribe(app_, kDb, all.msg(), 0, Recorder::cb, &all_rec), 0);
    ASSERT_EQ(qz_mom_subscribe(app_, kDb, bad.msg(), 0, Recorder::cb, &one_rec), 0);
    ASSERT_TRUE(all_rec.wait_for(1));
    ASSERT_TRUE(one_rec.wait_for(1));
    ::testing::internal::CaptureStderr();
    raw("p_libpub.cap_table|x/bad", "7", "seven");  // both subscriptions match
    set_int(good, 1);
    ASSERT_TRUE(all_rec.wait_for(2));
    std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    EXPECT_THAT(err, HasSubstr("qz_mom: "));
    EXPECT_THAT(err, HasSubstr("x/bad"));
    EXPECT_EQ(all_rec.events()[1].key, "p_libpub.cap_table|x/good");
    EXPECT_EQ(one_rec.size(), 1u);
}

TEST_P(MomSubscribe, PushesOfRecordsWithUnknownFieldsAreDeliveredAndReportedOnce) {
    Recorder &all_rec = recorder();
    Recorder &field_rec = recorder();
    CapTable all(""), t("x/newer");
    ASSERT_NO_FATAL_FAILURE(sub_table_and_field(all, all_rec, t, field_rec));

    StderrCapture capture;
    raw("p_libpub.cap_table|x/newer", "99", "a");
    ASSERT_TRUE(all_rec.wait_for(2));
    set_int(t, 3);
    ASSERT_TRUE(all_rec.wait_for(3));
    ASSERT_TRUE(field_rec.wait_for(2));
    raw("p_libpub.cap_table|x/newer", "99", "b");  // no listed field changed
    ASSERT_TRUE(all_rec.wait_for(4));
    CapTable sentinel("x/sentinel");
    set_int(sentinel, 1);
    ASSERT_TRUE(all_rec.wait_for(5));
    const std::string err = capture.take();

    std::vector<Event> ev = all_rec.events();
    ASSERT_EQ(ev.size(), 5u);
    EXPECT_EQ(ev[1].key, "p_libpub.cap_table|x/newer");
    EXPECT_THAT(ev[1].fields, ElementsAre(5));
    EXPECT_THAT(ev[2].fields, ElementsAre(5, 7));
    EXPECT_EQ(int_of(ev[2]), 3);
    EXPECT_THAT(ev[3].fields, ElementsAre(5, 7));
    EXPECT_EQ(ev[4].key, "p_libpub.cap_table|x/sentinel");
    ev = field_rec.events();
    ASSERT_EQ(ev.size(), 2u);
    EXPECT_EQ(ev[1].cmd, QZ_MOM_CMD_CHANGED);
    EXPECT_EQ(int_of(ev[1]), 3);
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    EXPECT_THAT(err, HasSubstr("\"p_libpub.cap_table|x/newer\" in db 3 holds hash fields"));
}

TEST_P(MomSubscribe, ReadsWritesAndAScanningCallbackOnSeveralThreadsAtOnce) {
    // Application threads read and write through the handle while its
    // delivery thread runs a callback that scans through it too.
    Recorder &all = recorder();
    std::atomic<int> scans{0}, bad{0};
    all.on_event = [&](void *global, qz_mom_pmsg_t *pmsg) {
        if (pmsg->cmd != QZ_MOM_CMD_CHANGED)
            return;
        Recorder found;
        CapTable every("");
        if (qz_mom_scan_sync(global, kDb, every.msg(), 0, Recorder::cb, &found) != 0 ||
            found.size() == 0) {
            ++bad;
        }
        ++scans;
    };
    CapTable every("");
    ASSERT_EQ(qz_mom_subscribe(app_, kDb, every.msg(), 0, Recorder::cb, &all), 0);
    ASSERT_TRUE(all.wait_for(1));

    constexpr int kThreads = 3, kRounds = 100;
    std::vector<std::thread> ts;
    for (int n = 0; n < kThreads; ++n) {
        ts.emplace_back([&, n] {
            CapTable t("mt/" + std::to_string(n));
            for (int i = 1; i <= kRounds; ++i) {
                if (!write_and_read_back(app_, t, i))
                    ++bad;
                int32_t err = 0;
                qz_mom_qz_obj_free(qz_mom_get_sync(app_, kDb, t.msg(), &err));
                if (err != 0)
                    ++bad;
            }
        });
    }
    for (auto &t : ts)
        t.join();
    CapTable last("mt/last");
    set_int(last, 1);
    for (auto until = std::chrono::steady_clock::now() + kWait;;) {
        std::vector<Event> ev = all.events();
        if (ev.back().key == "p_libpub.cap_table|mt/last")
            break;
        ASSERT_LT(std::chrono::steady_clock::now(), until) << "sentinel not delivered";
        all.wait_for(ev.size() + 1);
    }
    EXPECT_EQ(bad.load(), 0);
    EXPECT_GE(scans.load(), 1);
    // The last value of each writer arrives (a server store may fold earlier ones).
    std::map<std::string, int32_t> final;
    for (const Event &e : all.events()) {
        if (e.cmd == QZ_MOM_CMD_CHANGED)
            final[e.key] = int_of(e);
    }
    for (int n = 0; n < kThreads; ++n)
        EXPECT_EQ(final["p_libpub.cap_table|mt/" + std::to_string(n)], kRounds) << n;
}

// ---- Reconnection ---------------------------------------------------------

struct ReconnectLog {
    std::mutex mu;
    std::vector<std::tuple<void *, int32_t, int32_t, void *, std::thread::id>> calls;
    std::function<void(void *global)> then;
};
ReconnectLog *g_reconnect;
int32_t on_reconnect(void *global, int32_t db, int32_t type, void *user) {
    {
        std::lock_guard<std::mutex> lk(g_reconnect->mu);
        g_reconnect->calls.emplace_back(global, db, type, user, std::this_thread::get_id());
    }
    if (g_reconnect->then)
        g_reconnect->then(global);
    return 0;
}

TEST_P(MomSubscribe, ReconnectDropsSubscriptionsAndCallsEachPairOnce) {
    ReconnectLog log;
    g_reconnect = &log;
    int u1 = 0, u2 = 0;
    ASSERT_EQ(qz_mom_client_set_reconnect_cb(app_, kDb, on_reconnect, &u1), 0);
    ASSERT_EQ(qz_mom_client_set_reconnect_cb(app_, kDb, on_reconnect, &u1), 0);  // kept once
    ASSERT_EQ(qz_mom_client_set_reconnect_cb(app_, kDb, on_reconnect, &u2), 0);

    Recorder &rec = recorder();
    Recorder &field = recorder();
    CapTable all(""), t("x/rc");
    ASSERT_NO_FATAL_FAILURE(sub_table_and_field(all, rec, t, field));
    ASSERT_EQ(qz_mom_test_subscription_count(app_), 2u);

    ASSERT_EQ(qz_mom_test_reconnect(app_), 0);
    {
        std::lock_guard<std::mutex> lk(log.mu);  // the callbacks ran before the return
        ASSERT_EQ(log.calls.size(), 2u);
        std::set<void *> users;
        for (auto &[g, db, type, user, thread] : log.calls) {
            EXPECT_EQ(g, app_);
            EXPECT_EQ(db, kDb);
            EXPECT_EQ(type, 1);
            EXPECT_EQ(thread, rec.events()[0].thread);
            users.insert(user);
        }
        EXPECT_EQ(users, (std::set<void *>{&u1, &u2}));
    }
    EXPECT_EQ(qz_mom_test_subscription_count(app_), 0u);

    Recorder &sentinel = recorder();
    CapTable s("x/sentinel");
    ASSERT_EQ(qz_mom_subscribe(app_, kDb, s.msg(), 0, Recorder::cb, &sentinel), 0);
    ASSERT_TRUE(sentinel.wait_for(1));
    set_int(t, 3);
    set_int(s, 1);
    ASSERT_TRUE(sentinel.wait_for(2));
    EXPECT_EQ(rec.size(), 1u);  // dropped: nothing after the 29
    EXPECT_EQ(field.size(), 1u);
    g_reconnect = nullptr;
}

TEST_P(MomSubscribe, RenewedFieldSubscriptionDeliversWhatChangedWhileDropped) {
    CapTable t("x/renew"), u("x/same"), v("x/other-arg");
    set_int(t, 1);
    set_int(u, 1);
    set_int(v, 1);
    Recorder &rt = recorder();
    Recorder &ru = recorder();
    Recorder &rv = recorder();
    Recorder &rv2 = recorder();
    ASSERT_EQ(sub_field(t.msg(), {7}, {Recorder::cb}, {&rt}), 0);
    ASSERT_EQ(sub_field(u.msg(), {7}, {Recorder::cb}, {&ru}), 0);
    ASSERT_EQ(sub_field(v.msg(), {7}, {Recorder::cb}, {&rv}), 0);
    ASSERT_TRUE(rt.wait_for(1) && ru.wait_for(1) && rv.wait_for(1));

    ASSERT_EQ(qz_mom_test_reconnect(app_), 0);
    set_int(t, 2);  // while dropped
    set_int(v, 2);
    ASSERT_EQ(sub_field(t.msg(), {7}, {Recorder::cb}, {&rt}), 0);
    ASSERT_EQ(sub_field(u.msg(), {7}, {Recorder::cb}, {&ru}), 0);
    ASSERT_EQ(sub_field(v.msg(), {7}, {Recorder::cb}, {&rv2}), 0);  // not identical
    ASSERT_TRUE(rt.wait_for(3));
    std::vector<Event> et = rt.events();
    EXPECT_THAT(rt.cmds(),
                ElementsAre(QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_CHANGED));
    EXPECT_EQ(int_of(et[2]), 2);

    set_int(u, 5);  // sentinels: the next events must be these changes
    set_int(v, 5);
    ASSERT_TRUE(ru.wait_for(3));
    ASSERT_TRUE(rv2.wait_for(2));
    EXPECT_THAT(ru.cmds(),
                ElementsAre(QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_CHANGED));
    EXPECT_EQ(int_of(ru.events()[2]), 5);
    EXPECT_THAT(rv2.cmds(), ElementsAre(QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_CHANGED));
    EXPECT_EQ(int_of(rv2.events()[1]), 5);
    EXPECT_EQ(rv.size(), 1u);
}

TEST_P(MomSubscribe, RenewalFromTheReconnectCallbackLosesNoUpdate) {
    // As the library renews: from inside the reconnect callback.
    CapTable t("x/lib");
    set_int(t, 1);
    Recorder &rec = recorder();
    ReconnectLog log;
    g_reconnect = &log;
    ASSERT_EQ(qz_mom_client_set_reconnect_cb(app_, kDb, on_reconnect, nullptr), 0);
    ASSERT_EQ(sub_field(t.msg(), {7}, {Recorder::cb}, {&rec}), 0);
    ASSERT_TRUE(rec.wait_for(1));
    set_int(t, 2);
    ASSERT_TRUE(rec.wait_for(2));

    log.then = [&](void *global) {
        CapTable k("x/lib");
        int32_t f = 7;
        qz_mom_record_cb cb = Recorder::cb;
        void *arg = &rec;
        // The change lands between the drop and the renewal.
        k.rec.int32_value = 3;
        EXPECT_EQ(qz_mom_write(pub_, kDb, k.msg(), 1, &f), 0);
        EXPECT_EQ(qz_mom_subscribe_field(global, kDb, k.msg(), 1, &f, &cb, &arg, 1), 0);
    };
    ASSERT_EQ(qz_mom_test_reconnect(app_), 0);
    ASSERT_TRUE(rec.wait_for(4));
    EXPECT_THAT(rec.cmds(), ElementsAre(QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_CHANGED,
                                        QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_CHANGED));
    EXPECT_EQ(int_of(rec.events()[3]), 3);
    EXPECT_EQ(qz_mom_test_subscription_count(app_), 1u);
    g_reconnect = nullptr;
}

TEST_P(MomSubscribe, DestroyWithLiveSubscriptionsAndQueuedChanges) {
    Recorder &rec = recorder();
    void *h = qz_mom_client_create(uri_.c_str());
    ASSERT_NE(h, nullptr);
    CapTable all("");
    ASSERT_EQ(qz_mom_subscribe(h, kDb, all.msg(), 0, Recorder::cb, &rec), 0);
    for (int i = 0; i < 50; ++i) {
        CapTable t("x/" + std::to_string(i));
        write(t.msg(), {6});
    }
    qz_mom_client_destroy(h);  // must not crash or leak results
    CapTable t("x/after");
    write(t.msg(), {6});
}

// Destroying a handle waits for the callback it is running; until that
// callback returns the handle is live: its bus calls answer as calls on a
// closing store (0, or QZ_MOM_E_CONN once the store is closed), never as
// calls on a handle that is gone.
TEST_P(MomSubscribe, CallbackRunningWhileItsHandleIsDestroyedStillHasALiveHandle) {
    Recorder &rec = recorder();
    void *h = qz_mom_client_create(uri_.c_str());
    ASSERT_NE(h, nullptr);
    std::atomic<bool> in_callback{false}, destroying{false};
    std::vector<int32_t> answers;  // each change of the callback's answer, in order
    rec.on_event = [&](void *global, qz_mom_pmsg_t *pmsg) {
        if (pmsg->cmd != QZ_MOM_CMD_SUBSCRIBED)
            return;
        in_callback = true;
        const auto give_up = std::chrono::steady_clock::now() + kWait;
        while (!destroying && std::chrono::steady_clock::now() < give_up)
            std::this_thread::yield();
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(50);
        while (std::chrono::steady_clock::now() < until) {
            const int32_t rc = qz_mom_client_connect_sync(global, kDb);
            if (answers.empty() || answers.back() != rc)
                answers.push_back(rc);
            if (rc == QZ_MOM_E_CONN)
                break;
        }
    };
    CapTable all("");
    ASSERT_EQ(qz_mom_subscribe(h, kDb, all.msg(), 0, Recorder::cb, &rec), 0);
    const auto give_up = std::chrono::steady_clock::now() + kWait;
    while (!in_callback && std::chrono::steady_clock::now() < give_up)
        std::this_thread::yield();
    ASSERT_TRUE(in_callback) << "the confirmation never came";
    destroying = true;
    qz_mom_client_destroy(h);  // returns once the callback has
    ASSERT_FALSE(answers.empty());
    EXPECT_THAT(answers, ::testing::Each(::testing::AnyOf(0, QZ_MOM_E_CONN)));
}

INSTANTIATE_TEST_SUITE_P(Stores, MomSubscribe, ::testing::Values(embedded_store(), redis_store()),
                         [](const auto &info) { return info.param.name; });

}  // namespace
}  // namespace momtest
