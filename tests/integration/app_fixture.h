// An application and a platform service on one store, with no doubles: the
// library, the bus stand-in, the logging service and the debug shell are the
// real shared libraries.
#ifndef QZCAP_TESTS_APP_FIXTURE_H
#define QZCAP_TESTS_APP_FIXTURE_H

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "libqz_cap.h"
#include "p_dev.pb-c.h"
#include "p_libpub.pb-c.h"
#include "qz_mom.h"
#include "qz_mom_client.h"
#include "qz_mom_test.h"
#include "s_frame.pb-c.h"

namespace app {

// The store every test of the binary runs on: $QZCAP_TEST_STORE ("mem:" by
// default, a fresh name per test) or a server URI.
std::string store_uri(const std::string &test_name);

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

// Collects what callbacks on the bus's thread see, for the test's thread.
template <class T>
class Inbox {
  public:
    void push(T v) {
        std::lock_guard<std::mutex> lock(m_);
        items_.push_back(std::move(v));
        cv_.notify_all();
    }
    // Waits until at least n items arrived (false after the timeout).
    bool wait_for(size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        std::unique_lock<std::mutex> lock(m_);
        return cv_.wait_for(lock, timeout, [&] { return items_.size() >= n; });
    }
    std::vector<T> items() {
        std::lock_guard<std::mutex> lock(m_);
        return items_;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(m_);
        items_.clear();
    }
    size_t size() {
        std::lock_guard<std::mutex> lock(m_);
        return items_.size();
    }

  private:
    std::mutex m_;
    std::condition_variable cv_;
    std::vector<T> items_;
};

// A platform handle and an application handle on one fresh store, and an
// application context initialised on the application handle.
class AppTest : public ::testing::Test {
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
