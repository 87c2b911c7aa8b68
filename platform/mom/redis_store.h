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
// Events for one key already waiting in the same read are folded into one
// HGETALL, and a record equal to the last one pushed for its key is not
// pushed again: a rewrite of the same values delivers nothing, as a later
// event may be one whose change an earlier read already showed.
#ifndef QZ_MOM_IMPL_REDIS_STORE_H
#define QZ_MOM_IMPL_REDIS_STORE_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "store.h"

namespace qzmom {

// Connects to "redis://host[:port]" or "unix:/path". Null, *why and *code
// (as open_store) on failure.
std::unique_ptr<Store> open_redis_store(std::string_view uri, StoreListener *listener,
                                        std::string *why, int32_t *code);

}  // namespace qzmom

#endif  // QZ_MOM_IMPL_REDIS_STORE_H
