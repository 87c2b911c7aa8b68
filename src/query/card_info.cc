// Subcard readiness (found through the card inventory) and the process-wide
// list of subcard nodes that the subcard reads cache it in.
#include <cstring>

#include "core/alloc.h"
#include "core/bus.h"
#include "core/log.h"
#include "core/state.h"
#include "internal.h"
#include "p_dev.pb-c.h"
#include "p_libpub.pb-c.h"

namespace {

constexpr int32_t kStateReadyField = 6;

libqz_cap_subcard_node_t *node_of(libqz_cap_list_head_t *link) {
    return reinterpret_cast<libqz_cap_subcard_node_t *>(link);  // the link is the first member
}

}  // namespace

extern "C" {

int32_t libqz_cap_get_sub_card_local_ready_thread(void *global, bool *ready, int32_t nodeid) {
    QZ_CHECK_PTR(global, "global");
    QZ_CHECK_PTR(ready, "ready");
    QZ_LOG(4, qzcap::kInfo, "enter");

    // Every card: the callback picks the one with this node id.
    PDev__CardInfoIndex card_index = P_DEV__CARD_INFO_INDEX__INIT;
    PDev__CardInfo card_key = P_DEV__CARD_INFO__INIT;
    card_key.index = &card_index;
    // Cleared per scan so that an earlier lookup's card never stands in for
    // a missing one.
    qzcap::g_found_config_dev_type = 0;
    const int32_t rv =
        qz_mom_scan_sync(global, LIBQZ_CAP_DB, &card_key.base, 0, libqz_cap_card_info_cb, &nodeid);
    if (rv != 0) {
        QZ_LOG(1, qzcap::kError, "failed,rv %d", rv);
        return rv;
    }
    const int32_t dev_type = qzcap::g_found_config_dev_type;
    if (dev_type == 0) {
        QZ_LOG(1, qzcap::kError, "get config_dev_type from nodeid fail");
        return LIBQZ_CAP_E_BUS;
    }

    PLibpub__CapSubcardStateIndex state_index = P_LIBPUB__CAP_SUBCARD_STATE_INDEX__INIT;
    state_index.nodeid = nodeid;
    state_index.config_dev_type = dev_type;
    PLibpub__CapSubcardState state_key = P_LIBPUB__CAP_SUBCARD_STATE__INIT;
    state_key.index = &state_index;
    qzcap::HashResPtr res(qz_mom_hgetall_sync(global, LIBQZ_CAP_DB, &state_key.base));
    if (!res) {
        QZ_LOG(1, qzcap::kError, "subcard_cap_state result NULL");
        return LIBQZ_CAP_E_BUS;
    }
    if (res->error_code != 0) {
        QZ_LOG(1, qzcap::kError, "subcard_cap_state, result error_code %d", res->error_code);
        res.reset();
        return LIBQZ_CAP_E_BUS;
    }
    // Not published yet, or published without the flag: not ready, no error.
    const auto *state = static_cast<const PLibpub__CapSubcardState *>(res->view);
    if (state == nullptr) {
        QZ_LOG(4, qzcap::kInfo, "tmp_state is NULL");
        *ready = false;
    } else if (qzcap::holds_field(*res, kStateReadyField)) {
        QZ_LOG(4, qzcap::kInfo, "ready is %d", state->ready);
        *ready = state->ready != 0;
    } else {
        QZ_LOG(4, qzcap::kInfo, "tmp_state, field invalid");
        *ready = false;
    }
    res.reset();
    QZ_LOG(4, qzcap::kInfo, "leave");
    return 0;
}

int32_t libqz_cap_card_info_cb(void *global, struct qz_mom_pmsg *pmsg, void *privdata) {
    (void)global;
    QZ_CHECK_PTR(pmsg, "pmsg");
    QZ_CHECK_PTR(privdata, "privdata");
    if (pmsg->cmd != 4 && pmsg->cmd != 6)
        return 0;
    QZ_CHECK_PTR(pmsg->result, "res");
    const auto *card = static_cast<const PDev__CardInfo *>(pmsg->result->view);
    QZ_CHECK_PTR(card, "card_info_info");
    QZ_CHECK_PTR(card->index, "card_info_info->index");
    // Neither the error code nor the field list is consulted: a card stored
    // without a device type stores 0, and the last matching card wins.
    const int32_t wanted = *static_cast<const int32_t *>(privdata);
    if (card->card_nodeid == wanted) {
        qzcap::g_found_config_dev_type = card->config_dev_type;
        QZ_LOG(4, qzcap::kInfo,
               "get config_dev_type from nodeid success, nodeid = %d, config_dev_type = %d", wanted,
               card->config_dev_type);
    }
    return 0;
}

// REQUIRES: payload points to a whole payload (nodeid set, the rest zero).
libqz_cap_subcard_node_t *libqz_cap_node_init(const libqz_cap_subcard_node_payload_t *payload) {
    QZ_LOG(4, qzcap::kInfo, "enter");
    auto *node =
        static_cast<libqz_cap_subcard_node_t *>(qzcap::xmalloc(sizeof(libqz_cap_subcard_node_t)));
    if (node == nullptr) {
        QZ_LOG(1, qzcap::kError, "malloc err");
        return nullptr;
    }
    memset(node, 0, sizeof *node);
    memcpy(&node->payload, payload, sizeof node->payload);

    // Before the first greater node id, so equal ids keep their creation order.
    libqz_cap_list_head_t *const head = &cap_sub_card_nodes_list;
    libqz_cap_list_head_t *pos = head->next;
    while (pos != head && node_of(pos)->payload.nodeid <= node->payload.nodeid)
        pos = pos->next;
    node->list.next = pos;
    node->list.prev = pos->prev;
    pos->prev->next = &node->list;
    pos->prev = &node->list;

    QZ_LOG(4, qzcap::kInfo, "leave");
    return node;
}

}  // extern "C"
