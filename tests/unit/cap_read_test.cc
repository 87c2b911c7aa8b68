// Device-wide capability reads, their second names, the read with a default
// and URL forming.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "read_support.h"

namespace {

using namespace read_support;

constexpr char kBool[] = "libqz_cap_get_capacity_bool_thread";
constexpr char kBoolNb[] = "libqz_cap_get_capacity_bool_no_block_thread";
constexpr char kInt[] = "libqz_cap_get_capacity_int32_thread";
constexpr char kIntNb[] = "libqz_cap_get_capacity_int32_no_block_thread";
constexpr char kStr[] = "libqz_cap_get_capacity_str_thread";
constexpr char kStrNb[] = "libqz_cap_get_capacity_str_no_block_thread";

std::string entry(const char *url) {
    char buf[300];
    snprintf(buf, sizeof buf, "global %p, url %s", kGlobal, url);
    return buf;
}

// Outputs preset to values no read writes; str_len is 8.
struct Outs {
    bool b = true;
    int32_t i = 1234;
    char s[16];
    uint32_t len = 77;
    Outs() { memset(s, 'z', sizeof s); }
};

enum class Kind { kBool, kInt32, kStr };

struct Member {
    const char *func;
    Kind kind;
    bool blocking;
    // Passes the outputs of its kind; a null `o` passes null outputs.
    int32_t (*call)(void *g, const char *url, libqz_cap_ctrl_info_t *ctx, Outs *o);
    bool dumps() const { return blocking && kind != Kind::kStr; }
};

#define MEMBER(fn, kind, blocking, ...)                          \
    Member {                                                     \
#fn, kind, blocking,                                     \
            [](void *g, const char *u, libqz_cap_ctrl_info_t *c, \
               Outs *o) { return fn(g, u, __VA_ARGS__); }        \
    }
const Member kMembers[] = {
    MEMBER(libqz_cap_get_capacity_bool_thread, Kind::kBool, true, c, o ? &o->b : nullptr),
    MEMBER(libqz_cap_get_capacity_bool_no_block_thread, Kind::kBool, false, c, o ? &o->b : nullptr),
    MEMBER(libqz_cap_get_capacity_int32_thread, Kind::kInt32, true, c, o ? &o->i : nullptr),
    MEMBER(libqz_cap_get_capacity_int32_no_block_thread, Kind::kInt32, false, c,
           o ? &o->i : nullptr),
    MEMBER(libqz_cap_get_capacity_str_thread, Kind::kStr, true, 8, c, o ? o->s : nullptr,
           o ? &o->len : nullptr),
    MEMBER(libqz_cap_get_capacity_str_no_block_thread, Kind::kStr, false, 8, c, o ? o->s : nullptr,
           o ? &o->len : nullptr),
};
#undef MEMBER

// The member's output holds its initial value; the others are untouched.
void expect_initial(const Member &m, const Outs &o) {
    EXPECT_EQ(o.b, m.kind != Kind::kBool);
    EXPECT_EQ(o.i, m.kind == Kind::kInt32 ? -1 : 1234);
    const bool str = m.kind == Kind::kStr;
    EXPECT_EQ(std::string(o.s, 9), str ? std::string(8, '\0') + "z" : std::string(9, 'z'));
    EXPECT_EQ(o.len, str ? 0u : 77u);
}

class CapRead : public fake::Test {
  protected:
    void SetUp() override {
        fake::Test::SetUp();
        g_libqz_cap_zlog_level = 4;
        on_sleep();
    }
    void TearDown() override {
        g_libqz_cap_ctrl_info = {};
        fake::Test::TearDown();
    }
    libqz_cap_ctrl_info_t ctx_{};
};

TEST_F(CapRead, ArgumentsAreCheckedInOrderBeforeAnyBusCall) {
    const std::string u255(255, 'u'), u256(256, 'u');
    for (const Member &m : kMembers) {
        SCOPED_TRACE(m.func);
        auto rejects = [&](void *g, const char *url, libqz_cap_ctrl_info_t *ctx, Outs *o,
                           const char *msg) {
            P().reset();
            EXPECT_EQ(m.call(g, url, ctx, o), -4);
            only_record_is(msg, 100, m.func);
            EXPECT_TRUE(P().calls().empty());
        };
        Outs o;
        rejects(nullptr, nullptr, nullptr, nullptr, "global NULL pointer, addr error!\n");
        rejects(kGlobal, nullptr, nullptr, nullptr, "url NULL pointer, addr error!\n");
        rejects(kGlobal, u256.c_str(), &ctx_, &o, "url len too long 256!\n");
        if (m.kind == Kind::kStr) {
            rejects(kGlobal, u255.c_str(), &ctx_, nullptr, "str NULL pointer, addr error!\n");
            rejects(kGlobal, "u", nullptr, &o, "info NULL pointer, addr error!\n");
            char s[8];
            P().reset();
            EXPECT_EQ((m.blocking ? libqz_cap_get_capacity_str_thread
                                  : libqz_cap_get_capacity_str_no_block_thread)(kGlobal, "u", 8,
                                                                                &ctx_, s, nullptr),
                      -4);
            only_record_is("length NULL pointer, addr error!\n", 100, m.func);
        } else {
            rejects(kGlobal, u255.c_str(), nullptr, nullptr, "info NULL pointer, addr error!\n");
            rejects(kGlobal, "u", &ctx_, nullptr, "value NULL pointer, addr error!\n");
        }
        EXPECT_EQ(std::string(o.s, 16), std::string(16, 'z'));
        EXPECT_EQ(o.len, 77u);
        EXPECT_TRUE(o.b);
        EXPECT_EQ(o.i, 1234);
    }
}

TEST_F(CapRead, PublishedValueIsReturnedInTheFirstRound) {
    Outs o;
    P().will_return_hash(kHget, cap_row({21, 6}, 1));
    EXPECT_EQ(libqz_cap_get_capacity_bool_thread(kGlobal, "b", &ctx_, &o.b), 0);
    EXPECT_TRUE(o.b);
    EXPECT_EQ(digest(kBool),
              (Strings{entry("b"), "dump enter", kHget, "url b value: 1", kFree, "dump leave"}));
    auto reads = P().calls(kHget);
    ASSERT_EQ(reads.size(), 1u);
    EXPECT_EQ(reads[0].global, kGlobal);
    EXPECT_EQ(reads[0].db, 3);
    EXPECT_EQ(reads[0].key, cap_key("b"));

    P().reset();
    P().will_return_hash(kHget, cap_row({7}, 0, -7));
    EXPECT_EQ(libqz_cap_get_capacity_int32_thread(kGlobal, "i", &ctx_, &o.i), 0);
    EXPECT_EQ(o.i, -7);
    EXPECT_EQ(digest(kInt),
              (Strings{entry("i"), "dump enter", kHget, "url i, value: -7", kFree, "dump leave"}));

    P().reset();
    P().will_return_hash(kHget, cap_row({8}, 0, 0, "text"));
    EXPECT_EQ(libqz_cap_get_capacity_str_thread(kGlobal, "s", 8, &ctx_, o.s, &o.len), 0);
    EXPECT_EQ(digest(kStr), (Strings{entry("s"), kHget, "url s, str: text, length 4", kFree}));
    EXPECT_STREQ(o.s, "text");
    EXPECT_EQ(o.len, 4u);
    EXPECT_EQ(ctx_.ready, 0);  // the values came before readiness
    EXPECT_EQ(ctx_.sleep_time, 0u);
}

TEST_F(CapRead, WaitsOneSecondPerRoundUntilPublished) {
    ctx_.sleep_time = 5;
    P().will_return_hash(kHget, no_record());
    P().will_return_hash(kHget, cap_row({6}, 1, 3));  // a record, but not the int32
    P().will_return_hash(kHget, no_record());
    P().will_return_object({nullptr, 0});
    P().will_return_object({nullptr, 9});  // a failed readiness read: keep waiting
    read_support::on_sleep([](unsigned n) {
        if (n == 3)
            P().will_return_hash(kHget, cap_row({6, 7}, 0, 42));
    });
    Outs o;
    EXPECT_EQ(libqz_cap_get_capacity_int32_thread(kGlobal, "late", &ctx_, &o.i), 0);
    EXPECT_EQ(o.i, 42);
    EXPECT_EQ(P().sleeps(), 3u);
    EXPECT_EQ(ctx_.sleep_time, 8u);
    EXPECT_EQ(ctx_.ready, 0);
    Strings want{entry("late"), "dump enter"};
    for (const char *missing :
         {"url late, tmp NULL", "url late, field invalid", "url late, tmp NULL"})
        want.insert(want.end(), {kHget, missing, kFree, "continue", "sleep", "qz_mom_get_sync"});
    want.insert(want.end(), {kHget, "url late, value: 42", kFree, "dump leave"});
    EXPECT_EQ(digest(kInt), want);
}

TEST_F(CapRead, ReadinessWithoutTheValueFailsAndIsCachedInTheContext) {
    P().will_return_hash(kHget, no_record());
    P().will_return_object(local_ready(1));
    P().will_return_hash(kHget, no_record());
    Outs o;
    EXPECT_EQ(libqz_cap_get_capacity_bool_thread(kGlobal, "x", &ctx_, &o.b), -22);
    EXPECT_FALSE(o.b);
    EXPECT_EQ(ctx_.ready, 1);
    EXPECT_EQ(ctx_.sleep_time, 1u);
    EXPECT_EQ(digest(kBool), (Strings{entry("x"), "dump enter", kHget, "url x, tmp NULL", kFree,
                                      "continue", "sleep", "qz_mom_get_sync", "qz_mom_qz_obj_free",
                                      kHget, "E url x, tmp NULL", kFree, "dump leave"}));

    // The context remembers: no waiting, and a missing value is an error.
    P().reset();
    P().will_return_hash(kHget, cap_row({6}, 1));
    EXPECT_EQ(libqz_cap_get_capacity_int32_thread(kGlobal, "x", &ctx_, &o.i), -24);
    EXPECT_EQ(o.i, -1);
    EXPECT_EQ(digest(kInt), (Strings{entry("x"), "dump enter", kHget, "E url x, field invalid",
                                     kFree, "dump leave"}));
    P().reset();
    P().will_return_hash(kHget, no_record());
    EXPECT_EQ(libqz_cap_get_capacity_str_thread(kGlobal, "x", 8, &ctx_, o.s, &o.len), -22);
    EXPECT_EQ(digest(kStr), (Strings{entry("x"), kHget, "E url x, tmp NULL", kFree}));
    P().reset();
    P().will_return_hash(kHget, cap_row({7}, 0, 11));
    EXPECT_EQ(libqz_cap_get_capacity_int32_thread(kGlobal, "x", &ctx_, &o.i), 0);
    EXPECT_EQ(digest(kInt), (Strings{entry("x"), "dump enter", kHget, "url x, value: 11", kFree,
                                     "leave", "dump leave"}));
    EXPECT_EQ(P().sleeps(), 0u);
}

TEST_F(CapRead, BusFailureEndsEveryReadAtOnceWithoutTheLeaveDump) {
    for (const Member &m : kMembers) {
        for (bool cached : {false, true}) {
            if (cached && !m.blocking)
                continue;
            SCOPED_TRACE(std::string(m.func) + (cached ? ", single read" : ", first round"));
            const char *op = m.blocking ? kHget : kHgetExt;
            for (bool null : {true, false}) {
                ctx_ = {};
                ctx_.ready = cached;
                P().reset();
                P().will_return_hash(op, null ? null_result() : error_result(5));
                Outs o;
                EXPECT_EQ(m.call(kGlobal, "f", &ctx_, &o), -21);
                expect_initial(m, o);
                Strings want{entry("f")};
                if (m.dumps())
                    want.push_back("dump enter");
                want.push_back(op);
                if (null)
                    want.push_back("E url f, result NULL");
                else
                    want.insert(want.end(), {"E url f, result error_code 5", kFree});
                EXPECT_EQ(digest(m.func), want);
                EXPECT_EQ(ctx_.sleep_time, 0u);
            }
        }
    }
}

TEST_F(CapRead, NonBlockingReadsReadOnceWithOption2) {
    struct Case {
        const Member &m;
        const char *tmp_null, *field_invalid, *found;
    } cases[] = {
        {kMembers[1], "url n tmp NULL", "url n field invalid", "url n value: 1"},
        {kMembers[3], "url n, tmp NULL", "url n, field invalid", "url n, value: 9"},
        {kMembers[5], "url n, tmp NULL", "url n, field invalid", "url n, str: hello, length 5"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.m.func);
        P().reset();
        P().will_return_hash(kHgetExt, no_record());
        Outs o;
        EXPECT_EQ(c.m.call(kGlobal, "n", &ctx_, &o), -22);
        expect_initial(c.m, o);
        EXPECT_EQ(digest(c.m.func), (Strings{entry("n"), kHgetExt, c.tmp_null, kFree}));
        auto reads = P().calls(kHgetExt);
        ASSERT_EQ(reads.size(), 1u);
        EXPECT_EQ(reads[0].db, 3);
        EXPECT_TRUE(reads[0].has_option);
        EXPECT_EQ(reads[0].option, 2);
        EXPECT_EQ(reads[0].key, cap_key("n"));

        P().reset();
        P().will_return_hash(kHgetExt, cap_row({21, 22}, 1, 9, "hello"));
        EXPECT_EQ(c.m.call(kGlobal, "n", &ctx_, &o), -24);
        EXPECT_EQ(digest(c.m.func), (Strings{entry("n"), kHgetExt, c.field_invalid, kFree}));

        P().reset();
        P().will_return_hash(kHgetExt, cap_row({6, 7, 8}, 1, 9, "hello"));
        EXPECT_EQ(c.m.call(kGlobal, "n", &ctx_, &o), 0);
        EXPECT_EQ(digest(c.m.func), (Strings{entry("n"), kHgetExt, c.found, kFree, "leave"}));

        // Below gate 4 a missing value says nothing; the context is not used.
        g_libqz_cap_zlog_level = 1;
        P().reset();
        P().will_return_hash(kHgetExt, no_record());
        EXPECT_EQ(c.m.call(kGlobal, "n", &ctx_, &o), -22);
        EXPECT_TRUE(P().logs().empty());
        g_libqz_cap_zlog_level = 4;
        EXPECT_EQ(ctx_.ready, 0);
        EXPECT_EQ(ctx_.sleep_time, 0u);
    }
}

TEST_F(CapRead, StringCopyKeepsAtMost255AndRoomForTheTerminator) {
    const std::string v400(400, 'a'), v255(255, 'b');
    struct Case {
        uint32_t str_len;
        const char *value;
        size_t copied;
    } cases[] = {{4, "abcdef", 3},         {7, "abcdef", 6},         {300, v400.c_str(), 255},
                 {256, v255.c_str(), 255}, {255, v255.c_str(), 254}, {0, "abc", 0}};
    ctx_.ready = 1;
    for (const Case &c : cases) {
        for (bool blocking : {true, false}) {
            SCOPED_TRACE("str_len " + std::to_string(c.str_len) + (blocking ? "" : ", no_block"));
            P().reset();
            P().will_return_hash(blocking ? kHget : kHgetExt, cap_row({8}, 0, 0, c.value));
            char buf[512];
            memset(buf, 'z', sizeof buf);
            uint32_t len = 77;
            EXPECT_EQ((blocking ? libqz_cap_get_capacity_str_thread
                                : libqz_cap_get_capacity_str_no_block_thread)(
                          kGlobal, "s", c.str_len, &ctx_, buf, &len),
                      0);
            EXPECT_EQ(len, c.copied);
            const std::string text(c.value, c.copied);
            EXPECT_EQ(std::string(buf, c.str_len), text + std::string(c.str_len - c.copied, '\0'));
            EXPECT_EQ(buf[c.str_len], 'z') << "wrote past str_len";
            EXPECT_EQ(digest(blocking ? kStr : kStrNb)[2],
                      "url s, str: " + text + ", length " + std::to_string(c.copied));
        }
    }

    // Field 8 stored without a text: empty, and still a success.
    P().reset();
    fake::HashSpec absent = cap_row({8});
    reinterpret_cast<PLibpub__CapTable *>(absent.view)->str_value = nullptr;
    P().will_return_hash(kHget, std::move(absent));
    Outs o;
    EXPECT_EQ(libqz_cap_get_capacity_str_thread(kGlobal, "s", 8, &ctx_, o.s, &o.len), 0);
    expect_initial(kMembers[4], o);
}

// Through a volatile, so that the linked addresses are compared.
template <class F>
uintptr_t address(F *f) {
    volatile uintptr_t a = reinterpret_cast<uintptr_t>(f);
    return a;
}

TEST_F(CapRead, SecondNamesAreTheSameFunctionsAndPlainFormsUseTheThreadsContext) {
    struct Alias {
        const char *name;
        uintptr_t alias, target;
    };
#define ALIAS(second, first)                       \
    Alias {                                        \
#second, address(&second), address(&first) \
    }
    const Alias aliases[] = {
        ALIAS(libqz_cap_ce_get_g_cap_bool_thread, libqz_cap_get_capacity_bool_thread),
        ALIAS(libqz_cap_ce_get_g_cap_bool, libqz_cap_get_capacity_bool),
        ALIAS(libqz_cap_ce_get_g_cap_bool_no_block_thread,
              libqz_cap_get_capacity_bool_no_block_thread),
        ALIAS(libqz_cap_ce_get_g_cap_bool_no_block, libqz_cap_get_capacity_bool_no_block),
        ALIAS(libqz_cap_ce_get_g_cap_int32_thread, libqz_cap_get_capacity_int32_thread),
        ALIAS(libqz_cap_ce_get_g_cap_int32, libqz_cap_get_capacity_int32),
        ALIAS(libqz_cap_ce_get_g_cap_int32_no_block_thread,
              libqz_cap_get_capacity_int32_no_block_thread),
        ALIAS(libqz_cap_ce_get_g_cap_int32_no_block, libqz_cap_get_capacity_int32_no_block),
    };
#undef ALIAS
    for (const Alias &a : aliases)
        EXPECT_EQ(a.alias, a.target) << a.name;

    // A fresh default context waits and counts; then it is ready.
    Outs o;
    P().will_return_hash(kHget, no_record());
    P().will_return_object(local_ready(1));
    P().will_return_hash(kHget, cap_row({7}, 0, 8));
    EXPECT_EQ(libqz_cap_ce_get_g_cap_int32(kGlobal, "p", &o.i), 0);
    EXPECT_EQ(g_libqz_cap_ctrl_info.sleep_time, 1u);
    P().will_return_hash(kHget, no_record());
    EXPECT_EQ(libqz_cap_get_capacity_bool(kGlobal, "p", &o.b), -22);
    P().will_return_hash(kHgetExt, no_record());
    EXPECT_EQ(libqz_cap_ce_get_g_cap_bool_no_block(kGlobal, "p", &o.b), -22);
    P().will_return_hash(kHget, cap_row({8}, 0, 0, "xyz"));
    EXPECT_EQ(libqz_cap_get_capacity_str(kGlobal, "p", 8, o.s, &o.len), 0);
    EXPECT_STREQ(o.s, "xyz");
    P().will_return_hash(kHgetExt, no_record());
    EXPECT_EQ(libqz_cap_get_capacity_str_no_block(kGlobal, "p", 8, o.s, &o.len), -22);
    P().will_return_hash(kHgetExt, cap_row({7}, 0, 3));
    EXPECT_EQ(libqz_cap_get_capacity_int32_no_block(kGlobal, "p", &o.i), 0);
    EXPECT_EQ(P().sleeps(), 1u);
    Strings funcs;  // records name the _thread forms, in call order
    for (const auto &e : P().logs()) {
        if (e.func != kDumpFunc && e.func != "libqz_cap_get_local_ready_thread" &&
            (funcs.empty() || funcs.back() != e.func))
            funcs.push_back(e.func);
    }
    EXPECT_EQ(funcs, (Strings{kInt, kBool, kBoolNb, kStr, kStrNb, kIntNb}));
}

TEST_F(CapRead, Int32DefaultGivesTheDefaultAndTheReason) {
    constexpr char kDefault[] = "libqz_cap_ce_get_g_cap_int32_default";
    g_libqz_cap_ctrl_info.ready = 1;
    g_libqz_cap_zlog_level = 1;
    int32_t v = 0;
    P().will_return_hash(kHget, no_record());
    EXPECT_EQ(libqz_cap_ce_get_g_cap_int32_default(kGlobal, "d", &v, 99), -22);
    EXPECT_EQ(v, 99);
    auto logs = P().logs();
    ASSERT_EQ(logs.size(), 2u);
    record_is(logs[0], "url d, tmp NULL", 100, kInt);
    record_is(logs[1], "get url: d failed, rv : -22", 100, kDefault);

    P().reset();
    P().will_return_hash(kHget, cap_row({7}, 0, 4));
    EXPECT_EQ(libqz_cap_ce_get_g_cap_int32_default(kGlobal, "d", &v, 99), 0);
    EXPECT_EQ(v, 4);
    EXPECT_TRUE(P().logs().empty());

    P().reset();
    EXPECT_EQ(libqz_cap_ce_get_g_cap_int32_default(kGlobal, "d", nullptr, 99), -4);
    logs = P().logs();
    ASSERT_EQ(logs.size(), 2u);
    record_is(logs[1], "get url: d failed, rv : -4", 100, kDefault);
}

TEST_F(CapRead, FormSpecUrlBuildsInTheContextWithTheDevicesLimit) {
    memset(ctx_.url, 'x', sizeof ctx_.url);
    EXPECT_EQ(libqz_cap_form_spec_url_thread("abcdefghij", &ctx_), ctx_.url);
    EXPECT_EQ(std::string(ctx_.url, sizeof ctx_.url),
              "global_spec/platform/abcdefghij" + std::string(225, '\0'));
    const std::string name(240, 'n');
    EXPECT_EQ(libqz_cap_form_spec_url_thread(name.c_str(), &ctx_), ctx_.url);
    EXPECT_EQ(std::string(ctx_.url), "global_spec/platform/" + name.substr(0, 233));  // 254
    EXPECT_TRUE(P().logs().empty());

    EXPECT_EQ(libqz_cap_form_spec_url_thread(nullptr, &ctx_), nullptr);
    only_record_is("name or ctrl_info is NULL", 100, "libqz_cap_form_spec_url_thread");
    P().reset();
    EXPECT_EQ(libqz_cap_form_spec_url_thread("a", nullptr), nullptr);
    only_record_is("name or ctrl_info is NULL", 100, "libqz_cap_form_spec_url_thread");
    EXPECT_EQ(libqz_cap_form_spec_url("q"), g_libqz_cap_ctrl_info.url);
    EXPECT_STREQ(g_libqz_cap_ctrl_info.url, "global_spec/platform/q");
}

}  // namespace
