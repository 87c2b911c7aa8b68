// The Redis store: records in a redis-server, reached through hiredis.
//
// Each handle holds three connections: one for the callers' commands (a
// mutex around it), one for the reads that follow keyspace events, and one
// in subscribe mode. The client's delivery thread waits on the subscriber
// connection itself (Store::serve), so a push is the keyspace message, one
// HGETALL and the callback, on one thread. It also notices a lost
// connection and reconnects with back-off (10 ms doubling to 1 s), reporting
// both to the listener; meanwhile every call fails at once with
// QZ_MOM_E_CONN.
//
// Opening connects (1 s timeouts) and makes sure keyspace notifications for
// hashes, generic commands, expiry and eviction are on (CONFIG GET, then
// CONFIG SET adding only the missing flags). A server that does not answer,
// wants a password or refuses CONFIG fails the open with the reason: the
// handle is not created.
//
// A deferred watch (watch_deferred) only queues its SUBSCRIBE: the queue goes
// out in one write with the next settle() or serve(), so that a thousand
// renewals cost one round trip, not a thousand.
//
// Events for one key already waiting in the same read are folded into one
// HGETALL, and a record equal to the last one pushed for its key is not
// pushed again: a rewrite of the same values delivers nothing, as a later
// event may be one whose change an earlier read already showed.
#ifndef QZ_MOM_IMPL_REDIS_STORE_H
#define QZ_MOM_IMPL_REDIS_STORE_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "redis_conn.h"
#include "redis_subscriber.h"
#include "store.h"
#include "common/wake_fd.h"

namespace qzmom {

// The command path and the connection's lifecycle; the subscriber side is
// redis::Subscriber. Phases: up (calls go through), lost (noticed by
// whichever call or read failed; the delivery thread tears down in serve()),
// down (reconnecting with back-off).
class RedisStore final : public Store {
  public:
    RedisStore(redis::Endpoint ep, StoreListener *listener);
    RedisStore(const RedisStore &) = delete;
    RedisStore &operator=(const RedisStore &) = delete;
    ~RedisStore() override;

    // Opens the connections; false with *why and *code as open_store.
    bool start(std::string *why, int32_t *code);

    int32_t connect(int32_t db) override;
    int32_t get(int32_t db, std::string_view key, Snapshot *out) override;
    int32_t get_ordered(int32_t db, std::string_view key, Snapshot *out, uint64_t *seq) override;
    void get_ordered_many(std::vector<OrderedRead> &reads) override;
    int32_t scan(int32_t db, std::string_view type, bool keyed, std::vector<Entry> *out) override;
    int32_t write(int32_t db, std::string_view key, const FieldWrite *writes,
                  size_t count) override;
    int32_t write_batch(int32_t db, const std::vector<RecordWrite> &records) override;
    int32_t remove(int32_t db, std::string_view key) override;
    int32_t watch(const WatchSpec &spec, uint64_t *id) override;
    int32_t watch_deferred(const WatchSpec &spec, uint64_t *id) override;
    int32_t settle(uint64_t id) override;
    bool in_place(uint64_t id) override;
    void unwatch(uint64_t id) override;
    void close() override;
    bool serves() const override { return true; }
    void serve(int wake_fd) override;

  private:
    enum class Phase { kUp, kLost, kDown };
    struct Links {
        std::unique_ptr<redis::Conn> cmd, push, sub;
    };

    // Runs f(conn, &rc, &why) on the command connection in database db. f
    // returns false when the connection failed: the store goes down.
    template <class F>
    int32_t with_cmd(int32_t db, F &&f);
    bool open_links(Links *l, std::string *why, bool *refused);
    void install(Links l);
    void lost(uint64_t gen, const std::string &why);
    std::string tear_down();
    void try_reconnect();

    // Lock order: the client's subscription lock -> serve_mu_ -> cmd_mu_,
    // mu_ -> the subscriber's locks. No listener call that takes a client
    // lock is made with a store lock held.
    const redis::Endpoint ep_;
    StoreListener *const listener_;
    qzplat::WakeFd wake_;          // interrupts serve(): a lost connection, close()
    std::atomic<bool> up_{false};  // fast path of every call

    std::mutex cmd_mu_;
    std::unique_ptr<redis::Conn> cmd_;
    uint64_t cmd_gen_ = 0;

    std::mutex mu_;  // guards the phase
    Phase phase_ = Phase::kDown;
    bool stop_ = false;
    uint64_t gen_ = 1;  // changes when the connection is lost or the store closes
    std::string lost_why_;

    redis::Subscriber sub_;

    // The delivery thread's own state, in serve().
    std::mutex serve_mu_;
    int retry_ms_;
    std::chrono::steady_clock::time_point retry_at_;
    bool refusal_told_ = false;
};

// Connects to "redis://host[:port]" or "unix:/path". Null, *why and *code
// (as open_store) on failure.
std::unique_ptr<Store> open_redis_store(std::string_view uri, StoreListener *listener,
                                        std::string *why, int32_t *code);

}  // namespace qzmom

#endif  // QZ_MOM_IMPL_REDIS_STORE_H
