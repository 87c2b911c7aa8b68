#include "client.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <future>

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

Value value_of(const Record *rec, std::string_view name) {
    const std::string *v = rec != nullptr ? find_field(*rec, name) : nullptr;
    return v != nullptr ? Value(*v) : Value();
}

}  // namespace

Client *Client::create(const char *uri, std::string *why, int32_t *code) {
    const char *u = uri;
    if (u == nullptr)
        u = getenv("QZ_MOM_URI");
    if (u == nullptr || *u == '\0')
        u = "mem:";
    std::unique_ptr<Client> c(new Client);
    c->uri_ = u;
    c->store_ = open_store(u, c.get(), why, code);
    if (c->store_ == nullptr)
        return nullptr;
    if (c->store_->serves()) {
        if (!c->wake_fd_.open()) {
            *why = "eventfd failed";
            *code = QZ_MOM_E_NOMEM;
            return nullptr;
        }
    }
    c->thread_ = std::thread([p = c.get()] { p->run(); });
    return c.release();
}

Client::~Client() {
    if (store_ != nullptr)
        store_->close();  // no on_change from here on
    {
        std::lock_guard<std::mutex> lk(q_mu_);
        stop_ = true;
    }
    wake();
    if (thread_.joinable())
        thread_.join();
    // Only now: a callback still running above may call the bus with this handle.
    magic_ = 0;
}

void Client::wake() {
    if (!wake_fd_) {
        q_cv_.notify_one();
        return;
    }
    wake_fd_.signal();
}

void Client::run() {
    thread_id_.store(std::this_thread::get_id(), std::memory_order_relaxed);
    std::unique_lock<std::mutex> lk(q_mu_);
    for (;;) {
        if (!wake_fd_) {
            q_cv_.wait(lk, [this] { return stop_ || !queue_.empty(); });
        } else {
            while (!stop_ && queue_.empty()) {
                waiting_ = true;
                lk.unlock();
                store_->serve(wake_fd_.fd());
                lk.lock();
                waiting_ = false;
            }
        }
        if (stop_)
            return;
        Item item = std::move(queue_.front());
        queue_.pop_front();
        lk.unlock();
        try {
            if (item.change != nullptr) {
                deliver_change(*item.change);
            } else {
                item.task();
            }
        } catch (const std::exception &e) {
            report("delivery failed: %s", e.what());
        } catch (...) {
            report("delivery failed");
        }
        item = Item{};  // release outside the lock
        lk.lock();
    }
}

void Client::post(Item item) {
    bool idle = false;
    {
        std::lock_guard<std::mutex> lk(q_mu_);
        queue_.push_back(std::move(item));
        idle = waiting_;
    }
    // From the delivery thread (a store serving it) nothing needs waking.
    if (!wake_fd_ || (idle && !on_delivery_thread()))
        wake();
}

void Client::on_change(ChangePtr change) {
    try {
        post(Item{std::move(change), {}});
    } catch (const std::exception &) {
        report("out of memory: a change was not queued");
    }
}

void Client::on_connection_lost(const std::string &why) {
    {
        std::lock_guard<std::mutex> lk(cbs_mu_);
        if (conn_cb_ == nullptr) {
            report(
                "connection to %s lost (%s); reconnecting, calls fail with QZ_MOM_E_CONN "
                "meanwhile",
                uri_.c_str(), why.c_str());
        }
    }
    // A subscription made after this point was made on the new connection.
    uint64_t below = 0;
    {
        std::lock_guard<std::mutex> lk(subs_mu_);
        below = next_sub_;
    }
    post(Item{nullptr, [this, below, why] {
                  drop_subs(below);
                  tell_conn(0, why);
              }});
}

void Client::on_reconnected() {
    {
        std::lock_guard<std::mutex> lk(cbs_mu_);
        if (conn_cb_ == nullptr)
            report("connection to %s is back", uri_.c_str());
    }
    post(Item{nullptr, [this] {
                  tell_conn(1, "");
                  run_reconnect_cbs();
              }});
}

bool Client::tell_conn(int32_t up, const std::string &why) {
    qz_mom_conn_cb cb = nullptr;
    void *user = nullptr;
    {
        std::lock_guard<std::mutex> lk(cbs_mu_);
        cb = conn_cb_;
        user = conn_user_;
    }
    if (cb == nullptr)
        return false;
    cb(this, up, why.c_str(), user);
    return true;
}

void Client::set_conn_cb(qz_mom_conn_cb cb, void *user) {
    std::lock_guard<std::mutex> lk(cbs_mu_);
    conn_cb_ = cb;
    conn_user_ = user;
}

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

int32_t Client::subscribe(int32_t db, const ProtobufCMessage *pattern, qz_mom_record_cb cb,
                          void *priv) {
    auto sub = std::make_shared<Sub>();
    bool is_pattern = false;
    int32_t rc = encode_key(pattern, sub->key, &is_pattern);
    if (rc != 0)
        return rc;
    sub->db = db;
    sub->desc = pattern->descriptor;
    sub->keyed = index_field(sub->desc) != nullptr;
    sub->whole_type = is_pattern;
    if (is_pattern)
        sub->key.assign(sub->desc->name);
    sub->cb = cb;
    sub->priv = priv;
    return add_sub(sub);
}

