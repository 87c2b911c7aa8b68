// The memory estimate and the full dump of a context.
#include <string>

#include "core_expect.h"
#include "dbg_fixture.h"
#include "fake_platform.h"
#include "core/core.h"
#include "dbg/dbg.h"
#include "sub/sub.h"

namespace {

using core_expect::only_record_is;
using dbg_fixture::printed;
using fake::P;

void *fake_ptr(uintptr_t v) {
    return reinterpret_cast<void *>(v);
}

class Dump : public fake::Test {
  protected:
    void TearDown() override {
        dbg_fixture::drop_registry(&ctx_);
        dbg_fixture::reset_default_ctx();
        fake::Test::TearDown();
    }
    void add(const char *url, uint32_t type, void *arg = nullptr) {
        ASSERT_EQ(libqz_cap_add_sub_info_thread(fake_ptr(0xbeef), url, fake_ptr(0xf00d), arg, type,
                                                &ctx_),
                  0);
    }
    std::string memory(libqz_cap_ctrl_info_t *ctx) {
        int32_t rc = -1;
        std::string out = printed([&] { return libqz_cap_dbg_show_memory_thread(ctx); }, &rc);
        EXPECT_EQ(rc, 0);
        return out;
    }
    libqz_cap_ctrl_info_t ctx_{};
};

TEST_F(Dump, MemoryEstimateCountsTableBucketsAndRecords) {
    EXPECT_EQ(memory(&ctx_),
              "=========show memory================\n"
              "memory_of_hash is 0\n"
              "total memory is 404\n");

    dbg_fixture::make_registry(&ctx_);
    EXPECT_EQ(memory(&ctx_),
              "=========show memory================\n"
              "item_num is 0\n"
              "memory_of_hash is 410\n"
              "total memory is 814\n");

    add("a/b", 0);
    add("a/b", 1);
    EXPECT_EQ(memory(&ctx_),
              "=========show memory================\n"
              "item_num is 2\n"
              "memory_of_hash is 954\n"
              "total memory is 1358\n");
    EXPECT_TRUE(P().logs().empty());
}

TEST_F(Dump, MemoryEstimateOfTheDefaultContextAndOfNone) {
    dbg_fixture::make_registry(&g_libqz_cap_ctrl_info);
    EXPECT_EQ(printed(libqz_cap_dbg_show_memory), memory(&g_libqz_cap_ctrl_info));
    EXPECT_NE(memory(&g_libqz_cap_ctrl_info).find("total memory is 814\n"), std::string::npos);

    int32_t rc = 0;
    EXPECT_EQ(printed([] { return libqz_cap_dbg_show_memory_thread(nullptr); }, &rc), "");
    EXPECT_EQ(rc, -4);
    only_record_is("info NULL pointer, addr error!\n", 100, "libqz_cap_dbg_show_memory_thread",
                   core_expect::kDbg);
}

TEST_F(Dump, FullDumpPrintsStateRegistryMemoryAndSteps) {
    dbg_fixture::make_registry(&ctx_);
    add("global_spec/platform/fan", 3, fake_ptr(0xa1));
    ctx_.ready = 1;
    ctx_.sleep_time = 3;
    P().set_time(12, 500, 250);
    libqz_cap_rec_time_thread(0, &ctx_);
    libqz_cap_rec_time_thread(3, &ctx_);
    g_libqz_cap_zlog_level = 2;

    int32_t rc = -1;
    EXPECT_EQ(printed([&] { return libqz_cap_dbg_dump_all_thread(&ctx_); }, &rc),
              "g_libqz_cap_ready is 1\n"
              "g_libqz_cap_zlog_level is 2\n"
              "\r\n====================dump sub hash======================\r\n\n"
              "fp   0xf00d, global   0xbeef, type  3, arg     0xa1, url global_spec/platform/fan\n"
              "=========show memory================\n"
              "item_num is 1\n"
              "memory_of_hash is 682\n"
              "total memory is 1086\n"
              "=================show time====================\r\n\n"
              "sleep time 3\n"
              "type 0 type_name                       INIT_START valid 1 count      1, "
              "last_time 12:500\r\n\n"
              "type 1 type_name                INIT_GET_APP_NAME valid 0 count      0, "
              "last_time 0:0\r\n\n"
              "type 2 type_name                   INIT_ZLOG_INIT valid 0 count      0, "
              "last_time 0:0\r\n\n"
              "type 3 type_name                    INIT_CON_HOST valid 1 count      1, "
              "last_time 12:750\r\n\n"
              "type 4 type_name                        INIT_HASH valid 0 count      0, "
              "last_time 0:0\r\n\n"
              "type 5 type_name                  INIT_RECON_HOST valid 0 count      0, "
              "last_time 0:0\r\n\n"
              "type 6 type_name                   INIT_KRIL_INIT valid 0 count      0, "
              "last_time 0:0\r\n\n");
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(P().logs().empty());
}

TEST_F(Dump, PlainFullDumpCoversTheDefaultContext) {
    g_libqz_cap_ctrl_info.ready = 1;
    g_libqz_cap_ctrl_info.sleep_time = 77;
    const std::string out = printed(libqz_cap_dbg_dump_all);
    EXPECT_EQ(out, printed([] { return libqz_cap_dbg_dump_all_thread(&g_libqz_cap_ctrl_info); }));
    EXPECT_EQ(out.rfind("g_libqz_cap_ready is 1\n", 0), 0u);
    EXPECT_NE(out.find("sleep time 77\n"), std::string::npos);
}

TEST_F(Dump, NullContextPrintsNothing) {
    int32_t rc = 0;
    EXPECT_EQ(printed([] { return libqz_cap_dbg_dump_all_thread(nullptr); }, &rc), "");
    EXPECT_EQ(rc, -4);
    only_record_is("info NULL pointer, addr error!\n", 100, "libqz_cap_dbg_dump_all_thread",
                   core_expect::kDbg);
}

}  // namespace
