// The debug-shell module "libqz_cap_<app>": its registration, the command
// handlers and the value callbacks of the debug subscriptions. Handlers print
// for the operator; they use the default context of the thread running them.
#include <array>
#include <cstdio>
#include <type_traits>

#include "dbg/dbg.h"
#include "kril.h"
#include "qz_mom.h"

namespace {

// The device's bound for the module name (126 characters and a terminator).
constexpr size_t kModuleNameLen = 127;
// The string reads' buffer.
constexpr uint32_t kStrLen = 128;
// A pushed record's URL.
constexpr int32_t kUrlLen = 256;

// The shell calls each handler as the type its argument format names.
using IntHandler = void (*)(int32_t);
using UrlHandler = int32_t (*)(const char *);
using VoidHandler = int32_t (*)(void);

struct Command {
    const char *name;
    IntHandler on_int;
    UrlHandler on_url;
    VoidHandler on_void;

    constexpr const char *argfmt() const {
        return on_int != nullptr ? "%d" : on_url != nullptr ? "url=%s" : "void";
    }
    // The shell takes handlers untyped and casts back by argfmt().
    void (*untyped() const)(void) {
        if (on_int != nullptr)
            return reinterpret_cast<void (*)(void)>(on_int);
        if (on_url != nullptr)
            return reinterpret_cast<void (*)(void)>(on_url);
        return reinterpret_cast<void (*)(void)>(on_void);
    }
};

constexpr Command int_cmd(const char *name, IntHandler h) {
    return {name, h, nullptr, nullptr};
}
constexpr Command url_cmd(const char *name, UrlHandler h) {
    return {name, nullptr, h, nullptr};
}
constexpr Command void_cmd(const char *name, VoidHandler h) {
    return {name, nullptr, nullptr, h};
}

// Registered in this order.
constexpr std::array kCommands = {
    int_cmd("log-level", libqz_cap_log_level),
    void_cmd("dump_stat", libqz_cap_dbg_dump_stat),
    void_cmd("dump_sub_hash", libqz_cap_dbg_dump_sub_hash),
    url_cmd("get_cap_bool", libqz_cap_dbg_get_cap_bool),
    url_cmd("get_cap_int32", libqz_cap_dbg_get_cap_int32),
    url_cmd("get_cap_str", libqz_cap_dbg_get_cap_str),
    url_cmd("get_cap_bool_no_block", libqz_cap_dbg_get_cap_bool_no_block),
    url_cmd("get_cap_int32_no_block", libqz_cap_dbg_get_cap_int32_no_block),
    url_cmd("get_cap_str_no_block", libqz_cap_dbg_get_cap_str_no_block),
    url_cmd("get_g_cap_bool", libqz_cap_dbg_ce_get_g_cap_bool),
    url_cmd("get_g_cap_int32", libqz_cap_dbg_ce_get_g_cap_int32),
    url_cmd("get_g_cap_bool_no_block", libqz_cap_dbg_ce_get_g_cap_bool_no_block),
    url_cmd("get_g_cap_int32_no_block", libqz_cap_dbg_ce_get_g_cap_int32_no_block),
    url_cmd("sub_g_cap_bool", libqz_cap_dbg_ce_subscribe_g_cap_bool),
    url_cmd("sub_g_cap_int32", libqz_cap_dbg_ce_subscribe_g_cap_int32),
    void_cmd("show_memory", libqz_cap_dbg_show_memory),
    void_cmd("show_time", libqz_cap_dbg_show_time),
    void_cmd("dump_all", libqz_cap_dbg_dump_all),
    void_cmd("collect", libqz_cap_dbg_collect),
};
static_assert(kCommands.size() == 19);

// Handlers may be called directly with NULL; print it as glibc would, and
// let the operation reject it.
const char *shown(const char *url) {
    return url != nullptr ? url : "(null)";
}

using BoolRead = int32_t (*)(void *, const char *, bool *);
using Int32Read = int32_t (*)(void *, const char *, int32_t *);
using StrRead = int32_t (*)(void *, const char *, uint32_t, char *, uint32_t *);

// One handler per read; the read's signature picks how the value prints.
template <auto Read>
int32_t read_handler(const char *url) {
    printf("url %s\n", shown(url));
    void *global = g_libqz_cap_ctrl_info.global;
    using R = decltype(Read);
    int32_t rv;
    if constexpr (std::is_same_v<R, StrRead>) {
        char str[kStrLen] = {};
        uint32_t len = 0;
        rv = Read(global, url, sizeof str, str, &len);
        if (rv == 0)
            printf("str %s, len %d\n", str, static_cast<int>(len));
    } else {
        static_assert(std::is_same_v<R, BoolRead> || std::is_same_v<R, Int32Read>);
        std::conditional_t<std::is_same_v<R, BoolRead>, bool, int32_t> value{};
        rv = Read(global, url, &value);
        if (rv == 0)
            printf("value %d\n", static_cast<int>(value));
    }
    if (rv != 0)
        printf("failed,rv %d\n", rv);
    return rv;
}

template <auto Subscribe>
int32_t subscribe_handler(const char *url, libqz_cap_value_cb cb, const char *what) {
    printf("url %s\n", shown(url));
    int32_t rv = Subscribe(g_libqz_cap_ctrl_info.global, url, cb);
    if (rv != 0) {
        printf("failed,rv %d\n", rv);
        return rv;
    }
    printf("sub %s url %s success\n", what, url);
    return 0;
}

template <class T>
using Extractor = int32_t (*)(qz_mom_pmsg *, int32_t, char *, T *, uint32_t *);

template <class T>
int32_t debug_value_cb(const char *func, Extractor<T> extract, qz_mom_pmsg *pmsg, void *arg) {
    QZ_DBG_CHECK_PTR_FN(func, pmsg, "pmsg");
    switch (pmsg->cmd) {
        case QZ_MOM_CMD_SCAN:
        case QZ_MOM_CMD_CHANGED: {
            char url[kUrlLen] = {};
            T value{};
            uint32_t length = 0;
            int32_t rv = extract(pmsg, sizeof url, url, &value, &length);
            if (rv != 0) {
                printf("failed,rv %d\n", rv);
                return rv;
            }
            printf("url %s, value is %d, length %d\n", url, static_cast<int>(value),
                   static_cast<int>(length));
            return 0;
        }
        case QZ_MOM_CMD_SUBSCRIBED:
            puts("subscribe ok");
            if (arg != nullptr)
                printf("arg is %s\n", static_cast<const char *>(arg));
            return 0;
        default:
            printf("pmsg->cmd %d\n", static_cast<int>(pmsg->cmd));
            return 0;
    }
}

}  // namespace

