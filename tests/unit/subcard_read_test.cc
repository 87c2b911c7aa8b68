// Subcard capability reads: node id keys, per-node readiness and waits. The
// flow they share with the device-wide reads is covered there.
#include <cstdio>
#include <string>
#include <vector>

#include "read_support.h"

namespace {

using namespace read_support;

constexpr char kBool[] = "libqz_cap_get_subcard_capacity_bool";
constexpr char kInt[] = "libqz_cap_get_subcard_capacity_int32";

std::string entry(const char *url, int32_t nodeid) {
    char buf[300];
    snprintf(buf, sizeof buf, "global %p, url %s, nodeid %d", kGlobal, url, nodeid);
    return buf;
}

struct Member {
    const char *func;
    bool is_bool, blocking;
    int32_t (*call)(void *global, int32_t nodeid, const char *url, bool *b, int32_t *i);
};

#define MEMBER(fn, is_bool, blocking, out)                                             \
    Member {                                                                           \
#fn, is_bool, blocking, [](void *g, int32_t n, const char *u, bool *b, int32_t *i) { \
            (void)b;                                                                       \
            (void)i;                                                                       \
            return fn(g, n, u, out);                                                       \
        } \
    }
const Member kMembers[] = {
    MEMBER(libqz_cap_get_subcard_capacity_bool, true, true, b),
    MEMBER(libqz_cap_get_subcard_capacity_bool_no_block, true, false, b),
    MEMBER(libqz_cap_get_subcard_capacity_int32, false, true, i),
    MEMBER(libqz_cap_get_subcard_capacity_int32_no_block, false, false, i),
};
#undef MEMBER

// A scan that delivers one card.
fake::ScanAction card_scan(int32_t nodeid, int32_t dev_type) {
    return [=](void *global, qz_mom_record_cb cb, void *privdata) {
        PDev__CardInfoIndex index = P_DEV__CARD_INFO_INDEX__INIT;
        PDev__CardInfo c = P_DEV__CARD_INFO__INIT;
        c.index = &index;
        c.card_nodeid = nodeid;
        c.config_dev_type = dev_type;
        fake::Pmsg m(4, fake::make_message(&c.base), {5, 6, 17});
        return cb(global, &m.pmsg, privdata);
    };
}

fake::HashSpec subcard_ready() {
    PLibpub__CapSubcardState s = P_LIBPUB__CAP_SUBCARD_STATE__INIT;
    s.ready = 1;
    return {false, fake::make_message(&s.base), {6}, 0};
}

using SubcardRead = NodeListTest;

TEST_F(SubcardRead, ArgumentsAreCheckedInOrderBeforeAnythingElse) {
    const std::string u255(255, 'u'), u256(256, 'u');
    for (const Member &m : kMembers) {
        SCOPED_TRACE(m.func);
        bool b = true;
        int32_t i = 1234;
        auto rejects = [&](void *g, const char *url, bool null_out, const char *msg) {
            P().reset();
            EXPECT_EQ(m.call(g, 3, url, null_out ? nullptr : &b, null_out ? nullptr : &i), -4);
            only_record_is(msg, 100, m.func);
        };
        rejects(nullptr, nullptr, true, "global NULL pointer, addr error!\n");
        rejects(kGlobal, nullptr, true, "url NULL pointer, addr error!\n");
        rejects(kGlobal, u256.c_str(), false, "url len too long 256!\n");
        rejects(kGlobal, u255.c_str(), true, "value NULL pointer, addr error!\n");
        EXPECT_TRUE(b);
        EXPECT_EQ(i, 1234);
        EXPECT_TRUE(P().calls().empty());
        EXPECT_TRUE(nodes().empty());
    }
}

