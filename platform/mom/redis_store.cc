#include "redis_store.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "qz_mom_client.h"
#include "redis_names.h"
#include "redis_reply.h"
#include "report.h"

namespace qzmom {
namespace {

using redis::Conn;
using redis::is_error;
using redis::ReplyPtr;

constexpr int kFirstRetryMs = 10;
constexpr int kMaxRetryMs = 1000;
constexpr int32_t kLibraryDb = 3;

// Keyspace notifications on, keeping the flags already set. False and *why
// when the server fails or refuses (*refused: it answered with an error).
bool enable_notifications(Conn &c, std::string *why, bool *refused) {
    ReplyPtr r;
    if (!c.run({"CONFIG", "GET", "notify-keyspace-events"}, &r, why))
        return false;
    std::string have;
    if (!redis::notify_flags(r.get(), &have)) {
        *refused = true;
        *why = is_error(r.get()) ? redis::refusal("CONFIG GET notify-keyspace-events", r.get())
                                 : "unexpected reply to CONFIG GET notify-keyspace-events";
        return false;
    }
    std::string missing = redis::missing_flags(have);
    if (missing.empty())
        return true;
    const std::string want = have + missing;
    if (!c.run({"CONFIG", "SET", "notify-keyspace-events", want}, &r, why))
        return false;
    if (is_error(r.get())) {
        *refused = true;
        *why = redis::refusal("CONFIG SET notify-keyspace-events " + want, r.get());
        return false;
    }
    return true;
}

bool hgetall(Conn &c, std::string_view key, Snapshot *out, int32_t *rc, std::string *why) {
    ReplyPtr r;
    if (!c.run({"HGETALL", key}, &r, why))
        return false;
    std::string_view err;
    *rc = redis::to_snapshot(r.get(), out, &err);
    return true;
}

}  // namespace

RedisStore::RedisStore(redis::Endpoint ep, StoreListener *listener)
    : ep_(std::move(ep)),
      listener_(listener),
      sub_(listener, [this](uint64_t gen, const std::string &why) { lost(gen, why); }),
      retry_ms_(kFirstRetryMs) {}

RedisStore::~RedisStore() {
    close();
}

bool RedisStore::start(std::string *why, int32_t *code) {
    if (!wake_.open()) {
        *why = "eventfd failed";
        *code = QZ_MOM_E_NOMEM;
        return false;
    }
    Links links;
    bool refused = false;
    if (!open_links(&links, why, &refused)) {
        *code = refused ? QZ_MOM_E_REPLY : QZ_MOM_E_CONN;
        return false;
    }
    install(std::move(links));
    return true;
}

template <class F>
int32_t RedisStore::with_cmd(int32_t db, F &&f) {
    if (!up_.load(std::memory_order_acquire))
        return QZ_MOM_E_CONN;
    std::string why;
    uint64_t gen = 0;
    {
        std::lock_guard<std::mutex> lk(cmd_mu_);
        if (cmd_ == nullptr)
            return QZ_MOM_E_CONN;
        gen = cmd_gen_;
        bool refused = false;
        if (cmd_->select(db, &refused, &why)) {
            if (refused)
                return QZ_MOM_E_REPLY;
            int32_t rc = 0;
            if (f(*cmd_, &rc, &why))
                return rc;
        }
        cmd_.reset();
    }
    lost(gen, why);
    return QZ_MOM_E_CONN;
}

int32_t RedisStore::connect(int32_t db) {
    return with_cmd(db, [&](Conn &c, int32_t *rc, std::string *why) {
        ReplyPtr r;
        if (!c.run({"PING"}, &r, why))
            return false;
        *rc = is_error(r.get()) ? QZ_MOM_E_REPLY : 0;
        return true;
    });
}

int32_t RedisStore::get(int32_t db, std::string_view key, Snapshot *out) {
    out->reset();
    return with_cmd(
        db, [&](Conn &c, int32_t *rc, std::string *why) { return hgetall(c, key, out, rc, why); });
}

int32_t RedisStore::get_ordered(int32_t db, std::string_view key, Snapshot *out, uint64_t *seq) {
    if (!up_.load(std::memory_order_acquire)) {
        out->reset();
        *seq = 0;
        return QZ_MOM_E_CONN;
    }
    return sub_.get_ordered(db, key, out, seq);
}

void RedisStore::get_ordered_many(std::vector<OrderedRead> &reads) {
    if (!up_.load(std::memory_order_acquire)) {
        for (OrderedRead &r : reads) {
            r.record.reset();
            r.seq = 0;
            r.rc = QZ_MOM_E_CONN;
        }
        return;
    }
    sub_.get_ordered_many(reads);
}

int32_t RedisStore::scan(int32_t db, std::string_view type, bool keyed, std::vector<Entry> *out) {
    out->clear();
    if (!keyed) {
        Snapshot rec;
        int32_t rc = get(db, type, &rec);
        if (rc == 0 && rec != nullptr)
            out->push_back(Entry{std::string(type), std::move(rec)});
        return rc;
    }
    const std::string match = redis::type_pattern(type);
    return with_cmd(db, [&](Conn &c, int32_t *rc, std::string *why) {
        redis::ScanWalk walk;
        for (;;) {
            ReplyPtr r;
            if (!c.run({"SCAN", walk.cursor(), "MATCH", match, "COUNT", "1000"}, &r, why))
                return false;
            std::string_view err;
            const redis::ScanWalk::Step step = walk.take(r.get(), &err);
            if (step == redis::ScanWalk::Step::kFailed) {
                report("scan of \"%s\" in db %d failed: %.*s", match.c_str(), db,
                       static_cast<int>(err.size()), err.data());
                *rc = QZ_MOM_E_REPLY;
                return true;
            }
            if (step == redis::ScanWalk::Step::kDone)
                break;
        }
        std::vector<std::string> keys = walk.keys();
        for (const std::string &k : keys)
            c.queue({"HGETALL", k});
        std::vector<ReplyPtr> replies;
        if (!c.exchange(&replies, why))
            return false;
        for (size_t i = 0; i < keys.size(); ++i) {
            Snapshot rec;
            std::string_view err;
            if (redis::to_snapshot(replies[i].get(), &rec, &err) != 0) {
                report("skipped record \"%s\" in db %d (scan): %.*s", keys[i].c_str(), db,
                       static_cast<int>(err.size()), err.data());
                continue;
            }
            if (rec != nullptr)  // else deleted since the SCAN
                out->push_back(Entry{std::move(keys[i]), std::move(rec)});
        }
        *rc = 0;
        return true;
    });
}

int32_t RedisStore::write(int32_t db, std::string_view key, const FieldWrite *writes,
                          size_t count) {
    std::vector<std::string_view> set{"HSET", key}, del{"HDEL", key};
    for (size_t i = 0; i < count; ++i) {
        if (writes[i].remove) {
            del.push_back(writes[i].name);
        } else {
            set.push_back(writes[i].name);
            set.push_back(writes[i].value);
        }
    }
    const bool sets = set.size() > 2, dels = del.size() > 2;
    if (!sets && !dels)
        return 0;
    return with_cmd(db, [&](Conn &c, int32_t *rc, std::string *why) {
        if (sets && dels)  // one step, as the embedded store writes
            c.queue({"MULTI"});
        if (sets)
            c.queue(set);
        if (dels)
            c.queue(del);
        if (sets && dels)
            c.queue({"EXEC"});
        std::vector<ReplyPtr> replies;
        if (!c.exchange(&replies, why))
            return false;
        *rc = redis::write_status(replies, sets && dels);
        return true;
    });
}

int32_t RedisStore::write_batch(int32_t db, const std::vector<RecordWrite> &records) {
    if (records.empty())
        return 0;
    std::vector<std::string_view> args;
    return with_cmd(db, [&](Conn &c, int32_t *rc, std::string *why) {
        // One transaction, sent in one write: a reader sees all of it or none.
        c.queue({"MULTI"});
        size_t queued = 0;
        for (const RecordWrite &r : records) {
            if (r.replace) {
                c.queue({"DEL", r.key});
                ++queued;
            }
            for (const bool remove : {false, true}) {
                args.assign({remove ? "HDEL" : "HSET", r.key});
                for (const FieldWrite &w : r.writes) {
                    if (w.remove != remove)
                        continue;
                    args.push_back(w.name);
                    if (!remove)
                        args.push_back(w.value);
                }
                // HDEL after a DEL would only find the fields gone.
                if (args.size() > 2 && !(remove && r.replace)) {
                    c.queue(args);
                    ++queued;
                }
            }
        }
        c.queue({"EXEC"});
        std::vector<ReplyPtr> replies;
        if (!c.exchange(&replies, why))
            return false;
        *rc = redis::batch_status(replies, queued);
        return true;
    });
}

int32_t RedisStore::remove(int32_t db, std::string_view key) {
    return with_cmd(db, [&](Conn &c, int32_t *rc, std::string *why) {
        ReplyPtr r;
        if (!c.run({"DEL", key}, &r, why))
            return false;
        *rc = is_error(r.get()) ? QZ_MOM_E_REPLY : 0;
        return true;
    });
}

int32_t RedisStore::watch(const WatchSpec &spec, uint64_t *id) {
    return sub_.watch(spec, false, id);
}

int32_t RedisStore::watch_deferred(const WatchSpec &spec, uint64_t *id) {
    return sub_.watch(spec, true, id);
}

int32_t RedisStore::settle(uint64_t id) {
    return sub_.settle(id);
}

bool RedisStore::in_place(uint64_t id) {
    return sub_.in_place(id);
}

void RedisStore::unwatch(uint64_t id) {
    sub_.unwatch(id);
}

void RedisStore::close() {
    {
        std::lock_guard<std::mutex> lk(mu_);
        if (stop_)
            return;
        stop_ = true;
        ++gen_;
        up_.store(false, std::memory_order_release);
    }
    sub_.interrupt();  // wakes watch() waiters
    wake_.signal();
    std::lock_guard<std::mutex> serving(serve_mu_);  // serve() has returned
    sub_.detach();
    {
        std::lock_guard<std::mutex> lk(mu_);
        phase_ = Phase::kDown;
    }
    std::lock_guard<std::mutex> lk(cmd_mu_);
    cmd_.reset();
}

void RedisStore::serve(int wake_fd) {
    std::unique_lock<std::mutex> serving(serve_mu_);
    Phase phase;
    bool stopped = false;
    {
        std::lock_guard<std::mutex> lk(mu_);
        stopped = stop_;
        phase = phase_;
    }
    if (stopped) {
        serving.unlock();
        pollfd p{wake_fd, POLLIN, 0};
        poll(&p, 1, -1);
        qzplat::WakeFd::drain(wake_fd);
        return;
    }
    if (phase == Phase::kLost) {
        const std::string why = tear_down();
        serving.unlock();
        listener_->on_connection_lost(why);  // takes the client's lock: no store lock held
        return;
    }
    if (phase == Phase::kDown) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              retry_at_ - std::chrono::steady_clock::now())
                              .count();
        if (left <= 0) {
            try_reconnect();
            return;
        }
        pollfd fds[2] = {{wake_fd, POLLIN, 0}, {wake_.fd(), POLLIN, 0}};
        if (poll(fds, 2, static_cast<int>(left) + 1) > 0) {
            for (const pollfd &p : fds) {
                if (p.revents != 0)
                    qzplat::WakeFd::drain(p.fd);
            }
        }
        return;
    }
    sub_.serve_once(wake_fd, wake_.fd());
}