int32_t Client::subscribe_field(int32_t db, const ProtobufCMessage *key, uint32_t n,
                                const int32_t *fields, qz_mom_record_cb *cbs, void **args) {
    auto sub = std::make_shared<Sub>();
    int32_t rc = encode_key(key, sub->key, nullptr);
    if (rc != 0)
        return rc;
    sub->db = db;
    sub->desc = key->descriptor;
    const ProtobufCFieldDescriptor *idx = index_field(sub->desc);
    sub->keyed = idx != nullptr;
    for (uint32_t i = 0; i < n; ++i) {
        const ProtobufCFieldDescriptor *fd =
            protobuf_c_message_descriptor_get_field(sub->desc, fields[i]);
        if (fd == nullptr || fd == idx || cbs[i] == nullptr)
            return QZ_MOM_E_ARG;
        FieldTarget t;
        t.field = fields[i];
        t.name = field_name(fields[i]);
        t.cb = cbs[i];
        t.arg = args != nullptr ? args[i] : nullptr;
        sub->targets.push_back(std::move(t));
    }
    return add_sub(sub);
}

int32_t Client::add_sub(const SubPtr &sub) {
    {
        // Held across watch() so that a concurrent drop_subs() sees either
        // nothing of this subscription or all of it.
        std::lock_guard<std::mutex> lk(subs_mu_);
        const WatchSpec spec{sub->db, sub->key, sub->whole_type};
        // Only field subscriptions: the read behind their 29 catches a
        // change made before they were in place.
        sub->deferred = sub->is_field() && on_delivery_thread() && renewing_;
        int32_t rc = sub->deferred ? store_->watch_deferred(spec, &sub->watch_id)
                                   : store_->watch(spec, &sub->watch_id);
        if (rc != 0)
            return rc;
        sub->id = next_sub_++;
        bool fresh = false;
        for (FieldTarget &t : sub->targets) {
            auto it = remembered_.find(RememberKey{sub->db, sub->key, t.field, t.cb, t.arg});
            if (it != remembered_.end()) {
                t.base = std::move(it->second);
                remembered_.erase(it);
            } else {
                fresh = true;
            }
        }
        // Read after the watch: a later change is queued for us. A renewal
        // starts from what it remembered and needs no read.
        Snapshot now;
        if (fresh && store_->get(sub->db, sub->key, &now) != 0)
            now.reset();
        for (FieldTarget &t : sub->targets) {
            if (!t.base.has_value())
                t.base = value_of(now.get(), t.name);
        }
        (sub->whole_type ? by_type_ : by_key_).emplace(sub->key, sub);
    }
    if (sub->deferred) {
        renewed_.push_back(sub);
        return 0;
    }
    post(Item{nullptr, [this, sub] { confirm(sub); }});
    return 0;
}

void Client::confirm_renewed(const std::vector<SubPtr> &subs) {
    // Wait for the next one in place, then confirm it together with those
    // whose confirmations came with its own: each 29 goes out as soon as
    // its subscription is in place, the records behind them read in one
    // round trip per group.
    std::vector<SubPtr> group;
    std::vector<Store::OrderedRead> reads;
    for (size_t next = 0; next < subs.size();) {
        const SubPtr &first = subs[next++];
        if (!first->active.load(std::memory_order_acquire) ||
            store_->settle(first->watch_id) != 0) {
            continue;  // dropped with its connection; renewed by the next reconnection
        }
        group.assign(1, first);
        for (; next < subs.size() && store_->in_place(subs[next]->watch_id); ++next)
            group.push_back(subs[next]);
        reads.clear();
        for (const SubPtr &sub : group) {
            if (sub->is_field())
                reads.push_back(Store::OrderedRead{sub->db, sub->key, nullptr, 0, 0});
        }
        store_->get_ordered_many(reads);
        size_t r = 0;
        for (const SubPtr &sub : group)
            confirm(sub, sub->is_field() ? &reads[r++] : nullptr);
    }
}

