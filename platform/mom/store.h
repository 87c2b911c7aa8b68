// The store behind a client handle: the only part that differs between the
// embedded store and a Redis store. Everything the bus promises about events,
// subscriptions, decoding and reconnection lives in the client (client.h),
// written once over this interface.
//
// Model (Redis's): numbered databases; in each, records keyed by a string
// (codec.h builds the keys), each record a hash of field name -> bytes. A
// record with no fields does not exist.
//
// A Store object is one handle's connection: open_store() makes one per
// client, with the client as its listener. Several connections may reach the
// same data (two handles on "mem:NAME", or on one redis-server); a write
// through any of them is seen by the watches of all of them.
//
// The Redis store (redis_store.h) maps the calls as follows: get -> HGETALL;
// scan -> SCAN MATCH "<type>|*" (glob characters escaped), then HGETALL of
// every key in one pipeline; write -> HSET and/or HDEL (in MULTI when both);
// remove -> DEL; write_batch -> one pipelined MULTI/EXEC of DEL, HSET and
// HDEL; watch -> SUBSCRIBE "__keyspace@<db>__:<key>" for a key
// watch, PSUBSCRIBE "__keyspace@<db>__:<type>|*" for a whole-type watch
// (per-key patterns cost every push on the server; see design.md). A
// keyspace event becomes one HGETALL and one Change with changed_known =
// false.
#ifndef QZ_MOM_IMPL_STORE_H
#define QZ_MOM_IMPL_STORE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "record.h"

namespace qzmom {

// One change of one record, as a watch sees it.
struct Change {
    int32_t db = 0;
    std::string key;
    Snapshot record;  // the whole record after the change; null when it was deleted
    // When changed_known, `changed` lists the numbers of the fields whose
    // value changed (set to a different value, appeared or disappeared); a
    // write that changed nothing still produces a Change, with an empty list.
    // A backend that cannot tell (Redis) leaves changed_known false.
    bool changed_known = false;
    std::vector<int32_t> changed;
    // Where the record was read in the order of get_ordered() reads (a store
    // that reads after the event, like Redis); 0 when the store snapshots
    // records in the order of their changes itself.
    uint64_t seq = 0;
};
using ChangePtr = std::shared_ptr<const Change>;

// What a watch covers: one exact key, or every key "<type>|..." of a keyed type.
struct WatchSpec {
    int32_t db = 0;
    std::string key;  // the exact key, or the type name when whole_type
    bool whole_type = false;
};

// One field of a write: set name to value, or remove the field.
struct FieldWrite {
    std::string_view name;
    std::string_view value;
    bool remove = false;
};

// The writes of one record in a batch. `replace` empties the record first,
// so that it ends up holding exactly what `writes` stores (no writes: the
// record is deleted).
struct RecordWrite {
    std::string key;
    std::vector<FieldWrite> writes;
    bool replace = false;
    // Storage the writes may point into: a RecordWrite is filled in place
    // and not moved afterwards.
    std::vector<std::string> names, values;
};

// A record with its key, as a scan returns it.
struct Entry {
    std::string key;
    Snapshot record;
};

// Receives the store's events. Implemented by the client.
class StoreListener {
  public:
    virtual ~StoreListener() = default;

    // A watched record changed. Called in the order the store applied the
    // changes, possibly with a store lock held and from any thread: the
    // listener only queues the change and returns; it must not call the
    // store from here.
    virtual void on_change(ChangePtr change) = 0;

    // The connection is lost (`why` says how): every watch is gone, calls
    // fail with QZ_MOM_E_CONN until on_reconnected. Called with no store lock
    // held and no watch() waiting (the listener takes its own subscription
    // lock).
    virtual void on_connection_lost(const std::string &why) = 0;

    // The connection is back (after on_connection_lost). Watches are not
    // restored: the client's reconnect callbacks renew what they need.
    virtual void on_reconnected() = 0;
};

// One handle's connection to a store. Thread-safe: every call may come from
// any thread at once (the client's callers and its delivery thread).
// Calls return 0 or a negative QZ_MOM_E_ code.
class Store {
  public:
    virtual ~Store() = default;

    // Makes sure database db is reachable (blocking).
    virtual int32_t connect(int32_t db) = 0;

