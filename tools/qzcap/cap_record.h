// Capability records as stored: a device-wide one (p_libpub.cap_table,
// keyed by URL) or a subcard's (p_libpub.cap_subcard_table, keyed by node id
// and URL). Their key records, and what a stored record holds.
#ifndef QZCAP_TOOL_CAP_RECORD_H
#define QZCAP_TOOL_CAP_RECORD_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "capability.h"
#include "p_libpub.pb-c.h"
#include "qz_mom.h"

namespace qzcap::tool {

// The fields other than the values; only the device-wide table has `state`.
constexpr int32_t kPriField = 21;
constexpr int32_t kStateField = 22;

// The fields a stored capability record holds (a field it lacks is nullopt).
struct CapRecord {
    std::optional<bool> bool_value;
    std::optional<int32_t> int32_value;
    std::optional<std::string> str_value;
    std::optional<int32_t> pri;
    std::optional<bool> state;

    // The value fields it holds, as bool, int32, str.
    std::vector<CapValue> values() const;
    bool operator==(const CapRecord &) const = default;
};

// Where a capability lives: device-wide, or on subcard `node`.
struct CapKey {
    std::string url;
    std::optional<int32_t> node;

    // "'URL'" or "'URL' on node N", for messages.
    std::string describe() const;
};

// A capability record of either table, built from the types' initial
// values; msg() is its key record, and holds the values set into it.
class CapMessage {
  public:
    explicit CapMessage(CapKey key);
    CapMessage(const CapMessage &) = delete;
    CapMessage &operator=(const CapMessage &) = delete;
    ~CapMessage() = default;

    ProtobufCMessage *msg() { return key_.node ? &sub_.base : &table_.base; }
    const CapKey &key() const { return key_; }

    // Sets every field `rec` holds; returns their numbers.
    std::vector<int32_t> set(const CapRecord &rec);

  private:
    CapKey key_;
    std::string str_;
    PLibpub__CapTable table_ = P_LIBPUB__CAP_TABLE__INIT;
    PLibpub__CapTableIndex table_idx_ = P_LIBPUB__CAP_TABLE_INDEX__INIT;
    PLibpub__CapSubcardTable sub_ = P_LIBPUB__CAP_SUBCARD_TABLE__INIT;
    PLibpub__CapSubcardTableIndex sub_idx_ = P_LIBPUB__CAP_SUBCARD_TABLE_INDEX__INIT;
};

// What a read or a pushed message of a capability record holds.
// REQUIRES: res.view is a p_libpub.cap_table (subcard false) or a
// p_libpub.cap_subcard_table (subcard true).
CapRecord cap_record_of(const qz_mom_hash_res_t &res, bool subcard);

// The key of a delivered capability record.
CapKey cap_key_of(const qz_mom_hash_res_t &res, bool subcard);

bool holds_field(const qz_mom_hash_res_t &res, int32_t field);

}  // namespace qzcap::tool

#endif  // QZCAP_TOOL_CAP_RECORD_H
