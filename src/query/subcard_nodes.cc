// The process-wide list of subcard nodes (cap_sub_card_nodes_list), kept in
// node-id order: creation, ordering and lookup.
#include <cstring>

#include "core/alloc.h"
#include "core/log.h"
#include "query/query.h"

namespace {

libqz_cap_subcard_node_t *node_of(libqz_cap_list_head_t *link) {
    return reinterpret_cast<libqz_cap_subcard_node_t *>(link);  // the link is the first member
}

}  // namespace

extern "C" {

libqz_cap_subcard_node_t *libqz_cap_node_init(const libqz_cap_subcard_node_payload_t *payload) {
    QZ_LOG(4, qzcap::kInfo, "enter");
    qzcap::XPtr<libqz_cap_subcard_node_t> node = qzcap::xmalloc_n<libqz_cap_subcard_node_t>(1);
    if (!node) {
        QZ_LOG(1, qzcap::kError, "malloc err");
        return nullptr;
    }
    memset(node.get(), 0, sizeof *node);
    memcpy(&node->payload, payload, sizeof node->payload);

    libqz_cap_list_head_t *const head = &cap_sub_card_nodes_list;
    libqz_cap_list_head_t *pos = head->next;
    while (pos != head && node_of(pos)->payload.nodeid <= node->payload.nodeid)
        pos = pos->next;
    node->list.next = pos;
    node->list.prev = pos->prev;
    pos->prev->next = &node->list;
    pos->prev = &node->list;

    QZ_LOG(4, qzcap::kInfo, "leave");
    return node.release();  // the list's now, never freed
}

}  // extern "C"

namespace qzcap {

libqz_cap_subcard_node_t *find_subcard_node(int32_t nodeid) {
    libqz_cap_list_head_t *const head = &cap_sub_card_nodes_list;
    for (libqz_cap_list_head_t *pos = head->next; pos != head; pos = pos->next) {
        if (node_of(pos)->payload.nodeid == nodeid)
            return node_of(pos);
    }
    return nullptr;
}

void forget_subcard_nodes() {
    cap_sub_card_nodes_list.next = &cap_sub_card_nodes_list;
    cap_sub_card_nodes_list.prev = &cap_sub_card_nodes_list;
}

}  // namespace qzcap
