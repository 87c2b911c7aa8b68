// Device-wide value and state subscriptions, and the subcard state
// subscription with its callback.
#include <cstring>
#include <string>
#include <vector>

#include "fake_platform.h"
#include "sub/sub.h"
#include "p_libpub.pb-c.h"
#include "sub_support.h"

namespace {

using namespace sub_support;

int g_arg;
constexpr char kBoolFn[] = "libqz_cap_ce_subscribe_g_cap_bool_ext_thread";
constexpr char kInt32Fn[] = "libqz_cap_ce_subscribe_g_cap_int32_ext_thread";
constexpr char kStateFn[] = "libqz_cap_ce_subscribe_g_cap_state_thread";
constexpr char kAddFn[] = "libqz_cap_add_sub_info_thread";
constexpr char kSubcardFn[] = "libqz_cap_subscribe_subcard_state";
constexpr char kSubcardCb[] = "subscribe_subcard_state_cb";
constexpr char kEverySubcard[] =
    "p_libpub.cap_subcard_state{index=p_libpub.cap_subcard_state_index{}}";

int32_t value_cb(void *, qz_mom_pmsg *, void *) {
    return 0;
}

int g_state_calls;
int32_t state_cb(void *, void *arg) {
    EXPECT_EQ(arg, &g_arg);
    ++g_state_calls;
    return 0;
}

std::vector<libqz_cap_subcard_msg_t> g_subcard_msgs;
int32_t subcard_cb(void *global, libqz_cap_subcard_msg_t *msg, void *arg) {
    EXPECT_EQ(global, kGlobal);
    EXPECT_EQ(arg, &g_arg);
    g_subcard_msgs.push_back(*msg);
    return -1;  // ignored
}

class Subscribe : public sub_support::WithRegistry {
  protected:
    void SetUp() override {
        WithRegistry::SetUp();
        g_libqz_cap_ctrl_info.sub_hash = ctx_.sub_hash;  // for the plain forms
        g_state_calls = 0;
        g_subcard_msgs.clear();
    }
    void TearDown() override {
        g_libqz_cap_ctrl_info.sub_hash = nullptr;
        WithRegistry::TearDown();
    }
};

// ---- value subscriptions

using ValueForm = int32_t (*)(libqz_cap_ctrl_info_t *ctx, const char *url, void *arg);

template <auto F>
int32_t ext_thread(libqz_cap_ctrl_info_t *ctx, const char *url, void *arg) {
    return F(kGlobal, url, value_cb, arg, ctx);
}
template <auto F>
int32_t ext(libqz_cap_ctrl_info_t *, const char *url, void *arg) {
    return F(kGlobal, url, value_cb, arg);
}
template <auto F>
int32_t thread(libqz_cap_ctrl_info_t *ctx, const char *url, void *) {
    return F(kGlobal, url, value_cb, ctx);
}
template <auto F>
int32_t plain(libqz_cap_ctrl_info_t *, const char *url, void *) {
    return F(kGlobal, url, value_cb);
}

TEST_F(Subscribe, EveryValueFormSubscribesItsFieldAndRecordsIt) {
    struct Case {
        const char *name;
        ValueForm form;
        bool takes_arg;
        int32_t field;
        const char *func;
    } cases[] = {
        {"bool_ext_thread", ext_thread<libqz_cap_ce_subscribe_g_cap_bool_ext_thread>, true, 6,
         kBoolFn},
        {"bool_ext", ext<libqz_cap_ce_subscribe_g_cap_bool_ext>, true, 6, kBoolFn},
        {"bool_thread", thread<libqz_cap_ce_subscribe_g_cap_bool_thread>, false, 6, kBoolFn},
        {"bool", plain<libqz_cap_ce_subscribe_g_cap_bool>, false, 6, kBoolFn},
        {"int32_ext_thread", ext_thread<libqz_cap_ce_subscribe_g_cap_int32_ext_thread>, true, 7,
         kInt32Fn},
        {"int32_ext", ext<libqz_cap_ce_subscribe_g_cap_int32_ext>, true, 7, kInt32Fn},
        {"int32_thread", thread<libqz_cap_ce_subscribe_g_cap_int32_thread>, false, 7, kInt32Fn},
        {"int32", plain<libqz_cap_ce_subscribe_g_cap_int32>, false, 7, kInt32Fn},
    };
    size_t expected_records = 0;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const std::string url = std::string("cap/") + c.name;
        P().reset();
        g_libqz_cap_zlog_level = 2;
        EXPECT_EQ(c.form(&ctx_, url.c_str(), &g_arg), 0);
        const auto calls = P().calls();
        ASSERT_EQ(calls.size(), 1u);
        expect_field_call(calls[0], kGlobal, url, c.field, ptr(value_cb),
                          c.takes_arg ? &g_arg : nullptr);
        for (const auto &log : P().logs())
            EXPECT_EQ(log.func, c.func);

        const auto recs = records();
        ASSERT_EQ(recs.size(), ++expected_records);
        const sub_info *rec = nullptr;
        for (const sub_info *r : recs)
            rec = url == r->url ? r : rec;
        ASSERT_NE(rec, nullptr);
        EXPECT_EQ(rec->global, kGlobal);
        EXPECT_EQ(rec->type, c.field == 6 ? 0u : 1u);
        EXPECT_EQ(rec->fp, ptr(value_cb));
        EXPECT_EQ(rec->arg, c.takes_arg ? &g_arg : nullptr);
    }
    // A repeated subscription goes to the bus again but is recorded once.
    P().reset();
    EXPECT_EQ(libqz_cap_ce_subscribe_g_cap_bool(kGlobal, "cap/bool", value_cb), 0);
    EXPECT_EQ(P().calls("qz_mom_subscribe_field").size(), 1u);
    EXPECT_EQ(records().size(), expected_records);
}

