// What the subscribe operations and their renewal after a reconnection share:
// the bus calls, made the same way both times, and the rows that tell the
// boolean and the integer value subscriptions apart.
#ifndef LIBQZ_CAP_SUB_VALUE_SUB_H
#define LIBQZ_CAP_SUB_VALUE_SUB_H

#include <cstdint>
#include <string_view>

#include "internal.h"
#include "p_libpub.pb-c.h"
#include "qz_mom.h"
#include "s_frame.pb-c.h"

namespace qzcap::sub {

// Each text lists its printf conversions, one letter each, so that every
// log site can be checked at compile time against the arguments it passes.
struct Text {
    const char *fmt;
    std::string_view args;
};

consteval bool takes(const Text &t) {
    size_t n = 0;
    for (const char *p = t.fmt; *p != '\0'; ++p) {
        if (*p != '%')
            continue;
        if (*++p == '%')
            continue;
        if (n == t.args.size() || *p != t.args[n])
            return false;
        ++n;
    }
    return n == t.args.size();
}

// A value subscription's row. Subscription texts are logged under the
// _ext_thread form, renewal texts under the _recon_thread step.
struct ValueKind {
    int32_t field;        // of p_libpub.cap_table
    uint32_t type;        // registry record type
    Text refused;         // (global, url, fp, arg[, ctx], rv)
    Text accepted;        // (global, url, fp, arg, rv)
    Text add_failed;      // (global, url, fp, arg[, ctx], rv)
    Text recon_entry;     // (global, url, fp[, arg])
    Text recon_refused;   // (global, url, fp, arg, rv)
    Text recon_accepted;  // (global, url, fp, arg, rv)
};

inline constexpr std::string_view kOutcome = "psppd";
inline constexpr std::string_view kOutcomeCtx = "pspppd";

consteval bool outcome_ok(const Text &t, bool ctx_allowed) {
    return takes(t) && (t.args == kOutcome || (ctx_allowed && t.args == kOutcomeCtx));
}

consteval bool well_formed(const ValueKind &k) {
    return outcome_ok(k.refused, true) && outcome_ok(k.accepted, false) &&
           outcome_ok(k.add_failed, true) && takes(k.recon_entry) &&
           (k.recon_entry.args == "psp" || k.recon_entry.args == "pspp") &&
           outcome_ok(k.recon_refused, false) && outcome_ok(k.recon_accepted, false);
}

inline constexpr ValueKind kBoolKind{
    6,
    LIBQZ_CAP_SUB_BOOL,
    {"sub failed, global %p, sub url %s leave, fp %p, arg %p rv %d", "psppd"},
    {"global %p, sub url %s leave, fp %p, arg %p rv %d", "psppd"},
    {"add failed, global %p, sub url %s leave, fp %p, arg %p rv %d", "psppd"},
    {"global %p, sub url %s enter, fp %p", "psp"},
    {"global %p, sub url %s leave, fp %p, arg %p failed rv %d", "psppd"},
    {"global %p, sub url %s leave, fp %p, arg %p rv %d", "psppd"},
};

inline constexpr ValueKind kInt32Kind{
    7,
    LIBQZ_CAP_SUB_INT32,
    {"global %p, sub url %s leave, fp %p, arg %p, info %p failed rv %d", "pspppd"},
    {"global %p, sub url %s leave, fp %p arg %p rv %d", "psppd"},
    {"add failed, global %p, sub url %s leave, fp %p, arg %p info %p rv %d", "pspppd"},
    {"global %p, sub url %s enter, fp %p, arg %p", "pspp"},
    {"global %p, sub url %s leave, fp %p, arg %p, failed rv %d", "psppd"},
    {"global %p, sub url %s leave, fp %p arg %p rv %d", "psppd"},
};

static_assert(well_formed(kBoolKind) && well_formed(kInt32Kind));

// Key record of one capability; refers to the caller's URL for the call.
class CapKey {
  public:
    explicit CapKey(const char *url) {
        index_.url = const_cast<char *>(url);
        rec_.index = &index_;
    }
    CapKey(const CapKey &) = delete;
    CapKey &operator=(const CapKey &) = delete;
    const ProtobufCMessage *msg() const { return &rec_.base; }

  private:
    PLibpub__CapTableIndex index_ = P_LIBPUB__CAP_TABLE_INDEX__INIT;
    PLibpub__CapTable rec_ = P_LIBPUB__CAP_TABLE__INIT;
};

// One field subscription; a null arg goes to the bus as no argument array.
inline int32_t subscribe_field(void *global, const char *url, int32_t field, qz_mom_record_cb fp,
                               void *arg) {
    const CapKey key(url);
    const int32_t fields[1] = {field};
    qz_mom_record_cb cbs[1] = {fp};
    void *args[1] = {arg};
    return qz_mom_subscribe_field(global, LIBQZ_CAP_DB, key.msg(), 1, fields, cbs,
                                  arg != nullptr ? args : nullptr, 1);
}

// The readiness record, which has no key.
inline int32_t subscribe_glb_state(void *global, qz_mom_record_cb fp, void *privdata) {
    SFrame__CapGlbState key = S_FRAME__CAP_GLB_STATE__INIT;
    return qz_mom_subscribe(global, LIBQZ_CAP_DB, &key.base, 0, fp, privdata);
}

template <class Fn>
inline void *as_ptr(Fn fp) {
    return reinterpret_cast<void *>(fp);
}

}  // namespace qzcap::sub

#endif  // LIBQZ_CAP_SUB_VALUE_SUB_H
