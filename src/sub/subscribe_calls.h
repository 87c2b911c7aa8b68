// The bus calls of the device-wide subscriptions, made the same way by the
// subscribe operations and by their renewal after a reconnection.
#ifndef LIBQZ_CAP_SUB_SUBSCRIBE_CALLS_H
#define LIBQZ_CAP_SUB_SUBSCRIBE_CALLS_H

#include <cstdint>

#include "core/bus.h"
#include "core/keys.h"

namespace qzcap::sub {

// One field subscription; a null arg goes to the bus as no argument array.
inline int32_t subscribe_field(void *global, const char *url, int32_t field, qz_mom_record_cb fp,
                               void *arg) {
    const CapKey key([url](PLibpub__CapTableIndex &index) { index.url = const_cast<char *>(url); });
    const int32_t fields[1] = {field};
    qz_mom_record_cb cbs[1] = {fp};
    void *args[1] = {arg};
    return qz_mom_subscribe_field(global, kCapDb, key.msg(), 1, fields, cbs,
                                  arg != nullptr ? args : nullptr, 1);
}

// The readiness record, which has no key.
inline int32_t subscribe_glb_state(void *global, qz_mom_record_cb fp, void *privdata) {
    const GlbStateKey key;
    return qz_mom_subscribe(global, kCapDb, key.msg(), 0, fp, privdata);
}

template <class Fn>
inline void *as_ptr(Fn fp) {
    return reinterpret_cast<void *>(fp);
}

}  // namespace qzcap::sub

#endif  // LIBQZ_CAP_SUB_SUBSCRIBE_CALLS_H
