// Subcard readiness through the card inventory, the card-information
// callback and the subcard node list.
#include <string>
#include <vector>

#include "fake_platform.h"
#include "query/query.h"
#include "read_support.h"

namespace {

using namespace read_support;

constexpr char kReady[] = "libqz_cap_get_sub_card_local_ready_thread";
constexpr char kCb[] = "libqz_cap_card_info_cb";
constexpr char kNodeInit[] = "libqz_cap_node_init";

ProtobufCMessage *card(int32_t nodeid, int32_t dev_type, bool with_index = true) {
    PDev__CardInfoIndex index = P_DEV__CARD_INFO_INDEX__INIT;
    index.slotid = 2;
    PDev__CardInfo c = P_DEV__CARD_INFO__INIT;
    c.index = with_index ? &index : nullptr;
    c.card_nodeid = nodeid;
    c.config_dev_type = dev_type;
    return fake::make_message(&c.base);
}

// A scan that delivers these cards, as (nodeid, device type), with `cmd`.
fake::ScanAction delivering(std::vector<std::pair<int32_t, int32_t>> cards, int32_t cmd = 4) {
    return [cards, cmd](void *global, qz_mom_record_cb cb, void *privdata) {
        for (auto [nodeid, dev_type] : cards) {
            fake::Pmsg m(cmd, card(nodeid, dev_type), {5, 6, 17});
            EXPECT_EQ(cb(global, &m.pmsg, privdata), 0);
        }
        return 0;
    };
}

fake::HashSpec state(std::vector<int32_t> fields, protobuf_c_boolean ready) {
    PLibpub__CapSubcardState s = P_LIBPUB__CAP_SUBCARD_STATE__INIT;
    s.ready = ready;
    return {false, fake::make_message(&s.base), std::move(fields), 0};
}

// No card found yet.
class SubcardNodes : public read_support::NodeListTest {
  protected:
    void SetUp() override {
        NodeListTest::SetUp();
        qzcap::g_found_config_dev_type = 0;
    }
};
using SubcardReady = SubcardNodes;

TEST_F(SubcardReady, ScansEveryCardThenReadsTheStateUnderTheFoundDeviceType) {
    int32_t seen_nodeid = 0;
    P().will_scan([&](void *global, qz_mom_record_cb cb, void *privdata) {
        seen_nodeid = *static_cast<int32_t *>(privdata);
        return delivering({{3, 11}, {12, 77}, {4, 12}})(global, cb, privdata);
    });
    P().will_return_hash(kHget, state({6, 7}, 1));
    bool ready = false;
    EXPECT_EQ(libqz_cap_get_sub_card_local_ready_thread(kGlobal, &ready, 12), 0);
    EXPECT_TRUE(ready);
    EXPECT_EQ(seen_nodeid, 12);

    auto scans = P().calls(kScan);
    ASSERT_EQ(scans.size(), 1u);
    EXPECT_EQ(scans[0].global, kGlobal);
    EXPECT_EQ(scans[0].db, 3);
    EXPECT_EQ(scans[0].key, "p_dev.card_info{index=p_dev.card_info_index{}}");
    EXPECT_EQ(scans[0].flags, 0);
    EXPECT_EQ(scans[0].cb, reinterpret_cast<void *>(&libqz_cap_card_info_cb));
    auto reads = P().calls(kHget);
    ASSERT_EQ(reads.size(), 1u);
    EXPECT_EQ(reads[0].key,
              "p_libpub.cap_subcard_state{index=p_libpub.cap_subcard_state_index{nodeid=12 "
              "config_dev_type=77}}");
    EXPECT_EQ(read_support::digest(kReady),
              (Strings{"enter", kScan, kHget, "ready is 1", kFree, "leave"}));
    record_is(P().logs()[1],
              "get config_dev_type from nodeid success, nodeid = 12, config_dev_type = 77", 40,
              kCb);
}

TEST_F(SubcardReady, AMissingOrIncompleteStateReadsAsNotReady) {
    struct Case {
        fake::HashSpec answer;
        const char *trace;
    } cases[] = {
        {read_support::no_record(), "tmp_state is NULL"},
        {state({6}, 0), "ready is 0"},
        {state({7}, 1), "tmp_state, field invalid"},  // ready decodes, but is not stored
    };
    for (Case &c : cases) {
        SCOPED_TRACE(c.trace);
        P().reset();
        P().will_scan(delivering({{5, 9}}, 6));
        P().will_return_hash(kHget, std::move(c.answer));
        bool ready = true;
        EXPECT_EQ(libqz_cap_get_sub_card_local_ready_thread(kGlobal, &ready, 5), 0);
        EXPECT_FALSE(ready);
        EXPECT_EQ(read_support::digest(kReady),
                  (Strings{"enter", kScan, kHget, c.trace, kFree, "leave"}));
    }
}

TEST_F(SubcardReady, AMissingCardIsAnErrorAndNeverTakesAnEarlierCardsType) {
    P().will_scan(delivering({{1, 30}}));
    P().will_return_hash(kHget, state({6}, 1));
    bool ready = false;
    ASSERT_EQ(libqz_cap_get_sub_card_local_ready_thread(kGlobal, &ready, 1), 0);

    for (bool before : {true, false}) {
        P().reset();
        g_libqz_cap_zlog_level = 1;
        P().will_scan(delivering({{1, 30}, {2, 31}}));
        ready = before;
        EXPECT_EQ(libqz_cap_get_sub_card_local_ready_thread(kGlobal, &ready, 8), -21);
        EXPECT_EQ(ready, before);
        EXPECT_TRUE(P().calls(kHget).empty());
        only_record_is("get config_dev_type from nodeid fail", 100, kReady);
    }
}

TEST_F(SubcardReady, FailuresLeaveReadyUntouched) {
    g_libqz_cap_zlog_level = 1;
    bool ready = true;
    P().will_scan([](void *, qz_mom_record_cb, void *) { return -9; });
    EXPECT_EQ(libqz_cap_get_sub_card_local_ready_thread(kGlobal, &ready, 5), -9);
    only_record_is("failed,rv -9", 100, kReady);
    EXPECT_EQ(P().calls(kScan).size(), 1u);
    EXPECT_TRUE(P().calls(kHget).empty());

    P().reset();
    P().will_scan(delivering({{5, 9}}));
    P().will_return_hash(kHget, read_support::null_result());
    EXPECT_EQ(libqz_cap_get_sub_card_local_ready_thread(kGlobal, &ready, 5), -21);
    only_record_is("subcard_cap_state result NULL", 100, kReady);

    P().reset();
    P().will_scan(delivering({{5, 9}}));
    P().will_return_hash(kHget, read_support::error_result(3));
    EXPECT_EQ(libqz_cap_get_sub_card_local_ready_thread(kGlobal, &ready, 5), -21);
    only_record_is("subcard_cap_state, result error_code 3", 100, kReady);
    EXPECT_EQ(P().calls(kFree).size(), 1u);
    EXPECT_TRUE(ready);

    P().reset();
    EXPECT_EQ(libqz_cap_get_sub_card_local_ready_thread(nullptr, nullptr, 5), -4);
    only_record_is("global NULL pointer, addr error!\n", 100, kReady);
    P().reset();
    EXPECT_EQ(libqz_cap_get_sub_card_local_ready_thread(kGlobal, nullptr, 5), -4);
    only_record_is("ready NULL pointer, addr error!\n", 100, kReady);
    EXPECT_TRUE(P().calls().empty());
}

TEST_F(SubcardNodes, CardCallbackStoresTheMatchingCardsType) {
    int32_t wanted = 12;
    {
        fake::Pmsg other(4, card(13, 50), {6, 17});
        EXPECT_EQ(libqz_cap_card_info_cb(kGlobal, &other.pmsg, &wanted), 0);
        EXPECT_EQ(qzcap::g_found_config_dev_type, 0);
    }
    g_libqz_cap_zlog_level = 0;  // the store does not depend on the gate
    for (int32_t cmd : {4, 6}) {
        fake::Pmsg m(cmd, card(12, 40 + cmd), {6, 17});
        EXPECT_EQ(libqz_cap_card_info_cb(kGlobal, &m.pmsg, &wanted), 0);
        EXPECT_EQ(qzcap::g_found_config_dev_type, 40 + cmd) << "the last match wins";
    }
    // A matching card without a stored type stores 0: the field list is not consulted.
    fake::Pmsg no_type(4, card(12, 0), {17});
    EXPECT_EQ(libqz_cap_card_info_cb(kGlobal, &no_type.pmsg, &wanted), 0);
    EXPECT_EQ(qzcap::g_found_config_dev_type, 0);
    EXPECT_TRUE(P().logs().empty());
}

TEST_F(SubcardNodes, CardCallbackIgnoresOtherEventsAndRejectsBadMessages) {
    int32_t wanted = 12;
    for (int32_t cmd : {1, 7, 29}) {
        fake::Pmsg m(cmd, card(12, 5), {6}, 0, cmd != 7);
        EXPECT_EQ(libqz_cap_card_info_cb(kGlobal, &m.pmsg, &wanted), 0);
    }
    EXPECT_EQ(qzcap::g_found_config_dev_type, 0);
    EXPECT_TRUE(P().logs().empty());

    g_libqz_cap_zlog_level = 1;
    fake::Pmsg good(4, card(12, 5), {6});
    EXPECT_EQ(libqz_cap_card_info_cb(kGlobal, nullptr, &wanted), -4);
    only_record_is("pmsg NULL pointer, addr error!\n", 100, kCb);
    P().reset();
    EXPECT_EQ(libqz_cap_card_info_cb(kGlobal, &good.pmsg, nullptr), -4);
    only_record_is("privdata NULL pointer, addr error!\n", 100, kCb);
    P().reset();
    fake::Pmsg no_result(6, nullptr, {}, 0, false);
    EXPECT_EQ(libqz_cap_card_info_cb(kGlobal, &no_result.pmsg, &wanted), -4);
    only_record_is("res NULL pointer, addr error!\n", 100, kCb);
    P().reset();
    fake::Pmsg no_view(4, nullptr, {});
    EXPECT_EQ(libqz_cap_card_info_cb(kGlobal, &no_view.pmsg, &wanted), -4);
    only_record_is("card_info_info NULL pointer, addr error!\n", 100, kCb);
    P().reset();
    fake::Pmsg no_index(4, card(12, 5, false), {6, 17});
    EXPECT_EQ(libqz_cap_card_info_cb(kGlobal, &no_index.pmsg, &wanted), -4);
    only_record_is("card_info_info->index NULL pointer, addr error!\n", 100, kCb);
    EXPECT_EQ(qzcap::g_found_config_dev_type, 0);
}

libqz_cap_subcard_node_t *make_node(int32_t nodeid, uint32_t sleep_time = 0) {
    libqz_cap_subcard_node_payload_t payload;
    memset(&payload, 0, sizeof payload);
    payload.nodeid = nodeid;
    payload.sleep_time = sleep_time;
    return libqz_cap_node_init(&payload);
}

TEST_F(SubcardNodes, NodesAreKeptInIdOrderEqualIdsInCreationOrder) {
    auto *first7 = make_node(7, 1);
    auto *three = make_node(3);
    auto *second7 = make_node(7, 2);
    auto *five = make_node(5);
    ASSERT_TRUE(first7 && three && second7 && five);
    EXPECT_EQ(nodes(), (std::vector<libqz_cap_subcard_node_t *>{three, five, first7, second7}));
    EXPECT_EQ(first7->payload.sleep_time, 1u);  // the payload is copied whole
    EXPECT_EQ(second7->payload.nodeid, 7);
    EXPECT_EQ(P().log_messages(),
              (Strings{"enter", "leave", "enter", "leave", "enter", "leave", "enter", "leave"}));
    for (const auto &e : P().logs())
        EXPECT_EQ(e.func, kNodeInit);
}

TEST_F(SubcardNodes, AllocationFailureCreatesNothing) {
    auto *one = make_node(1);
    ASSERT_NE(one, nullptr);
    P().reset();
    libqz_cap_test_fail_alloc(1);
    EXPECT_EQ(make_node(2), nullptr);
    auto logs = P().logs();
    ASSERT_EQ(logs.size(), 2u);
    record_is(logs[0], "enter", 40, kNodeInit);
    record_is(logs[1], "malloc err", 100, kNodeInit);
    EXPECT_EQ(nodes(), (std::vector<libqz_cap_subcard_node_t *>{one}));
}

}  // namespace
