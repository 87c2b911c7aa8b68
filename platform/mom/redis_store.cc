#include "redis_store.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "codec.h"
#include "qz_mom_client.h"
#include "redis_conn.h"
#include "redis_reply.h"
#include "report.h"

namespace qzmom {
namespace {

using redis::Conn;
using redis::is_error;
using redis::ReplyPtr;
using redis::SubMessage;
using redis::text;
using redis::to_snapshot;

template <class V>
using StrMap = std::unordered_map<std::string, V, StrHash, std::equal_to<>>;
using StrSet = std::unordered_set<std::string, StrHash, std::equal_to<>>;

constexpr int kFirstRetryMs = 10;
constexpr int kMaxRetryMs = 1000;
constexpr size_t kMaxRemembered = 65536;  // last pushed records kept for comparison
constexpr int32_t kLibraryDb = 3;

bool same_record(const Snapshot &a, const Snapshot &b) {
    if (a == nullptr || b == nullptr)
        return a == b;
    return std::equal(
        a->begin(), a->end(), b->begin(), b->end(),
        [](const Field &x, const Field &y) { return x.name == y.name && x.value == y.value; });
}

std::string refusal(std::string_view command, const redisReply *r) {
    std::string_view t = text(r);
    if (t.starts_with("NOAUTH") || t.starts_with("WRONGPASS"))
        return "the server requires a password (" + std::string(t) +
               "); this client does not authenticate";
    return std::string(command) + " refused (" + std::string(t) +
           "): keyspace notifications cannot be enabled; allow CONFIG for this client or set "
           "notify-keyspace-events KA in the server's configuration";
}

// Keyspace notifications on, keeping the flags already set. False and *why
// when the server fails or refuses (*refused: it answered with an error).
bool enable_notifications(Conn &c, std::string *why, bool *refused) {
    ReplyPtr r;
    if (!c.run({"CONFIG", "GET", "notify-keyspace-events"}, &r, why))
        return false;
    std::string have;
    if (!redis::notify_flags(r.get(), &have)) {
        *refused = true;
        *why = is_error(r.get()) ? refusal("CONFIG GET notify-keyspace-events", r.get())
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
        *why = refusal("CONFIG SET notify-keyspace-events " + want, r.get());
        return false;
    }
    return true;
}

class RedisStore final : public Store {
  public:
    RedisStore(redis::Endpoint ep, StoreListener *listener)
        : ep_(std::move(ep)), listener_(listener) {}
    ~RedisStore() override {
        close();
        if (wake_fd_ >= 0)
            ::close(wake_fd_);
    }

