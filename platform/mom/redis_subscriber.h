// The subscriber side of the Redis store: the connection in subscribe mode,
// the channels it holds with their confirmations, and the pushes that
// keyspace events turn into (one HGETALL each, on a connection of their
// own).
//
// A watch sends (P)SUBSCRIBE on the subscriber connection and is in place
// once the server confirms it. Confirmations arrive in the order requests
// were sent, so one counter of requests sent and one of confirmations read
// tell whether a watch is in place. Whoever reads the subscriber connection
// holds the reader lock: the delivery thread in serve_once(), or a caller
// waiting for its confirmation (the delivery thread may be busy in a
// callback, or be that caller).
//
// A deferred watch only queues its request; the queue goes out in one write
// when someone waits (settle(), a waiting watch) or the delivery thread next
// waits for the server, so that many watches cost one round trip.
#ifndef QZ_MOM_IMPL_REDIS_SUBSCRIBER_H
#define QZ_MOM_IMPL_REDIS_SUBSCRIBER_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "record.h"
#include "redis_conn.h"
#include "store.h"

namespace qzmom::redis {

class Subscriber {
  public:
    // Reports the connection of generation gen lost (the store's lifecycle
    // decides what follows). Called with no lock of the subscriber held.
    using LostFn = std::function<void(uint64_t gen, const std::string &why)>;

    Subscriber(StoreListener *listener, LostFn lost)
        : listener_(listener), lost_(std::move(lost)) {}
    Subscriber(const Subscriber &) = delete;
    Subscriber &operator=(const Subscriber &) = delete;
    ~Subscriber() = default;

    // Takes the connections of generation gen: `sub` for subscribe mode,
    // `push` for the reads after events (its database selected as it is).
    void attach(std::unique_ptr<Conn> sub, std::unique_ptr<Conn> push, uint64_t gen);

    // The connection is lost or the store closes: watch() and settle()
    // fail from now on, and their waiters return.
    void interrupt();

    // Drops the connections, every watch and channel and what pushes
    // remembered. REQUIRES: interrupt() called first.
    void detach();

    // Store::watch; deferred: returns once the request is queued.
    int32_t watch(const WatchSpec &spec, bool deferred, uint64_t *id);
    // Store::settle: 0 once watch id is in place, QZ_MOM_E_CONN when the
    // connection was lost (or the watch dropped) first.
    int32_t settle(uint64_t id);
    bool in_place(uint64_t id);
    void unwatch(uint64_t id);

    // Store::get_ordered and get_ordered_many, on the push connection.
    int32_t get_ordered(int32_t db, std::string_view key, Snapshot *out, uint64_t *seq);
    void get_ordered_many(std::vector<Store::OrderedRead> &reads);

    // One turn of the delivery thread while the connection is up: sends
    // queued requests, waits until the subscriber connection or a wake-up
    // descriptor is readable, and handles what arrived (on_change calls).
    void serve_once(int wake_fd, int store_wake_fd);

    // Waits until no thread reads the subscriber connection any more.
    void wait_readers();

  private:
    struct Held {  // a channel or pattern subscribed to
        uint32_t refs = 0;
        uint64_t seq = 0;  // of the (P)SUBSCRIBE that made it
    };
    struct Watch {
        std::string channel;  // channels_ key
        uint64_t seq = 0;     // the confirmation that puts it in place
    };
    struct Notice {
        int32_t db;
        std::string_view key, event;  // into batch_
    };
    using Clock = std::chrono::steady_clock;
    template <class V>
    using StrMap = std::unordered_map<std::string, V, StrHash, std::equal_to<>>;
    using StrSet = std::unordered_set<std::string, StrHash, std::equal_to<>>;

    // REQUIRES: mu_ held, connection up. Queues a request; sends the queue
    // now when `now`. False and *why when sending failed.
    bool send(std::string_view command, std::string_view channel, bool now, std::string *why);
    bool flush(std::string *why);
    // Waits until confirmation seq of generation gen is read. REQUIRES: lk holds mu_.
    int32_t await(std::unique_lock<std::mutex> &lk, uint64_t gen, uint64_t seq);
    // REQUIRES: reader_mu_ held. Reads until something arrived or the deadline passed.
    void read_until(Clock::time_point deadline, uint64_t gen, uint64_t seq);
    void released();
    void report_lost(uint64_t gen, const std::string &why);

    // REQUIRES: reader_mu_ held, for all below.
    void read_sub();
    bool covered_by_pattern(int32_t db, std::string_view key) const;
    void handle_batch();
    void push_changes();
    void push_one(const Notice &n, const redisReply *reply, uint64_t seq);
    bool remember(int32_t db, std::string_view key, const Snapshot &rec);

    StoreListener *const listener_;
    const LostFn lost_;

    // Lock order: reader_mu_ -> push_mu_, mu_ -> the client's queue lock.
    std::mutex push_mu_;
    std::unique_ptr<Conn> push_;
    uint64_t read_seq_ = 0;

    // Guards the subscriber connection's writes, the watches and the counters.
    std::mutex mu_;
    std::condition_variable cv_;
    bool up_ = false;
    uint64_t gen_ = 0;
    std::unique_ptr<Conn> sub_;  // replaced with reader_mu_ held too
    std::string out_;            // requests not sent yet
    uint64_t sent_ = 0, acked_ = 0;
    uint64_t next_watch_ = 1;
    std::unordered_map<uint64_t, Watch> watches_;
    StrMap<Held> channels_;
    uint64_t reader_turns_ = 0;  // counts readers leaving the subscriber connection

    std::mutex reader_mu_;
    std::vector<ReplyPtr> batch_, replies_;
    std::vector<Notice> notices_;
    std::vector<bool> keep_;
    std::unordered_map<int32_t, StrSet> patterned_;  // types with a confirmed pattern, per db
    std::unordered_map<int32_t, StrMap<Snapshot>> last_;
    size_t remembered_ = 0;
};

}  // namespace qzmom::redis

#endif  // QZ_MOM_IMPL_REDIS_SUBSCRIBER_H
