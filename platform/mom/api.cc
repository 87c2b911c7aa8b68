// The C entry points of qz_mom.h and qz_mom_client.h: argument checks,
// injected faults and accounting, then a forward to the client. No exception
// leaves this file.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "client.h"
#include "common/c_barrier.h"
#include "codec.h"
#include "qz_mom.h"
#include "qz_mom_client.h"
#include "report.h"
#include "result.h"

#define QZ_MOM_EXPORT extern "C" __attribute__((visibility("default")))

using namespace qzmom;

namespace {

// The path of every status-returning op: QZ_MOM_E_ARG for a dead handle, a
// negative db or !args_ok, else the status of an injected fault, else fn(c).
template <class F>
int32_t status_op(void *global, int32_t db, bool args_ok, qz_mom_op_t op, F &&fn) {
    Client *c = Client::from(global);
    if (c == nullptr || db < 0 || !args_ok)
        return QZ_MOM_E_ARG;
    Fault f;
    if (c->faults().take(op, &f))
        return f.code;
    return fn(*c);
}

// A scan or a record subscription: the same arguments, checks and faults.
using PatternCall = int32_t (Client::*)(int32_t, const ProtobufCMessage *, qz_mom_record_cb,
                                        void *);
int32_t pattern_op(void *global, int32_t db, const ProtobufCMessage *pattern, qz_mom_record_cb cb,
                   void *privdata, qz_mom_op_t op, PatternCall call) {
    return status_op(global, db, valid_message(pattern) && cb != nullptr, op, [&](Client &c) {
        return qzplat::c_barrier(QZ_MOM_E_NOMEM,
                                 [&] { return (c.*call)(db, pattern, cb, privdata); });
    });
}

// The result of a read under an injected fault.
qz_mom_hash_res_t *fault_result(Client *c, int32_t db, const ProtobufCMessage *key,
                                const Fault &f) {
    if (f.kind == Fault::kNull)
        return nullptr;
    qz_mom_hash_res_t *res = f.with_view ? c->read(db, key) : new_result(0);
    if (res != nullptr)
        res->error_code = f.code;
    return res;
}

qz_mom_hash_res_t *hgetall(void *global, int32_t db, const int32_t *option,
                           const ProtobufCMessage *key, qz_mom_op_t op) {
    Client *c = Client::from(global);
    if (c == nullptr || db < 0 || !valid_message(key) || (option != nullptr && *option != 2)) {
        return hand_out(new_result(QZ_MOM_E_ARG));
    }
    Fault f;
    if (c->faults().take(op, &f))
        return hand_out(fault_result(c, db, key, f));
    return hand_out(c->read(db, key));
}

// The store writes of one batch op; the names and values are owned by `out`.
int32_t encode_op(const qz_mom_write_op_t &op, RecordWrite *out) {
    if (!valid_message(op.record) || (op.field_count != 0 && op.fields == nullptr) ||
        (op.clear_count != 0 && op.clear == nullptr) ||
        (op.field_count == 0 && op.clear_count == 0 && op.replace == 0)) {
        return QZ_MOM_E_ARG;
    }
    const ProtobufCMessageDescriptor *desc = op.record->descriptor;
    const ProtobufCFieldDescriptor *idx = index_field(desc);
    int32_t rc = encode_key(op.record, out->key, nullptr);
    if (rc != 0)
        return rc;
    out->replace = op.replace != 0;
    // The views of out->writes point into these, so they must not move.
    out->names.resize(op.field_count + op.clear_count);
    out->values.resize(op.field_count);
    for (uint32_t i = 0; i < op.field_count + op.clear_count; ++i) {
        const bool clear = i >= op.field_count;
        const int32_t num = clear ? op.clear[i - op.field_count] : op.fields[i];
        const ProtobufCFieldDescriptor *fd = protobuf_c_message_descriptor_get_field(desc, num);
        if (fd == nullptr || fd == idx)
            return QZ_MOM_E_ARG;
        for (uint32_t j = 0; j < i; ++j) {
            const int32_t other = j >= op.field_count ? op.clear[j - op.field_count] : op.fields[j];
            if (other == num)
                return QZ_MOM_E_ARG;
        }
        out->names[i] = field_name(num);
        bool present = true;
        if (!clear) {
            rc = encode_field(op.record, fd, out->values[i], &present);
            if (rc != 0)
                return rc;
        }
        out->writes.push_back(FieldWrite{out->names[i], clear ? std::string_view() : out->values[i],
                                         clear || !present});
    }
    return 0;
}

}  // namespace

