// What only the Redis store has: operators writing with their own client,
// the server's configuration (notifications, password, CONFIG), other
// databases, TCP, and losing the server: restarts and killed connections.
// Every test runs its own private redis-server.
#include <time.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "mom_redis_server.h"
#include "mom_test_util.h"

namespace momtest {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Clock = std::chrono::steady_clock;

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    for (size_t p = 0, q; (q = text.find('\n', p)) != std::string::npos; p = q + 1)
        lines.push_back(text.substr(p, q - p));
    return lines;
}

size_t count_with(const std::vector<std::string> &lines, const std::string &part) {
    size_t n = 0;
    for (const std::string &l : lines)
        n += l.find(part) != std::string::npos;
    return n;
}

size_t count_ending(const std::vector<std::string> &lines, const std::string &end) {
    size_t n = 0;
    for (const std::string &l : lines)
        n += l.ends_with(end);
    return n;
}

int32_t subscribe_field(void *h, int32_t db, ProtobufCMessage *key, int32_t field, Recorder *rec) {
    qz_mom_record_cb cb = Recorder::cb;
    void *arg = rec;
    return qz_mom_subscribe_field(h, db, key, 1, &field, &cb, &arg, 1);
}

// A private server and one application handle on it.
class MomRedis : public ::testing::Test {
  protected:
    void start(RedisServer::Options opt = {}) {
        server_ = std::make_unique<RedisServer>(std::move(opt));
        const std::string why = server_->start();
        ASSERT_EQ(why, "");
        app_ = qz_mom_client_create(server_->uri().c_str());
        ASSERT_NE(app_, nullptr);
        op_ = server_->client();
        ASSERT_NE(op_, nullptr);
    }
    void TearDown() override {
        if (app_ != nullptr)
            qz_mom_client_destroy(app_);
        EXPECT_EQ(qz_mom_test_live_results(), 0) << "hash results not released";
        EXPECT_EQ(qz_mom_test_live_objects(), 0) << "objects not released";
    }
    Recorder &recorder() { return *recorders_.emplace_back(std::make_unique<Recorder>()); }

    std::vector<std::unique_ptr<Recorder>> recorders_;  // outlive the handle
    std::unique_ptr<RedisServer> server_;
    void *app_ = nullptr;
    RedisPtr op_;  // the operator's own client, in db 3
};

// ---- Operators ------------------------------------------------------------

TEST_F(MomRedis, OperatorHsetReachesFieldAndWholeTypeSubscribers) {
    start();
    Recorder &field = recorder();
    Recorder &all = recorder();
    CapTable foo("global_spec/platform/foo"), every("");
    ASSERT_EQ(subscribe_field(app_, kDb, foo.msg(), 6, &field), 0);
    ASSERT_EQ(qz_mom_subscribe(app_, kDb, every.msg(), 0, Recorder::cb, &all), 0);
    ASSERT_TRUE(field.wait_for(1) && all.wait_for(1));

    command(op_.get(), {"HSET", "p_libpub.cap_table|global_spec/platform/foo", "6", "1"});
    ASSERT_TRUE(field.wait_for(2));
    ASSERT_TRUE(all.wait_for(2));
    for (Recorder *r : {&field, &all}) {
        std::vector<Event> ev = r->events();
        EXPECT_EQ(ev[1].cmd, QZ_MOM_CMD_CHANGED);
        EXPECT_EQ(ev[1].key, "p_libpub.cap_table|global_spec/platform/foo");
        EXPECT_THAT(ev[1].fields, ElementsAre(5, 6));
        auto *v = ev[1].unpack<PLibpub__CapTable>(&p_libpub__cap_table__descriptor);
        ASSERT_NE(v, nullptr);
        EXPECT_EQ(v->bool_value, 1);
        protobuf_c_message_free_unpacked(&v->base, nullptr);
    }

    // HDEL of the last field deletes the key: one 7, not one per event.
    command(op_.get(), {"HDEL", "p_libpub.cap_table|global_spec/platform/foo", "6"});
    command(op_.get(), {"HSET", "p_libpub.cap_table|x/sentinel", "7", "1"});
    ASSERT_TRUE(all.wait_for(4));
    EXPECT_THAT(all.cmds(), ElementsAre(QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_CHANGED,
                                        QZ_MOM_CMD_DELETED, QZ_MOM_CMD_CHANGED));
    EXPECT_EQ(all.events()[3].key, "p_libpub.cap_table|x/sentinel");
    EXPECT_THAT(field.cmds(),
                ElementsAre(QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_CHANGED, QZ_MOM_CMD_DELETED));
}

