// Subscriptions: making them, their 29 (one at a time, or renewals settled
// together), the read that catches up with the store after it, and dropping
// them with a lost connection.
#include <algorithm>

#include "client.h"
#include "codec.h"

namespace qzmom {
namespace {

Value value_of(const Record *rec, std::string_view name) {
    const std::string *v = rec != nullptr ? find_field(*rec, name) : nullptr;
    return v != nullptr ? Value(*v) : Value();
}

}  // namespace

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

bool Client::take_remembered(const Sub &sub, FieldTarget &t, std::vector<Remembered> &kept) {
    for (Remembered &r : kept) {
        if (r.db == sub.db && r.field == t.field && r.cb == t.cb && r.arg == t.arg) {
            t.base = std::move(r.value);
            if (&r != &kept.back())
                r = std::move(kept.back());
            kept.pop_back();
            return true;
        }
    }
    return false;
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
        auto kept = sub->targets.empty() ? remembered_.end() : remembered_.find(sub->key);
        for (FieldTarget &t : sub->targets) {
            if (kept == remembered_.end() || !take_remembered(*sub, t, kept->second))
                fresh = true;
        }
        if (kept != remembered_.end() && kept->second.empty())
            remembered_.erase(kept);
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
    // Each 29 goes out as soon as its subscription is in place: wait for the
    // next one, announce it with those whose confirmations came with it, and
    // so on. Only then are their records read, in one round trip, and what
    // changed while they were away delivered.
    std::vector<SubPtr> announced;
    announced.reserve(subs.size());
    for (size_t next = 0; next < subs.size();) {
        const SubPtr &first = subs[next++];
        if (!first->active.load(std::memory_order_acquire) ||
            store_->settle(first->watch_id) != 0) {
            continue;  // dropped with its connection; renewed by the next reconnection
        }
        if (announce(*first))
            announced.push_back(first);
        for (; next < subs.size() && store_->in_place(subs[next]->watch_id); ++next) {
            if (announce(*subs[next]))
                announced.push_back(subs[next]);
        }
    }
    // Only field subscriptions are renewed this way (add_sub).
    std::vector<Store::OrderedRead> reads;
    reads.reserve(announced.size());
    for (const SubPtr &sub : announced)
        reads.push_back(Store::OrderedRead{sub->db, sub->key, nullptr, 0, 0});
    store_->get_ordered_many(reads);
    for (size_t i = 0; i < announced.size(); ++i)
        catch_up(*announced[i], reads[i]);
}

void Client::confirm(const SubPtr &sub) {
    if (!announce(*sub) || !sub->is_field())
        return;
    Store::OrderedRead read{sub->db, sub->key, nullptr, 0, 0};
    read.rc = store_->get_ordered(sub->db, sub->key, &read.record, &read.seq);
    catch_up(*sub, read);
}

bool Client::announce(Sub &sub) {
    if (!sub.active.load(std::memory_order_acquire))
        return false;
    if (!sub.is_field()) {
        sub.confirmed = true;
        call(sub.cb, sub.priv, QZ_MOM_CMD_SUBSCRIBED, nullptr);
        return true;
    }
    for (size_t i = 0; i < sub.targets.size(); ++i) {
        const FieldTarget &t = sub.targets[i];
        bool seen = false;
        for (size_t j = 0; j < i && !seen; ++j) {
            seen = sub.targets[j].cb == t.cb && sub.targets[j].arg == t.arg;
        }
        if (!seen)
            call(t.cb, t.arg, QZ_MOM_CMD_SUBSCRIBED, nullptr);
    }
    return true;
}

void Client::catch_up(Sub &sub, const Store::OrderedRead &read) {
    // Unread because the connection went: the base stays, for the renewal
    // that follows to compare from.
    if (!sub.active.load(std::memory_order_acquire) || read.rc == QZ_MOM_E_CONN)
        return;
    // Changes queued before this read are not delivered; what they changed
    // since the base is, from the store as it is now. A change after the
    // read is queued behind it and compared with `last`; one read before it
    // but queued behind it is stale and skipped.
    const Record *now = read.rc == 0 ? read.record.get() : nullptr;
    sub.confirm_seq = read.seq;
    std::vector<bool> hit(sub.targets.size(), false);
    bool any = false;
    for (size_t i = 0; i < sub.targets.size(); ++i) {
        FieldTarget &t = sub.targets[i];
        t.last = value_of(now, t.name);
        if (t.base.has_value()) {
            hit[i] = *t.base != t.last;
            any = any || hit[i];
            t.base.reset();
        }
    }
    sub.confirmed = true;
    if (any) {
        bool reported = false;
        deliver_fields(sub, sub.key, now, hit, &reported);
    }
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
                if (!sub->confirmed && !t.base.has_value())
                    continue;
                // Not caught up yet: it still starts from its base.
                remembered_[sub->key].push_back(
                    Remembered{sub->db, t.field, t.cb, t.arg, sub->confirmed ? t.last : *t.base});
            }
            it = map->erase(it);
        }
    }
}

uint32_t Client::subscription_count() {
    std::lock_guard<std::mutex> lk(subs_mu_);
    return static_cast<uint32_t>(by_key_.size() + by_type_.size());
}

}  // namespace qzmom
