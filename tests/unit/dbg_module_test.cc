// The debug module: its registration with the shell, the command handlers as
// the shell calls them, and the debug subscriptions' value callbacks.
#include <cstring>
#include <string>
#include <vector>

#include "core_expect.h"
#include "dbg_fixture.h"
#include "fake_platform.h"
#include "dbg/dbg.h"
#include "sub/sub.h"
#include "p_libpub.pb-c.h"

namespace {

using core_expect::only_record_is;
using dbg_fixture::printed;
using fake::P;

void *const kBus = fake::kGlobal;
constexpr char kKrilFunc[] = "libqz_cap_kril_init_thread";

using UrlHandler = int32_t (*)(const char *);
using VoidHandler = int32_t (*)(void);

void *untyped(auto fn) {
    return reinterpret_cast<void *>(fn);
}

// A stored capability record as the bus hands it out.
ProtobufCMessage *cap_record(const char *url, bool b, int32_t i, const char *s) {
    PLibpub__CapTableIndex index = P_LIBPUB__CAP_TABLE_INDEX__INIT;
    index.url = const_cast<char *>(url);
    PLibpub__CapTable rec = P_LIBPUB__CAP_TABLE__INIT;
    rec.index = &index;
    rec.bool_value = b;
    rec.int32_value = i;
    rec.str_value = const_cast<char *>(s);
    return fake::make_message(&rec.base);
}

// ---- registration

class KrilInit : public fake::Test {
  protected:
    libqz_cap_ctrl_info_t ctx_{};
};

TEST_F(KrilInit, RegistersNineteenCommandsInTableOrder) {
    struct Row {
        const char *cmd, *argfmt;
        void *handler;
    };
    const Row table[] = {
        {"log-level", "%d", untyped(libqz_cap_log_level)},
        {"dump_stat", "void", untyped(libqz_cap_dbg_dump_stat)},
        {"dump_sub_hash", "void", untyped(libqz_cap_dbg_dump_sub_hash)},
        {"get_cap_bool", "url=%s", untyped(libqz_cap_dbg_get_cap_bool)},
        {"get_cap_int32", "url=%s", untyped(libqz_cap_dbg_get_cap_int32)},
        {"get_cap_str", "url=%s", untyped(libqz_cap_dbg_get_cap_str)},
        {"get_cap_bool_no_block", "url=%s", untyped(libqz_cap_dbg_get_cap_bool_no_block)},
        {"get_cap_int32_no_block", "url=%s", untyped(libqz_cap_dbg_get_cap_int32_no_block)},
        {"get_cap_str_no_block", "url=%s", untyped(libqz_cap_dbg_get_cap_str_no_block)},
        {"get_g_cap_bool", "url=%s", untyped(libqz_cap_dbg_ce_get_g_cap_bool)},
        {"get_g_cap_int32", "url=%s", untyped(libqz_cap_dbg_ce_get_g_cap_int32)},
        {"get_g_cap_bool_no_block", "url=%s", untyped(libqz_cap_dbg_ce_get_g_cap_bool_no_block)},
        {"get_g_cap_int32_no_block", "url=%s", untyped(libqz_cap_dbg_ce_get_g_cap_int32_no_block)},
        {"sub_g_cap_bool", "url=%s", untyped(libqz_cap_dbg_ce_subscribe_g_cap_bool)},
        {"sub_g_cap_int32", "url=%s", untyped(libqz_cap_dbg_ce_subscribe_g_cap_int32)},
        {"show_memory", "void", untyped(libqz_cap_dbg_show_memory)},
        {"show_time", "void", untyped(libqz_cap_dbg_show_time)},
        {"dump_all", "void", untyped(libqz_cap_dbg_dump_all)},
        {"collect", "void", untyped(libqz_cap_dbg_collect)},
    };
    g_libqz_cap_zlog_level = 4;
    // A refused command does not stop the others.
    P().will_return_status("kril_multi_thread_reg_mod_cmd", -1);

    EXPECT_EQ(libqz_cap_kril_init_thread(kBus, "demo", &ctx_), 0);

    auto init = P().calls("kril_multi_thread_init");
    ASSERT_EQ(init.size(), 1u);
    EXPECT_EQ(init[0].global, kBus);
    EXPECT_EQ(init[0].module, "libqz_cap_demo");
    EXPECT_EQ(init[0].handle, ctx_.kril_handle);
    auto regs = P().calls("kril_multi_thread_reg_mod_cmd");
    ASSERT_EQ(regs.size(), 19u);
    for (size_t i = 0; i < regs.size(); ++i) {
        SCOPED_TRACE(table[i].cmd);
        EXPECT_EQ(regs[i].handle, ctx_.kril_handle);
        EXPECT_EQ(regs[i].module, "libqz_cap_demo");
        EXPECT_EQ(regs[i].cmd, table[i].cmd);
        EXPECT_EQ(regs[i].flags, 0);
        EXPECT_EQ(regs[i].argfmt, table[i].argfmt);
        EXPECT_EQ(regs[i].cb, table[i].handler);
    }
    only_record_is("kril_lib_init ok", 40, kKrilFunc, core_expect::kDbg);
    EXPECT_LT(P().logs()[0].seq, regs[0].seq);
}

TEST_F(KrilInit, RefusedModuleRegistersNothing) {
    P().will_return_status("kril_multi_thread_init", -9);
    EXPECT_EQ(libqz_cap_kril_init_thread(kBus, "demo", &ctx_), -11);
    EXPECT_TRUE(P().calls("kril_multi_thread_reg_mod_cmd").empty());
    only_record_is("kril_lib_init failed, rv -9", 100, kKrilFunc, core_expect::kDbg);
}

TEST_F(KrilInit, ModuleNameIsCutAt126Characters) {
    const std::string app(200, 'a');
    EXPECT_EQ(libqz_cap_kril_init_thread(kBus, app.c_str(), &ctx_), 0);
    EXPECT_EQ(P().calls("kril_multi_thread_init").at(0).module,
              "libqz_cap_" + std::string(116, 'a'));
}

TEST_F(KrilInit, MissingArgumentsAreRefused) {
    core_expect::expect_refused(libqz_cap_kril_init_thread,
                                {
                                    {nullptr, "demo", &ctx_, "global NULL pointer, addr error!\n"},
                                    {kBus, nullptr, &ctx_, "name NULL pointer, addr error!\n"},
                                    {kBus, "demo", nullptr, "info NULL pointer, addr error!\n"},
                                },
                                kKrilFunc, core_expect::kDbg);
}

// ---- handlers, on the default context of the calling thread

class Handlers : public dbg_fixture::DefaultCtxTest {
  protected:
    void SetUp() override {
        DefaultCtxTest::SetUp();
        g_libqz_cap_ctrl_info.global = kBus;
        g_libqz_cap_ctrl_info.ready = 1;  // blocking reads read once
    }
    // The handler the module registered for cmd, as the shell holds it.
    void *registered(const std::string &cmd) {
        libqz_cap_ctrl_info_t ctx{};
        P().reset();
        EXPECT_EQ(libqz_cap_kril_init_thread(kBus, "demo", &ctx), 0);
        for (const auto &e : P().calls("kril_multi_thread_reg_mod_cmd")) {
            if (e.cmd == cmd)
                return e.cb;
        }
        ADD_FAILURE() << cmd << " not registered";
        return nullptr;
    }
};

TEST_F(Handlers, LogLevelThenDumpStatAsTheShellCallsThem) {
    auto set_level = reinterpret_cast<void (*)(int32_t)>(registered("log-level"));
    auto dump_stat = reinterpret_cast<VoidHandler>(registered("dump_stat"));
    ASSERT_TRUE(set_level && dump_stat);
    set_level(4);
    int32_t rc = -1;
    EXPECT_EQ(printed(dump_stat, &rc), "g_libqz_cap_ready is 1\ng_libqz_cap_zlog_level is 4\n");
    EXPECT_EQ(rc, 0);
}

TEST_F(Handlers, EveryReadPrintsItsValueOrItsFailureAfterOneRead) {
    struct Case {
        const char *name;
        UrlHandler handler;
        const char *op;
        const char *value_line;
    } cases[] = {
        {"get_cap_bool", libqz_cap_dbg_get_cap_bool, "qz_mom_hgetall_sync", "value 1\n"},
        {"get_cap_int32", libqz_cap_dbg_get_cap_int32, "qz_mom_hgetall_sync", "value -7\n"},
        {"get_cap_str", libqz_cap_dbg_get_cap_str, "qz_mom_hgetall_sync", "str abc, len 3\n"},
        {"get_cap_bool_no_block", libqz_cap_dbg_get_cap_bool_no_block, "qz_mom_hgetall_ext_sync",
         "value 1\n"},
        {"get_cap_int32_no_block", libqz_cap_dbg_get_cap_int32_no_block, "qz_mom_hgetall_ext_sync",
         "value -7\n"},
        {"get_cap_str_no_block", libqz_cap_dbg_get_cap_str_no_block, "qz_mom_hgetall_ext_sync",
         "str abc, len 3\n"},
        {"get_g_cap_bool", libqz_cap_dbg_ce_get_g_cap_bool, "qz_mom_hgetall_sync", "value 1\n"},
        {"get_g_cap_int32", libqz_cap_dbg_ce_get_g_cap_int32, "qz_mom_hgetall_sync", "value -7\n"},
        {"get_g_cap_bool_no_block", libqz_cap_dbg_ce_get_g_cap_bool_no_block,
         "qz_mom_hgetall_ext_sync", "value 1\n"},
        {"get_g_cap_int32_no_block", libqz_cap_dbg_ce_get_g_cap_int32_no_block,
         "qz_mom_hgetall_ext_sync", "value -7\n"},
    };
    const char *url = "global_spec/platform/x";
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        P().reset();
        P().will_return_hash(c.op,
                             {.view = cap_record(url, true, -7, "abc"), .fields = {5, 6, 7, 8}});
        int32_t rc = -1;
        EXPECT_EQ(printed([&] { return c.handler(url); }, &rc),
                  std::string("url ") + url + "\n" + c.value_line);
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(P().calls(c.op).size(), 1u);
        EXPECT_EQ(P().calls(c.op).at(0).global, kBus);

        // A bus failure is shown with the read's own code, not retried.
        P().reset();
        fake::HashSpec nothing;
        nothing.null = true;
        P().will_return_hash(c.op, nothing);
        EXPECT_EQ(printed([&] { return c.handler(url); }, &rc),
                  std::string("url ") + url + "\nfailed,rv -21\n");
        EXPECT_EQ(rc, -21);
        EXPECT_EQ(P().calls(c.op).size(), 1u);
    }
}

