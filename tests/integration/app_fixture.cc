#include "app_fixture.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <fstream>

namespace app {

namespace {

constexpr int32_t kDb = qztest::kCapDb;

template <class Msg>
int32_t write(void *global, Msg &msg, std::initializer_list<int32_t> fields) {
    std::vector<int32_t> f(fields);
    return qz_mom_write(global, kDb, &msg.base, static_cast<uint32_t>(f.size()), f.data());
}

// One field of url's capability record, set by `set`.
template <class Set>
int32_t write_cap(void *global, const char *url, int32_t field, Set set) {
    PLibpub__CapTableIndex index = P_LIBPUB__CAP_TABLE_INDEX__INIT;
    index.url = const_cast<char *>(url);
    PLibpub__CapTable rec = P_LIBPUB__CAP_TABLE__INIT;
    rec.index = &index;
    set(rec);
    return write(global, rec, {field});
}

// One field of url's capability record on subcard nodeid, set by `set`.
template <class Set>
int32_t write_subcard_cap(void *global, int32_t nodeid, const char *url, int32_t field, Set set) {
    PLibpub__CapSubcardTableIndex index = P_LIBPUB__CAP_SUBCARD_TABLE_INDEX__INIT;
    index.nodeid = nodeid;
    index.url = const_cast<char *>(url);
    PLibpub__CapSubcardTable rec = P_LIBPUB__CAP_SUBCARD_TABLE__INIT;
    rec.index = &index;
    set(rec);
    return write(global, rec, {field});
}

// The library's log goes to a file of our own, so that tests can count its
// records; the sink is chosen at the first record, so before any test runs.
class LogFile : public ::testing::Environment {
  public:
    void SetUp() override {
        const char *given = getenv("QZ_ZLOG_FILE");
        if (given != nullptr && given[0] != '\0')
            return;
        char tmpl[] = "/tmp/qzcap_app_log.XXXXXX";
        const int fd = mkstemp(tmpl);
        ASSERT_GE(fd, 0) << "cannot make a log file";
        close(fd);
        path_ = tmpl;
        setenv("QZ_ZLOG_FILE", path_.c_str(), 1);
    }
    void TearDown() override {
        if (path_.empty())
            return;
        if (::testing::UnitTest::GetInstance()->Passed())
            unlink(path_.c_str());
        else
            fprintf(stderr, "library log kept in %s\n", path_.c_str());
    }

