// Subcard capability reads: keyed by node id and URL, waiting on the
// subcard's readiness, which is cached in its node for the whole process.
#include <cstring>

#include "core/keys.h"
#include "p_libpub.pb-c.h"
#include "query/query.h"
#include "query/value_read.h"

namespace {

using qzcap::read::Member;

struct Subcard {
    static constexpr bool kHasCtx = false;
    using Record = PLibpub__CapSubcardTable;
    int32_t nodeid;
    libqz_cap_subcard_node_t *node = nullptr;  // set by prepare()

    // Refers to the caller's URL text for the duration of the call.
    qzcap::SubcardCapKey key(const char *url) const {
        return qzcap::SubcardCapKey([this, url](PLibpub__CapSubcardTableIndex &index) {
            index.nodeid = nodeid;
            index.url = const_cast<char *>(url);
        });
    }

    // The first node of this id, created (in id order) on first use.
    int32_t prepare(const char *fn) {
        node = qzcap::find_subcard_node(nodeid);
        if (node != nullptr)
            return 0;
        libqz_cap_subcard_node_payload_t payload;
        memset(&payload, 0, sizeof payload);
        payload.nodeid = nodeid;
        node = libqz_cap_node_init(&payload);
        if (node == nullptr) {
            QZ_LOG_FN(fn, 1, qzcap::kError, "node init err");
            return LIBQZ_CAP_E_NODE;
        }
        return 0;
    }
    bool ready() const { return node->payload.ready != 0; }
    void waited(void *global) const {
        ++node->payload.sleep_time;
        // A failed readiness read leaves the flag false: keep waiting.
        bool flag = false;
        libqz_cap_get_sub_card_local_ready_thread(global, &flag, nodeid);
        node->payload.ready = flag;
    }
};

// The members and everything that tells them apart.
constexpr char kEntry[] = "global %p, url %s, nodeid %d";

constexpr Member kBool{.func = "libqz_cap_get_subcard_capacity_bool",
                       .blocking = true,
                       .entry_nodeid = true,
                       .entry = kEntry,
                       .found_waiting = "url %s value: %d",
                       .found = "url %s, value: %d"};
constexpr Member kBoolNoBlock{.func = "libqz_cap_get_subcard_capacity_bool_no_block",
                              .entry_nodeid = true,
                              .entry = kEntry,
                              .found = "url %s value: %d",
                              .tmp_null = "url %s tmp NULL",
                              .field_invalid = "url %s field invalid"};
constexpr Member kInt32{.func = "libqz_cap_get_subcard_capacity_int32",
                        .blocking = true,
                        .entry_nodeid = true,
                        .entry = kEntry,
                        .found_waiting = "url %s, value: %d",
                        .found = "url %s, value: %d"};
constexpr Member kInt32NoBlock{.func = "libqz_cap_get_subcard_capacity_int32_no_block",
                               .entry = "global %p, url %s",
                               .found = "url %s, value: %d"};

}  // namespace

extern "C" {

// Each value kind's blocking and non-blocking subcard reads. `ctype` and
// `out` name types, which cannot be parenthesised.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define QZCAP_SUBCARD_VALUE_READ(kind, ctype, blocking, no_block, out)                           \
    int32_t libqz_cap_get_subcard_capacity_##kind(void *global, int32_t nodeid, const char *url, \
                                                  ctype *value) {                                \
        return qzcap::read::read<blocking>(global, url, Subcard{nodeid}, out{value});            \
    }                                                                                            \
    int32_t libqz_cap_get_subcard_capacity_##kind##_no_block(void *global, int32_t nodeid,       \
                                                             const char *url, ctype *value) {    \
        return qzcap::read::read<no_block>(global, url, Subcard{nodeid}, out{value});            \
    }

QZCAP_SUBCARD_VALUE_READ(bool, bool, kBool, kBoolNoBlock, qzcap::read::BoolOut)
QZCAP_SUBCARD_VALUE_READ(int32, int32_t, kInt32, kInt32NoBlock, qzcap::read::Int32Out)
// NOLINTEND(bugprone-macro-parentheses)

#undef QZCAP_SUBCARD_VALUE_READ

}  // extern "C"
