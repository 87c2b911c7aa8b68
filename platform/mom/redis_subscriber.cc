#include "redis_subscriber.h"

#include <poll.h>

#include <algorithm>

#include "codec.h"
#include "qz_mom_client.h"
#include "redis_names.h"
#include "redis_reply.h"
#include "report.h"
#include "common/wake_fd.h"

namespace qzmom::redis {
namespace {

constexpr size_t kMaxRemembered = 65536;  // last pushed records kept for comparison
// Queued requests go out once they reach this size, so that the server
// confirms the first while the caller is still making the rest.
constexpr size_t kSendAtBytes = 8192;
constexpr size_t kHiredisReadSize = 16384;  // what redisBufferRead asks the socket for
constexpr int kMaxReadsPerBatch = 16;       // 256 KB: a renewal of 1,000 in one batch

}  // namespace

void Subscriber::attach(std::unique_ptr<Conn> sub, std::unique_ptr<Conn> push, uint64_t gen) {
    std::lock_guard<std::mutex> reader(reader_mu_);
    {
        std::lock_guard<std::mutex> lk(push_mu_);
        push_ = std::move(push);
    }
    std::lock_guard<std::mutex> lk(mu_);
    sub_ = std::move(sub);
    gen_ = gen;
    out_.clear();
    sent_ = acked_ = 0;
    up_ = true;
}

void Subscriber::interrupt() {
    {
        std::lock_guard<std::mutex> lk(mu_);
        up_ = false;
    }
    cv_.notify_all();
}

void Subscriber::detach() {
    std::lock_guard<std::mutex> reader(reader_mu_);
    {
        std::lock_guard<std::mutex> lk(mu_);
        watches_.clear();
        channels_.clear();
        out_.clear();
        sub_.reset();
    }
    {
        std::lock_guard<std::mutex> lk(push_mu_);
        push_.reset();
    }
    patterned_.clear();
    last_.clear();
    remembered_ = 0;
}

void Subscriber::wait_readers() {
    std::lock_guard<std::mutex> reader(reader_mu_);
}

void Subscriber::report_lost(uint64_t gen, const std::string &why) {
    lost_(gen, why);
}

bool Subscriber::send(std::string_view command, std::string_view channel, bool now,
                      std::string *why) {
    const std::string_view args[] = {command, channel};
    append_command(out_, args);
    ++sent_;
    return (!now && out_.size() < kSendAtBytes) || flush(why);
}

bool Subscriber::flush(std::string *why) {
    if (out_.empty())
        return true;
    const bool ok = sub_->send_raw(out_, why);
    out_.clear();
    return ok;
}

int32_t Subscriber::watch(const WatchSpec &spec, bool deferred, uint64_t *id) {
    const Channel ch = watch_channel(spec.db, spec.key, spec.whole_type);
    std::string name = ch.id();
    std::unique_lock<std::mutex> lk(mu_);
    if (!up_)
        return QZ_MOM_E_CONN;
    const uint64_t gen = gen_;
    auto [it, fresh] = channels_.try_emplace(name);
    if (fresh) {
        std::string why;
        if (!send(ch.subscribe_command(), ch.name, !deferred, &why)) {
            channels_.erase(it);
            lk.unlock();
            report_lost(gen, why);
            return QZ_MOM_E_CONN;
        }
        it->second.seq = sent_;
    }
    ++it->second.refs;
    const uint64_t seq = it->second.seq;
    const uint64_t wid = next_watch_++;
    watches_.emplace(wid, Watch{std::move(name), seq});
    if (!deferred) {
        // In place once the server confirmed it (perhaps for an earlier watch).
        if (const int32_t rc = await(lk, gen, seq); rc != 0)
            return rc;
    }
    *id = wid;
    return 0;
}

int32_t Subscriber::settle(uint64_t id) {
    std::unique_lock<std::mutex> lk(mu_);
    auto w = watches_.find(id);
    if (!up_ || w == watches_.end())
        return QZ_MOM_E_CONN;
    return await(lk, gen_, w->second.seq);
}

bool Subscriber::in_place(uint64_t id) {
    std::lock_guard<std::mutex> lk(mu_);
    auto w = watches_.find(id);
    return up_ && w != watches_.end() && acked_ >= w->second.seq;
}

int32_t Subscriber::await(std::unique_lock<std::mutex> &lk, uint64_t gen, uint64_t seq) {
    if (acked_ >= seq)
        return 0;
    std::string why;
    if (!flush(&why)) {
        lk.unlock();
        report_lost(gen, why);
        return QZ_MOM_E_CONN;
    }
    const auto deadline = Clock::now() + std::chrono::milliseconds(kTimeoutMs);
    for (;;) {
        if (!up_ || gen_ != gen)
            return QZ_MOM_E_CONN;
        if (acked_ >= seq)
            return 0;
        if (Clock::now() >= deadline) {
            lk.unlock();
            report_lost(gen, "a subscription was not confirmed within " +
                                 std::to_string(kTimeoutMs) + " ms");
            return QZ_MOM_E_CONN;
        }
        // The confirmation comes on the subscriber connection: read it here
        // when no other thread is reading it.
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
        cv_.wait_until(lk, deadline, [&] {
            return !up_ || gen_ != gen || acked_ >= seq || reader_turns_ != turn;
        });
    }
}

void Subscriber::unwatch(uint64_t id) {
    std::unique_lock<std::mutex> lk(mu_);
    auto w = watches_.find(id);
    if (w == watches_.end())
        return;  // gone with a lost connection
    auto ch = channels_.find(w->second.channel);
    watches_.erase(w);
    if (ch == channels_.end() || --ch->second.refs > 0)
        return;
    const Channel gone = Channel::from_id(ch->first);
    channels_.erase(ch);
    if (!up_)
        return;
    std::string why;
    if (!send(gone.unsubscribe_command(), gone.name, true, &why)) {
        const uint64_t gen = gen_;
        lk.unlock();
        report_lost(gen, why);
    }
}

int32_t Subscriber::get_ordered(int32_t db, std::string_view key, Snapshot *out, uint64_t *seq) {
    std::vector<Store::OrderedRead> one(1);
    one[0].db = db;
    one[0].key = key;
    get_ordered_many(one);
    *out = std::move(one[0].record);
    *seq = one[0].seq;
    return one[0].rc;
}

void Subscriber::get_ordered_many(std::vector<Store::OrderedRead> &reads) {
    for (Store::OrderedRead &r : reads) {
        r.record.reset();
        r.seq = 0;
        r.rc = QZ_MOM_E_CONN;
    }
    std::string why;
    uint64_t gen = 0;
    {
        // The push connection's reads are numbered in the order the server ran them.
        std::lock_guard<std::mutex> lk(push_mu_);
        if (push_ == nullptr)
            return;
        {
            std::lock_guard<std::mutex> g(mu_);
            gen = gen_;
        }
        std::vector<ReplyPtr> replies;
        size_t i = 0;
        while (i < reads.size()) {  // one round trip per run of reads in one db
            bool refused = false;
            if (!push_->select(reads[i].db, &refused, &why))
                break;
            size_t end = i;
            while (end < reads.size() && reads[end].db == reads[i].db)
                ++end;
            if (refused) {
                for (; i < end; ++i)
                    reads[i].rc = QZ_MOM_E_REPLY;
                continue;
            }
            for (size_t k = i; k < end; ++k)
                push_->queue({"HGETALL", reads[k].key});
            if (!push_->exchange(&replies, &why))
                break;
            for (size_t k = 0; i < end; ++i, ++k) {
                std::string_view err;
                reads[i].seq = ++read_seq_;
                reads[i].rc = to_snapshot(replies[k].get(), &reads[i].record, &err);
            }
        }
        if (i == reads.size())
            return;
        push_.reset();
    }
    report_lost(gen, why);
}

void Subscriber::serve_once(int wake_fd, int store_wake_fd) {
    std::unique_lock<std::mutex> reader(reader_mu_);
    int fd = -1;
    {
        std::lock_guard<std::mutex> lk(mu_);
        std::string why;
        if (!up_ || sub_ == nullptr)
            return;
        if (!flush(&why)) {
            const uint64_t gen = gen_;
            reader.unlock();
            report_lost(gen, why);
            return;
        }
        fd = sub_->fd();
    }
    pollfd fds[3] = {{fd, POLLIN, 0}, {wake_fd, POLLIN, 0}, {store_wake_fd, POLLIN, 0}};
    if (poll(fds, 3, -1) > 0) {
        for (int i = 1; i < 3; ++i) {
            if (fds[i].revents != 0)
                qzplat::WakeFd::drain(fds[i].fd);
        }
        if (fds[0].revents != 0)
            read_sub();
    }
    reader.unlock();
    released();
}

void Subscriber::read_until(Clock::time_point deadline, uint64_t gen, uint64_t seq) {
    int fd = -1;
    {
        std::lock_guard<std::mutex> lk(mu_);
        if (!up_ || gen_ != gen || acked_ >= seq)
            return;
        fd = sub_->fd();
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(std::max<int64_t>(left, 0)) + 1) > 0)
        read_sub();
}

