// Device-wide readiness: the one-shot read and the readiness callback.
#include <string>
#include <vector>

#include "fake_platform.h"
#include "sub/sub.h"
#include "s_frame.pb-c.h"
#include "sub_support.h"

namespace {

using namespace sub_support;

int g_arg;
constexpr char kRead[] = "libqz_cap_ce_get_glb_ready";
constexpr char kCb[] = "libqz_cap_ce_glb_ready_pmsg_f";

ProtobufCMessage *glb_state(protobuf_c_boolean ready) {
    SFrame__CapGlbState s = S_FRAME__CAP_GLB_STATE__INIT;
    auto *obj = reinterpret_cast<SFrame__CapGlbState *>(fake::make_message(&s.base));
    obj->ready = ready;  // after packing, so that 256 survives
    return &obj->base;
}

// The subscriber's state callback: counts calls and their arguments.
struct Calls {
    int n = 0;
    void *global = nullptr, *arg = nullptr;
} g_calls;
int32_t state_cb(void *global, void *arg) {
    ++g_calls.n;
    g_calls.global = global;
    g_calls.arg = arg;
    return -7;  // ignored
}

class GlbReady : public fake::Test {
  protected:
    void SetUp() override {
        fake::Test::SetUp();
        g_calls = {};
    }
    struct fun fun_ {
        reinterpret_cast<void *>(state_cb), &g_arg
    };
};

TEST_F(GlbReady, ReadsOnceAndTakesAnyNonZeroAsReady) {
    struct Case {
        bool stored;
        protobuf_c_boolean ready;
        bool expected;
    } cases[] = {{false, 0, false}, {true, 0, false}, {true, 1, true}, {true, 256, true}};
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.stored) + " " + std::to_string(c.ready));
        const std::string value_line =
            c.stored ? text("ready is %d", c.ready) : "tmp_state is NULL";
        expect_ladder(
            [&] {
                P().will_return_object({c.stored ? glb_state(c.ready) : nullptr, 0});
                bool ready = !c.expected;
                EXPECT_EQ(libqz_cap_ce_get_glb_ready(kGlobal, &ready), 0);
                EXPECT_EQ(ready, c.expected);
            },
            {{kRead, text("enter %p", kGlobal), 40, 4},
             {kRead, value_line, 80, 2},
             {kRead, "leave", 40, 4}});
        const auto calls = P().calls();
        ASSERT_EQ(calls.size(), c.stored ? 2u : 1u);
        EXPECT_EQ(calls[0].op, "qz_mom_get_sync");
        EXPECT_EQ(calls[0].global, kGlobal);
        EXPECT_EQ(calls[0].db, 3);
        EXPECT_EQ(calls[0].key, kGlbStateKey);
        EXPECT_EQ(calls[0].error_in, 0);
        if (c.stored) {  // released before the closing trace
            EXPECT_EQ(P().events().back().op, "log");
            EXPECT_EQ(P().events()[P().events().size() - 2].op, "qz_mom_qz_obj_free");
        }
    }
}

TEST_F(GlbReady, BusErrorCodeIsMinus8AndReleasesWhatCameBack) {
    expect_ladder(
        [&] {
            P().will_return_object({glb_state(1), 5});
            bool ready = true;
            EXPECT_EQ(libqz_cap_ce_get_glb_ready(kGlobal, &ready), -8);
            EXPECT_FALSE(ready);
        },
        {{kRead, text("enter %p", kGlobal), 40, 4}, {kRead, "errorcode 5", 100, 1}});
    EXPECT_EQ(P().calls("qz_mom_qz_obj_free").size(), 1u);
}

TEST_F(GlbReady, NullArgumentsAreRefusedBeforeTheBus) {
    bool ready = true;
    EXPECT_EQ(libqz_cap_ce_get_glb_ready(nullptr, nullptr), -4);
    core_expect::only_record_is("global NULL pointer, addr error!\n", 100, kRead);
    P().reset();
    EXPECT_EQ(libqz_cap_ce_get_glb_ready(kGlobal, nullptr), -4);
    core_expect::only_record_is("ready NULL pointer, addr error!\n", 100, kRead);
    P().reset();
    EXPECT_EQ(libqz_cap_ce_get_glb_ready(nullptr, &ready), -4);
    EXPECT_TRUE(ready);
    EXPECT_TRUE(P().calls().empty());
}

