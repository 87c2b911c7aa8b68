// Initialisation: the step records, the exact bus and shell calls, every
// failure and what it leaves behind, and rebinding.
#include <cstdio>
#include <string>
#include <vector>

#include "core/alloc.h"
#include "core_expect.h"
#include "dbg_fixture.h"
#include "fake_platform.h"
#include "sub/sub.h"

namespace {

using core_expect::only_record_is;
using core_expect::record_is;
using dbg_fixture::app_name;
using fake::P;

int g_bus, g_bus2;
void *const kBus = &g_bus;
void *const kBus2 = &g_bus2;
constexpr char kFunc[] = "libqz_cap_init_thread";

std::string fmt(const char *f, const void *a, const char *s, const void *b = nullptr) {
    char buf[512];
    snprintf(buf, sizeof buf, f, a, s, b);
    return buf;
}

std::vector<std::string> ops() {
    std::vector<std::string> out;
    for (const auto &e : P().calls())
        out.push_back(e.op);
    return out;
}

class Init : public dbg_fixture::DefaultCtxTest {
  protected:
    void TearDown() override {
        libqz_cap_test_fail_alloc(0);
        dbg_fixture::drop_registry(&ctx_);
        DefaultCtxTest::TearDown();
    }
    // Recorded count of every step, in step order.
    static std::vector<uint32_t> counts(const libqz_cap_ctrl_info_t &c) {
        std::vector<uint32_t> out;
        for (const auto &r : c.time_rec) {
            EXPECT_EQ(r.valid, r.count != 0 ? 1 : 0);
            out.push_back(r.count);
        }
        return out;
    }
    void add_record(libqz_cap_ctrl_info_t *c, const char *url) {
        static int cb;
        ASSERT_EQ(libqz_cap_add_sub_info_thread(kBus, url, &cb, nullptr, 0, c), 0);
    }
    dbg_fixture::DataRoot root_;
    libqz_cap_ctrl_info_t ctx_{};
};

TEST_F(Init, DefaultContextRunsEveryStepInOrder) {
    libqz_cap_ctrl_info_t &ctx = g_libqz_cap_ctrl_info;
    g_libqz_cap_zlog_level = 2;
    libqz_cap_list_head_t stale{};
    cap_sub_card_nodes_list.next = cap_sub_card_nodes_list.prev = &stale;
    P().set_time(50, 0, 1000);

    ASSERT_EQ(libqz_cap_init(kBus, "reg"), 0);

    std::vector<std::string> want = {"qz_monotime",
                                     "qz_monotime",
                                     "qz_zlog_init",
                                     "qz_monotime",
                                     "qz_mom_client_connect_sync",
                                     "qz_monotime",
                                     "qz_monotime",
                                     "qz_mom_client_set_reconnect_cb",
                                     "qz_monotime",
                                     "kril_multi_thread_init"};
    want.insert(want.end(), 19, "kril_multi_thread_reg_mod_cmd");
    want.push_back("qz_monotime");
    EXPECT_EQ(ops(), want);

    auto connect = P().calls("qz_mom_client_connect_sync").at(0);
    EXPECT_EQ(connect.global, kBus);
    EXPECT_EQ(connect.db, 3);
    auto recon = P().calls("qz_mom_client_set_reconnect_cb").at(0);
    EXPECT_EQ(recon.global, kBus);
    EXPECT_EQ(recon.db, 3);
    EXPECT_EQ(recon.cb, reinterpret_cast<void *>(libqz_cap_reconnect_cap_thread));
    EXPECT_EQ(recon.privdata, &ctx);
    auto kril = P().calls("kril_multi_thread_init").at(0);
    EXPECT_EQ(kril.global, kBus);
    EXPECT_EQ(kril.module, "libqz_cap_" + app_name());
    EXPECT_EQ(kril.handle, ctx.kril_handle);
    EXPECT_EQ(P().calls("qz_zlog_init").at(0).module, "libqz_cap");

    // Entry line once logging is up and before connecting; success line last,
    // with the application name where reg_name stands.
    const auto &ev = P().events();
    ASSERT_EQ(P().logs().size(), 2u);
    record_is(ev[4], fmt("enter global %p reg_name %s info %p", kBus, "reg", &ctx), 80, kFunc);
    record_is(ev.back(),
              fmt("global %p, reg_name %s libqz_cap_init success", kBus, app_name().c_str()), 80,
              kFunc);

    EXPECT_EQ(counts(ctx), std::vector<uint32_t>(7, 1));
    for (int s = 1; s < 7; ++s) {
        EXPECT_GT(ctx.time_rec[s].nsec, ctx.time_rec[s - 1].nsec) << "step " << s;
        EXPECT_EQ(ctx.time_rec[s].sec, 50u);
    }
    EXPECT_EQ(ctx.global, kBus);
    ASSERT_NE(ctx.sub_hash, nullptr);
    EXPECT_EQ(ctx.sub_hash->table_size, 42u);
    EXPECT_EQ(qz_cap_hash_get_current_item_num(ctx.sub_hash), 0u);
    EXPECT_EQ(cap_sub_card_nodes_list.next, &cap_sub_card_nodes_list);
    EXPECT_EQ(cap_sub_card_nodes_list.prev, &cap_sub_card_nodes_list);
}

TEST_F(Init, ArgumentsAreCheckedFirstInOrder) {
    core_expect::expect_refused(
        libqz_cap_init_thread,
        {
            {nullptr, nullptr, nullptr, "reg_name NULL pointer, addr error!\n"},
            {nullptr, "reg", nullptr, "global NULL pointer, addr error!\n"},
            {kBus, "reg", nullptr, "info NULL pointer, addr error!\n"},
        },
        kFunc);
}

TEST_F(Init, FailedConnectionStopsAfterStepThreeAndIsRetried) {
    P().will_return_status("qz_mom_client_connect_sync", -5);
    EXPECT_EQ(libqz_cap_init_thread(kBus, "reg", &ctx_), -5);
    EXPECT_EQ(counts(ctx_), (std::vector<uint32_t>{1, 1, 1, 1, 0, 0, 0}));
    EXPECT_EQ(ctx_.global, nullptr);
    EXPECT_EQ(ctx_.sub_hash, nullptr);
    EXPECT_TRUE(P().calls("qz_mom_client_set_reconnect_cb").empty());
    only_record_is("connect host failed, rv -5", 100, kFunc);

    // Nothing was bound, so the same handle runs every step again.
    P().reset();
    EXPECT_EQ(libqz_cap_init_thread(kBus, "reg", &ctx_), 0);
    EXPECT_EQ(P().calls("qz_mom_client_connect_sync").size(), 1u);
    EXPECT_EQ(counts(ctx_), (std::vector<uint32_t>{2, 2, 2, 2, 1, 1, 1}));
    EXPECT_EQ(ctx_.global, kBus);
    EXPECT_NE(ctx_.sub_hash, nullptr);
}

TEST_F(Init, RegistryThatCannotBeCreatedFailsWithMinusEleven) {
    libqz_cap_test_fail_alloc(1);
    EXPECT_EQ(libqz_cap_init_thread(kBus, "reg", &ctx_), -11);
    EXPECT_EQ(counts(ctx_), (std::vector<uint32_t>{1, 1, 1, 1, 0, 0, 0}));
    EXPECT_EQ(ctx_.sub_hash, nullptr);
    EXPECT_EQ(ctx_.global, nullptr);
    EXPECT_TRUE(P().calls("qz_mom_client_set_reconnect_cb").empty());
    only_record_is(fmt("global %p sub_hash create failed", kBus, ""), 100, kFunc);
}

TEST_F(Init, RefusedReconnectCallbackDestroysTheRegistryItHeld) {
    ASSERT_EQ(libqz_cap_init_thread(kBus, "reg", &ctx_), 0);
    add_record(&ctx_, "a/b");
    add_record(&ctx_, "c/d");
    P().reset();
    P().will_return_status("qz_mom_client_set_reconnect_cb", -7);

    EXPECT_EQ(libqz_cap_init_thread(kBus2, "reg", &ctx_), -7);
    EXPECT_EQ(ctx_.sub_hash, nullptr);
    EXPECT_EQ(ctx_.global, kBus) << "the earlier binding stays";
    EXPECT_EQ(counts(ctx_), (std::vector<uint32_t>{2, 2, 2, 2, 2, 1, 1}));
    only_record_is("qz_mom_client_set_reconnect_cb cap failed, rv -7", 100, kFunc);

    // The next initialisation starts an empty registry of its own.
    EXPECT_EQ(libqz_cap_init_thread(kBus2, "reg", &ctx_), 0);
    ASSERT_NE(ctx_.sub_hash, nullptr);
    EXPECT_EQ(qz_cap_hash_get_current_item_num(ctx_.sub_hash), 0u);
    EXPECT_EQ(ctx_.global, kBus2);
}

TEST_F(Init, SameHandleAgainDoesNothing) {
    ASSERT_EQ(libqz_cap_init(kBus, "reg"), 0);
    const auto before = counts(g_libqz_cap_ctrl_info);
    P().reset();
    g_libqz_cap_zlog_level = 4;
    EXPECT_EQ(libqz_cap_init(kBus, "other"), 0);
    EXPECT_TRUE(P().events().empty());
    EXPECT_EQ(counts(g_libqz_cap_ctrl_info), before);
}

TEST_F(Init, OtherHandleOnDefaultContextWarnsAtEveryGateAndKeepsRegistry) {
    libqz_cap_ctrl_info_t &ctx = g_libqz_cap_ctrl_info;
    g_libqz_cap_zlog_level = 0;
    ASSERT_EQ(libqz_cap_init(kBus, "reg"), 0);
    add_record(&ctx, "a/b");
    qz_cap_hash_table *registry = ctx.sub_hash;
    P().reset();

    EXPECT_EQ(libqz_cap_init(kBus2, "reg2"), 0);
    only_record_is(
        fmt("maybe multi_thread call libqz_cap_init global %p, reg_name %s; old global %p", kBus2,
            "reg2", kBus),
        120, kFunc);
    EXPECT_EQ(P().calls("qz_mom_client_connect_sync").at(0).global, kBus2);
    EXPECT_EQ(P().calls("kril_multi_thread_init").size(), 1u) << "module registered again";
    EXPECT_EQ(ctx.sub_hash, registry);
    EXPECT_EQ(qz_cap_hash_get_current_item_num(ctx.sub_hash), 1u);
    EXPECT_EQ(counts(ctx), std::vector<uint32_t>(7, 2));
    EXPECT_EQ(ctx.global, kBus2);
}

TEST_F(Init, ExplicitContextNeverRegistersModuleNorWarns) {
    g_libqz_cap_zlog_level = 4;
    ASSERT_EQ(libqz_cap_init_thread(kBus, "reg", &ctx_), 0);
    ASSERT_EQ(libqz_cap_init_thread(kBus2, "reg", &ctx_), 0);
    EXPECT_TRUE(P().calls("kril_multi_thread_init").empty());
    EXPECT_TRUE(P().calls("kril_multi_thread_reg_mod_cmd").empty());
    for (const auto &e : P().logs())
        EXPECT_NE(e.level, 120) << e.msg;
    EXPECT_EQ(counts(ctx_), std::vector<uint32_t>(7, 2)) << "step 6 is recorded all the same";
    EXPECT_EQ(g_libqz_cap_ctrl_info.global, nullptr);
}

TEST_F(Init, RefusedDebugModuleDoesNotFailInitialisation) {
    P().will_return_status("kril_multi_thread_init", -3);
    EXPECT_EQ(libqz_cap_init(kBus, "reg"), 0);
    EXPECT_TRUE(P().calls("kril_multi_thread_reg_mod_cmd").empty());
    EXPECT_EQ(g_libqz_cap_ctrl_info.time_rec[LIBQZ_CAP_INIT_KRIL_INIT].count, 1u);
    EXPECT_EQ(g_libqz_cap_ctrl_info.global, kBus);
    only_record_is("kril_lib_init failed, rv -3", 100, "libqz_cap_kril_init_thread",
                   core_expect::kDbg);
}

}  // namespace