TEST_F(Subscribe, EachValueKindLogsItsOwnTexts) {
    struct Case {
        const char *func;
        ValueForm form;
        std::string accepted, refused, add_failed;
    } cases[] = {
        {kBoolFn, ext_thread<libqz_cap_ce_subscribe_g_cap_bool_ext_thread>,
         text("global %p, sub url u leave, fp %p, arg %p rv 0", kGlobal, ptr(value_cb), &g_arg),
         text("sub failed, global %p, sub url u leave, fp %p, arg %p rv -5", kGlobal, ptr(value_cb),
              &g_arg),
         text("add failed, global %p, sub url u leave, fp %p, arg %p rv -2", kGlobal, ptr(value_cb),
              &g_arg)},
        {kInt32Fn, ext_thread<libqz_cap_ce_subscribe_g_cap_int32_ext_thread>,
         text("global %p, sub url u leave, fp %p arg %p rv 0", kGlobal, ptr(value_cb), &g_arg),
         text("global %p, sub url u leave, fp %p, arg %p, info %p failed rv -5", kGlobal,
              ptr(value_cb), &g_arg, &ctx_),
         text("add failed, global %p, sub url u leave, fp %p, arg %p info %p rv -2", kGlobal,
              ptr(value_cb), &g_arg, &ctx_)},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.func);
        const sub_support::Rec enter{
            c.func,
            text("global %p, sub url u enter, fp %p, info %p", kGlobal, ptr(value_cb), &ctx_), 80,
            2};
        const sub_support::Rec accepted{c.func, c.accepted, 80, 2};
        expect_ladder([&] { EXPECT_EQ(c.form(&ctx_, "u", &g_arg), 0); }, {enter, accepted});
        ASSERT_EQ(records().size(), 1u) << "an equal subscription is recorded once";
        clear_records();

        expect_ladder(
            [&] {
                P().will_return_status("qz_mom_subscribe_field", -5);
                EXPECT_EQ(c.form(&ctx_, "u", &g_arg), -5);
            },
            {enter, {c.func, c.refused, 100, 1}});
        EXPECT_TRUE(records().empty()) << "nothing recorded on refusal";

        // The bus subscription stands; only the record is missing.
        expect_ladder(
            [&] {
                libqz_cap_test_fail_alloc(1);
                EXPECT_EQ(c.form(&ctx_, "u", &g_arg), -2);
                EXPECT_EQ(P().calls("qz_mom_subscribe_field").size(), 1u);
            },
            {enter,
             accepted,
             {kAddFn, "sub_info malloc failed", 100, 1},
             {c.func, c.add_failed, 100, 1}});
        EXPECT_TRUE(records().empty());
    }
}