TEST_F(SubcardRead, APublishedValueComesAtOnceAndNodesAreMadeInIdOrder) {
    P().will_return_hash(kHget, subcard_row({6}, 1));
    bool b = false;
    EXPECT_EQ(libqz_cap_get_subcard_capacity_bool(kGlobal, 9, "b", &b), 0);
    EXPECT_TRUE(b);
    EXPECT_EQ(digest(kBool), (Strings{entry("b", 9), kHget, "url b value: 1", kFree}));
    auto reads = P().calls(kHget);
    ASSERT_EQ(reads.size(), 1u);
    EXPECT_EQ(reads[0].global, kGlobal);
    EXPECT_EQ(reads[0].db, 3);
    EXPECT_EQ(reads[0].key, subcard_key(9, "b"));

    int32_t i = 0;
    for (int32_t id : {2, 5, 2, 9}) {
        P().reset();
        P().will_return_hash(kHget, subcard_row({7}, 0, id));
        EXPECT_EQ(libqz_cap_get_subcard_capacity_int32(kGlobal, id, "i", &i), 0);
        EXPECT_EQ(i, id);
    }
    EXPECT_EQ(digest(kInt), (Strings{entry("i", 9), kHget, "url i, value: 9", kFree}));
    EXPECT_EQ(node_ids(), (std::vector<int32_t>{2, 5, 9}));
    for (auto *n : nodes()) {
        EXPECT_EQ(n->payload.ready, 0);
        EXPECT_EQ(n->payload.sleep_time, 0u);
    }
}

TEST_F(SubcardRead, WaitsOneSecondPerRoundCountingInTheNode) {
    // No card answers the readiness reads: not ready, and the wait goes on.
    P().will_return_hash(kHget, no_record());
    P().will_return_hash(kHget, subcard_row({6}, 1));
    P().will_return_hash(kHget, no_record());
    read_support::on_sleep([](unsigned n) {
        if (n == 3)
            P().will_return_hash(kHget, subcard_row({7}, 0, -3));
    });
    int32_t i = 0;
    EXPECT_EQ(libqz_cap_get_subcard_capacity_int32(kGlobal, 4, "late", &i), 0);
    EXPECT_EQ(i, -3);
    EXPECT_EQ(P().sleeps(), 3u);
    ASSERT_EQ(node_ids(), (std::vector<int32_t>{4}));
    EXPECT_EQ(nodes()[0]->payload.sleep_time, 3u);
    EXPECT_EQ(nodes()[0]->payload.ready, 0);
    Strings want{entry("late", 4)};
    for (const char *missing :
         {"url late, tmp NULL", "url late, field invalid", "url late, tmp NULL"})
        want.insert(want.end(), {kHget, missing, kFree, "continue", "sleep", kScan});
    want.insert(want.end(), {kHget, "url late, value: -3", kFree});
    EXPECT_EQ(digest(kInt), want);
}

TEST_F(SubcardRead, ReadinessWithoutTheValueFailsAndIsCachedPerNode) {
    P().will_return_hash(kHget, no_record());
    P().will_scan(card_scan(9, 77));
    P().will_return_hash(kHget, subcard_ready());
    P().will_return_hash(kHget, no_record());
    bool b = true;
    EXPECT_EQ(libqz_cap_get_subcard_capacity_bool(kGlobal, 9, "u", &b), -22);
    EXPECT_FALSE(b);
    EXPECT_EQ(digest(kBool),
              (Strings{entry("u", 9), kHget, "url u, tmp NULL", kFree, "continue", "sleep", kScan,
                       kHget, kFree, kHget, "E url u, tmp NULL", kFree}));
    ASSERT_EQ(node_ids(), (std::vector<int32_t>{9}));
    EXPECT_EQ(nodes()[0]->payload.ready, 1);
    EXPECT_EQ(nodes()[0]->payload.sleep_time, 1u);

    // Node 9 no longer waits: a missing value is an error.
    P().reset();
    P().will_return_hash(kHget, subcard_row({6}, 1));
    int32_t i = 0;
    EXPECT_EQ(libqz_cap_get_subcard_capacity_int32(kGlobal, 9, "u", &i), -24);
    EXPECT_EQ(i, -1);
    EXPECT_EQ(digest(kInt), (Strings{entry("u", 9), kHget, "E url u, field invalid", kFree}));
    P().reset();
    P().will_return_hash(kHget, subcard_row({7}, 0, 6));
    EXPECT_EQ(libqz_cap_get_subcard_capacity_int32(kGlobal, 9, "u", &i), 0);
    EXPECT_EQ(digest(kInt), (Strings{entry("u", 9), kHget, "url u, value: 6", kFree, "leave"}));

    // Node 5 has its own readiness.
    P().reset();
    P().will_return_hash(kHget, no_record());
    read_support::on_sleep([](unsigned) { P().will_return_hash(kHget, subcard_row({6}, 1)); });
    EXPECT_EQ(libqz_cap_get_subcard_capacity_bool(kGlobal, 5, "u", &b), 0);
    EXPECT_EQ(P().sleeps(), 1u);
    EXPECT_EQ(node_ids(), (std::vector<int32_t>{5, 9}));
}

