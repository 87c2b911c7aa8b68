// What reaches the callbacks: reads, scans and the changes of the queue,
// each as a pushed message.
#include <algorithm>
#include <cstddef>
#include <cstdlib>

#include "client.h"
#include "codec.h"
#include "qz_mom_client.h"
#include "report.h"
#include "result.h"

static_assert(offsetof(qz_mom_pmsg_t, cmd) == 644, "pushed message: cmd at byte 644");
static_assert(offsetof(qz_mom_pmsg_t, result) == 648, "pushed message: result at byte 648");

namespace qzmom {
namespace {

void report_skipped(const char *how, int32_t db, std::string_view key, const DecodeError &err) {
    report("skipped malformed record \"%.*s\" in db %d (%s): %s%s%.*s%s",
           static_cast<int>(key.size()), key.data(), db, how, err.what,
           err.field.empty() ? "" : " (hash field \"", static_cast<int>(err.field.size()),
           err.field.data(), err.field.empty() ? "" : "\")");
}

bool same(const Value &a, const std::string *b) {
    return b == nullptr ? !a.has_value() : a.has_value() && *a == *b;
}

}  // namespace

qz_mom_hash_res_t *Client::read(int32_t db, const ProtobufCMessage *key) {
    thread_local std::string k;  // no allocation per read once warm
    int32_t rc = encode_key(key, k, nullptr);
    if (rc != 0)
        return new_result(rc);
    Snapshot rec;
    rc = store_->get(db, k, &rec);
    if (rc != 0)
        return new_result(rc);
    DecodeError err;
    qz_mom_hash_res_t *res = make_result(key->descriptor, k, rec.get(), &err);
    if (res != nullptr && res->error_code == 0)
        note_ignored(db, k, err);
    return res;
}

int32_t Client::scan(int32_t db, const ProtobufCMessage *pattern, qz_mom_record_cb cb, void *priv) {
    const ProtobufCMessageDescriptor *desc = pattern->descriptor;
    std::string key;
    bool is_pattern = false;
    int32_t rc = encode_key(pattern, key, &is_pattern);
    if (rc != 0)
        return rc;
    const bool keyed = index_field(desc) != nullptr;
    std::vector<Entry> entries;
    if (is_pattern) {
        rc = store_->scan(db, desc->name, true, &entries);
    } else {
        Snapshot rec;
        rc = store_->get(db, key, &rec);
        if (rc == 0 && rec != nullptr)
            entries.push_back(Entry{std::move(key), std::move(rec)});
    }
    if (rc != 0)
        return rc;
    for (const Entry &e : entries) {
        DecodeError err;
        qz_mom_hash_res_t *res = make_result(desc, e.key, e.record.get(), &err);
        if (res == nullptr)
            return QZ_MOM_E_NOMEM;
        if (res->error_code != 0) {
            report_skipped("scan", db, e.key, err);
            free_result(res);
            continue;
        }
        note_ignored(db, e.key, err);
        call(cb, priv, keyed ? QZ_MOM_CMD_SCAN : QZ_MOM_CMD_RECORD, res);
    }
    return 0;
}

void Client::deliver_change(const Change &c) {
    std::vector<SubPtr> subs;
    {
        std::lock_guard<std::mutex> lk(subs_mu_);
        auto [b, e] = by_key_.equal_range(c.key);
        for (; b != e; ++b) {
            if (b->second->db == c.db)
                subs.push_back(b->second);
        }
        if (c.key.find('|') != std::string::npos) {
            auto [tb, te] = by_type_.equal_range(key_type(c.key));
            for (; tb != te; ++tb) {
                if (tb->second->db == c.db)
                    subs.push_back(tb->second);
            }
        }
    }
    std::sort(subs.begin(), subs.end(),
              [](const SubPtr &a, const SubPtr &b) { return a->id < b->id; });
    bool reported = false;  // one stderr line per malformed change
    for (const SubPtr &sub : subs) {
        if (!sub->active.load(std::memory_order_acquire) || !sub->confirmed)
            continue;
        if (!sub->is_field()) {
            deliver_record(*sub, c, &reported);
            continue;
        }
        if (c.seq != 0 && c.seq < sub->confirm_seq)
            continue;
        if (c.changed_known) {
            bool listed = false;
            for (const FieldTarget &t : sub->targets) {
                listed = listed || std::binary_search(c.changed.begin(), c.changed.end(), t.field);
            }
            if (!listed)
                continue;
        }
        std::vector<bool> hit(sub->targets.size(), false);
        bool any = false;
        for (size_t i = 0; i < sub->targets.size(); ++i) {
            FieldTarget &t = sub->targets[i];
            const std::string *v = c.record != nullptr ? find_field(*c.record, t.name) : nullptr;
            if (same(t.last, v))
                continue;
            t.last = v != nullptr ? Value(*v) : Value();
            hit[i] = any = true;
        }
        if (any)
            deliver_fields(*sub, c.key, c.record.get(), hit, &reported);
    }
}

void Client::deliver_record(Sub &sub, const Change &c, bool *reported) {
    if (c.record == nullptr) {
        call(sub.cb, sub.priv, QZ_MOM_CMD_DELETED, nullptr);
        return;
    }
    push(sub.cb, sub.priv, sub, c.db, c.key, c.record.get(), reported);
}

void Client::deliver_fields(Sub &sub, const std::string &key, const Record *rec,
                            const std::vector<bool> &hit, bool *reported) {
    // Each (callback, argument) of a changed field once, in listed order.
    for (size_t i = 0; i < sub.targets.size(); ++i) {
        if (!hit[i])
            continue;
        const FieldTarget &t = sub.targets[i];
        bool seen = false;
        for (size_t j = 0; j < i && !seen; ++j) {
            seen = hit[j] && sub.targets[j].cb == t.cb && sub.targets[j].arg == t.arg;
        }
        if (seen)
            continue;
        if (rec == nullptr) {
            call(t.cb, t.arg, QZ_MOM_CMD_DELETED, nullptr);
            continue;
        }
        if (!push(t.cb, t.arg, sub, sub.db, key, rec, reported))
            return;
    }
}

bool Client::push(qz_mom_record_cb cb, void *arg, const Sub &sub, int32_t db,
                  const std::string &key, const Record *rec, bool *reported) {
    DecodeError err;
    qz_mom_hash_res_t *res = make_result(sub.desc, key, rec, &err);
    if (res == nullptr) {
        report("out of memory: a change of \"%s\" was not delivered", key.c_str());
        return false;
    }
    if (res->error_code != 0) {
        if (!*reported)
            report_skipped("push", db, key, err);
        *reported = true;
        free_result(res);
        return false;
    }
    note_ignored(db, key, err);
    call(cb, arg, sub.keyed ? QZ_MOM_CMD_CHANGED : QZ_MOM_CMD_RECORD, res);
    return true;
}

void Client::call(qz_mom_record_cb cb, void *arg, int32_t cmd, qz_mom_hash_res_t *res) {
    // On the heap, so that a callback keeping the message shows under ASan.
    auto *pmsg = static_cast<qz_mom_pmsg_t *>(calloc(1, sizeof(qz_mom_pmsg_t)));
    if (pmsg == nullptr) {
        report("out of memory: an event (cmd %d) was not delivered", cmd);
        free_result(res);
        return;
    }
    pmsg->cmd = cmd;
    pmsg->result = res;
    cb(this, pmsg, arg);
    free(pmsg);
    free_result(res);
}

void Client::note_ignored(int32_t db, std::string_view key, const DecodeError &err) {
    if (err.ignored.empty())
        return;
    {
        std::lock_guard<std::mutex> lk(ignored_mu_);
        if (!ignored_.emplace(db, std::string(key)).second)
            return;
    }
    report("record \"%.*s\" in db %d holds hash fields its type lacks (%s): ignored",
           static_cast<int>(key.size()), key.data(), db, err.ignored.c_str());
}

}  // namespace qzmom
