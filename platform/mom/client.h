// A client handle (the `global` of every bus call): its store connection,
// its subscriptions and its delivery thread. Everything the bus promises
// about events lives here, written once for every store backend:
//
// - Event codes: 1 a record of an unkeyed type delivered (scan or change);
//   4 a keyed record delivered by a scan; 6 a keyed record changed; 7 a
//   record deleted (no result); 29 a subscription is in place (no result).
// - A delivery carries the whole record after the change.
// - Subscription and reconnect callbacks run on the handle's one delivery
//   thread (which waits in the store when the store serves it, see
//   Store::serve), in the order of the handle's queue: a subscription sees its 29
//   first, then every change of its records, none lost or reordered. The
//   queue lock is never held while a callback runs, so a callback may call
//   the bus again (scan, read, subscribe, write) on any handle.
// - A scan runs on the calling thread and calls back once per record, in
//   key order, before it returns, with no store lock held.
// - A field subscription keeps the last value it saw of each listed field
//   and delivers only when one of them differs. It starts from the values in
//   place when it is made; once its 29 is sent they are compared with the
//   store, so a change made meanwhile is delivered right after the 29. When a
//   reconnect drops it, its last values are remembered; an identical field
//   subscription made later (same db, key, field, callback and argument)
//   starts from them instead, so a change made while it was dropped is
//   delivered right after its 29 too. A lost connection drops only the
//   subscriptions made before it was lost.
// - Field subscriptions made by a reconnect callback on the handle's
//   delivery thread (renewals) are requested without waiting, each for its
//   own confirmation: after the callbacks return, each gets its 29 as soon as
//   the server confirmed it, and then their records are read in one round
//   trip, which delivers what changed before. One whose connection is lost
//   before its confirmation gets no 29; it is dropped with the connection
//   and renewed by the next reconnection, comparing from the values it had.
//
// Its code is split along that state: client.cc the delivery thread, its
// queue and the connection callbacks; client_subs.cc the subscriptions and
// their 29s; client_delivery.cc reads, scans and the pushed messages.
//
// Lock order: subs_mu_ -> the store's lock -> q_mu_. Callbacks run with no
// lock held.
#ifndef QZ_MOM_IMPL_CLIENT_H
#define QZ_MOM_IMPL_CLIENT_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "codec.h"
#include "common/wake_fd.h"
#include "faults.h"
#include "qz_mom.h"
#include "qz_mom_client.h"
#include "store.h"

namespace qzmom {

using Value = std::optional<std::string>;  // a hash field's value; nullopt: absent

// One (field, callback, argument) entry of a field subscription.
struct FieldTarget {
    int32_t field = 0;
    std::string name;  // the hash field name
    qz_mom_record_cb cb = nullptr;
    void *arg = nullptr;
    Value last;  // delivery thread only: the value last seen
    // The value the subscription starts from, compared with the store when
    // its 29 is sent: the value remembered from a dropped identical
    // subscription, else the value in place when it was made.
    std::optional<Value> base;
};

struct Sub {
    uint64_t id = 0;
    int32_t db = 0;
    const ProtobufCMessageDescriptor *desc = nullptr;
    bool keyed = false;
    bool whole_type = false;        // every record of a keyed type
    std::string key;                // the exact key, or the type name when whole_type
    qz_mom_record_cb cb = nullptr;  // a record subscription's callback
    void *priv = nullptr;
    std::vector<FieldTarget> targets;  // a field subscription's entries (else empty)
    uint64_t watch_id = 0;
    std::atomic<bool> active{true};
    bool deferred = false;     // made by a reconnect callback: in place once settled
    bool confirmed = false;    // delivery thread only: 29 sent and caught up: pushes reach it
    uint64_t confirm_seq = 0;  // delivery thread only: order of the read that caught it up

    bool is_field() const { return !targets.empty(); }
};
using SubPtr = std::shared_ptr<Sub>;

class Client final : public StoreListener {
  public:
    // Creates a handle for uri (NULL: $QZ_MOM_URI, else "mem:") and starts its
    // delivery thread. Null on failure, with *why and *code as open_store
    // sets them.
    static Client *create(const char *uri, std::string *why, int32_t *code);

    // The handle behind `global`, or null when it is not a live handle.
    static Client *from(void *global) {
        auto *c = static_cast<Client *>(global);
        return c != nullptr && c->magic_ == kMagic ? c : nullptr;
    }

    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;
    // Stops the delivery thread, ends the store's watches and frees the
    // handle's subscriptions. REQUIRES: not on the delivery thread.
    ~Client() override;

    Store &store() { return *store_; }
    FaultQueue &faults() { return faults_; }
    bool on_delivery_thread() const {
        return std::this_thread::get_id() == thread_id_.load(std::memory_order_relaxed);
    }

    // A result for reading key (error_code set on failure); null only when
    // memory runs out. Not counted as handed out.
    qz_mom_hash_res_t *read(int32_t db, const ProtobufCMessage *key);