TEST_F(MomRedis, OperatorsMalformedRecordsFailReadsAndAreSkippedByScansAndPushes) {
    start();
    Recorder &all = recorder();
    CapTable every("");
    ASSERT_EQ(qz_mom_subscribe(app_, kDb, every.msg(), 0, Recorder::cb, &all), 0);
    ASSERT_TRUE(all.wait_for(1));

    ::testing::internal::CaptureStderr();
    command(op_.get(), {"HSET", "p_libpub.cap_table|bad/value", "7", "seven"});
    command(op_.get(), {"HSET", "p_libpub.cap_table|bad/field", "six", "1"});
    command(op_.get(), {"SET", "p_libpub.cap_table|bad/string", "1"});  // not a hash
    command(op_.get(), {"HSET", "p_libpub.cap_table|ok", "7", "3"});
    ASSERT_TRUE(all.wait_for(2));  // the good one
    const std::string pushed = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(all.events().back().key, "p_libpub.cap_table|ok");
    EXPECT_EQ(all.size(), 2u);
    std::vector<std::string> lines = lines_of(pushed);  // one per skipped record
    EXPECT_EQ(lines.size(), 3u) << pushed;
    EXPECT_EQ(count_with(lines, "bad/value\" in db 3 (push)"), 1u) << pushed;
    EXPECT_EQ(count_with(lines, "bad/field\" in db 3 (push)"), 1u) << pushed;
    EXPECT_EQ(count_with(lines, "bad/string\" in db 3 (push): WRONGTYPE"), 1u) << pushed;

    CapTable value("bad/value"), field("bad/field"), string("bad/string"), ok("ok");
    EXPECT_EQ(ResPtr(qz_mom_hgetall_sync(app_, kDb, value.msg()))->error_code, QZ_MOM_E_DECODE);
    EXPECT_EQ(ResPtr(qz_mom_hgetall_sync(app_, kDb, field.msg()))->error_code, QZ_MOM_E_DECODE);
    EXPECT_EQ(ResPtr(qz_mom_hgetall_sync(app_, kDb, string.msg()))->error_code, QZ_MOM_E_REPLY);
    int32_t err = 0;
    EXPECT_EQ(qz_mom_get_sync(app_, kDb, string.msg(), &err), nullptr);
    EXPECT_EQ(err, QZ_MOM_E_REPLY);

    Recorder &scanned = recorder();
    ::testing::internal::CaptureStderr();
    ASSERT_EQ(qz_mom_scan_sync(app_, kDb, every.msg(), 0, Recorder::cb, &scanned), 0);
    const std::string skipped = ::testing::internal::GetCapturedStderr();
    ASSERT_EQ(scanned.size(), 1u);
    EXPECT_EQ(scanned.events()[0].key, "p_libpub.cap_table|ok");
    lines = lines_of(skipped);
    ASSERT_EQ(lines.size(), 3u) << skipped;
    EXPECT_EQ(count_with(lines, "qz_mom: skipped"), 3u) << skipped;
    EXPECT_EQ(count_with(lines, "WRONGTYPE"), 1u) << skipped;
}

// ---- Server configuration -------------------------------------------------