bool RedisStore::open_links(Links *l, std::string *why, bool *refused) {
    std::string cause;
    l->cmd = Conn::open(ep_, &cause);
    if (l->cmd != nullptr && !enable_notifications(*l->cmd, &cause, refused))
        l->cmd.reset();
    // The library's database up front; another is selected when a call names it.
    bool no_such_db = false;
    if (l->cmd != nullptr && !l->cmd->select(kLibraryDb, &no_such_db, &cause))
        l->cmd.reset();
    if (l->cmd != nullptr)
        l->push = Conn::open(ep_, &cause);
    if (l->push != nullptr && !l->push->select(kLibraryDb, &no_such_db, &cause))
        l->push.reset();
    if (l->push != nullptr)
        l->sub = Conn::open(ep_, &cause);
    if (l->sub == nullptr) {
        *why = *refused ? cause : "cannot connect (" + cause + ")";
        return false;
    }
    return true;
}

void RedisStore::install(Links l) {
    uint64_t gen = 0;
    {
        std::lock_guard<std::mutex> lk(mu_);
        gen = gen_;
    }
    {
        std::lock_guard<std::mutex> lk(cmd_mu_);
        cmd_ = std::move(l.cmd);
        cmd_gen_ = gen;
    }
    sub_.attach(std::move(l.sub), std::move(l.push), gen);
    {
        std::lock_guard<std::mutex> lk(mu_);
        phase_ = Phase::kUp;
    }
    up_.store(true, std::memory_order_release);
}

