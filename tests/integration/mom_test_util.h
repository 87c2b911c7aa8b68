// Helpers of the bus stand-in's tests: the store parameter of the behavioural
// suite, an event recorder with bounded waits, and key-record builders.
#ifndef QZCAP_TESTS_MOM_TEST_UTIL_H
#define QZCAP_TESTS_MOM_TEST_UTIL_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "callback_inbox.h"
#include "p_dev.pb-c.h"
#include "p_libpub.pb-c.h"
#include "qz_mom.h"
#include "qz_mom_client.h"
#include "qz_mom_test.h"
#include "s_frame.pb-c.h"

namespace momtest {

constexpr int32_t kDb = 3;
constexpr auto kWait = qztest::kCallbackWait;

// A store the behavioural suite runs on. uri_for(test_id) returns the URI of
// a store that holds nothing yet for that test (the embedded store: a fresh
// "mem:NAME"; a server store: its URI after emptying the database).
struct StoreKind {
    std::string name;
    std::function<std::string(const std::string &test_id)> uri_for;
};
inline std::ostream &operator<<(std::ostream &os, const StoreKind &k) {
    return os << k.name;
}

inline StoreKind embedded_store() {
    return {"mem", [](const std::string &id) { return "mem:" + id; }};
}

// One event a callback saw, copied out before the bus freed it.
struct Event {
    int32_t cmd = 0;
    bool has_result = false;
    int32_t error_code = 0;
    std::string key;  // store key of the delivered view ("" without view)
    std::vector<int32_t> fields;
    std::string packed;  // the view, packed
    std::thread::id thread;
    void *global = nullptr;
    void *arg = nullptr;

    // The view unpacked as type T (caller frees with protobuf_c_message_free_unpacked).
    template <class T>
    T *unpack(const ProtobufCMessageDescriptor *d) const {
        return reinterpret_cast<T *>(protobuf_c_message_unpack(
            d, nullptr, packed.size(), reinterpret_cast<const uint8_t *>(packed.data())));
    }
};

inline std::string key_of(const ProtobufCMessage *m) {
    char buf[1024];
    int32_t n = qz_mom_format_key(m, buf, sizeof buf);
    return n < 0 ? std::string("<bad key>") : std::string(buf, n);
}

inline std::string pack(const ProtobufCMessage *m) {
    std::string s(protobuf_c_message_get_packed_size(m), '\0');
    protobuf_c_message_pack(m, reinterpret_cast<uint8_t *>(s.data()));
    return s;
}

// Records every event of the callbacks it is given as privdata, with waits.
class Recorder : public qztest::Inbox<Event> {
  public:
    // The record callback: privdata must be a Recorder*.
    static int32_t cb(void *global, qz_mom_pmsg_t *pmsg, void *privdata) {
        static_cast<Recorder *>(privdata)->add(global, pmsg, privdata);
        return 0;
    }

    void add(void *global, qz_mom_pmsg_t *pmsg, void *arg) {
        Event e;
        e.cmd = pmsg->cmd;
        e.thread = std::this_thread::get_id();
        e.global = global;
        e.arg = arg;
        if (qz_mom_hash_res_t *r = pmsg->result) {
            e.has_result = true;
            e.error_code = r->error_code;
            e.fields.assign(r->field_nums, r->field_nums + r->field_count);
            if (r->view != nullptr) {
                auto *m = static_cast<const ProtobufCMessage *>(r->view);
                e.key = key_of(m);
                e.packed = pack(m);
            }
        }
        if (on_event)
            on_event(global, pmsg);
        push(std::move(e));
    }

    std::vector<Event> events() { return items(); }
    std::vector<int32_t> cmds() {
        std::vector<int32_t> v;
        for (const Event &e : events())
            v.push_back(e.cmd);
        return v;
    }

    // Runs inside the callback, before the event is recorded (may call the bus).
    std::function<void(void *global, qz_mom_pmsg_t *pmsg)> on_event;
};

// Captures standard error until take(); a failed ASSERT in between ends the
// capture too, so that the next test can capture again.
class StderrCapture {
  public:
    StderrCapture() { ::testing::internal::CaptureStderr(); }
    ~StderrCapture() {
        if (!taken_)
            ::testing::internal::GetCapturedStderr();
    }
    StderrCapture(const StderrCapture &) = delete;
    StderrCapture &operator=(const StderrCapture &) = delete;
    std::string take() {
        taken_ = true;
        return ::testing::internal::GetCapturedStderr();
    }

