// A recording double of the platform (bus client, logging service, debug
// shell, clock and libc sleep) for the unit tests, which link the library's
// static archive against it.
//
// Every call and every log record lands in one sequence, so a test can check
// what was called, with which arguments, and in which order (a result freed
// before the log line that follows it, say). Responses are scripted per
// operation; an operation with nothing scripted succeeds with an empty answer.
// Every hash result and object handed out is tracked: releasing one twice, or
// one the double never handed out, is recorded as an error, and the fixture
// fails a test that leaves one unreleased.
#ifndef QZCAP_TESTS_FAKE_PLATFORM_H
#define QZCAP_TESTS_FAKE_PLATFORM_H

#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "qz_mom.h"

namespace fake {

// A bus handle: the double records it and never dereferences it.
inline int g_bus_token;
inline void *const kGlobal = &g_bus_token;

// Names of the recorded bus calls that most tests expect.
inline constexpr char kHget[] = "qz_mom_hgetall_sync";
inline constexpr char kHgetExt[] = "qz_mom_hgetall_ext_sync";
inline constexpr char kFree[] = "qz_mom_hash_res_free";
inline constexpr char kScan[] = "qz_mom_scan_sync";

struct Event {
    uint64_t seq = 0;
    std::string op;  // platform function name, or "log"

    // Bus and shell calls.
    void *global = nullptr;
    int32_t db = 0;
    std::string key;  // rendered key record ("" when none)
    bool has_option = false;
    int32_t option = 0;    // *option of qz_mom_hgetall_ext_sync
    int32_t flags = 0;     // 4th argument of scan/subscribe, last of subscribe_field
    int32_t error_in = 0;  // *error_code on entry to qz_mom_get_sync
    void *cb = nullptr;    // record or reconnect callback, or shell handler
    void *privdata = nullptr;
    uint32_t field_count = 0;
    std::vector<int32_t> fields;
    std::vector<void *> cbs;
    bool args_null = false;
    std::vector<void *> args;
    uint32_t len = 0;       // buffer sizes
    void *freed = nullptr;  // what a free call released
    std::string module, cmd, argfmt;
    void *handle = nullptr;

    // Log records.
    void *category = nullptr;
    std::string file, func, format, msg;
    size_t filelen = 0, funclen = 0;
    long line = 0;
    int level = 0;
};

// A scripted hash result. null: the read returns NULL.
struct HashSpec {
    bool null = false;
    ProtobufCMessage *view = nullptr;  // owned; made by make_message()
    std::vector<int32_t> fields;
    int32_t error_code = 0;
};

// A scripted object of qz_mom_get_sync.
struct ObjSpec {
    ProtobufCMessage *obj = nullptr;  // owned; may be NULL
    int32_t error_code = 0;
};

// Called for a scan: may deliver pushed messages to cb; returns the status.
using ScanAction = std::function<int32_t(void *global, qz_mom_record_cb cb, void *privdata)>;

class Platform {
  public:
    static Platform &get();
    void reset();

    // ---- scripting
    void will_return_status(const std::string &op, int32_t status);
    void will_return_hash(const std::string &op, HashSpec spec);
    void will_return_object(ObjSpec spec);
    void will_scan(ScanAction action);
    void set_zlog_category(void *category) { zlog_category_ = category; }
    void set_time(uint32_t sec, uint32_t nsec, uint32_t step_nsec = 1000);
    // Runs before sleep(n) returns, with the number of sleeps so far.
    void on_sleep(std::function<void(unsigned calls)> hook) { sleep_hook_ = std::move(hook); }

    // ---- what happened
    const std::vector<Event> &events() const { return events_; }
    std::vector<Event> calls(const std::string &op = "") const;  // every non-log event
    std::vector<Event> logs() const;
    std::vector<std::string> log_messages() const;
    unsigned sleeps() const { return sleeps_; }
    const std::vector<std::string> &errors() const { return errors_; }
    size_t live_results() const { return live_results_.size(); }
    size_t live_objects() const { return live_objects_.size(); }

    // ---- used by the double's C functions
    Event &record(const std::string &op);
    int32_t next_status(const std::string &op);
    qz_mom_hash_res_t *next_hash(const std::string &op);
    void *next_object(int32_t *error_code);
    int32_t run_scan(void *global, qz_mom_record_cb cb, void *privdata);
    void free_hash(qz_mom_hash_res_t *res);
    void free_object(void *obj);
    void *zlog_category() const { return zlog_category_; }
    void next_time(uint32_t *sec, uint32_t *nsec);
    void slept();

  private:
    bool take_back(std::set<void *> &live, void *p, const char *call, const char *what);

    uint64_t seq_ = 0;
    std::vector<Event> events_;
    std::map<std::string, std::deque<int32_t>> statuses_;
    std::map<std::string, std::deque<HashSpec>> hashes_;
    std::deque<ObjSpec> objects_;
    std::deque<ScanAction> scans_;
    std::set<void *> live_results_, live_objects_;
    std::vector<std::string> errors_;
    void *zlog_category_ = nullptr;
    uint32_t sec_ = 0, nsec_ = 0, step_nsec_ = 1000;
    unsigned sleeps_ = 0;
    std::function<void(unsigned)> sleep_hook_;
};

inline Platform &P() {
    return Platform::get();
}

// Renders a message as "full.name{field=value ...}", listing the fields that
// differ from their initial value (string fields not pointing at the shared
// empty string count as set), sub-messages nested.
std::string render(const ProtobufCMessage *msg);

// A heap copy of msg that protobuf_c_message_free_unpacked can release.
ProtobufCMessage *make_message(const ProtobufCMessage *msg);

// Builds a pushed message around a hash result owned by the caller.
struct Pmsg {
    qz_mom_pmsg_t pmsg{};
    qz_mom_hash_res_t res{};
    std::vector<int32_t> fields;
    ProtobufCMessage *view = nullptr;
    Pmsg(int32_t cmd, ProtobufCMessage *view_owned, std::vector<int32_t> fields,
         int32_t error_code = 0, bool with_result = true);
    ~Pmsg();
    Pmsg(const Pmsg &) = delete;
    Pmsg &operator=(const Pmsg &) = delete;
};

// Base fixture: resets the double and the library's process-wide state
// (gate level 1, a logging category set), and checks at the end that every
// result was released exactly once.
class Test : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
};

}  // namespace fake

#endif  // QZCAP_TESTS_FAKE_PLATFORM_H