TEST_F(Subscribe, ArgumentChecksComeFirstInOrder) {
    const std::string url255(255, 'u'), url256(256, 'u');
    struct Case {
        void *global;
        const char *url;
        bool fp;
        libqz_cap_ctrl_info_t *ctx;
        std::string what;  // "url" or "name" for the text checks
        const char *msg;
    };
    // Each case also breaks every later argument: the earliest check wins.
    const Case cases[] = {
        {nullptr, nullptr, false, nullptr, "", "global NULL pointer, addr error!\n"},
        {kGlobal, nullptr, false, nullptr, "", "%s NULL pointer, addr error!\n"},
        {kGlobal, url256.c_str(), false, nullptr, "", "%s len too long 256!\n"},
        {kGlobal, url255.c_str(), false, nullptr, "", "fp NULL pointer, addr error!\n"},
        {kGlobal, url255.c_str(), true, nullptr, "", "info NULL pointer, addr error!\n"},
    };
    const size_t holders = list_length(qzcap::g_glb_state_holders);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.msg);
        P().reset();
        EXPECT_EQ(libqz_cap_ce_subscribe_g_cap_bool_ext_thread(
                      c.global, c.url, c.fp ? value_cb : nullptr, &g_arg, c.ctx),
                  -4);
        core_expect::only_record_is(text(c.msg, "url"), 100, kBoolFn);
        P().reset();
        EXPECT_EQ(libqz_cap_ce_subscribe_g_cap_int32_thread(c.global, c.url,
                                                            c.fp ? value_cb : nullptr, c.ctx),
                  -4);
        core_expect::only_record_is(text(c.msg, "url"), 100, kInt32Fn);
        P().reset();
        libqz_cap_test_fail_alloc(1);  // an allocation before the checks would fail the call
        EXPECT_EQ(libqz_cap_ce_subscribe_g_cap_state_thread(
                      c.global, c.url, c.fp ? state_cb : nullptr, &g_arg, c.ctx),
                  -4);
        libqz_cap_test_fail_alloc(0);
        core_expect::only_record_is(text(c.msg, "name"), 100, kStateFn);
    }
    EXPECT_EQ(list_length(qzcap::g_glb_state_holders), holders);
    EXPECT_TRUE(records().empty());
}

// ---- the global state subscription

TEST_F(Subscribe, StateSubscriptionHoldsItsFunAndRecordsTheLibraryCallback) {
    const size_t holders = list_length(qzcap::g_glb_state_holders);
    g_libqz_cap_zlog_level = 2;
    EXPECT_EQ(libqz_cap_ce_subscribe_g_cap_state_thread(kGlobal, "app", state_cb, &g_arg, &ctx_),
              0);
    ASSERT_EQ(list_length(qzcap::g_glb_state_holders), holders + 1);
    struct fun *fun = tail_fun(qzcap::g_glb_state_holders);
    EXPECT_EQ(fun->fp, ptr(state_cb));
    EXPECT_EQ(fun->arg, &g_arg);

    const auto calls = P().calls();
    ASSERT_EQ(calls.size(), 1u);
    expect_pattern_call(calls[0], "qz_mom_subscribe", kGlobal, kGlbStateKey,
                        ptr(libqz_cap_ce_glb_ready_pmsg_f), fun);
    const auto logs = P().logs();
    ASSERT_EQ(logs.size(), 2u);
    core_expect::record_is(
        logs[0],
        text("global %p, sub name app enter, fp %p, info %p", kGlobal, ptr(state_cb), &ctx_), 80,
        kStateFn);
    core_expect::record_is(
        logs[1],
        text("global %p, sub url app leave, fp %p, arg %p rv 0", kGlobal, ptr(state_cb), &g_arg),
        80, kStateFn);

    const auto recs = records();
    ASSERT_EQ(recs.size(), 1u);
    EXPECT_EQ(recs[0]->global, kGlobal);
    EXPECT_STREQ(recs[0]->url, "app");
    EXPECT_EQ(recs[0]->type, 3u);
    EXPECT_EQ(recs[0]->fp, ptr(libqz_cap_ce_glb_ready_pmsg_f));
    EXPECT_EQ(recs[0]->arg, fun);

    // What the bus will do with it: a delivered record reaches state_cb.
    fake::Pmsg delivered(1, nullptr, {}, 0, true);
    EXPECT_EQ(libqz_cap_ce_glb_ready_pmsg_f(kGlobal, &delivered.pmsg, calls[0].privdata), 0);
    EXPECT_EQ(g_state_calls, 1);

    // Every state subscription is a record of its own.
    EXPECT_EQ(libqz_cap_ce_subscribe_g_cap_state(kGlobal, "app", state_cb, &g_arg), 0);
    EXPECT_EQ(records().size(), 2u);
}