void Client::confirm(const SubPtr &sub, const Store::OrderedRead *read) {
    if (!sub->active.load(std::memory_order_acquire))
        return;
    Snapshot now;
    std::vector<bool> hit;
    bool any = false;
    if (sub->is_field()) {
        // Changes queued before the 29 are not delivered; what they changed
        // since the base is, from the store as it is now. A change after
        // this read is queued behind the 29 and compared with `last`; one
        // read before it but queued behind it is stale and skipped.
        if (read != nullptr) {
            sub->confirm_seq = read->seq;
            if (read->rc == 0)
                now = read->record;
        } else if (store_->get_ordered(sub->db, sub->key, &now, &sub->confirm_seq) != 0) {
            now.reset();
        }
        hit.assign(sub->targets.size(), false);
        for (size_t i = 0; i < sub->targets.size(); ++i) {
            FieldTarget &t = sub->targets[i];
            t.last = value_of(now.get(), t.name);
            if (t.base.has_value()) {
                hit[i] = *t.base != t.last;
                any = any || hit[i];
                t.base.reset();
            }
        }
    }
    sub->confirmed = true;
    if (!sub->is_field()) {
        call(sub->cb, sub->priv, QZ_MOM_CMD_SUBSCRIBED, nullptr);
        return;
    }
    for (size_t i = 0; i < sub->targets.size(); ++i) {
        const FieldTarget &t = sub->targets[i];
        bool seen = false;
        for (size_t j = 0; j < i && !seen; ++j) {
            seen = sub->targets[j].cb == t.cb && sub->targets[j].arg == t.arg;
        }
        if (!seen)
            call(t.cb, t.arg, QZ_MOM_CMD_SUBSCRIBED, nullptr);
    }
    if (any) {
        bool reported = false;
        deliver_fields(*sub, sub->key, now.get(), hit, &reported);
    }
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
    DecodeError err;
    qz_mom_hash_res_t *res = make_result(sub.desc, c.key, c.record.get(), &err);
    if (res == nullptr) {
        report("out of memory: a change of \"%s\" was not delivered", c.key.c_str());
        return;
    }
    if (res->error_code != 0) {
        if (!*reported)
            report_skipped("push", c.db, c.key, err);
        *reported = true;
        free_result(res);
        return;
    }
    note_ignored(c.db, c.key, err);
    call(sub.cb, sub.priv, sub.keyed ? QZ_MOM_CMD_CHANGED : QZ_MOM_CMD_RECORD, res);
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
        DecodeError err;
        qz_mom_hash_res_t *res = make_result(sub.desc, key, rec, &err);
        if (res == nullptr) {
            report("out of memory: a change of \"%s\" was not delivered", key.c_str());
            return;
        }
        if (res->error_code != 0) {
            if (!*reported)
                report_skipped("push", sub.db, key, err);
            *reported = true;
            free_result(res);
            return;
        }
        note_ignored(sub.db, key, err);
        call(t.cb, t.arg, sub.keyed ? QZ_MOM_CMD_CHANGED : QZ_MOM_CMD_RECORD, res);
    }
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

void Client::drop_subs(uint64_t below) {
    std::lock_guard<std::mutex> lk(subs_mu_);
    for (auto *map : {&by_key_, &by_type_}) {
        for (auto it = map->begin(); it != map->end();) {
            Sub *sub = it->second.get();
            if (sub->id >= below) {
                ++it;
                continue;
            }
            sub->active.store(false, std::memory_order_release);
            store_->unwatch(sub->watch_id);
            for (FieldTarget &t : sub->targets) {
                RememberKey rk{sub->db, sub->key, t.field, t.cb, t.arg};
                if (sub->confirmed) {
                    remembered_.emplace(std::move(rk), t.last);
                } else if (t.base.has_value()) {  // dropped before its 29
                    remembered_.emplace(std::move(rk), *t.base);
                }
            }
            it = map->erase(it);
        }
    }
}

void Client::run_reconnect_cbs() {
    std::vector<ReconnectCb> cbs;
    {
        std::lock_guard<std::mutex> lk(cbs_mu_);
        cbs = reconnect_cbs_;
    }
    renewing_ = true;
    try {
        for (const ReconnectCb &r : cbs)
            r.cb(this, r.db, 1, r.user);
    } catch (...) {
        renewing_ = false;
        throw;
    }
    renewing_ = false;
    if (!renewed_.empty()) {
        post(Item{nullptr, [this, subs = std::move(renewed_)] { confirm_renewed(subs); }});
        renewed_.clear();
    }
}

int32_t Client::add_reconnect_cb(int32_t db, qz_mom_reconnect_cb cb, void *user) {
    std::lock_guard<std::mutex> lk(cbs_mu_);
    for (const ReconnectCb &r : reconnect_cbs_) {
        if (r.cb == cb && r.user == user)
            return 0;  // kept once per pair
    }
    reconnect_cbs_.push_back(ReconnectCb{cb, user, db});
    return 0;
}

int32_t Client::simulate_reconnect() {
    static const std::string kWhy = "simulated";
    if (on_delivery_thread()) {
        drop_subs(UINT64_MAX);
        tell_conn(0, kWhy);
        tell_conn(1, "");
        run_reconnect_cbs();
        return 0;
    }
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> f = done->get_future();
    post(Item{nullptr, [this, done] {
                  try {
                      drop_subs(UINT64_MAX);
                      tell_conn(0, kWhy);
                      tell_conn(1, "");
                      run_reconnect_cbs();
                  } catch (...) {
                      done->set_value();
                      throw;
                  }
                  done->set_value();
              }});
    f.wait();
    return 0;
}

void Client::drain() {
    if (on_delivery_thread())
        return;
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> f = done->get_future();
    post(Item{nullptr, [done] { done->set_value(); }});
    f.wait();
}

uint32_t Client::subscription_count() {
    std::lock_guard<std::mutex> lk(subs_mu_);
    return static_cast<uint32_t>(by_key_.size() + by_type_.size());
}

}  // namespace qzmom