QZ_MOM_EXPORT void *qz_mom_client_create(const char *uri) {
    return qzplat::c_barrier(nullptr, [&]() -> void * {
        std::string why;
        int32_t code = 0;
        Client *c = Client::create(uri, &why, &code);
        if (c == nullptr) {
            const char *u = uri != nullptr ? uri : getenv("QZ_MOM_URI");
            report("cannot create a client for \"%s\": %s",
                   u != nullptr && *u != '\0' ? u : "mem:", why.c_str());
        }
        return c;
    });
}

QZ_MOM_EXPORT void *qz_mom_client_open(const char *uri, int32_t *error_code, char *why,
                                       size_t why_len) {
    std::string reason = "out of memory";
    int32_t code = QZ_MOM_E_NOMEM;
    Client *c = qzplat::c_barrier(nullptr, [&] { return Client::create(uri, &reason, &code); });
    if (error_code != nullptr)
        *error_code = c != nullptr ? 0 : code;
    if (why != nullptr && why_len > 0) {
        const std::string_view text = c != nullptr ? std::string_view("") : reason;
        const size_t n = std::min(text.size(), why_len - 1);
        memcpy(why, text.data(), n);
        why[n] = '\0';
    }
    return c;
}

QZ_MOM_EXPORT int32_t qz_mom_client_set_conn_cb(void *global, qz_mom_conn_cb cb, void *user_data) {
    Client *c = Client::from(global);
    if (c == nullptr)
        return QZ_MOM_E_ARG;
    c->set_conn_cb(cb, user_data);
    return 0;
}

QZ_MOM_EXPORT void qz_mom_client_destroy(void *global) {
    Client *c = Client::from(global);
    if (c == nullptr)
        return;
    if (c->on_delivery_thread()) {
        report("qz_mom_client_destroy called from the handle's own callback: not destroyed");
        return;
    }
    delete c;
}

QZ_MOM_EXPORT int32_t qz_mom_client_connect_sync(void *global, int32_t db) {
    return status_op(global, db, true, QZ_MOM_OP_CONNECT,
                     [db](Client &c) { return c.store().connect(db); });
}

QZ_MOM_EXPORT int32_t qz_mom_client_set_reconnect_cb(void *global, int32_t db,
                                                     qz_mom_reconnect_cb cb, void *user_data) {
    return status_op(global, db, cb != nullptr, QZ_MOM_OP_SET_RECONNECT_CB, [&](Client &c) {
        return qzplat::c_barrier(QZ_MOM_E_NOMEM,
                                 [&] { return c.add_reconnect_cb(db, cb, user_data); });
    });
}

QZ_MOM_EXPORT int32_t qz_mom_set_write_buf_len(void *global, int32_t db, uint32_t) {
    // Accepted and not kept: hiredis grows its output buffer as it needs.
    return status_op(global, db, true, QZ_MOM_OP_SET_WRITE_BUF_LEN, [](Client &) { return 0; });
}