TEST_F(Subscribe, RefusedStateSubscriptionKeepsItsHolder) {
    const size_t holders = list_length(qzcap::g_glb_state_holders);
    P().will_return_status("qz_mom_subscribe", -6);
    EXPECT_EQ(libqz_cap_ce_subscribe_g_cap_state_thread(kGlobal, "app", state_cb, &g_arg, &ctx_),
              -6);
    core_expect::only_record_is(
        text("sub failed, global %p, sub url app leave, fp %p, arg %p rv -6", kGlobal,
             ptr(state_cb), &g_arg),
        100, kStateFn);
    EXPECT_EQ(list_length(qzcap::g_glb_state_holders), holders + 1);
    EXPECT_EQ(tail_fun(qzcap::g_glb_state_holders)->arg, &g_arg);
    EXPECT_TRUE(records().empty());
}

TEST_F(Subscribe, StateAllocationFailures) {
    const size_t holders = list_length(qzcap::g_glb_state_holders);
    struct Case {
        uint32_t nth;
        int32_t rv;
        std::vector<std::pair<std::string, std::string>> logs;  // func, text
        size_t added;
    } cases[] = {
        {1, -2, {{kStateFn, "glb_state malloc error, sub fail"}}, 0},
        {2, -2, {{kStateFn, "glb_state->fun malloc error, sub fail"}}, 0},
        {3,
         -2,
         {{kAddFn, "sub_info malloc failed"},
          {kStateFn, text("add failed, global %p, sub url app leave, fp %p, arg %p rv -2", kGlobal,
                          ptr(state_cb), &g_arg)}},
         1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.nth);
        P().reset();
        libqz_cap_test_fail_alloc(c.nth);
        EXPECT_EQ(
            libqz_cap_ce_subscribe_g_cap_state_thread(kGlobal, "app", state_cb, &g_arg, &ctx_),
            c.rv);
        libqz_cap_test_fail_alloc(0);
        const auto logs = P().logs();
        ASSERT_EQ(logs.size(), c.logs.size());
        for (size_t i = 0; i < logs.size(); ++i)
            core_expect::record_is(logs[i], c.logs[i].second, 100, c.logs[i].first);
        EXPECT_EQ(P().calls().size(), c.added) << "the bus is asked only once both are held";
        EXPECT_EQ(list_length(qzcap::g_glb_state_holders), holders + c.added);
    }
    EXPECT_TRUE(records().empty());
}

// ---- the subcard state subscription

ProtobufCMessage *subcard_state(bool with_index, int32_t nodeid, int32_t dev_type,
                                protobuf_c_boolean ready) {
    PLibpub__CapSubcardStateIndex index = P_LIBPUB__CAP_SUBCARD_STATE_INDEX__INIT;
    index.nodeid = nodeid;
    index.config_dev_type = dev_type;
    PLibpub__CapSubcardState rec = P_LIBPUB__CAP_SUBCARD_STATE__INIT;
    rec.index = with_index ? &index : nullptr;
    auto *obj = reinterpret_cast<PLibpub__CapSubcardState *>(fake::make_message(&rec.base));
    obj->ready = ready;  // after packing, so that 5 survives
    return &obj->base;
}

