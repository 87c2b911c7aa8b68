// The logging service stand-in: one line per record, to standard error or to
// the file named by $QZ_ZLOG_FILE (appended), as
//   2026-11-23 10:00:00.123 ERROR [pid:tid] libqz_cap:42 func: message
#include "qz_zlog.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "common/c_barrier.h"

// Stamps come from time_t: a 32-bit one ends in January 2038.
static_assert(sizeof(time_t) >= 8, "build with -D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64");

namespace {

struct Category {
    explicit Category(std::string n) : name(std::move(n)) {}
    std::string name;
};

std::mutex g_sink_mutex;
FILE *g_sink = nullptr;

FILE *sink() {
    // Opened once; an unusable file falls back to standard error.
    if (g_sink == nullptr) {
        const char *path = getenv("QZ_ZLOG_FILE");
        if (path != nullptr && path[0] != '\0')
            g_sink = fopen(path, "a");
        if (g_sink == nullptr)
            g_sink = stderr;
    }
    return g_sink;
}

const char *level_name(int level) {
    switch (level) {
        case QZ_ZLOG_LEVEL_DEBUG:
            return "DEBUG";
        case QZ_ZLOG_LEVEL_INFO:
            return "INFO";
        case QZ_ZLOG_LEVEL_NOTICE:
            return "NOTICE";
        case QZ_ZLOG_LEVEL_WARN:
            return "WARN";
        case QZ_ZLOG_LEVEL_ERROR:
            return "ERROR";
        case QZ_ZLOG_LEVEL_FATAL:
            return "FATAL";
        default:
            return "LEVEL?";
    }
}

}  // namespace

extern "C" void *qz_zlog_init(const char *category) {
    if (category == nullptr || category[0] == '\0')
        return nullptr;
    // One category per name for the life of the process, as zlog keeps them:
    // every initialisation asks again, and must not cost a new one.
    return qzplat::c_barrier(nullptr, [&]() -> void * {
        static std::mutex mutex;
        std::lock_guard<std::mutex> lock(mutex);
        static auto *categories = new std::map<std::string, std::unique_ptr<Category>, std::less<>>;
        auto it = categories->find(std::string_view(category));
        if (it == categories->end())
            it = categories->emplace(category, std::make_unique<Category>(category)).first;
        return it->second.get();
    });
}

extern "C" void qzdf_zlog(void *category, const char *file, size_t filelen, const char *func,
                          size_t funclen, long line, int level, const char *format, ...) {
    if (category == nullptr || format == nullptr)
        return;
    char msg[2048];
    va_list ap;
    va_start(ap, format);
    vsnprintf(msg, sizeof msg, format, ap);
    va_end(ap);
    size_t n = strlen(msg);
    while (n > 0 && (msg[n - 1] == '\n' || msg[n - 1] == '\r'))
        msg[--n] = '\0';

    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    tm local;
    localtime_r(&ts.tv_sec, &local);
    char stamp[32];
    strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);

    qzplat::c_barrier_void([&] {
        std::lock_guard<std::mutex> lock(g_sink_mutex);
        FILE *out = sink();
        fprintf(out, "%s.%03ld %s [%ld:%ld] %.*s:%ld %.*s: %s\n", stamp, ts.tv_nsec / 1000000L,
                level_name(level), static_cast<long>(getpid()),
                static_cast<long>(syscall(SYS_gettid)), static_cast<int>(filelen), file ? file : "",
                line, static_cast<int>(funclen), func ? func : "", msg);
        fflush(out);
    });
}
