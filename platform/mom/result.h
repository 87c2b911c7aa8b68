// Hash results and decoded objects handed out by the bus, and the process-wide
// count of those still held by callers (qz_mom_test_live_results/_objects).
#ifndef QZ_MOM_IMPL_RESULT_H
#define QZ_MOM_IMPL_RESULT_H

#include <atomic>
#include <cstdint>
#include <string_view>

#include "codec.h"
#include "qz_mom.h"

namespace qzmom {

extern std::atomic<int64_t> g_live_results;  // from qz_mom_hgetall*_sync, not yet freed
extern std::atomic<int64_t> g_live_objects;  // from qz_mom_get_sync, not yet freed

// A zeroed hash result (view NULL, no fields) carrying error_code, or NULL
// when memory runs out. Not counted.
qz_mom_hash_res_t *new_result(int32_t error_code);

// The result of reading the record `rec` (NULL: not stored) under `key` as
// type desc. NULL only when memory runs out. A record that does not decode
// gives a result without view and with err->code as error_code. Not counted.
qz_mom_hash_res_t *make_result(const ProtobufCMessageDescriptor *desc, std::string_view key,
                               const Record *rec, DecodeError *err);

// Frees a result and its view and field array (NULL: nothing). Not counted.
void free_result(qz_mom_hash_res_t *res);

// Counting wrappers for what callers receive and free.
inline qz_mom_hash_res_t *hand_out(qz_mom_hash_res_t *res) {
    if (res != nullptr)
        g_live_results.fetch_add(1, std::memory_order_relaxed);
    return res;
}
inline void *hand_out_object(void *obj) {
    if (obj != nullptr)
        g_live_objects.fetch_add(1, std::memory_order_relaxed);
    return obj;
}

}  // namespace qzmom

#endif  // QZ_MOM_IMPL_RESULT_H
