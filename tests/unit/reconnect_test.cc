// Renewal of a context's recorded subscriptions after the bus reconnects.
#include <cstring>
#include <string>
#include <vector>

#include "fake_platform.h"
#include "sub/sub.h"
#include "sub_support.h"

namespace {

using fake::P;
using sub_support::expect_ladder;
using sub_support::kGlbStateKey;
using sub_support::ptr;
using sub_support::Rec;
using sub_support::text;

int g_bus[4], g_fp[4], g_arg;
constexpr char kRecon[] = "libqz_cap_reconnect_cap_thread";
constexpr char kItem[] = "libqz_cap_ce_subscribe_g_cap_recon_thread";
constexpr char kBoolStep[] = "libqz_cap_ce_subscribe_g_cap_bool_ext_recon_thread";
constexpr char kInt32Step[] = "libqz_cap_ce_subscribe_g_cap_int32_ext_recon_thread";
constexpr char kStateStep[] = "libqz_cap_ce_subscribe_g_cap_state_ext_recon_thread";

int32_t value_cb(void *, qz_mom_pmsg *, void *) {
    return 0;
}
int32_t state_cb(void *, void *) {
    return 0;
}

class Reconnect : public sub_support::WithRegistry {
  protected:
    // Records of URL "a" lie in bucket 97 + type (mod 42): the walk meets
    // types 0, 1, 3 and 7 in that order, whatever order they were added in.
    void add_one_of_each_type() {
        ASSERT_EQ(libqz_cap_add_sub_info_thread(&g_bus[3], "a", &g_fp[3], &g_arg, 7, &ctx_), 0);
        ASSERT_EQ(libqz_cap_add_sub_info_thread(&g_bus[2], "a", ptr(libqz_cap_ce_glb_ready_pmsg_f),
                                                &fun_, 3, &ctx_),
                  0);
        ASSERT_EQ(libqz_cap_add_sub_info_thread(&g_bus[1], "a", &g_fp[1], nullptr, 1, &ctx_), 0);
        ASSERT_EQ(libqz_cap_add_sub_info_thread(&g_bus[0], "a", &g_fp[0], &g_arg, 0, &ctx_), 0);
    }
    int32_t reconnect() { return libqz_cap_reconnect_cap_thread(&g_bus[3], 3, 1, &ctx_); }
    struct fun fun_ {
        ptr(state_cb), &g_arg
    };
};

TEST_F(Reconnect, RenewsEveryRecordInBucketOrderWithItsOwnValues) {
    add_one_of_each_type();
    const Rec enter{kItem, "enter", 40, 4}, leave{kItem, "leave", 40, 4};
    void *const state_fp = ptr(libqz_cap_ce_glb_ready_pmsg_f);
    expect_ladder(
        [&] { EXPECT_EQ(reconnect(), 0); },
        {{kRecon, "db 3 type 1", 80, 2},
         enter,
         {kBoolStep, text("global %p, sub url a enter, fp %p", &g_bus[0], &g_fp[0]), 80, 2},
         {kBoolStep,
          text("global %p, sub url a leave, fp %p, arg %p rv 0", &g_bus[0], &g_fp[0], &g_arg), 80,
          2},
         leave,
         enter,
         {kInt32Step,
          text("global %p, sub url a enter, fp %p, arg %p", &g_bus[1], &g_fp[1], nullptr), 80, 2},
         {kInt32Step,
          text("global %p, sub url a leave, fp %p arg %p rv 0", &g_bus[1], &g_fp[1], nullptr), 80,
          2},
         leave,
         enter,
         {kStateStep, text("global %p, sub name a enter, fp %p", &g_bus[2], state_fp), 80, 2},
         {kStateStep,
          text("global %p, sub url a leave, fp %p, arg %p rv 0", &g_bus[2], state_fp, &fun_), 80,
          2},
         leave,
         enter,
         leave});

    const auto calls = P().calls();
    ASSERT_EQ(calls.size(), 3u);
    sub_support::expect_field_call(calls[0], &g_bus[0], "a", 6, &g_fp[0], &g_arg);
    sub_support::expect_field_call(calls[1], &g_bus[1], "a", 7, &g_fp[1], nullptr);
    sub_support::expect_pattern_call(calls[2], "qz_mom_subscribe", &g_bus[2], kGlbStateKey,
                                     state_fp, &fun_);
    EXPECT_EQ(records().size(), 4u) << "renewal adds and removes nothing";
}

TEST_F(Reconnect, RefusedRenewalsAreLoggedAndTheWalkGoesOn) {
    add_one_of_each_type();
    P().will_return_status("qz_mom_subscribe_field", -5);
    P().will_return_status("qz_mom_subscribe_field", -6);
    P().will_return_status("qz_mom_subscribe", -7);
    EXPECT_EQ(reconnect(), 0);
    EXPECT_EQ(P().calls().size(), 3u);
    const auto logs = P().logs();
    ASSERT_EQ(logs.size(), 3u);
    core_expect::record_is(
        logs[0],
        text("global %p, sub url a leave, fp %p, arg %p failed rv -5", &g_bus[0], &g_fp[0], &g_arg),
        100, kBoolStep);
    core_expect::record_is(logs[1],
                           text("global %p, sub url a leave, fp %p, arg %p, failed rv -6",
                                &g_bus[1], &g_fp[1], nullptr),
                           100, kInt32Step);
    core_expect::record_is(logs[2],
                           text("global %p, sub url a leave, fp %p, arg %p failed rv -7", &g_bus[2],
                                ptr(libqz_cap_ce_glb_ready_pmsg_f), &fun_),
                           100, kStateStep);
    EXPECT_EQ(records().size(), 4u) << "a refused renewal is tried again next time";
}

TEST_F(Reconnect, NothingRecordedMeansOnlyTheNotice) {
    const std::vector<Rec> notice{{kRecon, "db 3 type 9", 80, 2}};
    expect_ladder([&] { EXPECT_EQ(libqz_cap_reconnect_cap_thread(nullptr, 3, 9, &ctx_), 0); },
                  notice);
    libqz_cap_ctrl_info_t bare{};
    expect_ladder([&] { EXPECT_EQ(libqz_cap_reconnect_cap_thread(nullptr, 3, 9, &bare), 0); },
                  notice);
    expect_ladder([&] { EXPECT_EQ(libqz_cap_reconnect_cap_thread(nullptr, 3, 9, nullptr), 0); },
                  notice);
    EXPECT_TRUE(P().calls().empty());
}

TEST_F(Reconnect, UnusableRecordsAreSkippedWithTheirReason) {
    auto rec = [](uint32_t type, void *global, void *fp, void *arg, size_t url_len) {
        sub_info r;
        memset(&r, 0, sizeof r);
        memset(r.url, 'u', url_len);  // 256: no terminator at all
        r.type = type;
        r.global = global;
        r.fp = fp;
        r.arg = arg;
        return r;
    };
    struct Case {
        sub_info r;
        const char *step;
        const char *msg;
    } cases[] = {
        {rec(0, nullptr, &g_fp[0], &g_arg, 4), kBoolStep, "global NULL pointer, addr error!\n"},
        {rec(1, &g_bus[0], &g_fp[0], &g_arg, 256), kInt32Step, "url len too long 256!\n"},
        {rec(0, &g_bus[0], nullptr, &g_arg, 255), kBoolStep, "fp NULL pointer, addr error!\n"},
        {rec(3, &g_bus[0], &g_fp[0], &g_arg, 256), kStateStep, "name len too long 256!\n"},
        {rec(3, &g_bus[0], nullptr, &g_arg, 4), kStateStep, "fp NULL pointer, addr error!\n"},
        {rec(3, &g_bus[0], &g_fp[0], nullptr, 4), kStateStep, "arg NULL pointer, addr error!\n"},
    };
    for (Case &c : cases) {
        SCOPED_TRACE(c.msg);
        P().reset();
        EXPECT_EQ(libqz_cap_ce_subscribe_g_cap_recon_thread(&c.r, &ctx_), 0);
        core_expect::only_record_is(c.msg, 100, c.step);
        EXPECT_TRUE(P().calls().empty());
    }

    sub_info ok = rec(0, &g_bus[0], &g_fp[0], nullptr, 4);
    P().reset();
    EXPECT_EQ(libqz_cap_ce_subscribe_g_cap_recon_thread(nullptr, &ctx_), -4);
    core_expect::only_record_is("item NULL pointer, addr error!\n", 100, kItem);
    P().reset();
    EXPECT_EQ(libqz_cap_ce_subscribe_g_cap_recon_thread(&ok, nullptr), -4);
    core_expect::only_record_is("para NULL pointer, addr error!\n", 100, kItem);
    EXPECT_TRUE(P().calls().empty());
}

// Subscribed through the public forms, renewed as they were made; the
// subcard state subscription is not recorded and so not renewed.
TEST_F(Reconnect, RenewalRepeatsTheOriginalSubscriptions) {
    int mod;
    ASSERT_EQ(libqz_cap_ce_subscribe_g_cap_bool_thread(&g_bus[0], "cap/b", value_cb, &ctx_), 0);
    ASSERT_EQ(
        libqz_cap_ce_subscribe_g_cap_int32_ext_thread(&g_bus[1], "cap/i", value_cb, &g_arg, &ctx_),
        0);
    ASSERT_EQ(libqz_cap_ce_subscribe_g_cap_state_thread(&g_bus[2], "st", state_cb, &g_arg, &ctx_),
              0);
    ASSERT_EQ(libqz_cap_subscribe_subcard_state(&g_bus[3], &mod, nullptr, nullptr), -4);
    ASSERT_EQ(
        libqz_cap_subscribe_subcard_state(
            &g_bus[3], &mod, [](void *, libqz_cap_subcard_msg_t *, void *) { return 0; }, nullptr),
        0);
    const auto originals = P().calls();
    ASSERT_EQ(originals.size(), 4u);

    P().reset();
    EXPECT_EQ(reconnect(), 0);
    const auto renewals = P().calls();
    ASSERT_EQ(renewals.size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        SCOPED_TRACE(originals[i].key);
        size_t matches = 0;
        for (const fake::Event &r : renewals) {
            const fake::Event &o = originals[i];
            matches += r.op == o.op && r.global == o.global && r.db == o.db && r.key == o.key &&
                       r.fields == o.fields && r.cbs == o.cbs && r.args_null == o.args_null &&
                       r.args == o.args && r.flags == o.flags && r.cb == o.cb &&
                       r.privdata == o.privdata;
        }
        EXPECT_EQ(matches, 1u);
    }
}

}  // namespace
