// The library's side of the bus: owners for every result the bus hands out,
// and the hash-result tests that every value read shares.
#ifndef LIBQZ_CAP_CORE_BUS_H
#define LIBQZ_CAP_CORE_BUS_H

#include <cstddef>
#include <cstdint>
#include <memory>

#include "qz_mom.h"

static_assert(offsetof(qz_mom_pmsg_t, cmd) == 644, "pushed message: cmd at byte 644");
static_assert(offsetof(qz_mom_pmsg_t, result) == 648, "pushed message: result at byte 648");

namespace qzcap {

// Capability database of every bus call.
inline constexpr int32_t kCapDb = 3;

struct HashResFree {
    void operator()(qz_mom_hash_res_t *res) const { qz_mom_hash_res_free(res); }
};
// A result of qz_mom_hgetall_sync / qz_mom_hgetall_ext_sync. reset() it where
// the read is over, before the log lines that follow.
using HashResPtr = std::unique_ptr<qz_mom_hash_res_t, HashResFree>;

struct ObjFree {
    void operator()(void *obj) const { qz_mom_qz_obj_free(obj); }
};
// An object of qz_mom_get_sync.
template <class T>
using ObjPtr = std::unique_ptr<T, ObjFree>;

// Linear search from the first entry, as the store lists the fields it holds.
inline bool holds_field(const qz_mom_hash_res_t &res, int32_t field) {
    for (uint32_t i = 0; i < res.field_count; ++i) {
        if (res.field_nums[i] == field)
            return true;
    }
    return false;
}

}  // namespace qzcap

#endif  // LIBQZ_CAP_CORE_BUS_H
