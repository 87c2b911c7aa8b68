// Subcard readiness, found through the card inventory.
#include "core/bus.h"
#include "core/keys.h"
#include "core/log.h"
#include "query/query.h"

namespace {

constexpr int32_t kStateReadyField = 6;

}  // namespace

namespace qzcap {

int32_t g_found_config_dev_type = 0;

}  // namespace qzcap

extern "C" {

int32_t libqz_cap_get_sub_card_local_ready_thread(void *global, bool *ready, int32_t nodeid) {
    QZ_CHECK_PTR(global, "global");
    QZ_CHECK_PTR(ready, "ready");
    QZ_LOG(4, qzcap::kInfo, "enter");

    // Every card: the callback picks the one with this node id.
    const qzcap::CardInfoKey every_card;
    // Cleared per scan so that an earlier lookup's card never stands in for
    // a missing one.
    qzcap::g_found_config_dev_type = 0;
    const int32_t rv = qz_mom_scan_sync(global, qzcap::kCapDb, every_card.msg(), 0,
                                        libqz_cap_card_info_cb, &nodeid);
    if (rv != 0) {
        QZ_LOG(1, qzcap::kError, "failed,rv %d", rv);
        return rv;
    }
    const int32_t dev_type = qzcap::g_found_config_dev_type;
    if (dev_type == 0) {
        QZ_LOG(1, qzcap::kError, "get config_dev_type from nodeid fail");
        return LIBQZ_CAP_E_BUS;
    }

    const qzcap::SubcardStateKey state_key([&](PLibpub__CapSubcardStateIndex &index) {
        index.nodeid = nodeid;
        index.config_dev_type = dev_type;
    });
    qzcap::HashResPtr res(qz_mom_hgetall_sync(global, qzcap::kCapDb, state_key.msg()));
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
    if (pmsg->cmd != QZ_MOM_CMD_SCAN && pmsg->cmd != QZ_MOM_CMD_CHANGED)
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

}  // extern "C"