    int32_t scan(int32_t db, const ProtobufCMessage *pattern, qz_mom_record_cb cb, void *priv);
    int32_t subscribe(int32_t db, const ProtobufCMessage *pattern, qz_mom_record_cb cb, void *priv);
    int32_t subscribe_field(int32_t db, const ProtobufCMessage *key, uint32_t n,
                            const int32_t *fields, qz_mom_record_cb *cbs, void **args);
    int32_t add_reconnect_cb(int32_t db, qz_mom_reconnect_cb cb, void *user);

    // The connection-state callback (null: none; the client then reports
    // a lost connection and its return on stderr itself).
    void set_conn_cb(qz_mom_conn_cb cb, void *user);

    // Drops every subscription, then runs the connection-state callback and
    // the reconnect callbacks on the delivery thread; returns once they have
    // returned.
    int32_t simulate_reconnect();

    // Returns once everything queued so far has been handled (at once on the
    // delivery thread itself).
    void drain();

    uint32_t subscription_count();

    // StoreListener.
    void on_change(ChangePtr change) override;
    void on_connection_lost(const std::string &why) override;
    void on_reconnected() override;

  private:
    static constexpr uint32_t kMagic = 0x716d6f6d;  // "qmom"

    struct Item {
        ChangePtr change;            // a change to deliver, or
        std::function<void()> task;  // work to run on the delivery thread
    };
    struct ReconnectCb {
        qz_mom_reconnect_cb cb;
        void *user;
        int32_t db;
    };
    // What one entry of a dropped field subscription last saw; kept by the
    // subscription's key, so that a renewal finds it without building a key.
    struct Remembered {
        int32_t db;
        int32_t field;
        qz_mom_record_cb cb;
        void *arg;
        Value value;
    };

    Client() = default;
    void run();
    void post(Item item);
    void wake();
    int32_t add_sub(const SubPtr &sub);
    // Moves what an identical entry of a dropped subscription saw into t's
    // base; false when kept has none. REQUIRES: subs_mu_ held.
    bool take_remembered(const Sub &sub, FieldTarget &t, std::vector<Remembered> &kept);
    // Sends sub's 29, then catches a field subscription up with the store.
    void confirm(const SubPtr &sub);
    void confirm_renewed(const std::vector<SubPtr> &subs);
    // Sends sub's 29 (once per callback and argument); false, sending
    // nothing, when sub was dropped.
    bool announce(Sub &sub);
    // Compares an announced field subscription's base with `read`, its
    // record read after the 29, and delivers what differs; from then on its
    // pushes are delivered. Left as it is when the read lost the connection.
    void catch_up(Sub &sub, const Store::OrderedRead &read);
    void deliver_change(const Change &c);
    void deliver_record(Sub &sub, const Change &c, bool *reported);
    void deliver_fields(Sub &sub, const std::string &key, const Record *rec,
                        const std::vector<bool> &hit, bool *reported);
    // Delivers rec (non-null) of key as sub's change to (cb, arg); false,
    // with one stderr line, when it could not be decoded or memory ran out.
    bool push(qz_mom_record_cb cb, void *arg, const Sub &sub, int32_t db, const std::string &key,
              const Record *rec, bool *reported);
    void drop_subs(uint64_t below);
    void run_reconnect_cbs();
    // Tells the connection-state callback, if one is set; false when none is.
    bool tell_conn(int32_t up, const std::string &why);
    void call(qz_mom_record_cb cb, void *arg, int32_t cmd, qz_mom_hash_res_t *res);
    // One stderr line the first time a record of this handle is decoded
    // with hash fields its type lacks; later reads and pushes say nothing.
    void note_ignored(int32_t db, std::string_view key, const DecodeError &err);

    uint32_t magic_ = kMagic;
    std::string uri_;
    std::unique_ptr<Store> store_;
    FaultQueue faults_;

    std::mutex subs_mu_;  // guards the maps below and the remembered values
    uint64_t next_sub_ = 1;
    std::unordered_multimap<std::string, SubPtr, StrHash, std::equal_to<>> by_key_;
    std::unordered_multimap<std::string, SubPtr, StrHash, std::equal_to<>> by_type_;
    std::unordered_map<std::string, std::vector<Remembered>, StrHash, std::equal_to<>> remembered_;

    std::mutex ignored_mu_;                              // a leaf: taken with no other lock held
    std::set<std::pair<int32_t, std::string>> ignored_;  // (db, key) noted

    bool renewing_ = false;        // delivery thread only: in the reconnect callbacks
    std::vector<SubPtr> renewed_;  // delivery thread only: their subscriptions

    std::mutex cbs_mu_;  // guards the callbacks below
    std::vector<ReconnectCb> reconnect_cbs_;
    qz_mom_conn_cb conn_cb_ = nullptr;
    void *conn_user_ = nullptr;

    std::mutex q_mu_;
    std::condition_variable q_cv_;  // wakes the delivery thread, unless:
    qzplat::WakeFd wake_fd_;        // its store serves it (Store::serve): then this
    bool waiting_ = false;          // it waits in store_->serve()
    std::deque<Item> queue_;
    bool stop_ = false;
    std::thread thread_;
    std::atomic<std::thread::id> thread_id_;  // set by the delivery thread itself
};

}  // namespace qzmom

#endif  // QZ_MOM_IMPL_CLIENT_H
