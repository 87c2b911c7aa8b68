// Log sites. A site below its gate costs one load and one compare: the gate
// is tested inline and only an open site formats its message.
#ifndef LIBQZ_CAP_CORE_LOG_H
#define LIBQZ_CAP_CORE_LOG_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "libqz_cap.h"
#include "qz_zlog.h"

namespace qzcap {

inline constexpr int kInfo = QZ_ZLOG_LEVEL_INFO;
inline constexpr int kWarn = QZ_ZLOG_LEVEL_WARN;
inline constexpr int kError = QZ_ZLOG_LEVEL_ERROR;
inline constexpr int kFatal = QZ_ZLOG_LEVEL_FATAL;

// Source names carried by every record (never __FILE__).
inline constexpr char kSrcCore[] = "libqz_cap";
inline constexpr char kSrcDbg[] = "libqz_cap_dbg";

inline bool gate_open(uint32_t threshold) {
    return static_cast<uint32_t>(g_libqz_cap_zlog_level) >= threshold;
}

// Formats into a zeroed 1024-byte buffer and hands it to the logging service
// when a category is set.
void emit(const char *src, const char *func, long line, int level, const char *fmt, ...)
    __attribute__((format(printf, 5, 6)));

// True when fmt's printf conversions are exactly `want`, one letter each
// ("sd" for "url %s value: %d"); widths are skipped. Formats kept in tables
// are checked with it in static_asserts, as the compiler checks literal ones.
constexpr bool conversions_are(const char *fmt, std::string_view want) {
    if (fmt == nullptr)
        return false;
    size_t n = 0;
    for (const char *p = fmt; *p != '\0'; ++p) {
        if (*p != '%')
            continue;
        ++p;
        if (*p == '%')
            continue;
        while (*p >= '0' && *p <= '9')
            ++p;
        if (n == want.size() || *p != want[n])
            return false;
        ++n;
    }
    return n == want.size();
}

// A format kept in a table, with the conversions its log site passes.
struct Fmt {
    const char *fmt;
    std::string_view args;

    constexpr bool well_formed() const { return conversions_are(fmt, args); }
};

}  // namespace qzcap

// A site logging under an explicit function name: shared helpers pass their
// caller's name, never their own.
#define QZ_LOG_SRC_FN(src, func, gate, level, ...)                        \
    do {                                                                  \
        if (::qzcap::gate_open(gate))                                     \
            ::qzcap::emit((src), (func), __LINE__, (level), __VA_ARGS__); \
    } while (0)

#define QZ_LOG_FN(func, gate, level, ...) \
    QZ_LOG_SRC_FN(::qzcap::kSrcCore, func, gate, level, __VA_ARGS__)
#define QZ_LOG(gate, level, ...) QZ_LOG_FN(__func__, gate, level, __VA_ARGS__)
#define QZ_DBG_LOG_FN(func, gate, level, ...) \
    QZ_LOG_SRC_FN(::qzcap::kSrcDbg, func, gate, level, __VA_ARGS__)
#define QZ_DBG_LOG(gate, level, ...) QZ_DBG_LOG_FN(__func__, gate, level, __VA_ARGS__)

// The one site that ignores the gate (initialisation's fatal record).
#define QZ_LOG_UNGATED(level, ...) \
    ::qzcap::emit(::qzcap::kSrcCore, __func__, __LINE__, (level), __VA_ARGS__)

// Argument checks: "<name> NULL pointer, addr error!\n" and -4.
#define QZ_CHECK_PTR_SRC_FN(src, func, ptr, name)                                              \
    do {                                                                                       \
        if ((ptr) == nullptr) {                                                                \
            QZ_LOG_SRC_FN(src, func, 1, ::qzcap::kError, name " NULL pointer, addr error!\n"); \
            return LIBQZ_CAP_E_ARG;                                                            \
        }                                                                                      \
    } while (0)
#define QZ_CHECK_PTR_FN(func, ptr, name) QZ_CHECK_PTR_SRC_FN(::qzcap::kSrcCore, func, ptr, name)
#define QZ_CHECK_PTR(ptr, name) QZ_CHECK_PTR_FN(__func__, ptr, name)

// "<what> len too long %zu!\n" and -4 for a text of 256 characters or more.
#define QZ_CHECK_LEN_FN(func, text, what)                                              \
    do {                                                                               \
        size_t qz_len_ = strlen(text);                                                 \
        if (qz_len_ >= 256) {                                                          \
            QZ_LOG_FN(func, 1, ::qzcap::kError, what " len too long %zu!\n", qz_len_); \
            return LIBQZ_CAP_E_ARG;                                                    \
        }                                                                              \
    } while (0)
#define QZ_CHECK_LEN(text, what) QZ_CHECK_LEN_FN(__func__, text, what)

#endif  // LIBQZ_CAP_CORE_LOG_H
