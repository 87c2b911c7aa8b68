// An application and a platform service on one store, with no doubles: the
// library, the bus stand-in, the logging service and the debug shell are the
// real shared libraries.
#ifndef QZCAP_TESTS_APP_FIXTURE_H
#define QZCAP_TESTS_APP_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "callback_inbox.h"
#include "libqz_cap.h"
#include "p_dev.pb-c.h"
#include "p_libpub.pb-c.h"
#include "qz_mom.h"
#include "qz_mom_client.h"
#include "qz_mom_test.h"
#include "redis_test_server.h"
#include "s_frame.pb-c.h"

namespace app {

// The stores the suite runs on: "mem" (a fresh embedded store per test) and
// "redis" (the binary's private redis-server, or the server named by a
// non-"mem:" $QZCAP_TEST_STORE), database 3 emptied per test.
inline const std::vector<std::string> kStores{"mem", "redis"};
std::string store_uri(const std::string &store, const std::string &test_name);

// For tests of one store: $QZCAP_TEST_STORE, or a fresh "mem:" store.
std::string store_uri(const std::string &test_name);

// The binary's private redis-server, started on first use; nullptr (and a
// test failure saying why) when it cannot run.
qztest::TestRedisServer *private_redis();

// Whether $QZCAP_TEST_STORE names a server in place of the private one.
bool external_server();

// Library log records written so far that contain text (the log goes to
// $QZ_ZLOG_FILE, set to a temporary file unless given).
size_t log_records_containing(const std::string &text);

// Names instantiations by store ("AppTest.Name/redis").
struct StoreName {
    std::string operator()(const ::testing::TestParamInfo<std::string> &info) const {
        return info.param;
    }
};

// What a platform service publishes.
class Publisher {
  public:
    explicit Publisher(void *global) : global_(global) {}
    int32_t cap_bool(const char *url, bool v);
    int32_t cap_int32(const char *url, int32_t v);
    int32_t cap_str(const char *url, const char *v);
    int32_t cap_pri_only(const char *url, int32_t pri);  // a record without a value field
    int32_t local_ready(bool ready);
    int32_t glb_ready(bool ready);
    int32_t card(int32_t slot, int32_t nodeid, int32_t config_dev_type);
    int32_t subcard_state(int32_t nodeid, int32_t config_dev_type, bool ready);
    int32_t subcard_cap_bool(int32_t nodeid, const char *url, bool v);
    int32_t subcard_cap_int32(int32_t nodeid, const char *url, int32_t v);

  private:
    void *global_;
};

using qztest::Inbox;

// A platform handle and an application handle on one fresh store (the
// parameter), and an application context initialised on the application
// handle.
class AppTest : public ::testing::TestWithParam<std::string> {
  protected:
    void SetUp() override;
    void TearDown() override;

    void *platform_ = nullptr;
    void *app_ = nullptr;
    libqz_cap_ctrl_info_t *ctx_ = nullptr;
    Publisher *pub_ = nullptr;
};

}  // namespace app

#endif  // QZCAP_TESTS_APP_FIXTURE_H
