// The capability reads, device-wide and per subcard: one flow for every
// member, told apart by a Member row (its texts and switches), a scope (how
// the key is built and where readiness is cached) and an output kind.
#ifndef LIBQZ_CAP_QUERY_VALUE_READ_H
#define LIBQZ_CAP_QUERY_VALUE_READ_H

#include <unistd.h>

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "core/bus.h"
#include "core/log.h"
#include "core/value_kind.h"

namespace qzcap::read {

// What one exported read says beyond the shared flow. Every text is a printf
// format whose conversions are checked at compile time against the
// arguments its slot passes (see read()).
struct Member {
    const char *func = nullptr;           // every record names the exported operation
    bool blocking = false;                // wait for the value or for readiness, then read once
    bool dump = false;                    // registry trace dump "enter"/"leave"
    bool entry_nodeid = false;            // entry trace takes (global, url, nodeid)
    const char *entry = nullptr;          // entry trace, (global, url) unless entry_nodeid
    const char *found_waiting = nullptr;  // value published while waiting (blocking only)
    const char *found = nullptr;          // value of the single read / the non-blocking read
    // Most reads share these two texts; the boolean no-block reads word them
    // without the comma.
    const char *tmp_null = "url %s, tmp NULL";            // (url) no record stored
    const char *field_invalid = "url %s, field invalid";  // (url) record without the value field
};

// A boolean or int32 output: set to the kind's initial value before the
// bus is asked.
template <const auto &K>
struct ScalarOut {
    static constexpr int32_t kField = K.field;
    static constexpr std::string_view kFoundArgs = "sd";  // url, value
    std::remove_cvref_t<decltype(K.initial)> *value;

    template <class Scope>
    int32_t check(const char *fn, const Scope &scope) const {
        if constexpr (Scope::kHasCtx)
            QZ_CHECK_PTR_FN(fn, scope.ctx, "info");
        QZ_CHECK_PTR_FN(fn, value, "value");
        return 0;
    }
    void clear() const { *value = K.initial; }
    template <class Record>
    void take(const Record &r) const {
        *value = value_of(K, r);
    }
    void log(const char *fn, const char *fmt, const char *url) const {
        QZ_LOG_FN(fn, 4, kInfo, fmt, url, static_cast<int>(*value));
    }
};

using BoolOut = ScalarOut<kBoolKind>;
using Int32Out = ScalarOut<kInt32Kind>;

// A string output: a caller buffer of str_len bytes and the copied length.
struct StrOut {
    static constexpr int32_t kField = 8;
    static constexpr std::string_view kFoundArgs = "ssd";  // url, str, length
    static constexpr size_t kMaxCopy = 255;
    uint32_t str_len;
    char *str;
    uint32_t *length;

