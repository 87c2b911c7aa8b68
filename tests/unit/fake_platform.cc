#include "fake_platform.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "libqz_cap.h"
#include "kril.h"
#include "qz_monotime.h"
#include "qz_zlog.h"

namespace fake {

namespace {
int g_category_token;
}

Platform &Platform::get() {
    static Platform p;
    return p;
}

void Platform::reset() {
    for (auto &[op, q] : hashes_) {
        for (auto &spec : q) {
            if (spec.view)
                protobuf_c_message_free_unpacked(spec.view, nullptr);
        }
    }
    for (auto &spec : objects_) {
        if (spec.obj)
            protobuf_c_message_free_unpacked(spec.obj, nullptr);
    }
    *this = Platform();
    zlog_category_ = &g_category_token;
}

void Platform::will_return_status(const std::string &op, int32_t status) {
    statuses_[op].push_back(status);
}
void Platform::will_return_hash(const std::string &op, HashSpec spec) {
    hashes_[op].push_back(std::move(spec));
}
void Platform::will_return_object(ObjSpec spec) {
    objects_.push_back(spec);
}
void Platform::will_scan(ScanAction action) {
    scans_.push_back(std::move(action));
}
void Platform::set_time(uint32_t sec, uint32_t nsec, uint32_t step_nsec) {
    sec_ = sec;
    nsec_ = nsec;
    step_nsec_ = step_nsec;
}

std::vector<Event> Platform::calls(const std::string &op) const {
    std::vector<Event> out;
    for (const auto &e : events_) {
        if (e.op != "log" && (op.empty() || e.op == op))
            out.push_back(e);
    }
    return out;
}

std::vector<Event> Platform::logs() const {
    std::vector<Event> out;
    for (const auto &e : events_) {
        if (e.op == "log")
            out.push_back(e);
    }
    return out;
}

std::vector<std::string> Platform::log_messages() const {
    std::vector<std::string> out;
    for (const auto &e : events_) {
        if (e.op == "log")
            out.push_back(e.msg);
    }
    return out;
}

Event &Platform::record(const std::string &op) {
    events_.emplace_back();
    Event &e = events_.back();
    e.seq = ++seq_;
    e.op = op;
    return e;
}

int32_t Platform::next_status(const std::string &op) {
    auto &q = statuses_[op];
    if (q.empty())
        return 0;
    int32_t s = q.front();
    q.pop_front();
    return s;
}

qz_mom_hash_res_t *Platform::next_hash(const std::string &op) {
    auto &q = hashes_[op];
    HashSpec spec;
    if (!q.empty()) {
        spec = std::move(q.front());
        q.pop_front();
    }
    if (spec.null) {
        if (spec.view)
            protobuf_c_message_free_unpacked(spec.view, nullptr);
        return nullptr;
    }
    auto *res = static_cast<qz_mom_hash_res_t *>(calloc(1, sizeof(qz_mom_hash_res_t)));
    res->view = spec.view;
    res->field_count = static_cast<uint32_t>(spec.fields.size());
    if (!spec.fields.empty()) {
        res->field_nums = static_cast<int32_t *>(calloc(spec.fields.size(), sizeof(int32_t)));
        memcpy(res->field_nums, spec.fields.data(), spec.fields.size() * sizeof(int32_t));
    }
    res->error_code = spec.error_code;
    live_results_.insert(res);
    return res;
}

void *Platform::next_object(int32_t *error_code) {
    ObjSpec spec;
    if (!objects_.empty()) {
        spec = objects_.front();
        objects_.pop_front();
    }
    if (error_code)
        *error_code = spec.error_code;
    if (spec.obj)
        live_objects_.insert(spec.obj);
    return spec.obj;
}

int32_t Platform::run_scan(void *global, qz_mom_record_cb cb, void *privdata) {
    if (scans_.empty())
        return 0;
    ScanAction action = std::move(scans_.front());
    scans_.pop_front();
    return action(global, cb, privdata);
}

// Whether `p` is a live block of `live` that the library may free now; what
// is wrong otherwise goes to the errors, named after the freeing call.
bool Platform::take_back(std::set<void *> &live, void *p, const char *call, const char *what) {
    if (p == nullptr) {
        errors_.push_back(std::string(call) + "(NULL)");
        return false;
    }
    if (live.erase(p) == 0) {
        errors_.push_back(std::string(call) + " of " + what + " not handed out or already freed");
        return false;
    }
    return true;
}

void Platform::free_hash(qz_mom_hash_res_t *res) {
    if (!take_back(live_results_, res, "qz_mom_hash_res_free", "a result"))
        return;
    if (res->view)
        protobuf_c_message_free_unpacked(static_cast<ProtobufCMessage *>(res->view), nullptr);
    free(res->field_nums);
    free(res);
}

void Platform::free_object(void *obj) {
    if (!take_back(live_objects_, obj, "qz_mom_qz_obj_free", "an object"))
        return;
    protobuf_c_message_free_unpacked(static_cast<ProtobufCMessage *>(obj), nullptr);
}

void Platform::next_time(uint32_t *sec, uint32_t *nsec) {
    *sec = sec_;
    *nsec = nsec_;
    nsec_ += step_nsec_;
    while (nsec_ >= 1000000000u) {
        nsec_ -= 1000000000u;
        ++sec_;
    }
}

void Platform::slept() {
    ++sleeps_;
    if (sleep_hook_)
        sleep_hook_(sleeps_);
}

// ---- rendering and building messages

namespace {

bool field_is_default(const ProtobufCFieldDescriptor &f, const void *member) {
    switch (f.type) {
        case PROTOBUF_C_TYPE_INT32:
        case PROTOBUF_C_TYPE_SINT32:
        case PROTOBUF_C_TYPE_SFIXED32:
        case PROTOBUF_C_TYPE_UINT32:
        case PROTOBUF_C_TYPE_FIXED32:
        case PROTOBUF_C_TYPE_ENUM:
            return *static_cast<const int32_t *>(member) == 0;
        case PROTOBUF_C_TYPE_BOOL:
            return *static_cast<const protobuf_c_boolean *>(member) == 0;
        case PROTOBUF_C_TYPE_STRING:
            return *static_cast<char *const *>(member) == protobuf_c_empty_string;
        case PROTOBUF_C_TYPE_BYTES:
            return static_cast<const ProtobufCBinaryData *>(member)->len == 0;
        case PROTOBUF_C_TYPE_MESSAGE:
            return *static_cast<void *const *>(member) == nullptr;
        default:
            return true;
    }
}

}  // namespace

std::string render(const ProtobufCMessage *msg) {
    if (msg == nullptr)
        return "null";
    const ProtobufCMessageDescriptor *d = msg->descriptor;
    std::string out = d->name;
    out += "{";
    bool first = true;
    for (unsigned i = 0; i < d->n_fields; ++i) {
        const ProtobufCFieldDescriptor &f = d->fields[i];
        const char *member = reinterpret_cast<const char *>(msg) + f.offset;
        if (field_is_default(f, member))
            continue;
        if (!first)
            out += " ";
        first = false;
        out += f.name;
        out += "=";
        switch (f.type) {
            case PROTOBUF_C_TYPE_BOOL:
                out += std::to_string(*reinterpret_cast<const protobuf_c_boolean *>(member));
                break;
            case PROTOBUF_C_TYPE_STRING: {
                const char *s = *reinterpret_cast<char *const *>(member);
                out += s ? "\"" + std::string(s) + "\"" : "NULL";
                break;
            }
            case PROTOBUF_C_TYPE_BYTES:
                out += "bytes[" +
                       std::to_string(reinterpret_cast<const ProtobufCBinaryData *>(member)->len) +
                       "]";
                break;
            case PROTOBUF_C_TYPE_MESSAGE:
                out += render(*reinterpret_cast<ProtobufCMessage *const *>(member));
                break;
            default:
                out += std::to_string(*reinterpret_cast<const int32_t *>(member));
        }
    }
    if (msg->n_unknown_fields != 0)
        out += " unknown_fields";
    out += "}";
    return out;
}

ProtobufCMessage *make_message(const ProtobufCMessage *msg) {
    size_t n = protobuf_c_message_get_packed_size(msg);
    std::vector<uint8_t> buf(n + 1);
    protobuf_c_message_pack(msg, buf.data());
    return protobuf_c_message_unpack(msg->descriptor, nullptr, n, buf.data());
}

Pmsg::Pmsg(int32_t cmd, ProtobufCMessage *view_owned, std::vector<int32_t> fields_in,
           int32_t error_code, bool with_result)
    : fields(std::move(fields_in)), view(view_owned) {
    pmsg.cmd = cmd;
    res.view = view;
    res.field_nums = fields.empty() ? nullptr : fields.data();
    res.field_count = static_cast<uint32_t>(fields.size());
    res.error_code = error_code;
    pmsg.result = with_result ? &res : nullptr;
}

Pmsg::~Pmsg() {
    if (view)
        protobuf_c_message_free_unpacked(view, nullptr);
}

void Test::SetUp() {
    P().reset();
    g_libqz_cap_zlog_level = 1;
    g_libqz_cap_zlog_category = P().zlog_category();
}

void Test::TearDown() {
    EXPECT_EQ(P().live_results(), 0u) << "hash results not released";
    EXPECT_EQ(P().live_objects(), 0u) << "objects not released";
    EXPECT_TRUE(P().errors().empty()) << P().errors().front();
    g_libqz_cap_zlog_category = nullptr;
}

}  // namespace fake