  private:
    bool taken_ = false;
};

// Key records and records, built from the initial values.
struct CapTable {
    PLibpub__CapTable rec = P_LIBPUB__CAP_TABLE__INIT;
    PLibpub__CapTableIndex idx = P_LIBPUB__CAP_TABLE_INDEX__INIT;
    std::string url;
    explicit CapTable(std::string u) : url(std::move(u)) {
        idx.url = url.data();
        rec.index = &idx;
    }
    CapTable(const CapTable &) = delete;
    ProtobufCMessage *msg() { return &rec.base; }
};

struct SubcardState {
    PLibpub__CapSubcardState rec = P_LIBPUB__CAP_SUBCARD_STATE__INIT;
    PLibpub__CapSubcardStateIndex idx = P_LIBPUB__CAP_SUBCARD_STATE_INDEX__INIT;
    SubcardState(int32_t nodeid, int32_t dev_type) {
        idx.nodeid = nodeid;
        idx.config_dev_type = dev_type;
        rec.index = &idx;
    }
    SubcardState(const SubcardState &) = delete;
    ProtobufCMessage *msg() { return &rec.base; }
};

// Frees what the bus hands out, in tests.
struct ResFree {
    void operator()(qz_mom_hash_res_t *r) const { qz_mom_hash_res_free(r); }
};
using ResPtr = std::unique_ptr<qz_mom_hash_res_t, ResFree>;

// The int32_value of a delivered capability record; INT32_MIN without one.
inline int32_t int_of(const Event &e) {
    auto *v = e.unpack<PLibpub__CapTable>(&p_libpub__cap_table__descriptor);
    if (v == nullptr)
        return INT32_MIN;
    int32_t r = v->int32_value;
    protobuf_c_message_free_unpacked(&v->base, nullptr);
    return r;
}

// Writes int32_value v of t through handle h and reads it back; false when
// either call fails or the read shows another value.
inline bool write_and_read_back(void *h, CapTable &t, int32_t v) {
    t.rec.int32_value = v;
    int32_t f = 7;
    if (qz_mom_write(h, kDb, t.msg(), 1, &f) != 0)
        return false;
    ResPtr r(qz_mom_hgetall_sync(h, kDb, t.msg()));
    return r != nullptr && r->view != nullptr &&
           static_cast<PLibpub__CapTable *>(r->view)->int32_value == v;
}

inline std::vector<int32_t> fields_of(const qz_mom_hash_res_t *r) {
    return std::vector<int32_t>(r->field_nums, r->field_nums + r->field_count);
}

// The behavioural suite's fixture: two handles on one fresh store, `pub_`
// (the publisher) and `app_` (the application), and a check that every
// result and object handed out was released.
class MomFixture : public ::testing::TestWithParam<StoreKind> {
  protected:
    void SetUp() override {
        const auto *info = ::testing::UnitTest::GetInstance()->current_test_info();
        uri_ = GetParam().uri_for(std::string(info->test_suite_name()) + "." + info->name());
        pub_ = qz_mom_client_create(uri_.c_str());
        app_ = qz_mom_client_create(uri_.c_str());
        ASSERT_NE(pub_, nullptr) << uri_;
        ASSERT_NE(app_, nullptr) << uri_;
    }
    void TearDown() override {
        // Handles go first: their callbacks write to the recorders.
        if (app_ != nullptr)
            qz_mom_client_destroy(app_);
        if (pub_ != nullptr)
            qz_mom_client_destroy(pub_);
        EXPECT_EQ(qz_mom_test_live_results(), 0) << "hash results not released";
        EXPECT_EQ(qz_mom_test_live_objects(), 0) << "objects not released";
    }

    // Writes the listed fields of rec through the publisher handle.
    void write(ProtobufCMessage *rec, std::initializer_list<int32_t> fields) {
        std::vector<int32_t> f(fields);
        ASSERT_EQ(qz_mom_write(pub_, kDb, rec, static_cast<uint32_t>(f.size()), f.data()), 0);
    }
    ResPtr read(ProtobufCMessage *key, void *handle = nullptr) {
        return ResPtr(qz_mom_hgetall_sync(handle != nullptr ? handle : app_, kDb, key));
    }
    void raw(const std::string &key, const std::string &field, const std::string &value) {
        ASSERT_EQ(
            qz_mom_hset_raw(pub_, kDb, key.c_str(), field.c_str(), value.data(), value.size()), 0);
    }

    // A recorder that outlives the test's handles.
    Recorder &recorder() { return *recorders_.emplace_back(std::make_unique<Recorder>()); }

    std::vector<std::unique_ptr<Recorder>> recorders_;
    std::string uri_;
    void *pub_ = nullptr;
    void *app_ = nullptr;
};

}  // namespace momtest

#endif  // QZCAP_TESTS_MOM_TEST_UTIL_H