TEST_F(Handlers, UninitialisedContextAndNullUrlAreRefusedWithoutBusCall) {
    g_libqz_cap_ctrl_info.global = nullptr;
    int32_t rc = 0;
    EXPECT_EQ(printed([] { return libqz_cap_dbg_get_cap_bool("u"); }, &rc),
              "url u\nfailed,rv -4\n");
    EXPECT_EQ(rc, -4);
    g_libqz_cap_ctrl_info.global = kBus;
    EXPECT_EQ(printed([] { return libqz_cap_dbg_get_cap_str(nullptr); }, &rc),
              "url (null)\nfailed,rv -4\n");
    EXPECT_EQ(rc, -4);
    EXPECT_EQ(printed([] { return libqz_cap_dbg_ce_subscribe_g_cap_int32(nullptr); }, &rc),
              "url (null)\nfailed,rv -4\n");
    EXPECT_EQ(rc, -4);
    EXPECT_TRUE(P().calls().empty());
}

TEST_F(Handlers, SubscriptionsUseTheDebugCallbacksWithoutArgument) {
    dbg_fixture::make_registry(&g_libqz_cap_ctrl_info);
    struct Case {
        UrlHandler handler;
        int32_t field;
        void *cb;
        const char *notice;
    } cases[] = {
        {libqz_cap_dbg_ce_subscribe_g_cap_bool, 6, untyped(libqz_cap_dbg_bool_sub_cb),
         "sub g_cap_bool url a/b success\n"},
        {libqz_cap_dbg_ce_subscribe_g_cap_int32, 7, untyped(libqz_cap_dbg_int32_sub_cb),
         "sub g_cap_int32 url a/b success\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.notice);
        P().reset();
        int32_t rc = -1;
        EXPECT_EQ(printed([&] { return c.handler("a/b"); }, &rc),
                  std::string("url a/b\n") + c.notice);
        EXPECT_EQ(rc, 0);
        auto subs = P().calls("qz_mom_subscribe_field");
        ASSERT_EQ(subs.size(), 1u);
        EXPECT_EQ(subs[0].global, kBus);
        EXPECT_EQ(subs[0].fields, std::vector<int32_t>{c.field});
        EXPECT_EQ(subs[0].cbs, std::vector<void *>{c.cb});
        EXPECT_TRUE(subs[0].args_null);

        P().reset();
        P().will_return_status("qz_mom_subscribe_field", -3);
        EXPECT_EQ(printed([&] { return c.handler("c/d"); }, &rc), "url c/d\nfailed,rv -3\n");
        EXPECT_EQ(rc, -3);
        EXPECT_EQ(P().calls("qz_mom_subscribe_field").size(), 1u);
    }
    EXPECT_EQ(qz_cap_hash_get_current_item_num(g_libqz_cap_ctrl_info.sub_hash), 2u)
        << "refused subscriptions are not recorded";
}

TEST_F(Handlers, DumpSubHashShowsHeaderThenRecords) {
    const std::string header = "\r\n====================dump sub hash======================\r\n\n";
    int32_t rc = 0;
    EXPECT_EQ(printed(libqz_cap_dbg_dump_sub_hash, &rc), header);
    EXPECT_EQ(rc, -1) << "no registry to walk";

    dbg_fixture::make_registry(&g_libqz_cap_ctrl_info);
    EXPECT_EQ(printed(libqz_cap_dbg_dump_sub_hash, &rc), header);
    EXPECT_EQ(rc, 0);

    ASSERT_EQ(libqz_cap_add_sub_info_thread(reinterpret_cast<void *>(0x5678), "a/b",
                                            reinterpret_cast<void *>(0x1234), nullptr, 1,
                                            &g_libqz_cap_ctrl_info),
              0);
    EXPECT_EQ(printed(libqz_cap_dbg_dump_sub_hash, &rc),
              header + "fp   0x1234, global   0x5678, type  1, arg    (nil), url a/b\n");
    EXPECT_EQ(rc, 0);
}

// ---- value callbacks of the debug subscriptions

class DebugCallbacks : public fake::Test {};

TEST_F(DebugCallbacks, DeliveredValuesArePrintedWithUrlAndLength) {
    fake::Pmsg changed(6, cap_record("a/bc", true, 0, ""), {5, 6});
    int32_t rc = -1;
    EXPECT_EQ(printed([&] { return libqz_cap_dbg_bool_sub_cb(kBus, &changed.pmsg, nullptr); }, &rc),
              "url a/bc, value is 1, length 4\n");
    EXPECT_EQ(rc, 0);
    fake::Pmsg scanned(4, cap_record("x", false, -9, ""), {5, 7});
    EXPECT_EQ(
        printed([&] { return libqz_cap_dbg_int32_sub_cb(kBus, &scanned.pmsg, nullptr); }, &rc),
        "url x, value is -9, length 1\n");
    EXPECT_EQ(rc, 0);
}

TEST_F(DebugCallbacks, ExtractionFailureIsPrintedAndReturnedOnce) {
    fake::Pmsg no_field(6, cap_record("a/b", true, 3, ""), {5, 7});
    int32_t rc = 0;
    EXPECT_EQ(
        printed([&] { return libqz_cap_dbg_bool_sub_cb(kBus, &no_field.pmsg, nullptr); }, &rc),
        "failed,rv -24\n");
    EXPECT_EQ(rc, -24);
    fake::Pmsg no_result(4, nullptr, {}, 0, false);
    EXPECT_EQ(
        printed([&] { return libqz_cap_dbg_int32_sub_cb(kBus, &no_result.pmsg, nullptr); }, &rc),
        "failed,rv -21\n");
    EXPECT_EQ(rc, -21);
}

TEST_F(DebugCallbacks, ConfirmationAndOtherEvents) {
    fake::Pmsg confirmed(29, nullptr, {}, 0, false);
    int32_t rc = -1;
    EXPECT_EQ(
        printed([&] { return libqz_cap_dbg_bool_sub_cb(kBus, &confirmed.pmsg, nullptr); }, &rc),
        "subscribe ok\n");
    EXPECT_EQ(rc, 0);
    char tag[] = "watch-1";
    EXPECT_EQ(printed([&] { return libqz_cap_dbg_int32_sub_cb(kBus, &confirmed.pmsg, tag); }),
              "subscribe ok\narg is watch-1\n");
    fake::Pmsg other(5, nullptr, {}, 0, false);
    rc = -1;
    EXPECT_EQ(printed([&] { return libqz_cap_dbg_bool_sub_cb(kBus, &other.pmsg, nullptr); }, &rc),
              "pmsg->cmd 5\n");
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(P().logs().empty());
}

TEST_F(DebugCallbacks, NullMessageIsLoggedUnderTheCallbacksName) {
    int32_t rc = 0;
    EXPECT_EQ(printed([&] { return libqz_cap_dbg_int32_sub_cb(kBus, nullptr, nullptr); }, &rc), "");
    EXPECT_EQ(rc, -4);
    only_record_is("pmsg NULL pointer, addr error!\n", 100, "libqz_cap_dbg_int32_sub_cb",
                   core_expect::kDbg);
    P().reset();
    EXPECT_EQ(libqz_cap_dbg_bool_sub_cb(kBus, nullptr, nullptr), -4);
    only_record_is("pmsg NULL pointer, addr error!\n", 100, "libqz_cap_dbg_bool_sub_cb",
                   core_expect::kDbg);
}

}  // namespace
