// The subscription registry: its index and equality, adding records with
// every refusal, and the trace dump.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/alloc.h"
#include "fake_platform.h"
#include "sub/sub.h"
#include "sub_support.h"

namespace {

using fake::P;

int g_bus, g_bus2, g_cb, g_cb2, g_arg, g_arg2;  // stand-in handles, callbacks, args
void *const kBus = &g_bus;
void *const kCb = &g_cb;

sub_info make(const char *url, uint32_t type, void *fp = kCb, void *arg = nullptr,
              void *global = kBus) {
    sub_info r;
    memset(&r, 0, sizeof r);
    snprintf(r.url, sizeof r.url, "%s", url);
    r.type = type;
    r.fp = fp;
    r.arg = arg;
    r.global = global;
    return r;
}

// The registry's own fixture: the shared one with an initialised registry,
// plus adding through the context and the one-error check.
class Registry : public sub_support::WithRegistry {
  protected:
    int32_t add(const char *url, uint32_t type, void *fp = kCb, void *arg = nullptr) {
        return libqz_cap_add_sub_info_thread(kBus, url, fp, arg, type, &ctx_);
    }
    void expect_one_error(const std::string &msg) {
        auto logs = P().logs();
        ASSERT_EQ(logs.size(), 1u);
        EXPECT_EQ(logs[0].msg, msg);
        EXPECT_EQ(logs[0].level, 100);
        EXPECT_EQ(logs[0].file, "libqz_cap");
        EXPECT_EQ(logs[0].func, "libqz_cap_add_sub_info_thread");
    }
};

TEST(RegistryIndex, HashesUnsignedBytesPlusType) {
    sub_info a0 = make("a", 0), a3 = make("a", 3);
    EXPECT_EQ(libqz_cap_get_sub_hash_index(&a0) % 42, 13u);
    EXPECT_EQ(libqz_cap_get_sub_hash_index(&a3) % 42, 16u);

    sub_info empty = make("", 7);
    EXPECT_EQ(libqz_cap_get_sub_hash_index(&empty), 7u);

    // Bytes above 0x7f count as 128..255 whatever char's signedness.
    sub_info high = make("\xC3\xA9z", 1);
    EXPECT_EQ(libqz_cap_get_sub_hash_index(&high), (195u * 31 + 169) * 31 + 'z' + 1);

    // A url filling all 256 bytes: the type that follows is not hashed.
    sub_info full = make("", 0xFFFFFFFF);
    memset(full.url, 'b', sizeof full.url);
    uint32_t h = 0;
    for (int i = 0; i < 256; ++i)
        h = h * 31 + 'b';
    EXPECT_EQ(libqz_cap_get_sub_hash_index(&full), h - 1);
    EXPECT_EQ(libqz_cap_sub_hash_index_cb(&full), h - 1);
    EXPECT_EQ(libqz_cap_get_sub_hash_index(nullptr), 0u);
}

TEST(RegistryCompare, EveryFieldCounts) {
    const sub_info base = make("x/y", 1, &g_cb, &g_arg);
    sub_info same = base;
    EXPECT_EQ(libqz_cap_cmp_sub_hash_item(&same, const_cast<sub_info *>(&base)), 0);
    sub_info differing[] = {
        make("x/y", 1, &g_cb, &g_arg, &g_bus2), make("x/yz", 1, &g_cb, &g_arg),
        make("x/", 1, &g_cb, &g_arg),           make("x/z", 1, &g_cb, &g_arg),
        make("x/y", 0, &g_cb, &g_arg),          make("x/y", 1, &g_cb2, &g_arg),
        make("x/y", 1, &g_cb, &g_arg2),         make("x/y", 1, &g_cb, nullptr),
    };
    for (sub_info &d : differing)
        EXPECT_EQ(libqz_cap_cmp_sub_hash_item(&d, &same), -1) << d.url << " " << d.type;
    EXPECT_EQ(libqz_cap_cmp_sub_hash_item(nullptr, &same), -1);
    EXPECT_EQ(libqz_cap_cmp_sub_hash_item(&same, nullptr), -1);
}

TEST_F(Registry, ArgumentChecksInOrder) {
    const std::string long_url(256, 'u');
    struct Case {
        void *global;
        const char *url;
        void *fp;
        libqz_cap_ctrl_info_t *ctx;
        const char *msg;
    };
    // Each case also breaks every later argument: the earliest check wins.
    const Case cases[] = {
        {nullptr, nullptr, nullptr, nullptr, "global NULL pointer, addr error!\n"},
        {kBus, nullptr, nullptr, nullptr, "url NULL pointer, addr error!\n"},
        {kBus, long_url.c_str(), nullptr, nullptr, "url len too long 256!\n"},
        {kBus, "u", nullptr, nullptr, "fp NULL pointer, addr error!\n"},
        {kBus, "u", kCb, nullptr, "info NULL pointer, addr error!\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.msg);
        P().reset();
        g_libqz_cap_zlog_level = 0;
        EXPECT_EQ(libqz_cap_add_sub_info_thread(c.global, c.url, c.fp, nullptr, 0, c.ctx), -4);
        EXPECT_TRUE(P().logs().empty());
        g_libqz_cap_zlog_level = 1;
        EXPECT_EQ(libqz_cap_add_sub_info_thread(c.global, c.url, c.fp, nullptr, 0, c.ctx), -4);
        expect_one_error(c.msg);
    }
    EXPECT_TRUE(records().empty());
}

TEST_F(Registry, UrlOf255CharactersIsKept) {
    const std::string url(255, 'u');
    EXPECT_EQ(add(url.c_str(), 0), 0);
    auto recs = records();
    ASSERT_EQ(recs.size(), 1u);
    EXPECT_EQ(recs[0]->url, url);
    EXPECT_TRUE(P().logs().empty());
}

TEST_F(Registry, EqualSubscriptionsAreKeptOnce) {
    EXPECT_EQ(add("cap/a", 0), 0);
    EXPECT_EQ(add("cap/a", 0), 0);
    EXPECT_EQ(records().size(), 1u);

    EXPECT_EQ(add("cap/b", 0, kCb, &g_arg), 0);
    EXPECT_EQ(add("cap/b", 0, kCb, &g_arg2), 0);
    EXPECT_EQ(add("cap/b", 0, kCb, &g_arg2), 0);
    EXPECT_EQ(records().size(), 3u);

    const sub_info b = make("cap/b", 0, kCb, &g_arg2);
    auto *held = static_cast<sub_info *>(qz_cap_hash_find_item(ctx_.sub_hash, (void *)&b));
    ASSERT_NE(held, nullptr);
    EXPECT_EQ(libqz_cap_cmp_sub_hash_item(held, (void *)&b), 0);
    EXPECT_TRUE(P().logs().empty());
}

TEST_F(Registry, TypesOfOneUrlAreSeparateRecordsInSeparateBuckets) {
    EXPECT_EQ(add("a", 0), 0);
    EXPECT_EQ(add("a", 1), 0);
    sub_info a0 = make("a", 0), a1 = make("a", 1);
    EXPECT_EQ(qz_cap_hash_get_current_bucket_num(ctx_.sub_hash, &a0), 1u);
    EXPECT_EQ(qz_cap_hash_get_current_bucket_num(ctx_.sub_hash, &a1), 1u);
    auto recs = records();
    ASSERT_EQ(recs.size(), 2u);
    EXPECT_EQ(recs[0]->type, 0u);  // bucket 13 before bucket 14
    EXPECT_EQ(recs[1]->type, 1u);
}

TEST_F(Registry, RecordAllocationFailure) {
    libqz_cap_test_fail_alloc(1);
    EXPECT_EQ(add("cap/a", 0), -2);
    expect_one_error("sub_info malloc failed");
    EXPECT_TRUE(records().empty());
}

TEST_F(Registry, InsertionFailureReturnsItsCode) {
    libqz_cap_test_fail_alloc(2);  // the record succeeds, its node does not
    EXPECT_EQ(add("cap/a", 0), -12);
    expect_one_error("failed,rv -12");
    EXPECT_TRUE(records().empty());
    EXPECT_EQ(add("cap/a", 0), 0);  // nothing stale blocks a retry
    EXPECT_EQ(records().size(), 1u);
}

// An uninitialised context has no registry: the null-safe insert refuses.
TEST_F(Registry, ContextWithoutRegistryIsRefused) {
    libqz_cap_ctrl_info_t bare{};
    EXPECT_EQ(libqz_cap_add_sub_info_thread(kBus, "cap/a", kCb, nullptr, 0, &bare), -1);
    expect_one_error("failed,rv -1");
}

TEST_F(Registry, DumpListsRecordsInWalkOrder) {
    ASSERT_EQ(add("a", 1, &g_cb, &g_arg), 0);   // bucket 14
    ASSERT_EQ(add("a", 0, &g_cb, nullptr), 0);  // bucket 13
    ASSERT_EQ(add("a", 0, &g_cb2, &g_arg), 0);  // bucket 13, newer

    g_libqz_cap_zlog_level = 1;
    libqz_cap_dump_sub_hash_thread(&ctx_.sub_hash, "enter");
    EXPECT_TRUE(P().logs().empty());

    g_libqz_cap_zlog_level = 4;
    libqz_cap_dump_sub_hash_thread(&ctx_.sub_hash, "enter");
    auto logs = P().logs();
    ASSERT_EQ(logs.size(), 4u);
    EXPECT_EQ(logs[0].msg, "\r\n====================dump sub hash enter======================\r\n");
    EXPECT_EQ(logs[0].func, "libqz_cap_dump_sub_hash_thread");
    // Bucket by bucket, newest first within a bucket.
    auto recs = records();
    ASSERT_EQ(recs.size(), 3u);
    EXPECT_EQ(recs[0]->fp, &g_cb2);
    EXPECT_EQ(recs[1]->fp, &g_cb);
    EXPECT_EQ(recs[2]->type, 1u);
    for (size_t i = 0; i < 3; ++i) {
        char line[512];
        snprintf(line, sizeof line, "fp %8p, global %8p, type %2d, arg %8p, url a", recs[i]->fp,
                 kBus, static_cast<int>(recs[i]->type), recs[i]->arg);
        EXPECT_EQ(logs[i + 1].msg, line);
        EXPECT_EQ(logs[i + 1].func, "libqz_cap_dump_sub_hash_item");
    }
    for (const auto &l : logs) {
        EXPECT_EQ(l.level, 40);
        EXPECT_EQ(l.file, "libqz_cap");
    }
    EXPECT_NE(logs[1].msg.find(", type  0, "), std::string::npos);  // right-aligned
}

TEST_F(Registry, DumpWithoutRegistryLogsOnlyTheHeader) {
    g_libqz_cap_zlog_level = 4;
    libqz_cap_ctrl_info_t bare{};
    libqz_cap_dump_sub_hash_thread(&bare.sub_hash, "leave");
    libqz_cap_dump_sub_hash_thread(nullptr, nullptr);
    auto msgs = P().log_messages();
    ASSERT_EQ(msgs.size(), 2u);
    EXPECT_EQ(msgs[0], "\r\n====================dump sub hash leave======================\r\n");
    EXPECT_EQ(msgs[1], "\r\n====================dump sub hash ======================\r\n");
}

}  // namespace