TEST_F(GlbReady, DeliveredRecordCallsTheSubscriberWhateverItSays) {
    expect_ladder(
        [&] {
            fake::Pmsg not_ready(1, glb_state(0), {5});
            EXPECT_EQ(libqz_cap_ce_glb_ready_pmsg_f(kGlobal, &not_ready.pmsg, &fun_), 0);
        },
        {{kCb, "enter", 40, 4}, {kCb, "glb_state is ready exec callback", 80, 2}});
    EXPECT_EQ(g_calls.n, 5) << "once per gate level";
    EXPECT_EQ(g_calls.global, kGlobal);
    EXPECT_EQ(g_calls.arg, &g_arg);

    g_calls = {};
    expect_ladder(
        [&] {
            fake::Pmsg empty(1, nullptr, {}, 0, false);
            EXPECT_EQ(libqz_cap_ce_glb_ready_pmsg_f(kGlobal, &empty.pmsg, &fun_), 22);
        },
        {{kCb, "enter", 40, 4}, {kCb, "tmp_state is NULL", 80, 2}});
    EXPECT_EQ(g_calls.n, 0);
    EXPECT_TRUE(P().calls().empty());
}

TEST_F(GlbReady, ConfirmationScansOnceThroughTheSameCallbackAndFun) {
    g_libqz_cap_zlog_level = 2;
    P().will_scan([&](void *global, qz_mom_record_cb cb, void *privdata) {
        fake::Pmsg stored(1, glb_state(1), {5});
        return cb(global, &stored.pmsg, privdata);
    });
    fake::Pmsg confirm(29, nullptr, {}, 0, false);
    EXPECT_EQ(libqz_cap_ce_glb_ready_pmsg_f(kGlobal, &confirm.pmsg, &fun_), 0);
    const auto scans = P().calls("qz_mom_scan_sync");
    ASSERT_EQ(scans.size(), 1u);
    sub_support::expect_pattern_call(scans[0], "qz_mom_scan_sync", kGlobal, kGlbStateKey,
                                     sub_support::ptr(libqz_cap_ce_glb_ready_pmsg_f), &fun_);
    EXPECT_EQ(g_calls.n, 1) << "the stored record reached the subscriber";
    EXPECT_EQ(P().log_messages(),
              (std::vector<std::string>{"subscribe ok", "glb_state is ready exec callback"}));

    expect_ladder(
        [&] {
            P().will_scan([](void *, qz_mom_record_cb, void *) { return -9; });
            EXPECT_EQ(libqz_cap_ce_glb_ready_pmsg_f(kGlobal, &confirm.pmsg, &fun_), -9);
            EXPECT_EQ(P().calls("qz_mom_scan_sync").size(), 1u);
        },
        {{kCb, "enter", 40, 4}, {kCb, "subscribe ok", 80, 2}, {kCb, "failed,rv -9", 100, 1}});
}

TEST_F(GlbReady, OtherEventsAndBadArgumentsCallNothing) {
    expect_ladder(
        [&] {
            fake::Pmsg deleted(7, nullptr, {}, 0, false);
            EXPECT_EQ(libqz_cap_ce_glb_ready_pmsg_f(kGlobal, &deleted.pmsg, &fun_), 0);
        },
        {{kCb, "enter", 40, 4}, {kCb, "pmsg->cmd 7", 40, 4}});

    fake::Pmsg delivered(1, glb_state(1), {5});
    struct fun no_fp {
        nullptr, &g_arg
    };
    P().reset();
    EXPECT_EQ(libqz_cap_ce_glb_ready_pmsg_f(kGlobal, nullptr, nullptr), -4);
    core_expect::only_record_is("pmsg NULL pointer, addr error!\n", 100, kCb);
    P().reset();
    EXPECT_EQ(libqz_cap_ce_glb_ready_pmsg_f(kGlobal, &delivered.pmsg, nullptr), -4);
    core_expect::only_record_is("arg NULL pointer, addr error!\n", 100, kCb);
    P().reset();
    EXPECT_EQ(libqz_cap_ce_glb_ready_pmsg_f(kGlobal, &delivered.pmsg, &no_fp), -4);
    core_expect::only_record_is("fun->fp NULL pointer, addr error!\n", 100, kCb);
    EXPECT_EQ(g_calls.n, 0);
    EXPECT_TRUE(P().calls().empty());
}

}  // namespace
