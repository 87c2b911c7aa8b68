#include "mem_store.h"

#include <algorithm>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "codec.h"

namespace qzmom {
namespace {

template <class V>
using StrMap = std::unordered_map<std::string, V, StrHash, std::equal_to<>>;

struct Watcher {
    uint64_t id;
    StoreListener *listener;
};

struct Db {
    StrMap<Snapshot> records;
    StrMap<std::set<std::string, std::less<>>> keys_by_type;  // sorted keys, for scans
    StrMap<std::vector<Watcher>> key_watches;
    StrMap<std::vector<Watcher>> type_watches;  // keyed types, whole-type watches
};

struct WatchRef {
    WatchSpec spec;
    StoreListener *listener;
};

// One named store instance. A single mutex guards everything; listeners are
// called with it held and only queue (StoreListener's contract), so the
// order of notifications is the order of the changes.
class MemData {
  public:
    std::mutex mu;
    std::unordered_map<int32_t, Db> dbs;
    std::unordered_map<uint64_t, WatchRef> watches;
    uint64_t next_watch = 1;

    // REQUIRES: mu held.
    void notify(Db &d, int32_t db, std::string_view key, Snapshot rec,
                std::vector<int32_t> &&changed) {
        std::vector<StoreListener *> to;  // each listener once, however many watches
        auto add = [&](const std::vector<Watcher> &ws) {
            for (const Watcher &w : ws) {
                if (std::find(to.begin(), to.end(), w.listener) == to.end()) {
                    to.push_back(w.listener);
                }
            }
        };
        if (auto it = d.key_watches.find(key); it != d.key_watches.end())
            add(it->second);
        if (key.find('|') != std::string_view::npos) {
            if (auto it = d.type_watches.find(key_type(key)); it != d.type_watches.end()) {
                add(it->second);
            }
        }
        if (to.empty())
            return;
        auto c = std::make_shared<Change>();
        c->db = db;
        c->key.assign(key);
        c->record = std::move(rec);
        c->changed_known = true;
        c->changed = std::move(changed);
        ChangePtr cp = std::move(c);
        for (StoreListener *l : to)
            l->on_change(cp);
    }

    // REQUIRES: mu held.
    void unwatch_locked(uint64_t id) {
        auto it = watches.find(id);
        if (it == watches.end())
            return;
        const WatchSpec &spec = it->second.spec;
        Db &d = dbs[spec.db];
        auto &map = spec.whole_type ? d.type_watches : d.key_watches;
        if (auto w = map.find(spec.key); w != map.end()) {
            auto &v = w->second;
            v.erase(
                std::remove_if(v.begin(), v.end(), [id](const Watcher &x) { return x.id == id; }),
                v.end());
            if (v.empty())
                map.erase(w);
        }
        watches.erase(it);
    }
};

void note_changed(std::vector<int32_t> &changed, std::string_view name) {
    int32_t num = 0;
    if (parse_field_name(name, &num))
        changed.push_back(num);
}

class MemStore final : public Store {
  public:
    MemStore(std::shared_ptr<MemData> data, StoreListener *listener)
        : data_(std::move(data)), listener_(listener) {}
    MemStore(const MemStore &) = delete;
    MemStore &operator=(const MemStore &) = delete;
    ~MemStore() override { close(); }

    int32_t connect(int32_t) override { return 0; }

    int32_t get(int32_t db, std::string_view key, Snapshot *out) override {
        std::lock_guard<std::mutex> lk(data_->mu);
        out->reset();
        auto d = data_->dbs.find(db);
        if (d == data_->dbs.end())
            return 0;
        auto it = d->second.records.find(key);
        if (it != d->second.records.end())
            *out = it->second;
        return 0;
    }

    int32_t scan(int32_t db, std::string_view type, bool keyed, std::vector<Entry> *out) override {
        out->clear();
        std::lock_guard<std::mutex> lk(data_->mu);
        auto d = data_->dbs.find(db);
        if (d == data_->dbs.end())
            return 0;
        auto t = d->second.keys_by_type.find(type);
        if (t == d->second.keys_by_type.end())
            return 0;
        for (const std::string &key : t->second) {
            // "<type>" is an unkeyed record; "<type>|..." a keyed one.
            if ((key.size() > type.size()) != keyed)
                continue;
            out->push_back(Entry{key, d->second.records.find(key)->second});
        }
        return 0;
    }

    int32_t write(int32_t db, std::string_view key, const FieldWrite *writes,
                  size_t count) override {
        std::lock_guard<std::mutex> lk(data_->mu);
        apply(db, key, writes, count, false);
        return 0;
    }

    int32_t write_batch(int32_t db, const std::vector<RecordWrite> &records) override {
        std::lock_guard<std::mutex> lk(data_->mu);
        for (const RecordWrite &r : records)
            apply(db, r.key, r.writes.data(), r.writes.size(), r.replace);
        return 0;
    }

