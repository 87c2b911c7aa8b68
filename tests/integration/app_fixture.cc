#include "app_fixture.h"

#include <unistd.h>

#include <atomic>

namespace app {

namespace {

constexpr int32_t kDb = 3;

template <class Msg>
int32_t write(void *global, Msg &msg, std::initializer_list<int32_t> fields) {
    std::vector<int32_t> f(fields);
    return qz_mom_write(global, kDb, &msg.base, static_cast<uint32_t>(f.size()), f.data());
}

}  // namespace

std::string store_uri(const std::string &test_name) {
    const char *env = getenv("QZCAP_TEST_STORE");
    if (env != nullptr && std::string(env).rfind("mem:", 0) != 0)
        return env;
    static std::atomic<int> seq{0};
    return "mem:" + test_name + "-" + std::to_string(getpid()) + "-" + std::to_string(++seq);
}

int32_t Publisher::cap_bool(const char *url, bool v) {
    PLibpub__CapTableIndex index = P_LIBPUB__CAP_TABLE_INDEX__INIT;
    index.url = const_cast<char *>(url);
    PLibpub__CapTable rec = P_LIBPUB__CAP_TABLE__INIT;
    rec.index = &index;
    rec.bool_value = v;
    return write(global_, rec, {6});
}

int32_t Publisher::cap_int32(const char *url, int32_t v) {
    PLibpub__CapTableIndex index = P_LIBPUB__CAP_TABLE_INDEX__INIT;
    index.url = const_cast<char *>(url);
    PLibpub__CapTable rec = P_LIBPUB__CAP_TABLE__INIT;
    rec.index = &index;
    rec.int32_value = v;
    return write(global_, rec, {7});
}

int32_t Publisher::cap_str(const char *url, const char *v) {
    PLibpub__CapTableIndex index = P_LIBPUB__CAP_TABLE_INDEX__INIT;
    index.url = const_cast<char *>(url);
    PLibpub__CapTable rec = P_LIBPUB__CAP_TABLE__INIT;
    rec.index = &index;
    rec.str_value = const_cast<char *>(v);
    return write(global_, rec, {8});
}

int32_t Publisher::cap_pri_only(const char *url, int32_t pri) {
    PLibpub__CapTableIndex index = P_LIBPUB__CAP_TABLE_INDEX__INIT;
    index.url = const_cast<char *>(url);
    PLibpub__CapTable rec = P_LIBPUB__CAP_TABLE__INIT;
    rec.index = &index;
    rec.pri = pri;
    return write(global_, rec, {21});
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
    PLibpub__CapSubcardTableIndex index = P_LIBPUB__CAP_SUBCARD_TABLE_INDEX__INIT;
    index.nodeid = nodeid;
    index.url = const_cast<char *>(url);
    PLibpub__CapSubcardTable rec = P_LIBPUB__CAP_SUBCARD_TABLE__INIT;
    rec.index = &index;
    rec.bool_value = v;
    return write(global_, rec, {6});
}

int32_t Publisher::subcard_cap_int32(int32_t nodeid, const char *url, int32_t v) {
    PLibpub__CapSubcardTableIndex index = P_LIBPUB__CAP_SUBCARD_TABLE_INDEX__INIT;
    index.nodeid = nodeid;
    index.url = const_cast<char *>(url);
    PLibpub__CapSubcardTable rec = P_LIBPUB__CAP_SUBCARD_TABLE__INIT;
    rec.index = &index;
    rec.int32_value = v;
    return write(global_, rec, {7});
}

void AppTest::SetUp() {
    const std::string uri =
        store_uri(::testing::UnitTest::GetInstance()->current_test_info()->name());
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
    libqz_cap_ctrl_info_free(ctx_);
    delete pub_;
}

}  // namespace app