TEST_F(SubcardRead, ABusFailureWhileWaitingEndsTheRead) {
    P().will_return_hash(kHget, no_record());
    P().will_return_hash(kHget, error_result(5));
    bool b = true;
    EXPECT_EQ(libqz_cap_get_subcard_capacity_bool(kGlobal, 3, "f", &b), -21);
    EXPECT_FALSE(b);
    EXPECT_EQ(digest(kBool),
              (Strings{entry("f", 3), kHget, "url f, tmp NULL", kFree, "continue", "sleep", kScan,
                       kHget, "E url f, result error_code 5", kFree}));
    EXPECT_EQ(nodes()[0]->payload.sleep_time, 1u);
}

TEST_F(SubcardRead, NodeCreationFailureIsReported) {
    for (const Member &m : kMembers) {
        if (!m.blocking)
            continue;
        SCOPED_TRACE(m.func);
        P().reset();
        libqz_cap_test_fail_alloc(1);
        bool b = true;
        int32_t i = 1234;
        EXPECT_EQ(m.call(kGlobal, 3, "u", &b, &i), -6);
        EXPECT_EQ(b, !m.is_bool);
        EXPECT_EQ(i, m.is_bool ? 1234 : -1);
        EXPECT_TRUE(P().calls().empty());
        EXPECT_TRUE(nodes().empty());
        auto logs = P().logs();
        ASSERT_EQ(logs.size(), 4u);
        record_is(logs[0], entry("u", 3), 40, m.func);
        record_is(logs[1], "enter", 40, "libqz_cap_node_init");
        record_is(logs[2], "malloc err", 100, "libqz_cap_node_init");
        record_is(logs[3], "node init err", 100, m.func);
    }
}

TEST_F(SubcardRead, NonBlockingReadsReadOnceAndMakeNoNode) {
    char int_entry[300];
    snprintf(int_entry, sizeof int_entry, "global %p, url n", kGlobal);  // no node id
    struct Case {
        const Member &m;
        std::string entry;
        const char *tmp_null, *field_invalid, *found;
    } cases[] = {
        {kMembers[1], entry("n", 7), "url n tmp NULL", "url n field invalid", "url n value: 1"},
        {kMembers[3], int_entry, "url n, tmp NULL", "url n, field invalid", "url n, value: 1"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.m.func);
        P().reset();
        P().will_return_hash(kHgetExt, no_record());
        bool b = true;
        int32_t i = 1234;
        EXPECT_EQ(c.m.call(kGlobal, 7, "n", &b, &i), -22);
        EXPECT_EQ(b, !c.m.is_bool);
        EXPECT_EQ(i, c.m.is_bool ? 1234 : -1);
        EXPECT_EQ(digest(c.m.func), (Strings{c.entry, kHgetExt, c.tmp_null, kFree}));
        auto reads = P().calls(kHgetExt);
        ASSERT_EQ(reads.size(), 1u);
        EXPECT_EQ(reads[0].option, 2);
        EXPECT_EQ(reads[0].key, subcard_key(7, "n"));

        P().reset();
        P().will_return_hash(kHgetExt, subcard_row({21}, 1, 1));
        EXPECT_EQ(c.m.call(kGlobal, 7, "n", &b, &i), -24);
        EXPECT_EQ(digest(c.m.func), (Strings{c.entry, kHgetExt, c.field_invalid, kFree}));

        P().reset();
        P().will_return_hash(kHgetExt, null_result());
        EXPECT_EQ(c.m.call(kGlobal, 7, "n", &b, &i), -21);
        EXPECT_EQ(digest(c.m.func), (Strings{c.entry, kHgetExt, "E url n, result NULL"}));

        P().reset();
        P().will_return_hash(kHgetExt, subcard_row({6, 7}, 1, 1));
        EXPECT_EQ(c.m.call(kGlobal, 7, "n", &b, &i), 0);
        EXPECT_TRUE(b);
        EXPECT_EQ(i, c.m.is_bool ? 1234 : 1);
        EXPECT_EQ(digest(c.m.func), (Strings{c.entry, kHgetExt, c.found, kFree, "leave"}));
    }
    EXPECT_TRUE(nodes().empty());
}

}  // namespace