using fake::P;

namespace {

// The scan and the subscription take a pattern and a record callback alike.
fake::Event &record_pattern_call(const char *op, void *global, int32_t db,
                                 const ProtobufCMessage *pattern, int32_t flags,
                                 qz_mom_record_cb cb, void *privdata) {
    auto &e = P().record(op);
    e.global = global;
    e.db = db;
    e.key = fake::render(pattern);
    e.flags = flags;
    e.cb = reinterpret_cast<void *>(cb);
    e.privdata = privdata;
    return e;
}

}  // namespace

// ---- the platform's C interface, recorded

extern "C" {

int32_t qz_mom_client_connect_sync(void *global, int32_t db) {
    auto &e = P().record("qz_mom_client_connect_sync");
    e.global = global;
    e.db = db;
    return P().next_status(e.op);
}

int32_t qz_mom_client_set_reconnect_cb(void *global, int32_t db, qz_mom_reconnect_cb cb,
                                       void *user_data) {
    auto &e = P().record("qz_mom_client_set_reconnect_cb");
    e.global = global;
    e.db = db;
    e.cb = reinterpret_cast<void *>(cb);
    e.privdata = user_data;
    return P().next_status(e.op);
}

int32_t qz_mom_set_write_buf_len(void *global, int32_t db, uint32_t len) {
    auto &e = P().record("qz_mom_set_write_buf_len");
    e.global = global;
    e.db = db;
    e.len = len;
    return P().next_status(e.op);
}

void *qz_mom_get_sync(void *global, int32_t db, const ProtobufCMessage *key, int32_t *error_code) {
    auto &e = P().record("qz_mom_get_sync");
    e.global = global;
    e.db = db;
    e.key = fake::render(key);
    e.error_in = error_code ? *error_code : -12345;
    return P().next_object(error_code);
}

qz_mom_hash_res_t *qz_mom_hgetall_sync(void *global, int32_t db, const ProtobufCMessage *key) {
    auto &e = P().record("qz_mom_hgetall_sync");
    e.global = global;
    e.db = db;
    e.key = fake::render(key);
    return P().next_hash(e.op);
}

qz_mom_hash_res_t *qz_mom_hgetall_ext_sync(void *global, int32_t db, int32_t *option,
                                           const ProtobufCMessage *key) {
    auto &e = P().record("qz_mom_hgetall_ext_sync");
    e.global = global;
    e.db = db;
    e.key = fake::render(key);
    e.has_option = option != nullptr;
    e.option = option ? *option : 0;
    return P().next_hash(e.op);
}

int32_t qz_mom_scan_sync(void *global, int32_t db, const ProtobufCMessage *pattern, int32_t flags,
                         qz_mom_record_cb cb, void *privdata) {
    record_pattern_call("qz_mom_scan_sync", global, db, pattern, flags, cb, privdata);
    return P().run_scan(global, cb, privdata);
}

int32_t qz_mom_subscribe(void *global, int32_t db, const ProtobufCMessage *pattern, int32_t flags,
                         qz_mom_record_cb cb, void *privdata) {
    const auto &e =
        record_pattern_call("qz_mom_subscribe", global, db, pattern, flags, cb, privdata);
    return P().next_status(e.op);
}

int32_t qz_mom_subscribe_field(void *global, int32_t db, const ProtobufCMessage *key,
                               uint32_t field_count, const int32_t *fields, qz_mom_record_cb *cbs,
                               void **args, int32_t flag) {
    auto &e = P().record("qz_mom_subscribe_field");
    e.global = global;
    e.db = db;
    e.key = fake::render(key);
    e.field_count = field_count;
    for (uint32_t i = 0; fields && i < field_count; ++i)
        e.fields.push_back(fields[i]);
    for (uint32_t i = 0; cbs && i < field_count; ++i)
        e.cbs.push_back(reinterpret_cast<void *>(cbs[i]));
    e.args_null = args == nullptr;
    for (uint32_t i = 0; args && i < field_count; ++i)
        e.args.push_back(args[i]);
    e.flags = flag;
    return P().next_status(e.op);
}

void qz_mom_hash_res_free(qz_mom_hash_res_t *res) {
    auto &e = P().record("qz_mom_hash_res_free");
    e.freed = res;
    P().free_hash(res);
}

void qz_mom_qz_obj_free(void *obj) {
    auto &e = P().record("qz_mom_qz_obj_free");
    e.freed = obj;
    P().free_object(obj);
}

void *qz_zlog_init(const char *category) {
    auto &e = P().record("qz_zlog_init");
    e.module = category ? category : "(null)";
    return P().zlog_category();
}

void qzdf_zlog(void *category, const char *file, size_t filelen, const char *func, size_t funclen,
               long line, int level, const char *format, ...) {
    auto &e = P().record("log");
    e.category = category;
    e.file = file ? file : "";
    e.filelen = filelen;
    e.func = func ? func : "";
    e.funclen = funclen;
    e.line = line;
    e.level = level;
    e.format = format ? format : "";
    char buf[4096];
    va_list ap;
    va_start(ap, format);
    vsnprintf(buf, sizeof buf, format, ap);
    va_end(ap);
    e.msg = buf;
}

int qz_monotime(qz_monotime_t *out) {
    P().record("qz_monotime");
    P().next_time(&out->sec, &out->nsec);
    return 0;
}

int32_t kril_multi_thread_init(void *global, const char *module, void *handle) {
    auto &e = P().record("kril_multi_thread_init");
    e.global = global;
    e.module = module ? module : "(null)";
    e.handle = handle;
    return P().next_status(e.op);
}

int32_t kril_multi_thread_reg_mod_cmd(void *handle, const char *module, const char *cmd,
                                      int32_t flag, const char *argfmt, void (*handler)(void)) {
    auto &e = P().record("kril_multi_thread_reg_mod_cmd");
    e.handle = handle;
    e.module = module ? module : "(null)";
    e.cmd = cmd ? cmd : "(null)";
    e.flags = flag;
    e.argfmt = argfmt ? argfmt : "(null)";
    e.cb = reinterpret_cast<void *>(handler);
    return P().next_status(e.op);
}

int32_t kril_lib_set_mem(void *global, uint32_t len) {
    auto &e = P().record("kril_lib_set_mem");
    e.global = global;
    e.len = len;
    return P().next_status(e.op);
}

// Blocking reads wait with libc sleep(); the tests count the rounds instead.
unsigned int sleep(unsigned int /*seconds*/) {
    P().record("sleep");
    P().slept();
    return 0;
}

}  // extern "C"
