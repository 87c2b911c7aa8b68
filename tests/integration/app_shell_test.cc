// An operator's session with a running application: the library's debug module,
// registered by libqz_cap_init on the application's thread, reached through
// the debug shell's socket as krilsh reaches it.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "app_fixture.h"
#include "kril_shell.h"
#include "standard_streams.h"

using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace app {
namespace {

struct Answer {
    int32_t status = 0;  // kril_client_run's result
    int32_t rv = 0;      // the handler's
    std::string out;
    std::string err;
};

class OperatorSession : public ::testing::Test {
  protected:
    void SetUp() override {
        uri_ = store_uri("operator");
        platform_ = qz_mom_client_create(uri_.c_str());
        ASSERT_NE(platform_, nullptr);
        char name[128];
        libqz_cap_get_app_name(getpid(), name, sizeof name);
        module_ = std::string("libqz_cap_") + name;

        // The application: its own thread initialises its default context
        // (which registers the module there) and serves commands from its loop.
        std::promise<int32_t> initialised;
        auto init_result = initialised.get_future();
        app_thread_ = std::thread([this, &initialised] {
            app_ = qz_mom_client_create(uri_.c_str());
            initialised.set_value(app_ ? libqz_cap_init(app_, "operator_test") : -1);
            while (!stop_)
                kril_poll(20);
            // The default context dies with this thread: its handle goes
            // first (its callbacks carry the context), then its registry.
            if (app_)
                qz_mom_client_destroy(app_);
            app_ = nullptr;
            qz_cap_destroy_hash(g_libqz_cap_ctrl_info.sub_hash);
            g_libqz_cap_ctrl_info.sub_hash = nullptr;
        });
        ASSERT_EQ(init_result.get(), 0);
    }

    void TearDown() override {
        stop_ = true;
        if (app_thread_.joinable())
            app_thread_.join();
        libqz_cap_log_level(1);
        if (platform_)
            qz_mom_client_destroy(platform_);
    }

    Answer run(const std::string &command) {
        Answer a;
        char *buf = nullptr;
        size_t len = 0;
        FILE *out = open_memstream(&buf, &len);
        char err[256] = {};
        const std::string request = module_ + " " + command;
        a.status = kril_client_run(getpid(), request.c_str(), 5000, out, &a.rv, err, sizeof err);
        fclose(out);
        a.out.assign(buf, len);
        free(buf);
        a.err = err;
        return a;
    }

    std::string uri_;
    std::string module_;
    void *platform_ = nullptr;
    void *app_ = nullptr;
    std::thread app_thread_;
    std::atomic<bool> stop_{false};
};

TEST_F(OperatorSession, ReadsSubscribesDumpsAndSetsTheLevel) {
    Publisher pub(platform_);
    ASSERT_EQ(pub.cap_bool("global_spec/platform/poe", true), 0);
    ASSERT_EQ(pub.cap_int32("global_spec/platform/mtu", 9216), 0);

    Answer a = run("get_cap_bool_no_block url=global_spec/platform/poe");
    ASSERT_EQ(a.status, 0) << a.err;
    EXPECT_EQ(a.rv, 0);
    EXPECT_EQ(a.out, "url global_spec/platform/poe\nvalue 1\n");

    a = run("get_g_cap_int32 url=global_spec/platform/mtu");
    ASSERT_EQ(a.status, 0) << a.err;
    EXPECT_EQ(a.out, "url global_spec/platform/mtu\nvalue 9216\n");

    a = run("get_cap_int32_no_block url=global_spec/platform/absent");
    ASSERT_EQ(a.status, 0) << a.err;
    EXPECT_EQ(a.rv, LIBQZ_CAP_E_NO_RECORD);
    EXPECT_EQ(a.out, "url global_spec/platform/absent\nfailed,rv -22\n");

    a = run("sub_g_cap_int32 url=global_spec/platform/mtu");
    ASSERT_EQ(a.status, 0) << a.err;
    EXPECT_EQ(a.rv, 0);
    // The confirmation's "subscribe ok" is printed on the bus's thread and may
    // land in this capture too.
    EXPECT_THAT(a.out, StartsWith("url global_spec/platform/mtu\n"));
    EXPECT_THAT(a.out, HasSubstr("sub g_cap_int32 url global_spec/platform/mtu success\n"));
    qz_mom_test_drain(app_);

    a = run("dump_all");
    ASSERT_EQ(a.status, 0) << a.err;
    EXPECT_THAT(a.out, StartsWith("g_libqz_cap_ready is 0\ng_libqz_cap_zlog_level is 1\n"));
    EXPECT_THAT(a.out, HasSubstr("type  1, arg    (nil), url global_spec/platform/mtu\n"));
    EXPECT_THAT(a.out, HasSubstr("item_num is 1\nmemory_of_hash is 682\ntotal memory is 1086\n"));
    EXPECT_THAT(a.out, HasSubstr("INIT_KRIL_INIT valid 1 count      1"));

    a = run("log-level 4");
    ASSERT_EQ(a.status, 0) << a.err;
    a = run("dump_stat");
    ASSERT_EQ(a.status, 0) << a.err;
    EXPECT_EQ(a.out, "g_libqz_cap_ready is 0\ng_libqz_cap_zlog_level is 4\n");
}

// Collection points descriptors 0 to 2 at its file and back at what it found
// on 1, which is the shell's capture while a command runs; the process's own
// streams must be what they were once the command is over.
TEST_F(OperatorSession, CollectLeavesTheStandardStreamsAsTheyWere) {
    char root[] = "/tmp/qzcap-collect-XXXXXX";
    ASSERT_NE(mkdtemp(root), nullptr);
    setenv("QZCAP_DATA_ROOT", root, 1);
    auto identity = qztest::standard_stream_ids;

    ::testing::internal::CaptureStderr();
    const auto before = identity();
    Answer a = run("collect");
    const auto after = identity();
    fprintf(stderr, "an error line after the collection\n");
    const std::string err = ::testing::internal::GetCapturedStderr();
    unsetenv("QZCAP_DATA_ROOT");

    ASSERT_EQ(a.status, 0) << a.err;
    EXPECT_EQ(a.rv, STDERR_FILENO);  // the restore's last duplication
    EXPECT_EQ(after, before);
    EXPECT_THAT(err, HasSubstr("an error line after the collection\n"));
    std::ifstream file(std::string(root) + "/data/collect/" + module_ + ".log");
    const std::string collected((std::istreambuf_iterator<char>(file)),
                                std::istreambuf_iterator<char>());
    EXPECT_THAT(collected, StartsWith("g_libqz_cap_ready is 0\n"));
    std::filesystem::remove_all(root);

    a = run("dump_stat");  // and the next command's output reaches the operator
    ASSERT_EQ(a.status, 0) << a.err;
    EXPECT_EQ(a.out, "g_libqz_cap_ready is 0\ng_libqz_cap_zlog_level is 1\n");
}

TEST_F(OperatorSession, MalformedRequestsAreRefusedAndTheProcessKeepsServing) {
    Answer a = run("get_cap_bool global_spec/platform/poe");  // no "url="
    EXPECT_EQ(a.status, KRIL_E_BAD_ARG);
    EXPECT_THAT(a.err, HasSubstr("url="));
    a = run("log-level four");
    EXPECT_EQ(a.status, KRIL_E_BAD_ARG);
    a = run("no_such_command");
    EXPECT_EQ(a.status, KRIL_E_NO_COMMAND);
    a = run("get_cap_bool url=" + std::string(2000, 'x'));
    EXPECT_EQ(a.status, KRIL_E_TOO_LONG);

    a = run("show_memory");
    ASSERT_EQ(a.status, 0) << a.err;
    EXPECT_EQ(a.out,
              "=========show memory================\nitem_num is 0\nmemory_of_hash is 410\n"
              "total memory is 814\n");
}

}  // namespace
}  // namespace app
