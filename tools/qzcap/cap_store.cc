#include "cap_store.h"

#include <algorithm>
#include <memory>

#include "failure.h"
#include "libqz_cap.h"
#include "qz_mom_client.h"

namespace qzcap::tool {
namespace {

struct ResFree {
    void operator()(qz_mom_hash_res_t *r) const { qz_mom_hash_res_free(r); }
};
using ResPtr = std::unique_ptr<qz_mom_hash_res_t, ResFree>;

// The record under key, read through the bus; its view is null when none is stored.
ResPtr read_record(const Connection &conn, const CapKey &key) {
    CapMessage m(key);
    ResPtr res(qz_mom_hgetall_sync(conn.handle(), kCapDb, m.msg()));
    if (res == nullptr)
        throw Failure(kExitBadInput, "reading " + key.describe() + ": out of memory");
    conn.check(res->error_code, "reading " + key.describe());
    return res;
}

// A subcard's string: the library has no read for it.
int32_t read_subcard_str(const Connection &conn, const CapKey &key, std::string *out) {
    ResPtr res = read_record(conn, key);
    if (res->view == nullptr)
        return LIBQZ_CAP_E_NO_RECORD;
    if (!holds_field(*res, kStrField))
        return LIBQZ_CAP_E_NO_FIELD;
    *out = static_cast<const PLibpub__CapSubcardTable *>(res->view)->str_value;
    return 0;
}

// One value through the library; its status (0, -22 no record, -24 no such value, ...).
int32_t read_value(const Connection &conn, const CapKey &key, CapValue *v) {
    void *g = conn.handle();
    const char *url = key.url.c_str();
    bool b = false;
    int32_t rc = 0;
    switch (v->type) {
        case CapType::kBool:
            rc = key.node ? libqz_cap_get_subcard_capacity_bool_no_block(g, *key.node, url, &b)
                          : libqz_cap_get_capacity_bool_no_block(g, url, &b);
            v->b = b;
            return rc;
        case CapType::kInt32:
            return key.node
                       ? libqz_cap_get_subcard_capacity_int32_no_block(g, *key.node, url, &v->i)
                       : libqz_cap_get_capacity_int32_no_block(g, url, &v->i);
        case CapType::kStr: {
            if (key.node)
                return read_subcard_str(conn, key, &v->s);
            char buf[kMaxUrlLen + 1];
            uint32_t len = 0;
            rc = libqz_cap_get_capacity_str_no_block(g, url, sizeof buf, buf, &len);
            v->s.assign(buf, len);
            return rc;
        }
    }
    return LIBQZ_CAP_E_ARG;
}

// Every record of one capability table, scanned with a pattern key.
void scan_table(const Connection &conn, bool subcard, const std::string &prefix,
                std::optional<int32_t> node, std::vector<ListedCap> *out) {
    CapMessage pattern(CapKey{"", subcard ? std::optional<int32_t>(0) : std::nullopt});
    struct Ctx {
        bool subcard;
        const std::string *prefix;
        std::optional<int32_t> node;
        std::vector<ListedCap> *out;
    } ctx{subcard, &prefix, node, out};
    auto cb = [](void *, qz_mom_pmsg_t *pmsg, void *arg) -> int32_t {
        auto *c = static_cast<Ctx *>(arg);
        if (pmsg->result == nullptr || pmsg->result->view == nullptr)
            return 0;
        CapKey key = cap_key_of(*pmsg->result, c->subcard);
        if (!key.url.starts_with(*c->prefix) || (c->node && key.node != c->node))
            return 0;
        c->out->push_back(ListedCap{std::move(key), cap_record_of(*pmsg->result, c->subcard)});
        return 0;
    };
    conn.check(qz_mom_scan_sync(conn.handle(), kCapDb, pattern.msg(), 0, cb, &ctx),
               subcard ? "listing subcard capabilities" : "listing capabilities");
}

}  // namespace

std::vector<CapValue> read_capability(const Connection &conn, const CapKey &key) {
    std::vector<CapValue> out;
    for (CapType t : {CapType::kBool, CapType::kInt32, CapType::kStr}) {
        CapValue v;
        v.type = t;
        const int32_t rc = read_value(conn, key, &v);
        if (rc == 0) {
            out.push_back(std::move(v));
        } else if (rc == LIBQZ_CAP_E_NO_RECORD) {
            if (out.empty())
                not_found("no capability " + key.describe());
            break;  // deleted between two reads: what was read stands
        } else if (rc == LIBQZ_CAP_E_BUS) {
            // Why the bus failed the library's read.
            read_record(conn, key);
            throw Failure(kExitBadInput, "reading " + key.describe() + " failed (status -21)");
        } else if (rc != LIBQZ_CAP_E_NO_FIELD) {
            throw Failure(kExitBadInput, "reading " + key.describe() + " failed (status " +
                                             std::to_string(rc) + ")");
        }
    }
    if (out.empty())
        not_found("capability " + key.describe() + " holds no value (only pri or state)");
    return out;
}

void write_capability(const Connection &conn, const CapKey &key, const CapValue &value) {
    CapMessage m(key);
    CapRecord rec;
    switch (value.type) {
        case CapType::kBool:
            rec.bool_value = value.b;
            break;
        case CapType::kInt32:
            rec.int32_value = value.i;
            break;
        case CapType::kStr:
            rec.str_value = value.s;
            break;
    }
    const std::vector<int32_t> fields = m.set(rec);
    std::vector<int32_t> clear;
    for (CapType t : {CapType::kBool, CapType::kInt32, CapType::kStr}) {
        if (t != value.type)
            clear.push_back(field_of(t));
    }
    const qz_mom_write_op_t op{m.msg(),       static_cast<uint32_t>(fields.size()),
                               fields.data(), static_cast<uint32_t>(clear.size()),
                               clear.data(),  0};
    conn.check(qz_mom_write_batch(conn.handle(), kCapDb, &op, 1, nullptr),
               "writing " + key.describe());
}

void delete_capability(const Connection &conn, const CapKey &key) {
    CapMessage m(key);
    ResPtr res(qz_mom_hgetall_sync(conn.handle(), kCapDb, m.msg()));
    if (res == nullptr)
        throw Failure(kExitBadInput, "reading " + key.describe() + ": out of memory");
    // A record that does not decode is there all the same, and del is the way out of it.
    if (res->error_code != QZ_MOM_E_DECODE) {
        conn.check(res->error_code, "reading " + key.describe());
        if (res->view == nullptr)
            not_found("no capability " + key.describe());
    }
    conn.check(qz_mom_delete(conn.handle(), kCapDb, m.msg()), "deleting " + key.describe());
}

std::vector<ListedCap> list_capabilities(const Connection &conn, const std::string &prefix,
                                         std::optional<int32_t> node) {
    std::vector<ListedCap> out;
    if (!node)
        scan_table(conn, false, prefix, node, &out);
    scan_table(conn, true, prefix, node, &out);
    std::sort(out.begin(), out.end(), [](const ListedCap &a, const ListedCap &b) {
        if (a.key.node != b.key.node)
            return a.key.node < b.key.node;  // device-wide (no node) first
        return a.key.url < b.key.url;
    });
    return out;
}

}  // namespace qzcap::tool