QZ_MOM_EXPORT void *qz_mom_get_sync(void *global, int32_t db, const ProtobufCMessage *key,
                                    int32_t *error_code) {
    auto set = [error_code](int32_t v) {
        if (error_code != nullptr)
            *error_code = v;
    };
    Client *c = Client::from(global);
    if (c == nullptr || db < 0 || !valid_message(key)) {
        set(QZ_MOM_E_ARG);
        return nullptr;
    }
    return qzplat::c_barrier(nullptr, [&]() -> void * {
        Fault f;
        qz_mom_hash_res_t *res = nullptr;
        if (c->faults().take(QZ_MOM_OP_GET, &f)) {
            if (f.kind == Fault::kNull)
                return nullptr;  // error code untouched
            res = fault_result(c, db, key, f);
        } else {
            res = c->read(db, key);
        }
        if (res == nullptr) {
            set(QZ_MOM_E_NOMEM);
            return nullptr;
        }
        void *view = res->view;
        res->view = nullptr;
        set(res->error_code);
        free_result(res);
        return hand_out_object(view);
    });
}

QZ_MOM_EXPORT qz_mom_hash_res_t *qz_mom_hgetall_sync(void *global, int32_t db,
                                                     const ProtobufCMessage *key) {
    return qzplat::c_barrier(nullptr,
                             [&] { return hgetall(global, db, nullptr, key, QZ_MOM_OP_HGETALL); });
}

QZ_MOM_EXPORT qz_mom_hash_res_t *qz_mom_hgetall_ext_sync(void *global, int32_t db, int32_t *option,
                                                         const ProtobufCMessage *key) {
    // Option 2 (and no option) is one plain read; the embedded store knows no other.
    return qzplat::c_barrier(
        nullptr, [&] { return hgetall(global, db, option, key, QZ_MOM_OP_HGETALL_EXT); });
}

QZ_MOM_EXPORT int32_t qz_mom_scan_sync(void *global, int32_t db, const ProtobufCMessage *pattern,
                                       int32_t, qz_mom_record_cb cb, void *privdata) {
    return pattern_op(global, db, pattern, cb, privdata, QZ_MOM_OP_SCAN, &Client::scan);
}

QZ_MOM_EXPORT int32_t qz_mom_subscribe(void *global, int32_t db, const ProtobufCMessage *pattern,
                                       int32_t, qz_mom_record_cb cb, void *privdata) {
    return pattern_op(global, db, pattern, cb, privdata, QZ_MOM_OP_SUBSCRIBE, &Client::subscribe);
}

QZ_MOM_EXPORT int32_t qz_mom_subscribe_field(void *global, int32_t db, const ProtobufCMessage *key,
                                             uint32_t field_count, const int32_t *fields,
                                             qz_mom_record_cb *cbs, void **args, int32_t) {
    const bool args_ok =
        valid_message(key) && field_count != 0 && fields != nullptr && cbs != nullptr;
    return status_op(global, db, args_ok, QZ_MOM_OP_SUBSCRIBE_FIELD, [&](Client &c) {
        return qzplat::c_barrier(QZ_MOM_E_NOMEM, [&] {
            return c.subscribe_field(db, key, field_count, fields, cbs, args);
        });
    });
}

QZ_MOM_EXPORT void qz_mom_hash_res_free(qz_mom_hash_res_t *res) {
    if (res == nullptr)
        return;
    g_live_results.fetch_sub(1, std::memory_order_relaxed);
    free_result(res);
}

QZ_MOM_EXPORT void qz_mom_qz_obj_free(void *obj) {
    if (obj == nullptr)
        return;
    g_live_objects.fetch_sub(1, std::memory_order_relaxed);
    protobuf_c_message_free_unpacked(static_cast<ProtobufCMessage *>(obj), nullptr);
}

