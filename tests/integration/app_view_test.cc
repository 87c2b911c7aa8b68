// An application's view of the library, end to end on a store: reads that
// wait for a publisher, pushes taken apart by the extractors, subscriptions
// renewed after the bus reconnects, and subcard readiness found through the
// card inventory.
#include <gmock/gmock.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <utility>

#include "app_fixture.h"
#include "query/query.h"

using ::testing::ElementsAre;
using ::testing::Pair;

namespace app {
namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point t0) {
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

// ---- reads

TEST_P(AppTest, BlockingReadReturnsAValuePublishedLater) {
    std::thread publisher([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        pub_->cap_int32("global_spec/platform/port_num", 48);
    });
    int32_t value = 0;
    const auto t0 = Clock::now();
    EXPECT_EQ(
        libqz_cap_get_capacity_int32_thread(app_, "global_spec/platform/port_num", ctx_, &value),
        0);
    publisher.join();
    EXPECT_EQ(value, 48);
    EXPECT_GE(ctx_->sleep_time, 1u);
    EXPECT_LE(ctx_->sleep_time, 3u);
    EXPECT_LT(seconds_since(t0), 5.0);
    EXPECT_EQ(ctx_->ready, 0) << "the value came before readiness";
}

TEST_P(AppTest, OnceLocallyReadyAMissingValueFailsWithoutWaiting) {
    ASSERT_EQ(pub_->local_ready(true), 0);
    bool value = true;
    // The first read of a fresh context learns readiness after one round.
    EXPECT_EQ(libqz_cap_get_capacity_bool_thread(app_, "global_spec/platform/none", ctx_, &value),
              LIBQZ_CAP_E_NO_RECORD);
    EXPECT_FALSE(value);
    EXPECT_NE(ctx_->ready, 0);

    const uint32_t waits = ctx_->sleep_time;
    const auto t0 = Clock::now();
    ASSERT_EQ(pub_->cap_pri_only("global_spec/platform/no_value", 3), 0);
    int32_t number = 0;
    EXPECT_EQ(libqz_cap_get_capacity_int32_thread(app_, "global_spec/platform/none", ctx_, &number),
              LIBQZ_CAP_E_NO_RECORD);
    EXPECT_EQ(number, -1);
    EXPECT_EQ(
        libqz_cap_get_capacity_bool_thread(app_, "global_spec/platform/no_value", ctx_, &value),
        LIBQZ_CAP_E_NO_FIELD);
    EXPECT_EQ(ctx_->sleep_time, waits);
    EXPECT_LT(seconds_since(t0), 0.5);
}

TEST_P(AppTest, NonBlockingReadsOfEveryType) {
    ASSERT_EQ(pub_->cap_bool("global_spec/platform/has_fan", true), 0);
    ASSERT_EQ(pub_->cap_int32("global_spec/platform/slots", -7), 0);
    ASSERT_EQ(pub_->cap_str("global_spec/platform/model", "QZ-9000|rev\\b"), 0);

    bool flag = false;
    EXPECT_EQ(libqz_cap_get_capacity_bool_no_block_thread(app_, "global_spec/platform/has_fan",
                                                          ctx_, &flag),
              0);
    EXPECT_TRUE(flag);
    int32_t n = 0;
    EXPECT_EQ(
        libqz_cap_ce_get_g_cap_int32_no_block_thread(app_, "global_spec/platform/slots", ctx_, &n),
        0);
    EXPECT_EQ(n, -7);
    char text[32];
    uint32_t len = 99;
    EXPECT_EQ(libqz_cap_get_capacity_str_no_block_thread(app_, "global_spec/platform/model",
                                                         sizeof text, ctx_, text, &len),
              0);
    EXPECT_STREQ(text, "QZ-9000|rev\\b");
    EXPECT_EQ(len, strlen("QZ-9000|rev\\b"));

    // The boolean record holds no integer: the read says so at once.
    EXPECT_EQ(libqz_cap_get_capacity_int32_no_block_thread(app_, "global_spec/platform/has_fan",
                                                           ctx_, &n),
              LIBQZ_CAP_E_NO_FIELD);
    EXPECT_EQ(n, -1);
    EXPECT_EQ(libqz_cap_get_capacity_bool_no_block_thread(app_, "global_spec/platform/absent", ctx_,
                                                          &flag),
              LIBQZ_CAP_E_NO_RECORD);
    EXPECT_FALSE(flag);
    EXPECT_EQ(ctx_->sleep_time, 0u);
}

TEST_P(AppTest, EveryInitialisationKeepsTheOneLoggingCategory) {
    void *const category = g_libqz_cap_zlog_category;
    ASSERT_NE(category, nullptr);
    for (int i = 0; i < 3; ++i) {
        void *handle =
            qz_mom_client_create(store_uri(GetParam(), "category" + std::to_string(i)).c_str());
        ASSERT_NE(handle, nullptr);
        libqz_cap_ctrl_info_t *ctx = libqz_cap_ctrl_info_init();
        ASSERT_NE(ctx, nullptr);
        EXPECT_EQ(libqz_cap_init_thread(handle, "app_test", ctx), 0);
        EXPECT_EQ(g_libqz_cap_zlog_category, category) << "initialisation " << i;
        qz_mom_client_destroy(handle);
        qz_cap_destroy_hash(ctx->sub_hash);
        libqz_cap_ctrl_info_free(ctx);
    }
}

// A field of url's capability record as another writer would store it.
int32_t write_raw(void *global, const std::string &url, const char *field,
                  const std::string &value) {
    const std::string key = "p_libpub.cap_table|" + url;
    return qz_mom_hset_raw(global, qztest::kCapDb, key.c_str(), field, value.data(), value.size());
}

TEST_P(AppTest, AMalformedStoredValueIsABusFailureNotAValue) {
    ASSERT_EQ(write_raw(platform_, "global_spec/platform/bad", "7", "twelve"), 0);
    int32_t n = 0;
    EXPECT_EQ(
        libqz_cap_get_capacity_int32_no_block_thread(app_, "global_spec/platform/bad", ctx_, &n),
        LIBQZ_CAP_E_BUS);
    EXPECT_EQ(n, -1);
}

TEST_P(AppTest, AFieldANewerPublisherAddedDoesNotSilenceTheCapability) {
    ASSERT_EQ(pub_->cap_int32("global_spec/platform/mtu", 1500), 0);
    ASSERT_EQ(write_raw(platform_, "global_spec/platform/mtu", "31", "jumbo"), 0);
    int32_t n = 0;
    EXPECT_EQ(
        libqz_cap_get_capacity_int32_no_block_thread(app_, "global_spec/platform/mtu", ctx_, &n),
        0);
    EXPECT_EQ(n, 1500);
}

// ---- pushes and subscriptions

struct Push {
    std::string url;
    int32_t value;
};

Inbox<Push> g_bool_pushes;
Inbox<Push> g_int_pushes;
Inbox<int> g_confirmations;

int32_t on_bool(void *, qz_mom_pmsg_t *pmsg, void *arg) {
    if (pmsg->cmd == QZ_MOM_CMD_SUBSCRIBED) {
        g_confirmations.push(0);
        return 0;
    }
    char url[256] = {};
    bool value = false;
    uint32_t len = 0;
    if (libqz_cap_ce_get_g_cap_bool_by_pmsg_thread(
            pmsg, sizeof url, url, static_cast<libqz_cap_ctrl_info_t *>(arg), &value, &len) == 0)
        g_bool_pushes.push({url, value});
    return 0;
}

int32_t on_int(void *, qz_mom_pmsg_t *pmsg, void *) {
    if (pmsg->cmd == QZ_MOM_CMD_SUBSCRIBED) {
        g_confirmations.push(1);
        return 0;
    }
    char url[256] = {};
    int32_t value = 0;
    uint32_t len = 0;
    if (libqz_cap_ce_get_g_cap_int32_by_pmsg(pmsg, sizeof url, url, &value, &len) == 0)
        g_int_pushes.push({url, value});
    return 0;
}

Inbox<void *> g_glb_ready_calls;
int32_t on_glb_ready(void *, void *arg) {
    g_glb_ready_calls.push(arg);
    return 0;
}

Inbox<libqz_cap_subcard_msg_t> g_subcard_msgs;
int32_t on_subcard(void *, libqz_cap_subcard_msg_t *msg, void *) {
    g_subcard_msgs.push(*msg);
    return 0;
}

class SubscriptionTest : public AppTest {
  protected:
    void SetUp() override {
        AppTest::SetUp();
        g_bool_pushes.clear();
        g_int_pushes.clear();
        g_confirmations.clear();
        g_glb_ready_calls.clear();
        g_subcard_msgs.clear();
    }

    // The boolean poe (ctx_ its argument too) and the int32 mtu.
    void subscribe_poe_and_mtu() {
        ASSERT_EQ(libqz_cap_ce_subscribe_g_cap_bool_ext_thread(app_, "global_spec/platform/poe",
                                                               on_bool, ctx_, ctx_),
                  0);
        ASSERT_EQ(libqz_cap_ce_subscribe_g_cap_int32_thread(app_, "global_spec/platform/mtu",
                                                            on_int, ctx_),
                  0);
    }
};

std::vector<std::pair<std::string, int32_t>> flat(const std::vector<Push> &pushes) {
    std::vector<std::pair<std::string, int32_t>> out;
    for (const auto &p : pushes)
        out.emplace_back(p.url, p.value);
    return out;
}

TEST_P(SubscriptionTest, EachChangeReachesTheSubscriberWithItsUrlAndValue) {
    ASSERT_NO_FATAL_FAILURE(subscribe_poe_and_mtu());
    ASSERT_TRUE(g_confirmations.wait_for(2));

    // One change at a time: a server store reads the record after each change
    // event, so quick successive changes may reach it as the latest only.
    ASSERT_EQ(pub_->cap_bool("global_spec/platform/poe", true), 0);
    ASSERT_TRUE(g_bool_pushes.wait_for(1));
    ASSERT_EQ(pub_->cap_int32("global_spec/platform/mtu", 1500), 0);
    ASSERT_TRUE(g_int_pushes.wait_for(1));
    ASSERT_EQ(pub_->cap_bool("global_spec/platform/poe", true), 0);    // no change: no push
    ASSERT_EQ(pub_->cap_int32("global_spec/platform/poe", 9), 0);      // another field: no push
    ASSERT_EQ(pub_->cap_bool("global_spec/platform/other", true), 0);  // not subscribed
    ASSERT_EQ(pub_->cap_bool("global_spec/platform/poe", false), 0);
    ASSERT_TRUE(g_bool_pushes.wait_for(2));
    ASSERT_EQ(pub_->cap_int32("global_spec/platform/mtu", 9216), 0);
    ASSERT_TRUE(g_int_pushes.wait_for(2));
    qz_mom_test_drain(app_);
    EXPECT_THAT(flat(g_bool_pushes.items()), ElementsAre(Pair("global_spec/platform/poe", 1),
                                                         Pair("global_spec/platform/poe", 0)));
    EXPECT_THAT(flat(g_int_pushes.items()), ElementsAre(Pair("global_spec/platform/mtu", 1500),
                                                        Pair("global_spec/platform/mtu", 9216)));
}

TEST_P(SubscriptionTest, GlobalReadinessStoredBeforeTheSubscriptionIsDeliveredToo) {
    ASSERT_EQ(pub_->glb_ready(true), 0);
    int tag = 0;
    ASSERT_EQ(libqz_cap_ce_subscribe_g_cap_state_thread(app_, "glb", on_glb_ready, &tag, ctx_), 0);
    ASSERT_TRUE(g_glb_ready_calls.wait_for(1));
    ASSERT_EQ(pub_->glb_ready(false), 0);  // any delivery calls back, whatever it says
    ASSERT_TRUE(g_glb_ready_calls.wait_for(2));
    EXPECT_EQ(g_glb_ready_calls.items()[0], &tag);

    bool ready = true;
    EXPECT_EQ(libqz_cap_ce_get_glb_ready(app_, &ready), 0);
    EXPECT_FALSE(ready);
}

TEST_P(SubscriptionTest, AfterAReconnectEveryRecordedSubscriptionDeliversAgain) {
    int tag = 0;
    ASSERT_NO_FATAL_FAILURE(subscribe_poe_and_mtu());
    ASSERT_EQ(libqz_cap_ce_subscribe_g_cap_state_thread(app_, "glb", on_glb_ready, &tag, ctx_), 0);
    ASSERT_EQ(libqz_cap_subscribe_subcard_state(app_, ctx_, on_subcard, nullptr), 0);
    ASSERT_TRUE(g_confirmations.wait_for(2));
    qz_mom_test_drain(app_);
    EXPECT_EQ(qz_mom_test_subscription_count(app_), 4u);

    ASSERT_EQ(qz_mom_test_reconnect(app_), 0);
    qz_mom_test_drain(app_);
    // The library renewed what its registry holds; the subcard subscription
    // is not recorded, so it is gone.
    EXPECT_EQ(qz_mom_test_subscription_count(app_), 3u);
    EXPECT_TRUE(g_confirmations.wait_for(4));

    // Deliveries come in order: once the later ones arrived, a subcard push
    // would have too.
    ASSERT_EQ(pub_->subcard_state(3, 77, true), 0);
    ASSERT_EQ(pub_->cap_bool("global_spec/platform/poe", true), 0);
    ASSERT_EQ(pub_->cap_int32("global_spec/platform/mtu", 1500), 0);
    ASSERT_EQ(pub_->glb_ready(true), 0);
    ASSERT_TRUE(g_bool_pushes.wait_for(1));
    ASSERT_TRUE(g_int_pushes.wait_for(1));
    ASSERT_TRUE(g_glb_ready_calls.wait_for(1));
    qz_mom_test_drain(app_);
    EXPECT_THAT(flat(g_bool_pushes.items()), ElementsAre(Pair("global_spec/platform/poe", 1)));
    EXPECT_THAT(flat(g_int_pushes.items()), ElementsAre(Pair("global_spec/platform/mtu", 1500)));
    EXPECT_EQ(g_subcard_msgs.size(), 0u);
}

TEST_P(SubscriptionTest, SubcardStateSubscriptionSeesStoredAndNewRecords) {
    ASSERT_EQ(pub_->subcard_state(5, 41, true), 0);
    ASSERT_EQ(pub_->subcard_state(2, 40, false), 0);
    ASSERT_EQ(libqz_cap_subscribe_subcard_state(app_, ctx_, on_subcard, nullptr), 0);
    ASSERT_TRUE(g_subcard_msgs.wait_for(2));
    ASSERT_EQ(pub_->subcard_state(2, 40, true), 0);
    ASSERT_TRUE(g_subcard_msgs.wait_for(3));
    auto msgs = g_subcard_msgs.items();
    std::vector<std::tuple<int32_t, int32_t, bool>> seen;
    for (const auto &m : msgs)
        seen.emplace_back(m.nodeid, m.config_dev_type, m.ready);
    EXPECT_THAT(seen, ElementsAre(std::make_tuple(2, 40, false), std::make_tuple(5, 41, true),
                                  std::make_tuple(2, 40, true)));
}

// ---- subcards

TEST_P(AppTest, SubcardReadinessIsFoundThroughTheCardInventory) {
    ASSERT_EQ(pub_->card(1, 9, 0x31), 0);
    ASSERT_EQ(pub_->card(2, 10, 0x32), 0);
    ASSERT_EQ(pub_->subcard_state(9, 0x31, true), 0);
    ASSERT_EQ(pub_->subcard_state(10, 0x32, false), 0);

    bool ready = false;
    EXPECT_EQ(libqz_cap_get_sub_card_local_ready_thread(app_, &ready, 9), 0);
    EXPECT_TRUE(ready);
    EXPECT_EQ(libqz_cap_get_sub_card_local_ready_thread(app_, &ready, 10), 0);
    EXPECT_FALSE(ready);
    ready = true;
    EXPECT_EQ(libqz_cap_get_sub_card_local_ready_thread(app_, &ready, 11), LIBQZ_CAP_E_BUS);
    EXPECT_TRUE(ready) << "a missing card leaves the answer untouched";
}

TEST_P(AppTest, SubcardReadsKeepTheNodeListOrderedByNodeId) {
    for (int32_t node : {9, 2, 5}) {
        ASSERT_EQ(pub_->card(node, node, 100 + node), 0);
        ASSERT_EQ(pub_->subcard_state(node, 100 + node, true), 0);
        ASSERT_EQ(pub_->subcard_cap_int32(node, "subcard/ports", node * 4), 0);
    }
    for (int32_t node : {9, 2, 5}) {
        int32_t ports = 0;
        EXPECT_EQ(libqz_cap_get_subcard_capacity_int32(app_, node, "subcard/ports", &ports), 0);
        EXPECT_EQ(ports, node * 4);
    }
    std::vector<int32_t> order;
    for (auto *p = cap_sub_card_nodes_list.next; p != &cap_sub_card_nodes_list; p = p->next)
        order.push_back(reinterpret_cast<libqz_cap_subcard_node_t *>(p)->payload.nodeid);
    EXPECT_THAT(order, ElementsAre(2, 5, 9));

    // Subcard 5 is ready: a value it never published is an error at once.
    bool flag = true;
    const auto t0 = Clock::now();
    EXPECT_EQ(libqz_cap_get_subcard_capacity_bool(app_, 5, "subcard/none", &flag),
              LIBQZ_CAP_E_NO_RECORD);
    EXPECT_FALSE(flag);
    EXPECT_LT(seconds_since(t0), 2.5);
}

INSTANTIATE_TEST_SUITE_P(Stores, AppTest, ::testing::ValuesIn(kStores), StoreName());
INSTANTIATE_TEST_SUITE_P(Stores, SubscriptionTest, ::testing::ValuesIn(kStores), StoreName());

}  // namespace
}  // namespace app
