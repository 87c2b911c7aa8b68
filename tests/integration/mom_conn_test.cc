// What a tool needs to report a store's connection in its own words:
// creating a handle quietly with the reason for a failure, and the
// connection-state callback in place of the client's own stderr lines.
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "mom_redis_server.h"
#include "mom_test_util.h"

namespace momtest {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

struct Opened {
    void *handle = nullptr;
    int32_t code = 12345;
    std::string why;
};

Opened open_quietly(const std::string &uri, size_t why_len = 256) {
    Opened o;
    std::vector<char> why(why_len == 0 ? 1 : why_len, 'x');
    o.handle = qz_mom_client_open(uri.c_str(), &o.code, why.data(), why_len);
    o.why.assign(why.data(), why_len == 0 ? 1 : strnlen(why.data(), why.size()));
    return o;
}

TEST(MomOpen, FailuresComeBackAsCodeAndReasonWithNothingPrinted) {
    RedisServer locked({.notify = "KEA", .args = {"--requirepass", "secret"}, .config = {}});
    ASSERT_EQ(locked.start(), "");
    ::testing::internal::CaptureStderr();
    const struct {
        std::string uri;
        int32_t code;
        const char *says;
    } cases[] = {
        {"redis://localhost:notaport", QZ_MOM_E_ARG, "bad port \"notaport\""},
        {"unix:", QZ_MOM_E_ARG, "no socket path"},
        {"tcp://x", QZ_MOM_E_ARG, "unknown URI"},
        {"unix:/nonexistent/redis.sock", QZ_MOM_E_CONN, "No such file or directory"},
        {locked.uri(), QZ_MOM_E_REPLY, "requires a password"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.uri);
        Opened o = open_quietly(c.uri);
        EXPECT_EQ(o.handle, nullptr);
        EXPECT_EQ(o.code, c.code);
        EXPECT_THAT(o.why, HasSubstr(c.says));
    }
    // A short buffer gets the start of the reason, terminated.
    Opened cut = open_quietly("tcp://x", 8);
    EXPECT_EQ(cut.why, "unknown");
    EXPECT_EQ(qz_mom_client_open("tcp://x", nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");

    Opened ok = open_quietly("mem:open-test");
    ASSERT_NE(ok.handle, nullptr);
    EXPECT_EQ(ok.code, 0);
    EXPECT_EQ(ok.why, "");
    qz_mom_client_destroy(ok.handle);
}

// Every connection-state call and reconnect callback, in order.
struct Told {
    std::mutex mu;
    std::condition_variable cv;
    std::vector<std::string> calls;

    void add(std::string s) {
        std::lock_guard<std::mutex> lk(mu);
        calls.push_back(std::move(s));
        cv.notify_all();
    }
    bool wait_for(size_t n) {
        std::unique_lock<std::mutex> lk(mu);
        return cv.wait_for(lk, kWait, [&] { return calls.size() >= n; });
    }
    std::vector<std::string> get() {
        std::lock_guard<std::mutex> lk(mu);
        return calls;
    }
};

void on_conn(void *, int32_t up, const char *why, void *told) {
    static_cast<Told *>(told)->add(up != 0 ? "up" : std::string("down: ") + why);
}
int32_t on_reconnect(void *, int32_t, int32_t, void *told) {
    static_cast<Told *>(told)->add("reconnect callback");
    return 0;
}

TEST(MomConnState, LossAndReturnGoToTheCallbackInsteadOfStderr) {
    RedisServer server;
    ASSERT_EQ(server.start(), "");
    void *h = qz_mom_client_create(server.uri().c_str());
    ASSERT_NE(h, nullptr);
    Told told;
    ASSERT_EQ(qz_mom_client_set_conn_cb(h, on_conn, &told), 0);
    ASSERT_EQ(qz_mom_client_set_reconnect_cb(h, kDb, on_reconnect, &told), 0);
    EXPECT_EQ(qz_mom_client_set_conn_cb(nullptr, on_conn, &told), QZ_MOM_E_ARG);

    ::testing::internal::CaptureStderr();
    server.kill();
    ASSERT_TRUE(told.wait_for(1));
    ASSERT_EQ(server.start(), "");
    ASSERT_TRUE(told.wait_for(3));
    std::vector<std::string> calls = told.get();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_THAT(calls[0], HasSubstr("down: "));
    EXPECT_GT(calls[0].size(), std::string("down: ").size()) << "the reason is missing";
    EXPECT_EQ(calls[1], "up");
    EXPECT_EQ(calls[2], "reconnect callback");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");

    // Without a callback the client says it itself again.
    ASSERT_EQ(qz_mom_client_set_conn_cb(h, nullptr, nullptr), 0);
    ::testing::internal::CaptureStderr();
    server.kill();
    ASSERT_EQ(server.start(), "");
    ASSERT_TRUE(told.wait_for(4));
    qz_mom_test_drain(h);
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_THAT(err, HasSubstr("connection to " + server.uri() + " lost ("));
    EXPECT_THAT(err, HasSubstr("connection to " + server.uri() + " is back\n"));
    EXPECT_EQ(told.get().size(), 4u);
    qz_mom_client_destroy(h);
}

TEST(MomConnState, ASimulatedReconnectTellsTheCallbackBeforeTheReconnectCallbacks) {
    void *h = qz_mom_client_create("mem:conn-state");
    ASSERT_NE(h, nullptr);
    Told told;
    ASSERT_EQ(qz_mom_client_set_conn_cb(h, on_conn, &told), 0);
    ASSERT_EQ(qz_mom_client_set_reconnect_cb(h, kDb, on_reconnect, &told), 0);
    ASSERT_EQ(qz_mom_test_reconnect(h), 0);
    EXPECT_THAT(told.get(), ElementsAre("down: simulated", "up", "reconnect callback"));
    qz_mom_client_destroy(h);
}

}  // namespace
}  // namespace momtest
