// Start-up step stamps and the step-time report.
#include <cstring>
#include <string>

#include "core_expect.h"
#include "fake_platform.h"
#include "core/core.h"

namespace {

using core_expect::only_record_is;
using fake::P;

class Steps : public fake::Test {
  protected:
    libqz_cap_ctrl_info_t ctx_{};
};

std::string report(libqz_cap_ctrl_info_t *ctx, int *rc) {
    testing::internal::CaptureStdout();
    *rc = libqz_cap_dbg_show_time_thread(ctx);
    return testing::internal::GetCapturedStdout();
}

TEST_F(Steps, RecordingStampsLastTimeAndCounts) {
    P().set_time(7, 5000, 1000);
    libqz_cap_rec_time_thread(2, &ctx_);
    libqz_cap_rec_time_thread(2, &ctx_);
    libqz_cap_rec_time_thread(0, &ctx_);
    libqz_cap_rec_time_thread(6, &ctx_);

    const libqz_cap_time_rec_t *r = ctx_.time_rec;
    EXPECT_EQ(r[2].valid, 1);
    EXPECT_EQ(r[2].sec, 7u);
    EXPECT_EQ(r[2].nsec, 6000u);
    EXPECT_EQ(r[2].count, 2u);
    EXPECT_EQ(r[0].nsec, 7000u);
    EXPECT_EQ(r[0].count, 1u);
    EXPECT_EQ(r[6].nsec, 8000u);
    EXPECT_EQ(r[6].count, 1u);
    for (int untouched : {1, 3, 4, 5}) {
        EXPECT_EQ(r[untouched].valid, 0);
        EXPECT_EQ(r[untouched].count, 0u);
    }
    EXPECT_EQ(P().calls("qz_monotime").size(), 4u);
    EXPECT_TRUE(P().logs().empty());
}

TEST_F(Steps, BadArgumentsChangeNothingAndAreReported) {
    libqz_cap_rec_time_thread(0, nullptr);
    EXPECT_EQ(P().events().size(), 1u) << "no clock read for a NULL context";
    only_record_is("info is NULL", 100, "libqz_cap_rec_time_thread");

    P().reset();
    libqz_cap_ctrl_info_t before = ctx_;
    libqz_cap_rec_time_thread(LIBQZ_CAP_INIT_STEPS, &ctx_);
    EXPECT_EQ(memcmp(&before, &ctx_, sizeof ctx_), 0);
    EXPECT_EQ(P().events().size(), 1u);
    only_record_is("step 7 out of range", 100, "libqz_cap_rec_time_thread");

    P().reset();
    g_libqz_cap_zlog_level = 0;
    libqz_cap_rec_time_thread(0, nullptr);
    EXPECT_TRUE(P().events().empty());
}

TEST_F(Steps, ReportPrintsEveryStepWithRawClockValues) {
    ctx_.sleep_time = 42;
    P().set_time(100, 999999000, 1000);
    libqz_cap_rec_time_thread(0, &ctx_);  // 100:999999000
    libqz_cap_rec_time_thread(3, &ctx_);  // 101:0
    libqz_cap_rec_time_thread(3, &ctx_);  // 101:1000, not padded to nine digits
    int rc = -1;
    const std::string out = report(&ctx_, &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out,
              "=================show time====================\r\n\n"
              "sleep time 42\n"
              "type 0 type_name                       INIT_START valid 1 count      1, "
              "last_time 100:999999000\r\n\n"
              "type 1 type_name                INIT_GET_APP_NAME valid 0 count      0, "
              "last_time 0:0\r\n\n"
              "type 2 type_name                   INIT_ZLOG_INIT valid 0 count      0, "
              "last_time 0:0\r\n\n"
              "type 3 type_name                    INIT_CON_HOST valid 1 count      2, "
              "last_time 101:1000\r\n\n"
              "type 4 type_name                        INIT_HASH valid 0 count      0, "
              "last_time 0:0\r\n\n"
              "type 5 type_name                  INIT_RECON_HOST valid 0 count      0, "
              "last_time 0:0\r\n\n"
              "type 6 type_name                   INIT_KRIL_INIT valid 0 count      0, "
              "last_time 0:0\r\n\n");
    EXPECT_TRUE(P().logs().empty());
}

TEST_F(Steps, PlainReportCoversCallingThreadsDefaultContext) {
    memset(&g_libqz_cap_ctrl_info, 0, sizeof g_libqz_cap_ctrl_info);
    P().set_time(9, 0);
    libqz_cap_rec_time_thread(1, &g_libqz_cap_ctrl_info);
    int rc = -1;
    const std::string expected = report(&g_libqz_cap_ctrl_info, &rc);
    testing::internal::CaptureStdout();
    EXPECT_EQ(libqz_cap_dbg_show_time(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), expected);
    EXPECT_NE(expected.find("INIT_GET_APP_NAME valid 1 count      1, last_time 9:0\r\n"),
              std::string::npos);
    memset(&g_libqz_cap_ctrl_info, 0, sizeof g_libqz_cap_ctrl_info);
}

TEST_F(Steps, ReportOfNullContextPrintsNothing) {
    int rc = 0;
    EXPECT_EQ(report(nullptr, &rc), "");
    EXPECT_EQ(rc, -4);
    only_record_is("info NULL pointer, addr error!\n", 100, "libqz_cap_dbg_show_time_thread");
}

}  // namespace