// Marks the connection of generation gen lost (once); the delivery thread
// tears down in serve().
void RedisStore::lost(uint64_t gen, const std::string &why) {
    {
        std::lock_guard<std::mutex> lk(mu_);
        if (gen != gen_ || phase_ != Phase::kUp)
            return;
        phase_ = Phase::kLost;
        lost_why_ = why;
        ++gen_;
        up_.store(false, std::memory_order_release);
    }
    sub_.interrupt();
    wake_.signal();
}

// REQUIRES: serve_mu_ held. Drops every connection and watch; returns why
// the connection was lost.
std::string RedisStore::tear_down() {
    std::string why;
    {
        std::lock_guard<std::mutex> lk(mu_);
        why = lost_why_;
        phase_ = Phase::kDown;
    }
    sub_.detach();
    {
        std::lock_guard<std::mutex> lk(cmd_mu_);
        cmd_.reset();
    }
    retry_ms_ = kFirstRetryMs;
    retry_at_ = std::chrono::steady_clock::now() + std::chrono::milliseconds(retry_ms_);
    refusal_told_ = false;
    return why;
}

// REQUIRES: serve_mu_ held.
void RedisStore::try_reconnect() {
    Links links;
    std::string why;
    bool refused = false;
    if (open_links(&links, &why, &refused)) {
        install(std::move(links));
        listener_->on_reconnected();
        return;
    }
    if (refused && !refusal_told_) {  // it will not get better by itself: say so once
        report("%s answers but refuses this client: %s", ep_.uri.c_str(), why.c_str());
        refusal_told_ = true;
    }
    retry_ms_ = std::min(retry_ms_ * 2, kMaxRetryMs);
    retry_at_ = std::chrono::steady_clock::now() + std::chrono::milliseconds(retry_ms_);
}

std::unique_ptr<Store> open_redis_store(std::string_view uri, StoreListener *listener,
                                        std::string *why, int32_t *code) {
    redis::Endpoint ep;
    if (!redis::parse_endpoint(uri, &ep, why)) {
        *code = QZ_MOM_E_ARG;
        return nullptr;
    }
    auto store = std::make_unique<RedisStore>(std::move(ep), listener);
    if (!store->start(why, code))
        return nullptr;
    return store;
}

}  // namespace qzmom