    template <class Scope>
    int32_t check(const char *fn, const Scope &scope) const {
        QZ_CHECK_PTR_FN(fn, str, "str");
        if constexpr (Scope::kHasCtx)
            QZ_CHECK_PTR_FN(fn, scope.ctx, "info");
        QZ_CHECK_PTR_FN(fn, length, "length");
        return 0;
    }
    void clear() const {
        memset(str, 0, str_len);
        *length = 0;
    }
    // The buffer was zero-filled, so it stays terminated. A zero-sized
    // buffer takes nothing.
    template <class Record>
    void take(const Record &r) const {
        if (str_len == 0 || r.str_value == nullptr)
            return;
        size_t n = strnlen(r.str_value, kMaxCopy);
        if (str_len <= n)
            n = str_len - 1;
        memcpy(str, r.str_value, n);
        *length = static_cast<uint32_t>(n);
    }
    void log(const char *fn, const char *fmt, const char *url) const {
        QZ_LOG_FN(fn, 4, kInfo, fmt, url, str_len != 0 ? str : "", static_cast<int>(*length));
    }
};

enum class Answer { kValue, kNoRecord, kNoField };

// What a read's scope supplies: the decoded record type, the key of a URL
// within the scope, and the readiness the blocking reads wait for.
template <class S>
concept ReadScope = requires(S scope, const S &cscope, const char *text, void *global) {
    typename S::Record;
    { S::kHasCtx } -> std::convertible_to<bool>;
    { cscope.key(text).msg() } -> std::same_as<const ProtobufCMessage *>;
    { scope.prepare(text) } -> std::same_as<int32_t>;  // text: the operation's name
    { cscope.ready() } -> std::same_as<bool>;
    cscope.waited(global);  // after each one-second sleep
};

// A read that failed (no result, or an error code) is logged, released and
// ends the call with -21; it is never retried. 0: res holds a result.
inline int32_t release_failed_read(const char *fn, const char *url, HashResPtr &res) {
    if (!res) {
        QZ_LOG_FN(fn, 1, kError, "url %s, result NULL", url);
        return LIBQZ_CAP_E_BUS;
    }
    if (res->error_code != 0) {
        QZ_LOG_FN(fn, 1, kError, "url %s, result error_code %d", url, res->error_code);
        res.reset();
        return LIBQZ_CAP_E_BUS;
    }
    return 0;
}

// A decoded record alone is not a value: an absent field decodes to 0.
inline Answer answer(const qz_mom_hash_res_t &res, int32_t field) {
    if (res.view == nullptr)
        return Answer::kNoRecord;
    return holds_field(res, field) ? Answer::kValue : Answer::kNoField;
}

template <const Member &M, class Scope>
void dump(Scope &scope, const char *label) {
    if constexpr (M.dump)
        scope.dump(label);
}

// Ends a read that has a result: the value, or why there is none, logged
// at gate with level. The result is released before the closing traces.
template <const Member &M, class Scope, class Out>
int32_t answer_and_release(const char *url, Scope &scope, const Out &out, HashResPtr &res,
                           uint32_t gate, int level) {
    switch (answer(*res, Out::kField)) {
        case Answer::kNoRecord:
            QZ_LOG_FN(M.func, gate, level, M.tmp_null, url);
            res.reset();
            dump<M>(scope, "leave");
            return LIBQZ_CAP_E_NO_RECORD;
        case Answer::kNoField:
            QZ_LOG_FN(M.func, gate, level, M.field_invalid, url);
            res.reset();
            dump<M>(scope, "leave");
            return LIBQZ_CAP_E_NO_FIELD;
        case Answer::kValue:
            break;
    }
    out.take(*static_cast<const typename Scope::Record *>(res->view));
    out.log(M.func, M.found, url);
    res.reset();
    QZ_LOG_FN(M.func, 4, kInfo, "leave");
    dump<M>(scope, "leave");
    return 0;
}

// One read that must find the value: after the wait, or once readiness is
// cached. A missing value is an error here.
template <const Member &M, class Scope, class Out>
int32_t final_read(void *global, const char *url, Scope &scope, const Out &out,
                   const ProtobufCMessage *key) {
    HashResPtr res(qz_mom_hgetall_sync(global, kCapDb, key));
    if (int32_t rv = release_failed_read(M.func, url, res); rv != 0)
        return rv;
    return answer_and_release<M>(url, scope, out, res, 1, kError);
}

// Polls once a second, without limit, until the value is published (returned
// at once, ready or not) or the scope reports readiness (then final_read).
template <const Member &M, class Scope, class Out>
int32_t blocking_read(void *global, const char *url, Scope &scope, const Out &out,
                      const ProtobufCMessage *key) {
    if (int32_t rv = scope.prepare(M.func); rv != 0)
        return rv;
    while (!scope.ready()) {
        HashResPtr res(qz_mom_hgetall_sync(global, kCapDb, key));
        if (int32_t rv = release_failed_read(M.func, url, res); rv != 0)
            return rv;
        const Answer a = answer(*res, Out::kField);
        if (a == Answer::kValue) {
            out.take(*static_cast<const typename Scope::Record *>(res->view));
            out.log(M.func, M.found_waiting, url);
            res.reset();
            dump<M>(scope, "leave");
            return 0;
        }
        QZ_LOG_FN(M.func, 4, kInfo, a == Answer::kNoRecord ? M.tmp_null : M.field_invalid, url);
        res.reset();
        QZ_LOG_FN(M.func, 4, kInfo, "continue");
        sleep(1);
        scope.waited(global);
    }
    return final_read<M>(global, url, scope, out, key);
}

// One extended read (option 2); a missing value is only a trace.
template <const Member &M, class Scope, class Out>
int32_t no_block_read(void *global, const char *url, Scope &scope, const Out &out,
                      const ProtobufCMessage *key) {
    int32_t option = 2;
    HashResPtr res(qz_mom_hgetall_ext_sync(global, kCapDb, &option, key));
    if (int32_t rv = release_failed_read(M.func, url, res); rv != 0)
        return rv;
    return answer_and_release<M>(url, scope, out, res, 4, kInfo);
}

// The read named by M. Beyond a ReadScope, Scope supplies ctx when kHasCtx,
// nodeid when M.entry_nodeid, and dump(label) when M.dump.
template <const Member &M, ReadScope Scope, class Out>
requires(!M.dump || requires(Scope s) { s.dump("enter"); }) int32_t
    read(void *global, const char *url, Scope scope, Out out) {
    static_assert(!M.dump || Scope::kHasCtx, "the trace dump walks a context's registry");
    static_assert(conversions_are(M.entry, M.entry_nodeid ? "psd" : "ps"));
    static_assert(conversions_are(M.found, Out::kFoundArgs));
    static_assert(!M.blocking || conversions_are(M.found_waiting, Out::kFoundArgs));
    static_assert(conversions_are(M.tmp_null, "s") && conversions_are(M.field_invalid, "s"));

    QZ_CHECK_PTR_FN(M.func, global, "global");
    QZ_CHECK_PTR_FN(M.func, url, "url");
    QZ_CHECK_LEN_FN(M.func, url, "url");
    if (int32_t rv = out.check(M.func, scope); rv != 0)
        return rv;

    if constexpr (M.entry_nodeid)
        QZ_LOG_FN(M.func, 4, kInfo, M.entry, global, url, static_cast<int>(scope.nodeid));
    else
        QZ_LOG_FN(M.func, 4, kInfo, M.entry, global, url);
    dump<M>(scope, "enter");
    out.clear();

    const auto key = scope.key(url);
    if constexpr (M.blocking)
        return blocking_read<M>(global, url, scope, out, key.msg());
    else
        return no_block_read<M>(global, url, scope, out, key.msg());
}

}  // namespace qzcap::read

#endif  // LIBQZ_CAP_QUERY_VALUE_READ_H