    // *out = the record under key, or null when none is stored.
    virtual int32_t get(int32_t db, std::string_view key, Snapshot *out) = 0;

    // As get(), ordered with the reads behind Change::seq: *seq is larger
    // than the seq of every change read before this read and smaller than
    // that of every change read after it. A store whose changes carry seq 0
    // sets *seq to 0.
    virtual int32_t get_ordered(int32_t db, std::string_view key, Snapshot *out, uint64_t *seq) {
        *seq = 0;
        return get(db, key, out);
    }

    // One ordered read of a record, for get_ordered_many().
    struct OrderedRead {
        int32_t db = 0;
        std::string_view key;
        Snapshot record;   // out
        uint64_t seq = 0;  // out, as get_ordered() sets it
        int32_t rc = 0;    // out, as get_ordered() returns it
    };
    // get_ordered() of each, in their order; a store that can sends them in
    // one round trip.
    virtual void get_ordered_many(std::vector<OrderedRead> &reads) {
        for (OrderedRead &r : reads)
            r.rc = get_ordered(r.db, r.key, &r.record, &r.seq);
    }

    // Every record of a type, sorted by key: keys "<type>|..." when keyed,
    // else the one key "<type>".
    virtual int32_t scan(int32_t db, std::string_view type, bool keyed,
                         std::vector<Entry> *out) = 0;

    // Applies the writes to the record under key in one step (creating it;
    // a record left without fields is deleted) and notifies watches.
    virtual int32_t write(int32_t db, std::string_view key, const FieldWrite *writes,
                          size_t count) = 0;

    // Applies the writes of every record in one step (no reader sees some of
    // them without the others) and notifies watches of each record.
    virtual int32_t write_batch(int32_t db, const std::vector<RecordWrite> &records) = 0;

    // Deletes the record (0 also when none was stored) and notifies watches.
    virtual int32_t remove(int32_t db, std::string_view key) = 0;

    // Starts delivering changes of spec's records to the listener. Each call
    // is its own watch, ended by unwatch(*id). Returns once the watch is in
    // place: every change made after the return is delivered.
    virtual int32_t watch(const WatchSpec &spec, uint64_t *id) = 0;
    virtual void unwatch(uint64_t id) = 0;

    // As watch(), but returns once the watch is requested, not in place:
    // settle(*id) tells when it is. Many deferred watches then cost one
    // round trip instead of one each. The request goes out at the latest
    // with the next settle() or serve(). A store whose watches are in place
    // at once needs neither.
    virtual int32_t watch_deferred(const WatchSpec &spec, uint64_t *id) { return watch(spec, id); }
    // 0 once watch id is in place: every change made from then on is
    // delivered. QZ_MOM_E_CONN when the connection was lost first (the watch
    // is gone with it).
    virtual int32_t settle(uint64_t id) {
        (void)id;
        return 0;
    }
    // Whether watch id is in place now, without waiting.
    virtual bool in_place(uint64_t id) {
        (void)id;
        return true;
    }

    // Ends every watch and stops all calls to the listener: once close()
    // returns, the listener is never called again.
    virtual void close() = 0;

    // A store that receives changes on a socket of its own (Redis) lets the
    // client's delivery thread wait on it, so that a push reaches its
    // callback without a thread switch. Such a store's serves() is true, and
    // the delivery thread calls serve() whenever its queue is empty: it
    // waits until the store has work (changes arrived, the connection was
    // lost, a reconnection is due) or wake_fd (an eventfd) is readable,
    // does that work (the listener calls come from this thread) and returns.
    virtual bool serves() const { return false; }
    virtual void serve(int wake_fd) { (void)wake_fd; }
};

// Opens a connection for the URI ("mem:", "mem:NAME", "redis://host:port",
// "unix:/path"). On failure returns null and sets *why and *code:
// QZ_MOM_E_ARG for a malformed URI, QZ_MOM_E_CONN when the store does not
// answer, QZ_MOM_E_REPLY when it answers but refuses the client.
std::unique_ptr<Store> open_store(std::string_view uri, StoreListener *listener, std::string *why,
                                  int32_t *code);

}  // namespace qzmom

#endif  // QZ_MOM_IMPL_STORE_H
