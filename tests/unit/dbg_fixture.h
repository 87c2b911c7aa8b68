// Helpers of the initialisation and diagnostics tests: a private data root,
// registries with records, captured standard output.
#ifndef QZCAP_TESTS_DBG_FIXTURE_H
#define QZCAP_TESTS_DBG_FIXTURE_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "fake_platform.h"
#include "sub/sub.h"

namespace dbg_fixture {

// QZCAP_DATA_ROOT points at a fresh directory for the object's lifetime, so
// no level file or collect directory of another test is seen.
class DataRoot {
  public:
    DataRoot() {
        char tmpl[] = "/tmp/qzcap_dbg_XXXXXX";
        const char *dir = mkdtemp(tmpl);
        EXPECT_NE(dir, nullptr);
        path_ = dir != nullptr ? dir : "/nonexistent";
        if (const char *old = getenv("QZCAP_DATA_ROOT"))
            old_ = old;
        setenv("QZCAP_DATA_ROOT", path_.c_str(), 1);
    }
    ~DataRoot() {
        if (old_)
            setenv("QZCAP_DATA_ROOT", old_->c_str(), 1);
        else
            unsetenv("QZCAP_DATA_ROOT");
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    DataRoot(const DataRoot &) = delete;
    DataRoot &operator=(const DataRoot &) = delete;
    const std::string &path() const { return path_; }

  private:
    std::string path_;
    std::optional<std::string> old_;
};

inline int32_t collect_item(void *item, void *out) {
    static_cast<std::vector<sub_info *> *>(out)->push_back(static_cast<sub_info *>(item));
    return 0;
}

// The library never frees a registry that works; tests do, records first.
inline void drop_registry(libqz_cap_ctrl_info_t *ctx) {
    if (ctx->sub_hash == nullptr)
        return;
    std::vector<sub_info *> items;
    qz_cap_hash_each_item_op(ctx->sub_hash, collect_item, &items);
    for (sub_info *r : items) {
        qz_cap_hash_del_item(ctx->sub_hash, r);
        free(r);
    }
    qz_cap_destroy_hash(ctx->sub_hash);
    ctx->sub_hash = nullptr;
}

inline void make_registry(libqz_cap_ctrl_info_t *ctx) {
    ctx->sub_hash =
        qz_cap_create_hash(32, libqz_cap_sub_hash_index_cb, libqz_cap_cmp_sub_hash_item);
    ASSERT_NE(ctx->sub_hash, nullptr);
}

inline void reset_default_ctx() {
    drop_registry(&g_libqz_cap_ctrl_info);
    memset(&g_libqz_cap_ctrl_info, 0, sizeof g_libqz_cap_ctrl_info);
}

inline std::string app_name() {
    char name[128];
    return libqz_cap_get_app_name(getpid(), name, sizeof name);
}

// The recording platform, with the calling thread's default context emptied
// before and after each test.
class DefaultCtxTest : public fake::Test {
  protected:
    void SetUp() override {
        fake::Test::SetUp();
        reset_default_ctx();
    }
    void TearDown() override {
        reset_default_ctx();
        fake::Test::TearDown();
    }
};

// What f printed on standard output, with f's result in *rc.
template <class F>
std::string printed(F f, int32_t *rc = nullptr) {
    testing::internal::CaptureStdout();
    int32_t r = f();
    std::string out = testing::internal::GetCapturedStdout();
    if (rc != nullptr)
        *rc = r;
    return out;
}

}  // namespace dbg_fixture

#endif  // QZCAP_TESTS_DBG_FIXTURE_H