void Subscriber::released() {
    {
        std::lock_guard<std::mutex> lk(mu_);
        ++reader_turns_;
    }
    cv_.notify_all();
}

void Subscriber::read_sub() {
    redisContext *c = sub_->ctx();
    // What the socket holds, not only one hiredis read's worth: a renewal's
    // confirmations then make one batch. A short read means it is drained.
    for (int reads = 0; reads < kMaxReadsPerBatch; ++reads) {
        const size_t before = c->reader->len;
        if (redisBufferRead(c) != REDIS_OK) {
            report_lost(gen_, error_of(c));
            return;
        }
        if (c->reader->len - before < kHiredisReadSize)
            break;
    }
    batch_.clear();
    for (;;) {
        void *r = nullptr;
        if (redisGetReplyFromReader(c, &r) != REDIS_OK) {
            report_lost(gen_, error_of(c));
            return;
        }
        if (r == nullptr)
            break;
        batch_.emplace_back(static_cast<redisReply *>(r));
    }
    handle_batch();
    batch_.clear();
}

// A key whose type has a confirmed pattern gets a pmessage for every event;
// its plain message would be a second copy.
bool Subscriber::covered_by_pattern(int32_t db, std::string_view key) const {
    if (patterned_.empty() || key.find('|') == std::string_view::npos)
        return false;
    auto it = patterned_.find(db);
    return it != patterned_.end() && it->second.contains(key_type(key));
}

void Subscriber::handle_batch() {
    uint64_t acks = 0;
    notices_.clear();
    for (const ReplyPtr &rp : batch_) {
        SubMessage m = read_sub_message(rp.get());
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
void Subscriber::push_changes() {
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
                return;  // lost; torn down by the delivery thread
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
            report_lost(gen_, why);
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

void Subscriber::push_one(const Notice &n, const redisReply *reply, uint64_t seq) {
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
bool Subscriber::remember(int32_t db, std::string_view key, const Snapshot &rec) {
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

}  // namespace qzmom::redis
