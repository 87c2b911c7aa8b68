// The read side: card lookup and the process-wide list of subcard nodes in
// which the subcard reads cache each subcard's readiness.
#ifndef LIBQZ_CAP_QUERY_QUERY_H
#define LIBQZ_CAP_QUERY_QUERY_H

#include <cstdint>

#include "libqz_cap.h"

struct libqz_cap_subcard_node_payload_t {
    int32_t nodeid;
    uint8_t ready;  // cached subcard readiness; never cleared
    uint32_t sleep_time;
    uint8_t reserved[392];
};
static_assert(sizeof(libqz_cap_subcard_node_payload_t) == 404,
              "subcard node payload must be 404 bytes");

struct libqz_cap_subcard_node_t {
    libqz_cap_list_head_t list;  // first: a list link is the node's address
    libqz_cap_subcard_node_payload_t payload;
};

extern "C" {

// Card-information scan callback; privdata points to the wanted node id.
int32_t libqz_cap_card_info_cb(void *global, struct qz_mom_pmsg *pmsg, void *privdata);

// A node for payload->nodeid, linked before the first node of a greater id
// (so equal ids keep their creation order); NULL without memory.
// REQUIRES: payload points to a whole payload (nodeid set, the rest zero).
libqz_cap_subcard_node_t *libqz_cap_node_init(const libqz_cap_subcard_node_payload_t *payload);

}  // extern "C"

namespace qzcap {

// Device type of the card that the last card lookup matched; 0: none found.
// Shared by all threads and unsynchronised, as all the library's state.
extern int32_t g_found_config_dev_type;

// The first node of nodeid in the list, or NULL.
libqz_cap_subcard_node_t *find_subcard_node(int32_t nodeid);

// Empties the list without freeing it: nodes handed out stay valid for
// their holders.
void forget_subcard_nodes();

}  // namespace qzcap

#endif  // LIBQZ_CAP_QUERY_QUERY_H
