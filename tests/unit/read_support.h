// Stored records and an event digest shared by the read tests.
#ifndef QZCAP_TESTS_READ_SUPPORT_H
#define QZCAP_TESTS_READ_SUPPORT_H

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "core/alloc.h"
#include "core_expect.h"
#include "fake_platform.h"
#include "query/query.h"
#include "sub/sub.h"
#include "p_dev.pb-c.h"
#include "p_libpub.pb-c.h"

namespace read_support {

// The vocabulary every read test uses.
using core_expect::only_record_is;
using core_expect::record_is;
using fake::P;
using Strings = std::vector<std::string>;

using fake::kFree;
using fake::kGlobal;
using fake::kHget;
using fake::kHgetExt;
using fake::kScan;
inline constexpr char kDumpFunc[] = "libqz_cap_dump_sub_hash_thread";

// A stored capability row as the bus hands it out: `fields` are the field
// numbers the hash holds, whatever the view's members say.
template <class Row>
fake::HashSpec row(Row r, std::vector<int32_t> fields, protobuf_c_boolean b, int32_t i,
                   const char *s) {
    r.bool_value = b;
    r.int32_value = i;
    if (s != nullptr)
        r.str_value = const_cast<char *>(s);
    return {false, fake::make_message(&r.base), std::move(fields), 0};
}

inline fake::HashSpec cap_row(std::vector<int32_t> fields, protobuf_c_boolean b = 0, int32_t i = 0,
                              const char *s = nullptr) {
    PLibpub__CapTable init = P_LIBPUB__CAP_TABLE__INIT;
    return row(init, std::move(fields), b, i, s);
}

inline fake::HashSpec subcard_row(std::vector<int32_t> fields, protobuf_c_boolean b = 0,
                                  int32_t i = 0) {
    PLibpub__CapSubcardTable init = P_LIBPUB__CAP_SUBCARD_TABLE__INIT;
    return row(init, std::move(fields), b, i, nullptr);
}

inline fake::HashSpec no_record() {
    return {};
}
inline fake::HashSpec null_result() {
    return {true, nullptr, {}, 0};
}
inline fake::HashSpec error_result(int32_t code) {
    return {false, nullptr, {}, code};
}

// A state record of the local readiness read.
inline fake::ObjSpec local_ready(protobuf_c_boolean ready) {
    PLibpub__CapState s = P_LIBPUB__CAP_STATE__INIT;
    s.ready = ready;
    return {fake::make_message(&s.base), 0};
}

inline std::string cap_key(const std::string &url) {
    return "p_libpub.cap_table{index=p_libpub.cap_table_index{url=\"" + url + "\"}}";
}

inline std::string subcard_key(int32_t nodeid, const std::string &url) {
    return "p_libpub.cap_subcard_table{index=p_libpub.cap_subcard_table_index{nodeid=" +
           std::to_string(nodeid) + " url=\"" + url + "\"}}";
}

// The sequence as one list: bus and libc calls by name; the records of
// `func` by text, error-level ones marked "E "; the registry dump's headers
// as "dump <label>". Records of other functions are left out.
inline std::vector<std::string> digest(const std::string &func) {
    std::vector<std::string> out;
    for (const auto &e : fake::P().events()) {
        if (e.op != "log") {
            out.push_back(e.op);
        } else if (e.func == func) {
            EXPECT_TRUE(e.level == 40 || e.level == 100) << e.msg;
            out.push_back((e.level == 100 ? "E " : "") + e.msg);
        } else if (e.func == kDumpFunc) {
            const bool enter = e.msg.find("dump sub hash enter") != std::string::npos;
            out.push_back(enter ? "dump enter" : "dump leave");
        }
    }
    return out;
}

// Runs hook(n) on the nth sleep. A wait that runs away fails the test and is
// ended with failing bus reads instead of hanging.
inline void on_sleep(std::function<void(unsigned)> hook = {}) {
    fake::P().on_sleep([hook](unsigned n) {
        if (hook)
            hook(n);
        if (n >= 50) {
            ADD_FAILURE() << "the wait did not end";
            for (int k = 0; k < 4; ++k)
                fake::P().will_return_hash("qz_mom_hgetall_sync", null_result());
        }
    });
}

// Gate 4, and an empty subcard node list that the test's nodes leave with it.
class NodeListTest : public fake::Test {
  protected:
    void SetUp() override {
        fake::Test::SetUp();
        g_libqz_cap_zlog_level = 4;
        cap_sub_card_nodes_list = {&cap_sub_card_nodes_list, &cap_sub_card_nodes_list};
        on_sleep();
    }
    void TearDown() override {
        libqz_cap_test_fail_alloc(0);
        libqz_cap_list_head_t *head = &cap_sub_card_nodes_list;
        for (libqz_cap_list_head_t *p = head->next, *next; p != head; p = next) {
            next = p->next;
            free(p);
        }
        cap_sub_card_nodes_list = {head, head};
        fake::Test::TearDown();
    }
    // The list front to back; fails the test on a broken back link.
    static std::vector<libqz_cap_subcard_node_t *> nodes() {
        std::vector<libqz_cap_subcard_node_t *> out;
        libqz_cap_list_head_t *head = &cap_sub_card_nodes_list;
        for (libqz_cap_list_head_t *p = head->next; p != head; p = p->next) {
            EXPECT_EQ(p->next->prev, p);
            out.push_back(reinterpret_cast<libqz_cap_subcard_node_t *>(p));
        }
        EXPECT_EQ(head->prev, out.empty() ? head : &out.back()->list);
        return out;
    }
    static std::vector<int32_t> node_ids() {
        std::vector<int32_t> ids;
        for (auto *n : nodes())
            ids.push_back(n->payload.nodeid);
        return ids;
    }
};

}  // namespace read_support

#endif  // QZCAP_TESTS_READ_SUPPORT_H