    int32_t remove(int32_t db, std::string_view key) override {
        std::lock_guard<std::mutex> lk(data_->mu);
        auto dit = data_->dbs.find(db);
        if (dit == data_->dbs.end())
            return 0;
        Db &d = dit->second;
        auto it = d.records.find(key);
        if (it == d.records.end())
            return 0;
        std::vector<int32_t> changed;
        for (const Field &f : *it->second)
            note_changed(changed, f.name);
        std::sort(changed.begin(), changed.end());
        erase(d, it);
        data_->notify(d, db, key, nullptr, std::move(changed));
        return 0;
    }

    int32_t watch(const WatchSpec &spec, uint64_t *id) override {
        std::lock_guard<std::mutex> lk(data_->mu);
        *id = data_->next_watch++;
        Db &d = data_->dbs[spec.db];
        auto &map = spec.whole_type ? d.type_watches : d.key_watches;
        map[spec.key].push_back(Watcher{*id, listener_});
        data_->watches.emplace(*id, WatchRef{spec, listener_});
        return 0;
    }

    void unwatch(uint64_t id) override {
        std::lock_guard<std::mutex> lk(data_->mu);
        auto it = data_->watches.find(id);
        if (it != data_->watches.end() && it->second.listener == listener_) {
            data_->unwatch_locked(id);
        }
    }

    void close() override {
        std::lock_guard<std::mutex> lk(data_->mu);
        std::vector<uint64_t> mine;
        for (const auto &[id, ref] : data_->watches) {
            if (ref.listener == listener_)
                mine.push_back(id);
        }
        for (uint64_t id : mine)
            data_->unwatch_locked(id);
    }

  private:
    // REQUIRES: data_->mu held.
    void apply(int32_t db, std::string_view key, const FieldWrite *writes, size_t count,
               bool replace) {
        Db &d = data_->dbs[db];
        auto it = d.records.find(key);
        auto rec = it != d.records.end() && !replace ? std::make_shared<Record>(*it->second)
                                                     : std::make_shared<Record>();
        std::vector<int32_t> changed;
        if (replace && it != d.records.end()) {
            // What the new record holds differently is noted below.
            for (const Field &f : *it->second) {
                const FieldWrite *w = nullptr;
                for (size_t i = 0; i < count && w == nullptr; ++i) {
                    if (writes[i].name == f.name && !writes[i].remove)
                        w = &writes[i];
                }
                if (w == nullptr)
                    note_changed(changed, f.name);
                else
                    rec->push_back(f);
            }
        }
        for (size_t i = 0; i < count; ++i) {
            const FieldWrite &w = writes[i];
            auto f = std::find_if(rec->begin(), rec->end(),
                                  [&](const Field &x) { return x.name == w.name; });
            if (w.remove) {
                if (f == rec->end())
                    continue;
                rec->erase(f);
            } else if (f == rec->end()) {
                rec->push_back(Field{std::string(w.name), std::string(w.value)});
            } else if (f->value != w.value) {
                f->value.assign(w.value);
            } else {
                continue;
            }
            note_changed(changed, w.name);
        }
        std::sort(changed.begin(), changed.end());
        changed.erase(std::unique(changed.begin(), changed.end()), changed.end());
        if (rec->empty()) {  // a hash without fields does not exist
            if (it == d.records.end())
                return;
            erase(d, it);
            data_->notify(d, db, key, nullptr, std::move(changed));
            return;
        }
        Snapshot snap = std::move(rec);
        if (it == d.records.end()) {
            std::string k(key);
            d.keys_by_type[std::string(key_type(key))].insert(k);
            d.records.emplace(std::move(k), snap);
        } else {
            it->second = snap;
        }
        data_->notify(d, db, key, std::move(snap), std::move(changed));
    }

    // REQUIRES: data_->mu held.
    static void erase(Db &d, StrMap<Snapshot>::iterator it) {
        auto t = d.keys_by_type.find(key_type(it->first));
        if (t != d.keys_by_type.end()) {
            t->second.erase(it->first);
            if (t->second.empty())
                d.keys_by_type.erase(t);
        }
        d.records.erase(it);
    }

    std::shared_ptr<MemData> data_;
    StoreListener *listener_;
};

// Named instances. Leaked on purpose: a handle may outlive static destruction.
struct Registry {
    std::mutex mu;
    std::map<std::string, std::weak_ptr<MemData>, std::less<>> named;
};

std::shared_ptr<MemData> instance(std::string_view name) {
    static Registry *reg = new Registry;
    std::lock_guard<std::mutex> lk(reg->mu);
    for (auto it = reg->named.begin(); it != reg->named.end();) {
        it = it->second.expired() ? reg->named.erase(it) : std::next(it);
    }
    auto it = reg->named.find(name);
    if (it != reg->named.end()) {
        if (auto data = it->second.lock())
            return data;
        reg->named.erase(it);  // its last connection closed just now
    }
    auto data = std::make_shared<MemData>();
    reg->named.emplace(std::string(name), data);
    return data;
}

}  // namespace

std::unique_ptr<Store> open_mem_store(std::string_view name, StoreListener *listener) {
    return std::make_unique<MemStore>(instance(name), listener);
}

}  // namespace qzmom