extern "C" {

int32_t libqz_cap_kril_init_thread(void *global, const char *app_name, libqz_cap_ctrl_info_t *ctx) {
    QZ_DBG_CHECK_PTR(global, "global");
    QZ_DBG_CHECK_PTR(app_name, "name");
    QZ_DBG_CHECK_PTR(ctx, "info");
    // The shell copies what it keeps: the name need only outlive registration.
    char module[kModuleNameLen];
    snprintf(module, sizeof module, "libqz_cap_%s", app_name);
    int32_t rv = kril_multi_thread_init(global, module, ctx->kril_handle);
    if (rv != 0) {
        QZ_DBG_LOG(1, qzcap::kError, "kril_lib_init failed, rv %d", rv);
        return LIBQZ_CAP_E_INIT;
    }
    QZ_DBG_LOG(4, qzcap::kInfo, "kril_lib_init ok");
    // A command the shell refuses is simply not offered; the others still are.
    for (const Command &c : kCommands)
        kril_multi_thread_reg_mod_cmd(ctx->kril_handle, module, c.name, 0, c.argfmt(), c.untyped());
    return 0;
}

// Each read handler is the debug name of the read it prints.
#define QZCAP_DBG_READ(name, read)                  \
    int32_t libqz_cap_dbg_##name(const char *url) { \
        return read_handler<read>(url);             \
    }

QZCAP_DBG_READ(get_cap_bool, libqz_cap_get_capacity_bool)
QZCAP_DBG_READ(get_cap_int32, libqz_cap_get_capacity_int32)
QZCAP_DBG_READ(get_cap_str, libqz_cap_get_capacity_str)
QZCAP_DBG_READ(get_cap_bool_no_block, libqz_cap_get_capacity_bool_no_block)
QZCAP_DBG_READ(get_cap_int32_no_block, libqz_cap_get_capacity_int32_no_block)
QZCAP_DBG_READ(get_cap_str_no_block, libqz_cap_get_capacity_str_no_block)
QZCAP_DBG_READ(ce_get_g_cap_bool, libqz_cap_ce_get_g_cap_bool)
QZCAP_DBG_READ(ce_get_g_cap_int32, libqz_cap_ce_get_g_cap_int32)
QZCAP_DBG_READ(ce_get_g_cap_bool_no_block, libqz_cap_ce_get_g_cap_bool_no_block)
QZCAP_DBG_READ(ce_get_g_cap_int32_no_block, libqz_cap_ce_get_g_cap_int32_no_block)

#undef QZCAP_DBG_READ

int32_t libqz_cap_dbg_ce_subscribe_g_cap_bool(const char *url) {
    return subscribe_handler<libqz_cap_ce_subscribe_g_cap_bool>(url, libqz_cap_dbg_bool_sub_cb,
                                                                "g_cap_bool");
}
int32_t libqz_cap_dbg_ce_subscribe_g_cap_int32(const char *url) {
    return subscribe_handler<libqz_cap_ce_subscribe_g_cap_int32>(url, libqz_cap_dbg_int32_sub_cb,
                                                                 "g_cap_int32");
}

int32_t libqz_cap_dbg_bool_sub_cb(void * /*global*/, qz_mom_pmsg *pmsg, void *arg) {
    return debug_value_cb<bool>(__func__, libqz_cap_ce_get_g_cap_bool_by_pmsg, pmsg, arg);
}
int32_t libqz_cap_dbg_int32_sub_cb(void * /*global*/, qz_mom_pmsg *pmsg, void *arg) {
    return debug_value_cb<int32_t>(__func__, libqz_cap_ce_get_g_cap_int32_by_pmsg, pmsg, arg);
}

int32_t libqz_cap_dbg_dump_stat(void) {
    qzcap::dbg::print_stat(&g_libqz_cap_ctrl_info);
    return 0;
}

int32_t libqz_cap_dbg_dump_sub_hash(void) {
    return qzcap::dbg::print_sub_hash(&g_libqz_cap_ctrl_info);
}

}  // extern "C"