    bool start(std::string *why, int32_t *code) {
        wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (wake_fd_ < 0) {
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

    int32_t connect(int32_t db) override {
        return with_conn(cmd_mu_, cmd_, cmd_gen_, db, [&](Conn &c, int32_t *rc, std::string *why) {
            ReplyPtr r;
            if (!c.run({"PING"}, &r, why))
                return false;
            *rc = is_error(r.get()) ? QZ_MOM_E_REPLY : 0;
            return true;
        });
    }

    int32_t get(int32_t db, std::string_view key, Snapshot *out) override {
        out->reset();
        return with_conn(cmd_mu_, cmd_, cmd_gen_, db, [&](Conn &c, int32_t *rc, std::string *why) {
            return hgetall(c, key, out, rc, why);
        });
    }

    int32_t get_ordered(int32_t db, std::string_view key, Snapshot *out, uint64_t *seq) override {
        out->reset();
        *seq = 0;
        // On the push connection, whose reads are numbered in the order the
        // server ran them.
        return with_conn(push_mu_, push_, push_gen_, db,
                         [&](Conn &c, int32_t *rc, std::string *why) {
                             if (!hgetall(c, key, out, rc, why))
                                 return false;
                             *seq = ++read_seq_;
                             return true;
                         });
    }

    int32_t scan(int32_t db, std::string_view type, bool keyed, std::vector<Entry> *out) override {
        out->clear();
        if (!keyed) {
            Snapshot rec;
            int32_t rc = get(db, type, &rec);
            if (rc == 0 && rec != nullptr)
                out->push_back(Entry{std::string(type), std::move(rec)});
            return rc;
        }
        const std::string match = redis::glob_escape(type) + "|*";
        return with_conn(cmd_mu_, cmd_, cmd_gen_, db, [&](Conn &c, int32_t *rc, std::string *why) {
            std::vector<std::string> keys;
            std::string cursor = "0";
            do {
                ReplyPtr r;
                if (!c.run({"SCAN", cursor, "MATCH", match, "COUNT", "1000"}, &r, why))
                    return false;
                if (!redis::scan_page(r.get(), &cursor, &keys)) {
                    *rc = QZ_MOM_E_REPLY;
                    return true;
                }
            } while (cursor != "0");
            std::sort(keys.begin(), keys.end());
            keys.erase(std::unique(keys.begin(), keys.end()), keys.end());  // SCAN may repeat
            for (const std::string &k : keys)
                c.queue({"HGETALL", k});
            std::vector<ReplyPtr> replies;
            if (!c.exchange(&replies, why))
                return false;
            for (size_t i = 0; i < keys.size(); ++i) {
                Snapshot rec;
                std::string_view err;
                if (to_snapshot(replies[i].get(), &rec, &err) != 0) {
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

    int32_t write(int32_t db, std::string_view key, const FieldWrite *writes,
                  size_t count) override {
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
        return with_conn(cmd_mu_, cmd_, cmd_gen_, db, [&](Conn &c, int32_t *rc, std::string *why) {
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

    int32_t write_batch(int32_t db, const std::vector<RecordWrite> &records) override {
        if (records.empty())
            return 0;
        std::vector<std::string_view> args;
        return with_conn(cmd_mu_, cmd_, cmd_gen_, db, [&](Conn &c, int32_t *rc, std::string *why) {
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
            *rc = 0;
            for (const ReplyPtr &r : replies) {
                if (is_error(r.get()))
                    *rc = QZ_MOM_E_REPLY;
            }
            const redisReply *exec = replies.back().get();
            if (exec->type != REDIS_REPLY_ARRAY || exec->elements != queued) {
                *rc = QZ_MOM_E_REPLY;
                return true;
            }
            for (size_t i = 0; i < exec->elements; ++i) {
                if (is_error(exec->element[i]))
                    *rc = QZ_MOM_E_REPLY;
            }
            return true;
        });
    }

    int32_t remove(int32_t db, std::string_view key) override {
        return with_conn(cmd_mu_, cmd_, cmd_gen_, db, [&](Conn &c, int32_t *rc, std::string *why) {
            ReplyPtr r;
            if (!c.run({"DEL", key}, &r, why))
                return false;
            *rc = is_error(r.get()) ? QZ_MOM_E_REPLY : 0;
            return true;
        });
    }

    int32_t watch(const WatchSpec &spec, uint64_t *id) override {
        // The map key tells an exact channel from a pattern with the same text.
        std::string name(1, spec.whole_type ? 'p' : 's');
        name += redis::channel_prefix(spec.db);
        name += spec.whole_type ? redis::glob_escape(spec.key) + "|*" : spec.key;
        std::unique_lock<std::mutex> lk(mu_);
        if (phase_ != Phase::kUp || stop_)
            return QZ_MOM_E_CONN;
        const uint64_t gen = gen_;
        auto [it, fresh] = channels_.try_emplace(name);
        if (fresh) {
            std::string why;
            if (!send_sub(spec.whole_type ? "PSUBSCRIBE" : "SUBSCRIBE",
                          std::string_view(name).substr(1), &why)) {
                channels_.erase(it);
                lk.unlock();
                lost(gen, why);
                return QZ_MOM_E_CONN;
            }
            it->second.seq = sent_;
        }
        ++it->second.refs;
        const uint64_t seq = it->second.seq;
        const uint64_t wid = next_watch_++;
        watches_.emplace(wid, std::move(name));
        // In place once the server confirmed it (perhaps for an earlier
        // watch). The confirmation comes on the subscriber connection: read
        // it here when no other thread is reading it (the delivery thread
        // may be busy in a callback, or be this thread).
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(redis::kTimeoutMs);
        for (;;) {
            if (gen_ != gen)
                return QZ_MOM_E_CONN;
            if (acked_ >= seq) {
                *id = wid;
                return 0;
            }
            if (std::chrono::steady_clock::now() >= deadline) {
                lk.unlock();
                lost(gen, "a subscription was not confirmed within " +
                              std::to_string(redis::kTimeoutMs) + " ms");
                return QZ_MOM_E_CONN;
            }
            const uint64_t turn = reader_turns_;
            lk.unlock();
            if (reader_mu_.try_lock()) {
                read_until(deadline, gen, seq);
                reader_mu_.unlock();
                lk.lock();
                ++reader_turns_;  // another waiter may read on
                cv_.notify_all();
                continue;
            }
            lk.lock();
            cv_.wait_until(lk, deadline,
                           [&] { return gen_ != gen || acked_ >= seq || reader_turns_ != turn; });
        }
    }

    void unwatch(uint64_t id) override {
        std::unique_lock<std::mutex> lk(mu_);
        auto w = watches_.find(id);
        if (w == watches_.end())
            return;  // gone with a lost connection
        auto ch = channels_.find(w->second);
        watches_.erase(w);
        if (ch == channels_.end() || --ch->second.refs > 0)
            return;
        const std::string name = ch->first;
        channels_.erase(ch);
        if (phase_ != Phase::kUp)
            return;
        std::string why;
        if (!send_sub(name[0] == 'p' ? "PUNSUBSCRIBE" : "UNSUBSCRIBE",
                      std::string_view(name).substr(1), &why)) {
            const uint64_t gen = gen_;
            lk.unlock();
            lost(gen, why);
        }
    }

    void close() override {
        {
            std::lock_guard<std::mutex> lk(mu_);
            if (stop_)
                return;
            stop_ = true;
            ++gen_;  // wakes watch() waiters
            up_.store(false, std::memory_order_release);
        }
        cv_.notify_all();
        wake();
        std::lock_guard<std::mutex> reader(reader_mu_);  // serve() has returned
        {
            std::lock_guard<std::mutex> lk(mu_);
            sub_.reset();
            watches_.clear();
            channels_.clear();
            phase_ = Phase::kDown;
        }
        {
            std::lock_guard<std::mutex> lk(cmd_mu_);
            cmd_.reset();
        }
        std::lock_guard<std::mutex> lk(push_mu_);
        push_.reset();
    }

    bool serves() const override { return true; }

    void serve(int wake_fd) override {
        std::unique_lock<std::mutex> reader(reader_mu_);
        Phase phase;
        bool stopped = false;
        int fd = -1;
        {
            std::lock_guard<std::mutex> lk(mu_);
            stopped = stop_;
            phase = phase_;
            if (sub_ != nullptr)
                fd = sub_->fd();
        }
        if (stopped) {
            reader.unlock();
            pollfd p{wake_fd, POLLIN, 0};
            poll(&p, 1, -1);
            drain(wake_fd);
            return;
        }
        if (phase == Phase::kLost) {
            const std::string why = tear_down();
            reader.unlock();
            released();
            listener_->on_connection_lost(why);  // takes the client's lock: no store lock held
            return;
        }
        if (phase == Phase::kDown) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                                  retry_at_ - std::chrono::steady_clock::now())
                                  .count();
            if (left > 0) {
                pollfd fds[2] = {{wake_fd, POLLIN, 0}, {wake_fd_, POLLIN, 0}};
                if (poll(fds, 2, static_cast<int>(left) + 1) > 0)
                    drain_ready(fds, 2);
            } else {
                try_reconnect();
            }
            return;
        }
        pollfd fds[3] = {{fd, POLLIN, 0}, {wake_fd, POLLIN, 0}, {wake_fd_, POLLIN, 0}};
        if (poll(fds, 3, -1) > 0) {
            drain_ready(fds + 1, 2);
            if (fds[0].revents != 0)
                read_sub();
        }
        reader.unlock();
        released();
    }

  private:
    enum class Phase { kUp, kLost, kDown };
    struct Links {
        std::unique_ptr<Conn> cmd, push, sub;
    };
    struct Channel {
        uint32_t refs = 0;
        uint64_t seq = 0;  // of the (P)SUBSCRIBE that made it
    };
    struct Notice {
        int32_t db;
        std::string_view key, event;  // into batch_
    };

    // Runs f(conn, &rc, &why) on a connection in database db. f returns
    // false when the connection failed: the connection is dropped and the
    // store goes down.
    template <class F>
    int32_t with_conn(std::mutex &mu, std::unique_ptr<Conn> &conn, const uint64_t &conn_gen,
                      int32_t db, F &&f) {
        if (!up_.load(std::memory_order_acquire))
            return QZ_MOM_E_CONN;
        std::string why;
        uint64_t gen = 0;
        {
            std::lock_guard<std::mutex> lk(mu);
            if (conn == nullptr)
                return QZ_MOM_E_CONN;
            gen = conn_gen;
            bool refused = false;
            if (conn->select(db, &refused, &why)) {
                if (refused)
                    return QZ_MOM_E_REPLY;
                int32_t rc = 0;
                if (f(*conn, &rc, &why))
                    return rc;
            }
            conn.reset();
        }
        lost(gen, why);
        return QZ_MOM_E_CONN;
    }

    static bool hgetall(Conn &c, std::string_view key, Snapshot *out, int32_t *rc,
                        std::string *why) {
        ReplyPtr r;
        if (!c.run({"HGETALL", key}, &r, why))
            return false;
        std::string_view err;
        *rc = to_snapshot(r.get(), out, &err);
        return true;
    }

    bool open_links(Links *l, std::string *why, bool *refused) {
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

    void install(Links l) {
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
        {
            std::lock_guard<std::mutex> lk(push_mu_);
            push_ = std::move(l.push);
            push_gen_ = gen;
        }
        sub_gen_ = gen;
        {
            std::lock_guard<std::mutex> lk(mu_);
            sub_ = std::move(l.sub);
            sent_ = acked_ = 0;
            phase_ = Phase::kUp;
        }
        up_.store(true, std::memory_order_release);
    }

    // Marks the connection of generation gen lost (once); the delivery
    // thread tears down in serve().
    void lost(uint64_t gen, const std::string &why) {
        {
            std::lock_guard<std::mutex> lk(mu_);
            if (gen != gen_ || phase_ != Phase::kUp)
                return;
            phase_ = Phase::kLost;
            lost_why_ = why;
            ++gen_;
            up_.store(false, std::memory_order_release);
        }
        cv_.notify_all();
        wake();
    }

    void wake() {
        const uint64_t one = 1;
        ssize_t n = ::write(wake_fd_, &one, sizeof one);
        (void)n;  // already signalled when the counter is full
    }

    // REQUIRES: mu_ held and the phase up.
    bool send_sub(std::string_view command, std::string_view channel, std::string *why) {
        std::string req;
        const std::string_view args[] = {command, channel};
        redis::append_command(req, args);
        if (!sub_->send_raw(req, why))
            return false;
        ++sent_;
        return true;
    }

    // REQUIRES: reader_mu_ held. Reads the subscriber connection until
    // something arrived or the deadline passed, unless confirmation `seq`
    // came while this thread waited for the lock.
    void read_until(std::chrono::steady_clock::time_point deadline, uint64_t gen, uint64_t seq) {
        int fd = -1;
        {
            std::lock_guard<std::mutex> lk(mu_);
            if (phase_ != Phase::kUp || gen_ != gen || acked_ >= seq)
                return;
            fd = sub_->fd();
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now())
                              .count();
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(std::max<int64_t>(left, 0)) + 1) > 0)
            read_sub();
    }

    // Lets watch() callers waiting for a confirmation read it themselves.
    void released() {
        {
            std::lock_guard<std::mutex> lk(mu_);
            ++reader_turns_;
        }
        cv_.notify_all();
    }

    static void drain(int fd) {
        uint64_t v = 0;
        ssize_t n = ::read(fd, &v, sizeof v);
        (void)n;
    }
    static void drain_ready(const pollfd *fds, int n) {
        for (int i = 0; i < n; ++i) {
            if (fds[i].revents != 0)
                drain(fds[i].fd);
        }
    }

    // REQUIRES: reader_mu_ held.
    void read_sub() {
        redisContext *c = sub_->ctx();
        if (redisBufferRead(c) != REDIS_OK) {
            lost(sub_gen_, redis::error_of(c));
            return;
        }
        batch_.clear();
        for (;;) {
            void *r = nullptr;
            if (redisGetReplyFromReader(c, &r) != REDIS_OK) {
                lost(sub_gen_, redis::error_of(c));
                return;
            }
            if (r == nullptr)
                break;
            batch_.emplace_back(static_cast<redisReply *>(r));
        }
        handle_batch();
        batch_.clear();
    }

    // A key whose type has a confirmed pattern gets a pmessage for every
    // event; its plain message would be a second copy.
    bool covered_by_pattern(int32_t db, std::string_view key) const {
        if (patterned_.empty() || key.find('|') == std::string_view::npos)
            return false;
        auto it = patterned_.find(db);
        return it != patterned_.end() && it->second.contains(key_type(key));
    }

    void handle_batch() {
        uint64_t acks = 0;
        notices_.clear();
        for (const ReplyPtr &rp : batch_) {
            SubMessage m = redis::read_sub_message(rp.get());
            if (m.kind == SubMessage::Kind::kEvent) {
                if (!m.pattern && covered_by_pattern(m.db, m.key))
                    continue;
                notices_.push_back(Notice{m.db, m.key, m.event});
            } else if (m.kind == SubMessage::Kind::kAck) {
                ++acks;
                if (!m.has_type)
                    continue;
                if (m.subscribe) {
                    patterned_[m.db].insert(std::move(m.type));
                } else if (auto it = patterned_.find(m.db); it != patterned_.end()) {
                    it->second.erase(m.type);
                    if (it->second.empty())
                        patterned_.erase(it);
                }
            }
        }
        if (acks != 0) {
            {
                std::lock_guard<std::mutex> lk(mu_);
                acked_ += acks;
            }
            cv_.notify_all();
        }
        if (!notices_.empty())
            push_changes();
    }

    // Reads every noticed record and hands the changes to the listener.
    void push_changes() {
        // A key noticed again later in this batch is read once, at its last notice.
        const size_t n = notices_.size();
        keep_.assign(n, true);
        for (size_t i = 0; i + 1 < n; ++i) {
            for (size_t j = i + 1; j < n; ++j) {
                if (notices_[j].db == notices_[i].db && notices_[j].key == notices_[i].key) {
                    keep_[i] = false;
                    break;
                }
            }
        }
        for (size_t i = 0; i < n;) {
            const int32_t db = notices_[i].db;
            size_t end = i;
            std::string why;
            bool refused = false, ok = false;
            uint64_t first_seq = 0;
            {
                std::lock_guard<std::mutex> lk(push_mu_);
                if (push_ == nullptr)
                    return;  // lost; torn down in serve()
                if (push_->select(db, &refused, &why) && !refused) {
                    for (; end < n && notices_[end].db == db; ++end) {
                        if (keep_[end])
                            push_->queue({"HGETALL", notices_[end].key});
                    }
                    ok = push_->exchange(&replies_, &why);
                    first_seq = read_seq_ + 1;
                    read_seq_ += replies_.size();
                } else if (refused) {
                    ok = true;
                }
                if (!ok)
                    push_.reset();
            }
            if (!ok) {
                lost(sub_gen_, why);
                return;
            }
            if (refused) {  // a db the server lacks: nothing there to read
                while (end < n && notices_[end].db == db)
                    ++end;
                i = end;
                continue;
            }
            for (size_t k = 0; i < end; ++i) {
                if (!keep_[i])
                    continue;
                push_one(notices_[i], replies_[k].get(), first_seq + k);
                ++k;
            }
        }
        replies_.clear();
    }

    void push_one(const Notice &n, const redisReply *reply, uint64_t seq) {
        Snapshot rec;
        std::string_view err;
        if (to_snapshot(reply, &rec, &err) != 0) {
            report("skipped record \"%.*s\" in db %d (push): %.*s", static_cast<int>(n.key.size()),
                   n.key.data(), n.db, static_cast<int>(err.size()), err.data());
            return;
        }
        // A hash emptied by a hash command is deleted: its del event follows.
        if (rec == nullptr && n.event.starts_with('h'))
            return;
        if (!remember(n.db, n.key, rec))
            return;
        auto c = std::make_shared<Change>();
        c->db = n.db;
        c->key.assign(n.key);
        c->record = std::move(rec);
        c->seq = seq;
        listener_->on_change(std::move(c));
    }

    // False when rec equals the record last pushed for the key.
    bool remember(int32_t db, std::string_view key, const Snapshot &rec) {
        StrMap<Snapshot> &m = last_[db];
        if (auto it = m.find(key); it != m.end()) {
            if (same_record(it->second, rec))
                return false;
            it->second = rec;
            return true;
        }
        if (++remembered_ > kMaxRemembered) {  // forgetting only risks a repeated push
            for (auto &[d, keys] : last_)
                keys.clear();
            remembered_ = 1;
        }
        m.emplace(std::string(key), rec);
        return true;
    }

    // REQUIRES: reader_mu_ held. Drops every connection and watch; returns
    // why the connection was lost.
    std::string tear_down() {
        std::string why;
        {
            std::lock_guard<std::mutex> lk(mu_);
            why = lost_why_;
            watches_.clear();
            channels_.clear();
            sub_.reset();
            phase_ = Phase::kDown;
        }
        {
            std::lock_guard<std::mutex> lk(cmd_mu_);
            cmd_.reset();
        }
        {
            std::lock_guard<std::mutex> lk(push_mu_);
            push_.reset();
        }
        patterned_.clear();
        last_.clear();
        remembered_ = 0;
        retry_ms_ = kFirstRetryMs;
        retry_at_ = std::chrono::steady_clock::now() + std::chrono::milliseconds(retry_ms_);
        refusal_told_ = false;
        return why;
    }

    // REQUIRES: reader_mu_ held.
    void try_reconnect() {
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

    // Lock order: subs lock of the client -> reader_mu_ -> cmd_mu_, push_mu_,
    // mu_ -> the client's queue lock (on_change). No listener call that
    // takes a client lock is made with a store lock held.
    const redis::Endpoint ep_;
    StoreListener *const listener_;
    int wake_fd_ = -1;             // interrupts serve(): a lost connection, close()
    std::atomic<bool> up_{false};  // fast path of every call

    std::mutex cmd_mu_;
    std::unique_ptr<Conn> cmd_;
    uint64_t cmd_gen_ = 0;

    std::mutex push_mu_;
    std::unique_ptr<Conn> push_;
    uint64_t push_gen_ = 0;
    uint64_t read_seq_ = 0;

    // Guards the phase, the subscriber connection's writes and the watches.
    std::mutex mu_;
    std::condition_variable cv_;
    Phase phase_ = Phase::kDown;
    bool stop_ = false;
    uint64_t gen_ = 1;  // changes when the connection is lost or the store closes
    std::string lost_why_;
    std::unique_ptr<Conn> sub_;  // replaced with reader_mu_ held too
    uint64_t sent_ = 0, acked_ = 0;
    uint64_t next_watch_ = 1;
    std::unordered_map<uint64_t, std::string> watches_;  // id -> channels_ key
    StrMap<Channel> channels_;

    uint64_t reader_turns_ = 0;  // counts readers leaving the subscriber connection

    // Whoever reads the subscriber connection holds reader_mu_: the delivery
    // thread in serve(), or a watch() waiting for its confirmation. It
    // guards what follows and the replacing of sub_.
    std::mutex reader_mu_;
    uint64_t sub_gen_ = 0;
    std::vector<ReplyPtr> batch_, replies_;
    std::vector<Notice> notices_;
    std::vector<bool> keep_;
    std::unordered_map<int32_t, StrSet> patterned_;  // types with a confirmed pattern, per db
    std::unordered_map<int32_t, StrMap<Snapshot>> last_;
    size_t remembered_ = 0;
    int retry_ms_ = kFirstRetryMs;
    std::chrono::steady_clock::time_point retry_at_;
    bool refusal_told_ = false;
};

}  // namespace

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
