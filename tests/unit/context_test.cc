// Client contexts, buffer sizing and the application name.
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "core/alloc.h"
#include "core_expect.h"
#include "fake_platform.h"
#include "core/core.h"

namespace {

using core_expect::only_record_is;
using core_expect::record_is;
using fake::P;

using fake::kGlobal;

std::string pointer_text(const void *p) {
    char buf[32];
    snprintf(buf, sizeof buf, "%p", p);
    return buf;
}

class Context : public fake::Test {
  protected:
    void TearDown() override {
        libqz_cap_test_fail_alloc(0);
        fake::Test::TearDown();
    }
};

TEST_F(Context, InitZeroFillsAndFreeTakesNull) {
    libqz_cap_ctrl_info_t *ctx = libqz_cap_ctrl_info_init();
    ASSERT_NE(ctx, nullptr);
    std::vector<unsigned char> zeros(sizeof *ctx, 0);
    EXPECT_EQ(memcmp(ctx, zeros.data(), zeros.size()), 0);
    libqz_cap_ctrl_info_free(ctx);
    libqz_cap_ctrl_info_free(nullptr);
    EXPECT_TRUE(P().events().empty());
}

TEST_F(Context, AllocationFailureGivesNullAndOneGatedError) {
    libqz_cap_test_fail_alloc(1);
    EXPECT_EQ(libqz_cap_ctrl_info_init(), nullptr);
    only_record_is("malloc mem fail\r\n", 100, "libqz_cap_ctrl_info_init");

    g_libqz_cap_zlog_level = 0;
    libqz_cap_test_fail_alloc(1);
    EXPECT_EQ(libqz_cap_ctrl_info_init(), nullptr);
    EXPECT_EQ(P().logs().size(), 1u);
}

class SetMemSize : public fake::Test {
  protected:
    libqz_cap_ctrl_info_t ctx_{};
};

TEST_F(SetMemSize, SizesBusThenShellTo1024) {
    EXPECT_EQ(libqz_cap_set_mem_size_thread(kGlobal, &ctx_), 0);
    auto calls = P().calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].op, "qz_mom_set_write_buf_len");
    EXPECT_EQ(calls[0].global, kGlobal);
    EXPECT_EQ(calls[0].db, 3);
    EXPECT_EQ(calls[0].len, 1024u);
    EXPECT_EQ(calls[1].op, "kril_lib_set_mem");
    EXPECT_EQ(calls[1].global, kGlobal);
    EXPECT_EQ(calls[1].len, 1024u);
    EXPECT_TRUE(P().logs().empty());
}

TEST_F(SetMemSize, BusFailureIsLoggedButShellResultIsReturned) {
    P().will_return_status("qz_mom_set_write_buf_len", -7);
    EXPECT_EQ(libqz_cap_set_mem_size_thread(kGlobal, &ctx_), 0);
    only_record_is("qz_mom_set_write_buf_len global " + pointer_text(kGlobal) +
                       " db 3 buf_len 1024, failed, rv -7",
                   100, "libqz_cap_set_mem_size_thread");
    EXPECT_EQ(P().calls("kril_lib_set_mem").size(), 1u);

    P().reset();
    P().will_return_status("qz_mom_set_write_buf_len", -7);
    P().will_return_status("kril_lib_set_mem", -9);
    EXPECT_EQ(libqz_cap_set_mem_size_thread(kGlobal, &ctx_), -9);
    auto logs = P().logs();
    ASSERT_EQ(logs.size(), 2u);
    record_is(logs[1],
              "kril_lib_set_mem global " + pointer_text(kGlobal) + " buf_len 1024, failed, rv -9",
              100, "libqz_cap_set_mem_size_thread");
    EXPECT_EQ(P().calls().size(), 2u) << "a failed call is made once";
}

TEST_F(SetMemSize, PlainFormForwardsAndLogsUnderThreadForm) {
    P().will_return_status("kril_lib_set_mem", -3);
    EXPECT_EQ(libqz_cap_set_mem_size(kGlobal), -3);
    EXPECT_EQ(P().calls("qz_mom_set_write_buf_len").size(), 1u);
    only_record_is(
        "kril_lib_set_mem global " + pointer_text(kGlobal) + " buf_len 1024, failed, rv -3", 100,
        "libqz_cap_set_mem_size_thread");
}

TEST_F(SetMemSize, ArgumentChecksRejectBeforeAnyCall) {
    EXPECT_EQ(libqz_cap_set_mem_size_thread(nullptr, nullptr), -4);
    only_record_is("global NULL pointer, addr error!\n", 100, "libqz_cap_set_mem_size_thread");

    P().reset();
    EXPECT_EQ(libqz_cap_set_mem_size_thread(kGlobal, nullptr), -4);
    only_record_is("info NULL pointer, addr error!\n", 100, "libqz_cap_set_mem_size_thread");

    P().reset();
    EXPECT_EQ(libqz_cap_set_mem_size(nullptr), -4);
    EXPECT_TRUE(P().calls().empty());
}

// The base name of this test binary, read independently of the library.
std::string own_exe_base() {
    char buf[PATH_MAX] = {};
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n < 0)
        return "";
    std::string path(buf, static_cast<size_t>(n));
    return path.substr(path.rfind('/') + 1);
}

class AppName : public fake::Test {};

TEST_F(AppName, OwnProcessGivesExecutableBaseName) {
    const std::string expected = own_exe_base();
    ASSERT_GT(expected.size(), 2u);
    char name[128];
    memset(name, 'X', sizeof name);
    EXPECT_EQ(libqz_cap_get_app_name(getpid(), name, sizeof name), name);
    EXPECT_EQ(std::string(name), expected);
}

TEST_F(AppName, CopiesAtMostLenMinusOneAndWritesOnlyLenBytes) {
    const std::string expected = own_exe_base();
    char name[16];
    memset(name, 'X', sizeof name);
    libqz_cap_get_app_name(getpid(), name, 3);
    EXPECT_EQ(std::string(name), expected.substr(0, 2));
    EXPECT_EQ(name[3], 'X');

    memset(name, 'X', sizeof name);
    EXPECT_EQ(libqz_cap_get_app_name(getpid(), name, 0), name);
    EXPECT_EQ(std::string(name, sizeof name), std::string(sizeof name, 'X'));
}

TEST_F(AppName, UnreadableLinkGivesAppAndReportsOnStderr) {
    char name[128];
    memset(name, 'X', sizeof name);
    testing::internal::CaptureStderr();
    libqz_cap_get_app_name(INT32_MAX, name, sizeof name);  // above any pid_max
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_STREQ(name, "app");
    EXPECT_EQ(err, std::string("readlink: ") + strerror(ENOENT) + "\n");

    testing::internal::CaptureStderr();
    libqz_cap_get_app_name(-1, name, 2);
    testing::internal::GetCapturedStderr();
    EXPECT_STREQ(name, "a");
}

TEST_F(AppName, BaseNameIsTextAfterLastSlash) {
    EXPECT_STREQ(libqz_cap_exe_base_name("/usr/bin/qzapp"), "qzapp");
    EXPECT_STREQ(libqz_cap_exe_base_name("qzapp"), "qzapp");
    EXPECT_STREQ(libqz_cap_exe_base_name("/opt/a/b/"), "");
}

TEST_F(AppName, NullNameIsRejected) {
    EXPECT_EQ(libqz_cap_get_app_name(getpid(), nullptr, 16), nullptr);
    only_record_is("name NULL pointer, addr error!\n", 100, "libqz_cap_get_app_name");
}

}  // namespace
