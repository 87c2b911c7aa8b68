// The library across a restart of the message bus's server: the server is
// killed under an application with live subscriptions and started again on
// the same socket, with all its records lost.
#include <gmock/gmock.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <tuple>
#include <utility>

#include "app_fixture.h"

using ::testing::ElementsAre;
using ::testing::Pair;

namespace app {
namespace {

using Clock = std::chrono::steady_clock;

constexpr char kPoe[] = "global_spec/platform/poe";
constexpr char kMtu[] = "global_spec/platform/mtu";
constexpr char kRenewalRecord[] = "libqz_cap_reconnect_cap_thread: db 3 type ";

double seconds_since(Clock::time_point t0) {
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

struct Seen {
    Inbox<int> confirmations;
    Inbox<std::pair<std::string, int32_t>> bools;
    Inbox<std::pair<std::string, int32_t>> ints;
    Inbox<int> glb_ready;
    Inbox<libqz_cap_subcard_msg_t> subcards;
};

// The push callback of one value kind: its confirmation counted as `tag`,
// its values read with `extract` into `inbox`.
template <class Value, auto extract, int tag, auto inbox>
int32_t on_push(void *, qz_mom_pmsg_t *pmsg, void *arg) {
    auto *seen = static_cast<Seen *>(arg);
    if (pmsg->cmd == QZ_MOM_CMD_SUBSCRIBED) {
        seen->confirmations.push(tag);
        return 0;
    }
    char url[256] = {};
    Value value{};
    uint32_t len = 0;
    if (extract(pmsg, sizeof url, url, &value, &len) == 0)
        (seen->*inbox).push({url, value});
    return 0;
}

constexpr qz_mom_record_cb on_bool =
    on_push<bool, libqz_cap_ce_get_g_cap_bool_by_pmsg, 0, &Seen::bools>;
constexpr qz_mom_record_cb on_int =
    on_push<int32_t, libqz_cap_ce_get_g_cap_int32_by_pmsg, 1, &Seen::ints>;

int32_t on_glb_ready(void *, void *arg) {
    static_cast<Seen *>(arg)->glb_ready.push(0);
    return 0;
}

int32_t on_subcard(void *, libqz_cap_subcard_msg_t *msg, void *arg) {
    static_cast<Seen *>(arg)->subcards.push(*msg);
    return 0;
}

// Retries fn while the handle is still reconnecting; its last result.
template <class Fn>
int32_t once_connected(Fn fn) {
    const auto until = Clock::now() + std::chrono::seconds(5);
    int32_t rv = fn();
    while (rv == QZ_MOM_E_CONN && Clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        rv = fn();
    }
    return rv;
}

bool wait_until(const std::function<bool()> &done) {
    const auto until = Clock::now() + std::chrono::seconds(5);
    while (!done()) {
        if (Clock::now() >= until)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

class RestartTest : public AppTest {
  protected:
    void SetUp() override {
        ASSERT_FALSE(external_server())
            << "the restart test kills its server: unset QZCAP_TEST_STORE to let it start one";
        AppTest::SetUp();
    }
    void TearDown() override {
        g_libqz_cap_zlog_level = saved_level_;
        AppTest::TearDown();
        // A later test gets a live server even if this one stopped half way.
        private_redis();
    }

    // Publishes the three device-wide values one by one, each after the push
    // of the one before: `values` pushes of each value so far, `readies` of
    // the global state.
    void publish_values(bool poe, int32_t mtu, bool ready, size_t values, size_t readies) {
        ASSERT_EQ(pub_->cap_bool(kPoe, poe), 0);
        ASSERT_TRUE(seen_.bools.wait_for(values));
        ASSERT_EQ(pub_->cap_int32(kMtu, mtu), 0);
        ASSERT_TRUE(seen_.ints.wait_for(values));
        ASSERT_EQ(pub_->glb_ready(ready), 0);
        ASSERT_TRUE(seen_.glb_ready.wait_for(readies));
    }

    int32_t saved_level_ = g_libqz_cap_zlog_level;
    Seen seen_;
};

TEST_P(RestartTest, SubscriptionsAreRenewedOnceAndDeliverAfterTheServerRestarts) {
    qztest::TestRedisServer *server = private_redis();
    ASSERT_NE(server, nullptr);

    ASSERT_EQ(libqz_cap_ce_subscribe_g_cap_bool_ext_thread(app_, kPoe, on_bool, &seen_, ctx_), 0);
    ASSERT_EQ(libqz_cap_ce_subscribe_g_cap_int32_ext_thread(app_, kMtu, on_int, &seen_, ctx_), 0);
    ASSERT_EQ(libqz_cap_ce_subscribe_g_cap_state_thread(app_, "glb", on_glb_ready, &seen_, ctx_),
              0);
    ASSERT_EQ(libqz_cap_subscribe_subcard_state(app_, ctx_, on_subcard, &seen_), 0);
    ASSERT_TRUE(seen_.confirmations.wait_for(2));
    qz_mom_test_drain(app_);
    ASSERT_EQ(qz_mom_test_subscription_count(app_), 4u);

    // Every subscription works before the restart, so a silence after it means something.
    ASSERT_EQ(pub_->subcard_state(3, 77, true), 0);
    ASSERT_TRUE(seen_.subcards.wait_for(1));
    ASSERT_NO_FATAL_FAILURE(publish_values(true, 1500, false, 1, 1));

    // Set after initialisation, which may apply a level file.
    g_libqz_cap_zlog_level = 2;
    const size_t renewals_before = log_records_containing(kRenewalRecord);

    server->kill();
    bool flag = false;
    int32_t number = 0;
    auto t0 = Clock::now();
    EXPECT_EQ(libqz_cap_get_capacity_bool_no_block_thread(app_, kPoe, ctx_, &flag),
              LIBQZ_CAP_E_BUS);
    EXPECT_LT(seconds_since(t0), 0.2);
    // Retries at about 10, 30, ... 630, 1270 ms: back at 700 ms, the server
    // has the write below long before the handle returns.
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    t0 = Clock::now();
    EXPECT_EQ(libqz_cap_get_capacity_int32_thread(app_, kMtu, ctx_, &number), LIBQZ_CAP_E_BUS);
    EXPECT_EQ(number, -1);
    EXPECT_LT(seconds_since(t0), 0.2);
    EXPECT_EQ(qz_mom_test_subscription_count(app_), 0u) << "a lost connection drops them";

    ASSERT_EQ(server->start(), "");
    // An operator's write before the library renewed: the renewed field
    // subscriptions must still deliver it.
    {
        qztest::RedisPtr c = server->client();
        ASSERT_NE(c, nullptr);
        for (auto [url, field, value] : {std::tuple{kPoe, "6", "0"}, std::tuple{kMtu, "7", "9000"}})
            qztest::command(c.get(),
                            {"HSET", std::string("p_libpub.cap_table|") + url, field, value});
    }
    ASSERT_EQ(qz_mom_test_subscription_count(app_), 0u)
        << "renewed before the write: rerun, the write must precede renewal";

    ASSERT_TRUE(seen_.confirmations.wait_for(4)) << "the value subscriptions were not renewed";
    ASSERT_TRUE(wait_until([&] { return qz_mom_test_subscription_count(app_) == 3; }))
        << qz_mom_test_subscription_count(app_) << " subscriptions after the restart";
    ASSERT_TRUE(seen_.bools.wait_for(2));
    ASSERT_TRUE(seen_.ints.wait_for(2));

    // After the restart: the subcard record first, so that once the others
    // arrived a subcard push would have too.
    ASSERT_EQ(once_connected([&] { return pub_->subcard_state(3, 77, false); }), 0);
    ASSERT_NO_FATAL_FAILURE(publish_values(true, 1280, true, 3, 2));
    qz_mom_test_drain(app_);

    EXPECT_THAT(seen_.bools.items(), ElementsAre(Pair(kPoe, 1), Pair(kPoe, 0), Pair(kPoe, 1)));
    EXPECT_THAT(seen_.ints.items(),
                ElementsAre(Pair(kMtu, 1500), Pair(kMtu, 9000), Pair(kMtu, 1280)));
    EXPECT_EQ(seen_.glb_ready.size(), 2u);
    EXPECT_EQ(seen_.subcards.size(), 1u) << "the subcard subscription is not renewed";
    EXPECT_EQ(seen_.confirmations.size(), 4u);
    EXPECT_EQ(log_records_containing(kRenewalRecord) - renewals_before, 1u)
        << "the library's reconnect callback must run once";

    EXPECT_EQ(libqz_cap_get_capacity_bool_no_block_thread(app_, kPoe, ctx_, &flag), 0);
    EXPECT_TRUE(flag);
    EXPECT_EQ(libqz_cap_get_capacity_int32_thread(app_, kMtu, ctx_, &number), 0);
    EXPECT_EQ(number, 1280);
    bool ready = false;
    EXPECT_EQ(libqz_cap_ce_get_glb_ready(app_, &ready), 0);
    EXPECT_TRUE(ready);
}

INSTANTIATE_TEST_SUITE_P(Stores, RestartTest, ::testing::Values("redis"), StoreName());

}  // namespace
}  // namespace app
