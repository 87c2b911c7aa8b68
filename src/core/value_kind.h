// The capability value kinds that can be read, extracted from a push,
// subscribed and renewed: boolean and int32. One row each says everything
// that tells them apart; the reads, the extractors, the subscriptions and
// their renewal all take it from here.
#ifndef LIBQZ_CAP_CORE_VALUE_KIND_H
#define LIBQZ_CAP_CORE_VALUE_KIND_H

#include <cstdint>
#include <string_view>

#include "core/log.h"
#include "libqz_cap.h"

namespace qzcap {

inline constexpr std::string_view kOutcome = "psppd";      // global, url, fp, arg, rv
inline constexpr std::string_view kOutcomeCtx = "pspppd";  // ... arg, ctx, rv

template <class T>
struct ValueKind {
    int32_t field;                 // field number in both capability records
    T initial;                     // an output's value before one is found
    uint32_t registry_type;        // LIBQZ_CAP_SUB_* of its registry records
    const char *extract_no_field;  // extractor: the pushed record lacks the field
    // Subscription texts, logged under the _ext_thread form.
    Fmt refused;     // (global, url, fp, arg[, ctx], rv)
    Fmt accepted;    // (global, url, fp, arg, rv)
    Fmt add_failed;  // (global, url, fp, arg[, ctx], rv)
    // Renewal texts, logged under the _recon_thread step.
    Fmt recon_entry;     // (global, url, fp[, arg])
    Fmt recon_refused;   // (global, url, fp, arg, rv)
    Fmt recon_accepted;  // (global, url, fp, arg, rv)

    constexpr bool well_formed() const {
        auto outcome = [](const Fmt &t, bool ctx_allowed) {
            return t.well_formed() &&
                   (t.args == kOutcome || (ctx_allowed && t.args == kOutcomeCtx));
        };
        return outcome(refused, true) && outcome(accepted, false) && outcome(add_failed, true) &&
               recon_entry.well_formed() &&
               (recon_entry.args == "psp" || recon_entry.args == "pspp") &&
               outcome(recon_refused, false) && outcome(recon_accepted, false);
    }
};

inline constexpr ValueKind<bool> kBoolKind{
    .field = 6,
    .initial = false,
    .registry_type = LIBQZ_CAP_SUB_BOOL,
    .extract_no_field = "bool value field invalid",
    .refused = {"sub failed, global %p, sub url %s leave, fp %p, arg %p rv %d", kOutcome},
    .accepted = {"global %p, sub url %s leave, fp %p, arg %p rv %d", kOutcome},
    .add_failed = {"add failed, global %p, sub url %s leave, fp %p, arg %p rv %d", kOutcome},
    .recon_entry = {"global %p, sub url %s enter, fp %p", "psp"},
    .recon_refused = {"global %p, sub url %s leave, fp %p, arg %p failed rv %d", kOutcome},
    .recon_accepted = {"global %p, sub url %s leave, fp %p, arg %p rv %d", kOutcome},
};

inline constexpr ValueKind<int32_t> kInt32Kind{
    .field = 7,
    .initial = -1,
    .registry_type = LIBQZ_CAP_SUB_INT32,
    .extract_no_field = "int32 value field invalid",
    .refused = {"global %p, sub url %s leave, fp %p, arg %p, info %p failed rv %d", kOutcomeCtx},
    .accepted = {"global %p, sub url %s leave, fp %p arg %p rv %d", kOutcome},
    .add_failed = {"add failed, global %p, sub url %s leave, fp %p, arg %p info %p rv %d",
                   kOutcomeCtx},
    .recon_entry = {"global %p, sub url %s enter, fp %p, arg %p", "pspp"},
    .recon_refused = {"global %p, sub url %s leave, fp %p, arg %p, failed rv %d", kOutcome},
    .recon_accepted = {"global %p, sub url %s leave, fp %p arg %p rv %d", kOutcome},
};

static_assert(kBoolKind.well_formed() && kInt32Kind.well_formed());

// The kind's member of a decoded capability record (device-wide or subcard).
// A stored 256 is true, not a truncated 0.
template <class Record>
bool value_of(const ValueKind<bool> &, const Record &r) {
    return r.bool_value != 0;
}
template <class Record>
int32_t value_of(const ValueKind<int32_t> &, const Record &r) {
    return r.int32_value;
}

}  // namespace qzcap

#endif  // LIBQZ_CAP_CORE_VALUE_KIND_H
