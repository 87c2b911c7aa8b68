// Shared by the subscription tests: a context with a registry, expected
// texts with real pointers in them, and the gate ladder.
#ifndef QZCAP_TESTS_SUB_SUPPORT_H
#define QZCAP_TESTS_SUB_SUPPORT_H

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "core/alloc.h"
#include "core_expect.h"
#include "fake_platform.h"
#include "sub/sub.h"

namespace sub_support {

// The vocabulary every subscription test uses.
using fake::kGlobal;
using fake::P;

inline constexpr char kGlbStateKey[] = "s_frame.cap_glb_state{}";

inline std::string cap_key(const std::string &url) {
    return "p_libpub.cap_table{index=p_libpub.cap_table_index{url=\"" + url + "\"}}";
}

__attribute__((format(printf, 1, 2))) inline std::string text(const char *fmt, ...) {
    char buf[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    return buf;
}

template <class Fn>
void *ptr(Fn fp) {
    return reinterpret_cast<void *>(fp);
}

// A scan or a whole-type subscription.
inline void expect_pattern_call(const fake::Event &e, const std::string &op, void *global,
                                const std::string &key, void *cb, void *privdata) {
    EXPECT_EQ(e.op, op);
    EXPECT_EQ(e.global, global);
    EXPECT_EQ(e.db, 3);
    EXPECT_EQ(e.key, key);
    EXPECT_EQ(e.flags, 0);
    EXPECT_EQ(e.cb, cb);
    EXPECT_EQ(e.privdata, privdata);
}

// A field subscription: one field, one callback, {arg} or no argument array
// at all when arg is NULL, flag 1.
inline void expect_field_call(const fake::Event &e, void *global, const std::string &url,
                              int32_t field, void *fp, void *arg) {
    EXPECT_EQ(e.op, "qz_mom_subscribe_field");
    EXPECT_EQ(e.global, global);
    EXPECT_EQ(e.db, 3);
    EXPECT_EQ(e.key, cap_key(url));
    EXPECT_EQ(e.field_count, 1u);
    EXPECT_EQ(e.fields, std::vector<int32_t>{field});
    EXPECT_EQ(e.cbs, std::vector<void *>{fp});
    EXPECT_EQ(e.args_null, arg == nullptr);
    EXPECT_EQ(e.args, arg ? std::vector<void *>{arg} : std::vector<void *>{});
    EXPECT_EQ(e.flags, 1);
}

struct Rec {
    std::string func, msg;
    int level;
    uint32_t gate;
};

// Runs the scenario at gate levels 0 to 4 on a fresh double: each time the
// records must be exactly those of `expected` whose gate is open, in order.
// Ends at gate level 1 with the events of the level-4 run.
inline void expect_ladder(const std::function<void()> &scenario, const std::vector<Rec> &expected) {
    for (int32_t level = 0; level <= 4; ++level) {
        SCOPED_TRACE("gate level " + std::to_string(level));
        fake::P().reset();
        g_libqz_cap_zlog_level = level;
        scenario();
        std::vector<Rec> want;
        for (const Rec &r : expected) {
            if (r.gate <= static_cast<uint32_t>(level))
                want.push_back(r);
        }
        const auto logs = fake::P().logs();
        ASSERT_EQ(logs.size(), want.size()) << (logs.empty() ? "" : logs.back().msg);
        for (size_t i = 0; i < want.size(); ++i)
            core_expect::record_is(logs[i], want[i].msg, want[i].level, want[i].func);
    }
    g_libqz_cap_zlog_level = 1;  // the double keeps the last run's events
}

inline size_t list_length(const libqz_cap_list_head_t &head) {
    size_t n = 0;
    for (const libqz_cap_list_head_t *p = head.next; p != &head; p = p->next)
        ++n;
    return n;
}

// The callback record of the newest holder of a list.
inline struct fun *tail_fun(const libqz_cap_list_head_t &head) {
    return reinterpret_cast<const libqz_cap_holder_t *>(head.prev)->fun;
}

// A context whose registry is released with its records at the end.
class WithRegistry : public fake::Test {
  protected:
    void SetUp() override {
        fake::Test::SetUp();
        ctx_.sub_hash =
            qz_cap_create_hash(32, libqz_cap_sub_hash_index_cb, libqz_cap_cmp_sub_hash_item);
        ASSERT_NE(ctx_.sub_hash, nullptr);
    }
    void TearDown() override {
        libqz_cap_test_fail_alloc(0);
        clear_records();
        qz_cap_destroy_hash(ctx_.sub_hash);
        fake::Test::TearDown();
    }
    void clear_records() {
        for (sub_info *r : records()) {
            qz_cap_hash_del_item(ctx_.sub_hash, r);
            free(r);
        }
    }
    // In walk order: bucket by bucket, newest first.
    std::vector<sub_info *> records() {
        std::vector<sub_info *> out;
        qz_cap_hash_each_item_op(
            ctx_.sub_hash,
            [](void *item, void *arg) {
                static_cast<std::vector<sub_info *> *>(arg)->push_back(
                    static_cast<sub_info *>(item));
                return 0;
            },
            &out);
        return out;
    }
    libqz_cap_ctrl_info_t ctx_{};
};

}  // namespace sub_support

#endif  // QZCAP_TESTS_SUB_SUPPORT_H
