// The debug shell stand-in: modules and their commands, kept in process.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "common/c_barrier.h"
#include "common/parse_int.h"
#include "internal.h"
#include "kril.h"
#include "kril_shell.h"

namespace {

struct Command {
    std::string name;
    std::string argfmt;
    void (*handler)(void);
};

struct Module {
    std::string name;
    void *global;
    std::vector<Command> commands;
    std::thread::id owner;  // its commands run here
};

// What a handle holds: written into the caller's 16 bytes with memcpy.
struct Handle {
    uint32_t magic;
    uint32_t module_id;
    uint64_t reserved;
};
static_assert(sizeof(Handle) == 16, "a shell handle fills the 16 bytes callers reserve");
constexpr uint32_t kMagic = 0x6b72696cu;

std::mutex g_mutex;
std::vector<Module> g_modules;
uint32_t g_mem_size = 0;

Module *find_module(const char *name) {
    for (auto &m : g_modules) {
        if (m.name == name)
            return &m;
    }
    return nullptr;
}

const Command *find_command(const Module &m, const char *cmd) {
    for (const auto &c : m.commands) {
        if (c.name == cmd)
            return &c;
    }
    return nullptr;
}

// "%d" reads as scanf's %d does, but all of it: blanks around the number
// and a '+' are allowed, nothing else.
bool parse_int(const char *text, int32_t *out) {
    if (text == nullptr)
        return false;
    std::string_view s(text);
    const size_t first = s.find_first_not_of(" \t\n\v\f\r");
    s.remove_prefix(first == std::string_view::npos ? s.size() : first);
    const size_t last = s.find_last_not_of(" \t\n\r");
    s = s.substr(0, last == std::string_view::npos ? 0 : last + 1);
    if (s.starts_with('+')) {
        s.remove_prefix(1);
        if (s.starts_with('-'))
            return false;
    }
    return qzplat::parse_int(s, out);
}

}  // namespace

extern "C" int32_t kril_multi_thread_init(void *global, const char *module, void *handle) {
    if (module == nullptr || module[0] == '\0' || handle == nullptr)
        return KRIL_E_ARG;
    return qzplat::c_barrier(KRIL_E_NOMEM, [&]() -> int32_t {
        const auto self = std::this_thread::get_id();
        if (int32_t rv = kril::server_attach(self); rv != 0)
            return rv;
        std::lock_guard<std::mutex> lock(g_mutex);
        // A module registered again starts over with an empty command table,
        // served by the thread that registered it last.
        Module *m = find_module(module);
        if (m == nullptr) {
            g_modules.push_back(Module{module, global, {}, self});
            m = &g_modules.back();
        } else {
            m->global = global;
            m->commands.clear();
            m->owner = self;
        }
        Handle h{kMagic, static_cast<uint32_t>(m - g_modules.data()), 0};
        memcpy(handle, &h, sizeof h);
        return 0;
    });
}

extern "C" int32_t kril_multi_thread_reg_mod_cmd(void *handle, const char *module, const char *cmd,
                                                 int32_t /*flag*/, const char *argfmt,
                                                 void (*handler)(void)) {
    if (handle == nullptr || module == nullptr || cmd == nullptr || argfmt == nullptr ||
        handler == nullptr)
        return KRIL_E_ARG;
    Handle h;
    memcpy(&h, handle, sizeof h);
    return qzplat::c_barrier(KRIL_E_NOMEM, [&]() -> int32_t {
        std::lock_guard<std::mutex> lock(g_mutex);
        if (h.magic != kMagic || h.module_id >= g_modules.size())
            return KRIL_E_BAD_HANDLE;
        Module &m = g_modules[h.module_id];
        if (m.name != module)
            return KRIL_E_NO_MODULE;
        if (strcmp(argfmt, "%d") != 0 && strcmp(argfmt, "url=%s") != 0 &&
            strcmp(argfmt, "void") != 0)
            return KRIL_E_BAD_ARG;
        for (auto &c : m.commands) {
            if (c.name == cmd) {
                c = Command{cmd, argfmt, handler};
                return 0;
            }
        }
        m.commands.push_back(Command{cmd, argfmt, handler});
        return 0;
    });
}