TEST_F(Subscribe, SubcardSubscriptionCoversEverySubcardAndKeepsItsHolder) {
    const size_t holders = list_length(qzcap::g_subcard_state_holders);
    int mod;
    EXPECT_EQ(libqz_cap_subscribe_subcard_state(nullptr, &mod, subcard_cb, &g_arg), 0);
    ASSERT_EQ(list_length(qzcap::g_subcard_state_holders), holders + 1);
    struct fun *fun = tail_fun(qzcap::g_subcard_state_holders);
    EXPECT_EQ(fun->fp, ptr(subcard_cb));
    EXPECT_EQ(fun->arg, &g_arg);
    auto calls = P().calls();
    ASSERT_EQ(calls.size(), 1u);
    // A null handle is the bus's to judge.
    expect_pattern_call(calls[0], "qz_mom_subscribe", nullptr, kEverySubcard,
                        ptr(subscribe_subcard_state_cb), fun);
    EXPECT_TRUE(P().logs().empty());
    EXPECT_TRUE(records().empty()) << "never recorded, so never renewed";

    P().reset();
    P().will_return_status("qz_mom_subscribe", -3);
    EXPECT_EQ(libqz_cap_subscribe_subcard_state(kGlobal, &mod, subcard_cb, &g_arg), -3);
    core_expect::only_record_is("failed,rv -3", 100, kSubcardFn);
    EXPECT_EQ(list_length(qzcap::g_subcard_state_holders), holders + 2);

    struct Case {
        void *mod;
        bool fp;
        uint32_t fail;
        int32_t rv;
        const char *msg;
    } cases[] = {
        {nullptr, false, 0, -4, "mod NULL pointer, addr error!\n"},
        {&mod, false, 0, -4, "fp NULL pointer, addr error!\n"},
        {&mod, true, 1, -2, "sub_state malloc error, sub failed"},
        {&mod, true, 2, -2, "fun malloc error, sub failed"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.msg);
        P().reset();
        libqz_cap_test_fail_alloc(c.fail);
        EXPECT_EQ(
            libqz_cap_subscribe_subcard_state(kGlobal, c.mod, c.fp ? subcard_cb : nullptr, &g_arg),
            c.rv);
        libqz_cap_test_fail_alloc(0);
        core_expect::only_record_is(c.msg, 100, kSubcardFn);
        EXPECT_TRUE(P().calls().empty());
    }
    EXPECT_EQ(list_length(qzcap::g_subcard_state_holders), holders + 2);
}

