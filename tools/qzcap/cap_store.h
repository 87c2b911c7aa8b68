// The capability operations of get, set, del and list. Values are read
// through the library's own non-blocking reads where it has them (every
// device-wide type; bool and int32 of subcards); the rest, and every write,
// through the bus client.
#ifndef QZCAP_TOOL_CAP_STORE_H
#define QZCAP_TOOL_CAP_STORE_H

#include <optional>
#include <string>
#include <vector>

#include "cap_record.h"
#include "capability.h"
#include "connection.h"

namespace qzcap::tool {

// The values the capability holds (bool, int32, str order); a not-found
// Failure when no record is stored under key.
std::vector<CapValue> read_capability(const Connection &conn, const CapKey &key);

// Stores value as the capability's only value (its other value fields are
// removed; pri and state stay), in one step.
void write_capability(const Connection &conn, const CapKey &key, const CapValue &value);

// Deletes the capability's record; a not-found Failure when there is none.
void delete_capability(const Connection &conn, const CapKey &key);

struct ListedCap {
    CapKey key;
    CapRecord record;
};

// Every capability record whose URL starts with prefix: device-wide ones
// (unless node is given) sorted by URL, then subcard ones (only node's, when
// given) sorted by node id and URL.
std::vector<ListedCap> list_capabilities(const Connection &conn, const std::string &prefix,
                                         std::optional<int32_t> node);

}  // namespace qzcap::tool

#endif  // QZCAP_TOOL_CAP_STORE_H