TEST_F(MomRedis, NotificationsOffAreEnabledKeepingTheFlagsAlreadySet) {
    start({.notify = "El", .args = {}, .config = {}});
    RedisPtr c = server_->client(0);
    ReplyPtr r = command(c.get(), {"CONFIG", "GET", "notify-keyspace-events"});
    ASSERT_NE(r, nullptr);
    ASSERT_EQ(r->elements, 2u);
    const std::string flags(r->element[1]->str, r->element[1]->len);
    for (char f : std::string("ElKghxe"))
        EXPECT_NE(flags.find(f), std::string::npos) << f << " missing from " << flags;

    Recorder &rec = recorder();
    CapTable t("x/n");
    ASSERT_EQ(subscribe_field(app_, kDb, t.msg(), 7, &rec), 0);
    ASSERT_TRUE(rec.wait_for(1));
    command(op_.get(), {"HSET", "p_libpub.cap_table|x/n", "7", "4"});
    ASSERT_TRUE(rec.wait_for(2));
    EXPECT_EQ(int_of(rec.events()[1]), 4);
}

TEST_F(MomRedis, ServersThatRefuseThisClientFailCreationWithTheReason) {
    struct Case {
        const char *name;
        RedisServer::Options opt;
        const char *why;
    };
    const Case cases[] = {
        {"password",
         {.notify = "KEA", .args = {"--requirepass", "s3cret"}, .config = {}},
         "requires a password"},
        {"no CONFIG",
         {.notify = "", .args = {}, .config = "rename-command CONFIG \"\"\n"},
         "CONFIG GET notify-keyspace-events refused"},
        {"no CONFIG SET",
         {.notify = "", .args = {}, .config = "user default on nopass ~* &* +@all -config|set\n"},
         "CONFIG SET notify-keyspace-events Kghxe refused"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        RedisServer server(c.opt);
        ASSERT_EQ(server.start(), "");
        ::testing::internal::CaptureStderr();
        void *h = qz_mom_client_create(server.uri().c_str());
        const std::string err = ::testing::internal::GetCapturedStderr();
        EXPECT_EQ(h, nullptr);
        if (h != nullptr)
            qz_mom_client_destroy(h);
        ASSERT_EQ(lines_of(err).size(), 1u) << err;
        EXPECT_THAT(err, HasSubstr("qz_mom: cannot create a client for \"" + server.uri()));
        EXPECT_THAT(err, HasSubstr(c.why));
    }

    // Notifications already on: no CONFIG SET needed, so the ACL does not matter.
    RedisServer ok(
        {.notify = "KA", .args = {}, .config = "user default on nopass ~* &* +@all -config|set\n"});
    ASSERT_EQ(ok.start(), "");
    void *h = qz_mom_client_create(ok.uri().c_str());
    EXPECT_NE(h, nullptr);
    qz_mom_client_destroy(h);

    ::testing::internal::CaptureStderr();
    for (const char *bad : {"redis://", "redis://host:0", "redis://[::1", "unix:"})
        EXPECT_EQ(qz_mom_client_create(bad), nullptr) << bad;
    EXPECT_EQ(lines_of(::testing::internal::GetCapturedStderr()).size(), 4u);
}

// ---- Databases and transports ---------------------------------------------

TEST_F(MomRedis, EveryDatabaseIsItsOwnAndKeyspaceChannelsFollowIt) {
    start();
    Recorder &in5 = recorder();
    CapTable t("x/db");
    ASSERT_EQ(qz_mom_client_connect_sync(app_, 5), 0);
    ASSERT_EQ(subscribe_field(app_, 5, t.msg(), 7, &in5), 0);
    ASSERT_TRUE(in5.wait_for(1));
    t.rec.int32_value = 3;
    int32_t f = 7;
    ASSERT_EQ(qz_mom_write(app_, kDb, t.msg(), 1, &f), 0);  // db 3: not this subscription
    RedisPtr op5 = server_->client(5);
    command(op5.get(), {"HSET", "p_libpub.cap_table|x/db", "7", "5"});
    ASSERT_TRUE(in5.wait_for(2));
    EXPECT_EQ(int_of(in5.events()[1]), 5);
    EXPECT_EQ(in5.size(), 2u);
    ResPtr res(qz_mom_hgetall_sync(app_, kDb, t.msg()));
    ASSERT_NE(res->view, nullptr);
    EXPECT_EQ(static_cast<PLibpub__CapTable *>(res->view)->int32_value, 3);
    res.reset();
    ASSERT_EQ(qz_mom_write(app_, 0, t.msg(), 1, &f), 0);
    RedisPtr op0 = server_->client(0);
    ReplyPtr in0 = command(op0.get(), {"HGET", "p_libpub.cap_table|x/db", "7"});
    ASSERT_NE(in0, nullptr);
    ASSERT_EQ(in0->type, REDIS_REPLY_STRING);
    EXPECT_EQ(std::string(in0->str, in0->len), "3");

    // A database the server does not have: an error code, and the handle goes on.
    EXPECT_EQ(qz_mom_client_connect_sync(app_, 99), QZ_MOM_E_REPLY);
    EXPECT_EQ(ResPtr(qz_mom_hgetall_sync(app_, 99, t.msg()))->error_code, QZ_MOM_E_REPLY);
    EXPECT_NE(ResPtr(qz_mom_hgetall_sync(app_, kDb, t.msg()))->view, nullptr);
}

TEST_F(MomRedis, TcpUrisWork) {
    // A port that was free a moment ago.
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    ASSERT_EQ(bind(s, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    ASSERT_EQ(getsockname(s, reinterpret_cast<sockaddr *>(&a), &len), 0);
    const int port = ntohs(a.sin_port);
    close(s);
    RedisServer server({.notify = "KEA",
                        .args = {"--port", std::to_string(port), "--bind", "127.0.0.1"},
                        .config = {}});
    ASSERT_EQ(server.start(), "");
    void *h = qz_mom_client_create(("redis://127.0.0.1:" + std::to_string(port)).c_str());
    ASSERT_NE(h, nullptr);
    Recorder &rec = recorder();
    CapTable t("x/tcp");
    EXPECT_EQ(subscribe_field(h, kDb, t.msg(), 7, &rec), 0);
    ASSERT_TRUE(rec.wait_for(1));
    t.rec.int32_value = 8;
    int32_t f = 7;
    EXPECT_EQ(qz_mom_write(h, kDb, t.msg(), 1, &f), 0);
    ASSERT_TRUE(rec.wait_for(2));
    EXPECT_EQ(int_of(rec.events()[1]), 8);
    qz_mom_client_destroy(h);
}

// ---- Losing the server ----------------------------------------------------

// Reconnect callbacks: calls per user pointer, and an optional step run in
// the callback (as the library renews its subscriptions there).
struct Reconnects {
    std::mutex mu;
    std::condition_variable cv;
    std::map<void *, int> calls;
    std::vector<std::tuple<int32_t, int32_t, std::thread::id>> args;
    std::function<void(void *global)> renew;

    int total() {
        std::lock_guard<std::mutex> lk(mu);
        int n = 0;
        for (auto &[u, c] : calls)
            n += c;
        return n;
    }
    bool wait_total(int n) {
        std::unique_lock<std::mutex> lk(mu);
        return cv.wait_for(lk, kWait, [&] {
            int t = 0;
            for (auto &[u, c] : calls)
                t += c;
            return t >= n;
        });
    }
};
Reconnects *g_reconnects;
int u1, u2, u_renew;

int32_t on_reconnect(void *global, int32_t db, int32_t type, void *user) {
    if (user == &u_renew && g_reconnects->renew)
        g_reconnects->renew(global);
    std::lock_guard<std::mutex> lk(g_reconnects->mu);
    ++g_reconnects->calls[user];
    g_reconnects->args.emplace_back(db, type, std::this_thread::get_id());
    g_reconnects->cv.notify_all();
    return 0;
}

double cpu_ms() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

TEST_F(MomRedis, RestartFailsCallsFastThenRenewsAndDeliversWhatChangedMeanwhile) {
    start();
    Reconnects rc;
    g_reconnects = &rc;
    Recorder &all = recorder();
    Recorder &one = recorder();
    Recorder &glb = recorder();
    Recorder &field = recorder();
    auto subscribe_each_kind = [&](void *h) {
        CapTable every(""), single("x/one"), f("x/f");
        SFrame__CapGlbState g = S_FRAME__CAP_GLB_STATE__INIT;
        EXPECT_EQ(qz_mom_subscribe(h, kDb, every.msg(), 0, Recorder::cb, &all), 0);
        EXPECT_EQ(qz_mom_subscribe(h, kDb, single.msg(), 0, Recorder::cb, &one), 0);
        EXPECT_EQ(qz_mom_subscribe(h, kDb, &g.base, 0, Recorder::cb, &glb), 0);
        EXPECT_EQ(subscribe_field(h, kDb, f.msg(), 7, &field), 0);
    };
    subscribe_each_kind(app_);
    ASSERT_TRUE(all.wait_for(1) && one.wait_for(1) && glb.wait_for(1) && field.wait_for(1));
    command(op_.get(), {"HSET", "p_libpub.cap_table|x/f", "7", "1"});
    ASSERT_TRUE(field.wait_for(2));

    // Renewal waits until the test has written its change into the restarted server.
    std::mutex gate_mu;
    std::condition_variable gate_cv;
    bool written = false;
    rc.renew = [&](void *h) {
        {
            std::unique_lock<std::mutex> lk(gate_mu);
            gate_cv.wait_for(lk, kWait, [&] { return written; });
        }
        subscribe_each_kind(h);
    };
    for (void *u : {&u1, &u1, &u2, &u_renew})
        ASSERT_EQ(qz_mom_client_set_reconnect_cb(app_, kDb, on_reconnect, u), 0);
    void *doomed = qz_mom_client_create(server_->uri().c_str());
    ASSERT_NE(doomed, nullptr);

    ::testing::internal::CaptureStderr();
    server_->kill();

    // Down: every call fails at once with the connection code.
    CapTable k("x/f");
    const struct {
        const char *name;
        std::function<int32_t()> call;
    } calls[] = {
        {"hgetall", [&] { return ResPtr(qz_mom_hgetall_sync(app_, kDb, k.msg()))->error_code; }},
        {"get",
         [&] {
             int32_t e = 0;
             EXPECT_EQ(qz_mom_get_sync(app_, kDb, k.msg(), &e), nullptr);
             return e;
         }},
        {"scan", [&] { return qz_mom_scan_sync(app_, kDb, k.msg(), 0, Recorder::cb, &all); }},
        {"subscribe", [&] { return qz_mom_subscribe(app_, kDb, k.msg(), 0, Recorder::cb, &all); }},
        {"subscribe_field", [&] { return subscribe_field(app_, kDb, k.msg(), 7, &field); }},
        {"write",
         [&] {
             int32_t f = 7;
             return qz_mom_write(app_, kDb, k.msg(), 1, &f);
         }},
        {"connect", [&] { return qz_mom_client_connect_sync(app_, kDb); }},
    };
    for (int round = 0; round < 2; ++round) {
        for (const auto &c : calls) {
            const auto t0 = Clock::now();
            EXPECT_EQ(c.call(), QZ_MOM_E_CONN) << c.name;
            EXPECT_LT(Clock::now() - t0, std::chrono::milliseconds(100)) << c.name;
        }
    }
    // Waiting for the server costs no CPU: no spinning, no busy retries.
    const double cpu0 = cpu_ms();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_LT(cpu_ms() - cpu0, 30.0);
    const auto t0 = Clock::now();
    qz_mom_client_destroy(doomed);  // while its reconnect loop waits
    EXPECT_LT(Clock::now() - t0, std::chrono::milliseconds(200));
    EXPECT_EQ(rc.total(), 0);

    ASSERT_EQ(server_->start(), "");  // empty: the data went with the old process
    RedisPtr op = server_->client();
    command(op.get(), {"HSET", "p_libpub.cap_table|x/f", "7", "2"});
    {
        std::lock_guard<std::mutex> lk(gate_mu);
        written = true;
    }
    gate_cv.notify_all();
    ASSERT_TRUE(rc.wait_total(3));
    ASSERT_TRUE(field.wait_for(4));
    qz_mom_test_drain(app_);
    const std::string err = ::testing::internal::GetCapturedStderr();

    {
        std::lock_guard<std::mutex> lk(rc.mu);
        EXPECT_EQ(rc.calls, (std::map<void *, int>{{&u1, 1}, {&u2, 1}, {&u_renew, 1}}));
        for (auto &[db, type, thread] : rc.args) {
            EXPECT_EQ(db, kDb);
            EXPECT_EQ(type, 1);
            EXPECT_EQ(thread, all.events()[0].thread);  // the delivery thread
        }
    }
    EXPECT_THAT(field.cmds(), ElementsAre(QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_CHANGED,
                                          QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_CHANGED));
    EXPECT_EQ(int_of(field.events()[3]), 2);
    EXPECT_EQ(qz_mom_test_subscription_count(app_), 4u);  // old ones dropped, renewed ones in

    // The renewed subscriptions deliver.
    command(op.get(), {"HSET", "p_libpub.cap_table|x/one", "7", "9"});
    command(op.get(), {"HSET", "s_frame.cap_glb_state", "5", "1"});
    ASSERT_TRUE(one.wait_for(3));
    ASSERT_TRUE(glb.wait_for(3));
    ASSERT_TRUE(all.wait_for(4));  // 29, x/f before; 29, x/one after
    EXPECT_THAT(one.cmds(),
                ElementsAre(QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_CHANGED));
    EXPECT_THAT(glb.cmds(),
                ElementsAre(QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_RECORD));
    EXPECT_EQ(all.events()[3].key, "p_libpub.cap_table|x/one");

    // One line per handle when lost (the destroyed one too), one when back.
    std::vector<std::string> lines = lines_of(err);
    EXPECT_EQ(count_with(lines, " lost ("), 2u) << err;
    EXPECT_EQ(count_ending(lines, " is back"), 1u) << err;
    EXPECT_EQ(lines.size(), 3u) << err;
    g_reconnects = nullptr;
}

TEST_F(MomRedis, KilledConnectionsAreLostAndComeBackByThemselves) {
    start();
    Reconnects rc;
    g_reconnects = &rc;
    ASSERT_EQ(qz_mom_client_set_reconnect_cb(app_, kDb, on_reconnect, &u1), 0);
    Recorder &rec = recorder();
    CapTable t("x/k");
    ASSERT_EQ(subscribe_field(app_, kDb, t.msg(), 7, &rec), 0);
    ASSERT_TRUE(rec.wait_for(1));

    ::testing::internal::CaptureStderr();
    // The subscriber connection: noticed by the client's own thread.
    command(op_.get(), {"CLIENT", "KILL", "TYPE", "pubsub"});
    ASSERT_TRUE(rc.wait_total(1));
    EXPECT_EQ(qz_mom_test_subscription_count(app_), 0u);
    ASSERT_EQ(subscribe_field(app_, kDb, t.msg(), 7, &rec), 0);
    command(op_.get(), {"HSET", "p_libpub.cap_table|x/k", "7", "1"});
    ASSERT_TRUE(rec.wait_for(3));  // 29 again, then the change

    // The command connection: the call that finds it dead fails, the next
    // ones work once the handle is back.
    command(op_.get(), {"CLIENT", "KILL", "TYPE", "normal", "SKIPME", "yes"});
    EXPECT_EQ(ResPtr(qz_mom_hgetall_sync(app_, kDb, t.msg()))->error_code, QZ_MOM_E_CONN);
    ASSERT_TRUE(rc.wait_total(2));
    ResPtr res(qz_mom_hgetall_sync(app_, kDb, t.msg()));
    EXPECT_EQ(res->error_code, 0);
    EXPECT_NE(res->view, nullptr);
    res.reset();
    qz_mom_test_drain(app_);
    std::vector<std::string> lines = lines_of(::testing::internal::GetCapturedStderr());
    EXPECT_EQ(count_with(lines, " lost ("), 2u);
    EXPECT_EQ(count_ending(lines, " is back"), 2u);
    g_reconnects = nullptr;
}

}  // namespace
}  // namespace momtest