TEST_F(Subscribe, SubcardCallbackDeliversEachRecordAsAMessage) {
    struct fun fun {
        ptr(subcard_cb), &g_arg
    };
    for (int32_t cmd : {4, 6}) {
        fake::Pmsg m(cmd, subcard_state(true, 7, 33, cmd == 4 ? 256 : 5), {5, 6});
        EXPECT_EQ(subscribe_subcard_state_cb(kGlobal, &m.pmsg, &fun), 0);
    }
    ASSERT_EQ(g_subcard_msgs.size(), 2u);
    EXPECT_EQ(g_subcard_msgs[1].nodeid, 7);
    EXPECT_EQ(g_subcard_msgs[1].config_dev_type, 33);
    EXPECT_TRUE(g_subcard_msgs[0].ready) << "256 arrives as 1";
    EXPECT_TRUE(g_subcard_msgs[1].ready) << "5 arrives as 1";
    EXPECT_TRUE(P().events().empty());

    struct Case {
        const char *what;
        ProtobufCMessage *view;
        int32_t error_code;
        bool with_result;
        uint32_t fail;
        int32_t rv;
        std::string msg;
    } cases[] = {
        {"no memory", subcard_state(true, 1, 1, 1), 0, true, 1, -2,
         "subcard_msg malloc error, sub failed"},
        {"no result", nullptr, 0, false, 0, -21, "subcard_state_res NULL"},
        {"error code", subcard_state(true, 1, 1, 1), 4, true, 0, -21, "result error_code 4"},
        {"no record", nullptr, 0, true, 0, -22, "tmp is NULL"},
        {"no index", subcard_state(false, 1, 1, 1), 0, true, 0, -23, "tmp index is NULL"},
    };
    for (Case &c : cases) {
        SCOPED_TRACE(c.what);
        fake::Pmsg m(6, c.view, {6}, c.error_code, c.with_result);
        P().reset();
        libqz_cap_test_fail_alloc(c.fail);
        EXPECT_EQ(subscribe_subcard_state_cb(kGlobal, &m.pmsg, &fun), c.rv);
        libqz_cap_test_fail_alloc(0);
        core_expect::only_record_is(c.msg, 100, kSubcardCb);
    }
    EXPECT_EQ(g_subcard_msgs.size(), 2u) << "no failed delivery reaches the subscriber";

    expect_ladder(
        [&] {
            fake::Pmsg created(1, subcard_state(true, 1, 1, 1), {5, 6});
            EXPECT_EQ(subscribe_subcard_state_cb(kGlobal, &created.pmsg, &fun), 0);
        },
        {{kSubcardCb, "pmsg->cmd 1", 40, 4}});
    EXPECT_EQ(g_subcard_msgs.size(), 2u);

    struct fun no_fp {
        nullptr, &g_arg
    };
    fake::Pmsg m(6, subcard_state(true, 1, 1, 1), {6});
    P().reset();
    const std::pair<int32_t, std::string> refusals[] = {
        {subscribe_subcard_state_cb(kGlobal, nullptr, &fun), "pmsg NULL pointer, addr error!\n"},
        {subscribe_subcard_state_cb(kGlobal, &m.pmsg, nullptr), "arg NULL pointer, addr error!\n"},
        {subscribe_subcard_state_cb(kGlobal, &m.pmsg, &no_fp),
         "fun->fp NULL pointer, addr error!\n"},
    };
    const auto logs = P().logs();
    ASSERT_EQ(logs.size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(refusals[i].first, -4);
        core_expect::record_is(logs[i], refusals[i].second, 100, kSubcardCb);
    }
}

TEST_F(Subscribe, SubcardConfirmationScansEveryStoredRecordThroughItself) {
    struct fun fun {
        ptr(subcard_cb), &g_arg
    };
    P().will_scan([](void *global, qz_mom_record_cb cb, void *privdata) {
        for (int32_t node = 1; node <= 3; ++node) {
            fake::Pmsg stored(4, subcard_state(true, node, 10 * node, node & 1), {5, 6});
            EXPECT_EQ(cb(global, &stored.pmsg, privdata), 0);
        }
        EXPECT_EQ(g_subcard_msgs.size(), 3u) << "all delivered before the scan returns";
        return 0;
    });
    fake::Pmsg confirm(29, nullptr, {}, 0, false);
    EXPECT_EQ(subscribe_subcard_state_cb(kGlobal, &confirm.pmsg, &fun), 0);
    const auto scans = P().calls("qz_mom_scan_sync");
    ASSERT_EQ(scans.size(), 1u);
    expect_pattern_call(scans[0], "qz_mom_scan_sync", kGlobal, kEverySubcard,
                        ptr(subscribe_subcard_state_cb), &fun);
    ASSERT_EQ(g_subcard_msgs.size(), 3u);
    EXPECT_EQ(g_subcard_msgs[2].nodeid, 3);
    EXPECT_EQ(g_subcard_msgs[2].config_dev_type, 30);
    EXPECT_TRUE(g_subcard_msgs[2].ready);
    EXPECT_FALSE(g_subcard_msgs[1].ready);
    EXPECT_TRUE(P().logs().empty());

    P().reset();
    P().will_scan([](void *, qz_mom_record_cb, void *) { return -8; });
    EXPECT_EQ(subscribe_subcard_state_cb(kGlobal, &confirm.pmsg, &fun), -8);
    core_expect::only_record_is("failed,rv -8", 100, kSubcardCb);
    EXPECT_EQ(P().calls("qz_mom_scan_sync").size(), 1u);
}

}  // namespace