extern "C" int32_t kril_lib_set_mem(void * /*global*/, uint32_t len) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_mem_size = len;
    return 0;
}

extern "C" uint32_t kril_mem_size(void) {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_mem_size;
}

extern "C" uint32_t kril_module_count(void) {
    std::lock_guard<std::mutex> lock(g_mutex);
    return static_cast<uint32_t>(g_modules.size());
}

extern "C" int32_t kril_command_count(const char *module) {
    if (module == nullptr)
        return -1;
    std::lock_guard<std::mutex> lock(g_mutex);
    const Module *m = find_module(module);
    return m ? static_cast<int32_t>(m->commands.size()) : -1;
}

extern "C" int32_t kril_command_at(const char *module, uint32_t i, char *cmd, size_t cmd_len,
                                   char *argfmt, size_t argfmt_len, void (**handler)(void)) {
    if (module == nullptr)
        return KRIL_E_ARG;
    std::lock_guard<std::mutex> lock(g_mutex);
    const Module *m = find_module(module);
    if (m == nullptr)
        return KRIL_E_NO_MODULE;
    if (i >= m->commands.size())
        return KRIL_E_NO_COMMAND;
    const Command &c = m->commands[i];
    if (cmd != nullptr && cmd_len > 0)
        snprintf(cmd, cmd_len, "%s", c.name.c_str());
    if (argfmt != nullptr && argfmt_len > 0)
        snprintf(argfmt, argfmt_len, "%s", c.argfmt.c_str());
    if (handler != nullptr)
        *handler = c.handler;
    return 0;
}

extern "C" int32_t kril_call(const char *module, const char *cmd, const char *arg,
                             int32_t *handler_rv) {
    if (module == nullptr || cmd == nullptr)
        return KRIL_E_ARG;
    Command c;
    int32_t found = qzplat::c_barrier(KRIL_E_NOMEM, [&]() -> int32_t {
        std::lock_guard<std::mutex> lock(g_mutex);
        const Module *m = find_module(module);
        if (m == nullptr)
            return KRIL_E_NO_MODULE;
        const Command *f = find_command(*m, cmd);
        if (f == nullptr)
            return KRIL_E_NO_COMMAND;
        c = *f;
        return 0;
    });
    if (found != 0)
        return found;
    if (!kril::arg_fits(c.argfmt, arg))
        return KRIL_E_BAD_ARG;
    // The handler runs without the lock: it may register or call again.
    int32_t rv = 0;
    if (c.argfmt == "%d") {
        int32_t v = 0;
        parse_int(arg, &v);
        reinterpret_cast<void (*)(int32_t)>(c.handler)(v);
    } else if (c.argfmt == "url=%s") {
        rv = reinterpret_cast<int32_t (*)(const char *)>(c.handler)(arg + 4);
    } else {
        rv = reinterpret_cast<int32_t (*)(void)>(c.handler)();
    }
    if (handler_rv != nullptr)
        *handler_rv = rv;
    return 0;
}

namespace kril {

bool arg_fits(const std::string &argfmt, const char *arg) {
    int32_t v;
    if (argfmt == "%d")
        return parse_int(arg, &v);
    if (argfmt == "url=%s")
        return arg != nullptr && strncmp(arg, "url=", 4) == 0;
    return arg == nullptr || arg[0] == '\0';
}

int32_t find_target(const std::string &module, const std::string &cmd, Target *t) {
    std::lock_guard<std::mutex> lock(g_mutex);
    const Module *m = find_module(module.c_str());
    if (m == nullptr)
        return KRIL_E_NO_MODULE;
    const Command *c = find_command(*m, cmd.c_str());
    if (c == nullptr)
        return KRIL_E_NO_COMMAND;
    *t = Target{m->owner, c->argfmt};
    return 0;
}

std::string listing() {
    std::lock_guard<std::mutex> lock(g_mutex);
    std::string out;
    for (const auto &m : g_modules) {
        out += m.name + "\n";
        for (const auto &c : m.commands)
            out += "    " + c.name + " " + c.argfmt + "\n";
    }
    return out;
}

void copy_out(const std::string &text, char *buf, size_t len) {
    if (buf != nullptr && len > 0)
        snprintf(buf, len, "%s", text.c_str());
}

}  // namespace kril