QZ_MOM_EXPORT int32_t qz_mom_write(void *global, int32_t db, const ProtobufCMessage *record,
                                   uint32_t field_count, const int32_t *fields) {
    Client *c = Client::from(global);
    if (c == nullptr || db < 0 || !valid_message(record) || field_count == 0 || fields == nullptr) {
        return QZ_MOM_E_ARG;
    }
    return qzplat::c_barrier(QZ_MOM_E_NOMEM, [&] {
        const ProtobufCMessageDescriptor *desc = record->descriptor;
        const ProtobufCFieldDescriptor *idx = index_field(desc);
        std::string key;
        int32_t rc = encode_key(record, key, nullptr);
        if (rc != 0)
            return rc;
        std::vector<std::string> names(field_count), values(field_count);
        std::vector<FieldWrite> writes(field_count);
        for (uint32_t i = 0; i < field_count; ++i) {
            const ProtobufCFieldDescriptor *fd =
                protobuf_c_message_descriptor_get_field(desc, fields[i]);
            if (fd == nullptr || fd == idx)
                return int32_t{QZ_MOM_E_ARG};
            bool present = true;
            rc = encode_field(record, fd, values[i], &present);
            if (rc != 0)
                return rc;
            names[i] = field_name(fields[i]);
            writes[i] = FieldWrite{names[i], values[i], !present};
        }
        return c->store().write(db, key, writes.data(), writes.size());
    });
}

QZ_MOM_EXPORT int32_t qz_mom_write_batch(void *global, int32_t db, const qz_mom_write_op_t *ops,
                                         uint32_t count, uint32_t *failed) {
    if (failed != nullptr)
        *failed = count;
    Client *c = Client::from(global);
    if (c == nullptr || db < 0 || (ops == nullptr && count != 0))
        return QZ_MOM_E_ARG;
    return qzplat::c_barrier(QZ_MOM_E_NOMEM, [&] {
        std::vector<RecordWrite> records(count);
        for (uint32_t i = 0; i < count; ++i) {
            int32_t rc = encode_op(ops[i], &records[i]);
            if (rc != 0) {
                if (failed != nullptr)
                    *failed = i;
                return rc;
            }
        }
        return c->store().write_batch(db, records);
    });
}

QZ_MOM_EXPORT int32_t qz_mom_delete(void *global, int32_t db, const ProtobufCMessage *key) {
    Client *c = Client::from(global);
    if (c == nullptr || db < 0 || !valid_message(key))
        return QZ_MOM_E_ARG;
    return qzplat::c_barrier(QZ_MOM_E_NOMEM, [&] {
        std::string k;
        int32_t rc = encode_key(key, k, nullptr);
        return rc != 0 ? rc : c->store().remove(db, k);
    });
}

QZ_MOM_EXPORT int32_t qz_mom_hset_raw(void *global, int32_t db, const char *key, const char *field,
                                      const void *value, size_t value_len) {
    Client *c = Client::from(global);
    if (c == nullptr || db < 0 || key == nullptr || field == nullptr ||
        (value == nullptr && value_len != 0)) {
        return QZ_MOM_E_ARG;
    }
    return qzplat::c_barrier(QZ_MOM_E_NOMEM, [&] {
        FieldWrite w{field, std::string_view(static_cast<const char *>(value), value_len), false};
        if (value == nullptr)
            w.value = std::string_view();
        return c->store().write(db, key, &w, 1);
    });
}

QZ_MOM_EXPORT int32_t qz_mom_del_raw(void *global, int32_t db, const char *key) {
    Client *c = Client::from(global);
    if (c == nullptr || db < 0 || key == nullptr)
        return QZ_MOM_E_ARG;
    return qzplat::c_barrier(QZ_MOM_E_NOMEM, [&] { return c->store().remove(db, key); });
}

QZ_MOM_EXPORT int32_t qz_mom_format_key(const ProtobufCMessage *key, char *buf, size_t buf_len) {
    if (!valid_message(key) || buf == nullptr)
        return QZ_MOM_E_ARG;
    return qzplat::c_barrier(QZ_MOM_E_NOMEM, [&] {
        std::string k;
        int32_t rc = encode_key(key, k, nullptr);
        if (rc != 0)
            return rc;
        if (k.size() + 1 > buf_len || k.size() > INT32_MAX)
            return int32_t{QZ_MOM_E_ARG};
        memcpy(buf, k.c_str(), k.size() + 1);
        return static_cast<int32_t>(k.size());
    });
}