  private:
    std::string path_;
};

[[maybe_unused]] ::testing::Environment *const g_log_file =
    ::testing::AddGlobalTestEnvironment(new LogFile);

}  // namespace

bool external_server() {
    const char *env = getenv("QZCAP_TEST_STORE");
    return env != nullptr && env[0] != '\0' && std::string(env).rfind("mem:", 0) != 0;
}

qztest::TestRedisServer *private_redis() {
    static qztest::TestRedisServer server;
    // Also brings it back after a test that killed it and failed.
    const std::string why = server.start();
    if (!why.empty()) {
        ADD_FAILURE() << why;
        return nullptr;
    }
    return &server;
}

std::string store_uri(const std::string &store, const std::string &test_name) {
    if (store == "mem") {
        static std::atomic<int> seq{0};
        return "mem:" + test_name + "-" + std::to_string(getpid()) + "-" + std::to_string(++seq);
    }
    std::string uri;
    if (external_server()) {
        uri = getenv("QZCAP_TEST_STORE");
    } else {
        qztest::TestRedisServer *server = private_redis();
        if (server == nullptr)
            return "unix:/nonexistent/redis.sock";
        uri = server->uri();
    }
    std::string why;
    qztest::RedisPtr c = qztest::connect(uri, kDb, &why);
    if (c == nullptr) {
        ADD_FAILURE() << why;
    } else {
        qztest::ReplyPtr r = qztest::command(c.get(), {"FLUSHDB"});
        if (r == nullptr || r->type == REDIS_REPLY_ERROR)
            ADD_FAILURE() << "FLUSHDB of database " << kDb << " on " << uri << " failed";
    }
    return uri;
}

std::string store_uri(const std::string &test_name) {
    return store_uri(external_server() ? "redis" : "mem", test_name);
}

size_t log_records_containing(const std::string &text) {
    const char *path = getenv("QZ_ZLOG_FILE");
    if (path == nullptr || path[0] == '\0') {
        ADD_FAILURE() << "QZ_ZLOG_FILE is not set: the library logs to standard error";
        return 0;
    }
    std::ifstream in(path);
    size_t n = 0;
    for (std::string line; std::getline(in, line);)
        n += line.find(text) != std::string::npos ? 1 : 0;
    return n;
}

int32_t Publisher::cap_bool(const char *url, bool v) {
    return write_cap(global_, url, 6, [&](PLibpub__CapTable &r) { r.bool_value = v; });
}

int32_t Publisher::cap_int32(const char *url, int32_t v) {
    return write_cap(global_, url, 7, [&](PLibpub__CapTable &r) { r.int32_value = v; });
}

int32_t Publisher::cap_str(const char *url, const char *v) {
    return write_cap(global_, url, 8,
                     [&](PLibpub__CapTable &r) { r.str_value = const_cast<char *>(v); });
}

int32_t Publisher::cap_pri_only(const char *url, int32_t pri) {
    return write_cap(global_, url, 21, [&](PLibpub__CapTable &r) { r.pri = pri; });
}

int32_t Publisher::local_ready(bool ready) {
    PLibpub__CapState rec = P_LIBPUB__CAP_STATE__INIT;
    rec.ready = ready;
    return write(global_, rec, {5});
}

int32_t Publisher::glb_ready(bool ready) {
    SFrame__CapGlbState rec = S_FRAME__CAP_GLB_STATE__INIT;
    rec.ready = ready;
    return write(global_, rec, {5});
}

int32_t Publisher::card(int32_t slot, int32_t nodeid, int32_t config_dev_type) {
    PDev__CardInfoIndex index = P_DEV__CARD_INFO_INDEX__INIT;
    index.t_mod = 1;
    index.slotid = slot;
    PDev__CardInfo rec = P_DEV__CARD_INFO__INIT;
    rec.index = &index;
    rec.card_nodeid = nodeid;
    rec.config_dev_type = config_dev_type;
    rec.is_online = 1;
    return write(global_, rec, {6, 7, 17});
}

int32_t Publisher::subcard_state(int32_t nodeid, int32_t config_dev_type, bool ready) {
    PLibpub__CapSubcardStateIndex index = P_LIBPUB__CAP_SUBCARD_STATE_INDEX__INIT;
    index.nodeid = nodeid;
    index.config_dev_type = config_dev_type;
    PLibpub__CapSubcardState rec = P_LIBPUB__CAP_SUBCARD_STATE__INIT;
    rec.index = &index;
    rec.ready = ready;
    return write(global_, rec, {6});
}

int32_t Publisher::subcard_cap_bool(int32_t nodeid, const char *url, bool v) {
    return write_subcard_cap(global_, nodeid, url, 6,
                             [&](PLibpub__CapSubcardTable &r) { r.bool_value = v; });
}

int32_t Publisher::subcard_cap_int32(int32_t nodeid, const char *url, int32_t v) {
    return write_subcard_cap(global_, nodeid, url, 7,
                             [&](PLibpub__CapSubcardTable &r) { r.int32_value = v; });
}

void AppTest::SetUp() {
    const std::string uri =
        store_uri(GetParam(), ::testing::UnitTest::GetInstance()->current_test_info()->name());
    platform_ = qz_mom_client_create(uri.c_str());
    app_ = qz_mom_client_create(uri.c_str());
    ASSERT_NE(platform_, nullptr) << "cannot open store " << uri;
    ASSERT_NE(app_, nullptr) << "cannot open store " << uri;
    pub_ = new Publisher(platform_);
    ctx_ = libqz_cap_ctrl_info_init();
    ASSERT_NE(ctx_, nullptr);
    ASSERT_EQ(libqz_cap_init_thread(app_, "app_test", ctx_), 0);
}

void AppTest::TearDown() {
    // The handle first: its delivery thread may still use the context.
    if (app_)
        qz_mom_client_destroy(app_);
    if (platform_)
        qz_mom_client_destroy(platform_);
    // The registry is the fixture's to release; the records in it are not
    // (the library keeps what a subscription allocates for good).
    if (ctx_)
        qz_cap_destroy_hash(ctx_->sub_hash);
    libqz_cap_ctrl_info_free(ctx_);
    delete pub_;
}

}  // namespace app
