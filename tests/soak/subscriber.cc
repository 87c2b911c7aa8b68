// A subscriber: the library initialised on its own bus handle, a value
// subscription per capability key, the device-wide readiness subscription
// and the subcard readiness subscription. Each delivery is checked and
// noted on the board; the subcard subscription, which the library does not
// renew, is renewed from a reconnect callback of our own, as an application
// must.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <deque>

#include "items.h"
#include "libqz_cap.h"
#include "p_libpub.pb-c.h"
#include "qz_mom.h"
#include "qz_mom_client.h"
#include "qz_mom_test.h"
#include "roles.h"

namespace soak {
namespace {

struct ValueSub {
    ChildBlock *block;
    Slot *slot;
    std::string url;
    bool ignore_after_reconnect;  // injected fault
};

struct Subscriber {
    Board *board = nullptr;
    ChildBlock *block = nullptr;
    bool leak_fd_per_reconnect = false;  // injected fault
    int mod_token = 0;                   // the subcard subscription's `mod`: any non-null pointer
};

void note(Slot &slot, int64_t value) {
    slot.value.store(value);
    slot.count.fetch_add(1);
    slot.seen_ns.store(now_ns());
}

// A sequence number must never go back: the store holds each key's values in
// the order they were written, and deliveries keep that order.
void note_sequence(const ValueSub &s, int64_t seq) {
    const int64_t before = s.slot->value.load();
    if (seq < before)
        report_fault(*s.block, "%s went back from %lld to %lld", s.url.c_str(),
                     static_cast<long long>(before), static_cast<long long>(seq));
    note(*s.slot, seq);
}

// Confirmations and deletions are not values: a restarted server is empty
// until the publisher writes again. True when the message is a value.
bool is_value(const ValueSub &s, const qz_mom_pmsg_t *pmsg) {
    if (pmsg->cmd == QZ_MOM_CMD_SUBSCRIBED) {
        s.block->confirmations.fetch_add(1);
        return false;
    }
    if (pmsg->cmd == QZ_MOM_CMD_DELETED)
        return false;
    if (s.ignore_after_reconnect && s.block->reconnects.load() > 0)
        return false;
    if (pmsg->cmd != QZ_MOM_CMD_CHANGED) {
        report_fault(*s.block, "%s: unexpected event %d", s.url.c_str(), pmsg->cmd);
        return false;
    }
    return true;
}

bool check_url(const ValueSub &s, const char *url, uint32_t length) {
    if (s.url == url && length == s.url.size())
        return true;
    report_fault(*s.block, "%s: the pushed message names \"%s\" (length %u)", s.url.c_str(), url,
                 length);
    return false;
}

int32_t on_int32(void *, qz_mom_pmsg_t *pmsg, void *arg) {
    const auto &s = *static_cast<const ValueSub *>(arg);
    if (!is_value(s, pmsg))
        return 0;
    char url[256] = {};
    int32_t value = 0;
    uint32_t length = 0;
    const int32_t rc = libqz_cap_ce_get_g_cap_int32_by_pmsg(pmsg, sizeof url, url, &value, &length);
    if (rc != 0) {
        report_fault(*s.block, "%s: int32 extractor returned %d", s.url.c_str(), rc);
        return 0;
    }
    if (check_url(s, url, length))
        note_sequence(s, value);
    return 0;
}

// A boolean key carries its sequence number in int32_value and its parity in
// bool_value, written in one step.
int32_t on_bool(void *, qz_mom_pmsg_t *pmsg, void *arg) {
    const auto &s = *static_cast<const ValueSub *>(arg);
    if (!is_value(s, pmsg))
        return 0;
    char url[256] = {};
    bool value = false;
    uint32_t length = 0;
    const int32_t rc = libqz_cap_ce_get_g_cap_bool_by_pmsg(pmsg, sizeof url, url, &value, &length);
    if (rc != 0) {
        report_fault(*s.block, "%s: bool extractor returned %d", s.url.c_str(), rc);
        return 0;
    }
    if (!check_url(s, url, length))
        return 0;
    const auto *rec = static_cast<const PLibpub__CapTable *>(pmsg->result->view);
    const int64_t seq = rec->int32_value;
    if (value != ((seq & 1) != 0)) {
        report_fault(*s.block, "%s: delivered %d with sequence %lld", s.url.c_str(), value,
                     static_cast<long long>(seq));
        return 0;
    }
    note_sequence(s, seq);
    return 0;
}

// The callback only says that the record was delivered: read what it holds.
int32_t on_state(void *global, void *arg) {
    auto &sub = *static_cast<Subscriber *>(arg);
    bool ready = false;
    if (libqz_cap_ce_get_glb_ready(global, &ready) == 0)
        note(sub.block->slots[sub.board->config.state_item()], ready ? 1 : 0);
    return 0;
}

// The publisher replaces subcard n's record by one whose config_dev_type is
// its next sequence number, then deletes the old one; a scan may deliver
// both in key order, so the highest one seen counts.
int32_t on_subcard(void *, libqz_cap_subcard_msg_t *msg, void *arg) {
    auto &sub = *static_cast<Subscriber *>(arg);
    const Config &cfg = sub.board->config;
    if (msg->nodeid < 1 || static_cast<uint32_t>(msg->nodeid) > cfg.subcards) {
        report_fault(*sub.block, "subcard state of unknown node %d", msg->nodeid);
        return 0;
    }
    const int64_t seq = msg->config_dev_type;
    if (msg->ready != ((seq & 1) != 0)) {
        report_fault(*sub.block, "subcard %d: ready %d with sequence %lld", msg->nodeid, msg->ready,
                     static_cast<long long>(seq));
        return 0;
    }
    Slot &slot = sub.block->slots[cfg.keys + static_cast<uint32_t>(msg->nodeid) - 1];
    int64_t seen = slot.value.load();
    while (seen < seq && !slot.value.compare_exchange_weak(seen, seq)) {
    }
    slot.count.fetch_add(1);
    slot.seen_ns.store(now_ns());
    return 0;
}

int32_t subscribe_subcards(void *global, Subscriber &sub) {
    return libqz_cap_subscribe_subcard_state(global, &sub.mod_token, on_subcard, &sub);
}

int32_t on_reconnect(void *global, int32_t, int32_t, void *arg) {
    auto &sub = *static_cast<Subscriber *>(arg);
    sub.block->reconnects.fetch_add(1);
    if (sub.leak_fd_per_reconnect)
        (void)open("/dev/null", O_RDONLY);
    // A failure here comes from a lost connection, whose reconnection calls us again.
    const int32_t rc = subscribe_subcards(global, sub);
    if (rc != 0)
        fprintf(stderr, "soak: renewing the subcard subscription failed: %d\n", rc);
    return 0;
}

}  // namespace

int run_subscriber(const RoleArgs &args) {
    Board *board = attach(args, &Config::subscribers);
    if (board == nullptr)
        return 2;
    const Config &cfg = board->config;
    Subscriber sub;
    sub.board = board;
    sub.block = &board->subscribers[args.index];
    sub.leak_fd_per_reconnect = args.index == 0 && (cfg.inject & kInjectFdPerReconnect) != 0;

    void *global = connect_bus(*board, args.uri);
    if (global == nullptr)
        return 0;
    // The thread's own context: the one the debug module uses too.
    libqz_cap_ctrl_info_t *ctx = &g_libqz_cap_ctrl_info;
    int32_t rc = libqz_cap_init(global, "soak");
    if (rc != 0) {
        fprintf(stderr, "soak: libqz_cap_init failed: %d\n", rc);
        return 2;
    }
    // Callback arguments must outlive the handle's deliveries.
    std::deque<ValueSub> subs;
    for (uint32_t k = 0; k < cfg.keys; ++k) {
        const bool ignore = args.index == 0 && k == 0 && (cfg.inject & kInjectIgnoreAfterRestart);
        ValueSub &s =
            subs.emplace_back(ValueSub{sub.block, &sub.block->slots[k], cap_url(k), ignore});
        rc = is_bool_key(k) ? libqz_cap_ce_subscribe_g_cap_bool_ext_thread(global, s.url.c_str(),
                                                                           on_bool, &s, ctx)
                            : libqz_cap_ce_subscribe_g_cap_int32_ext_thread(global, s.url.c_str(),
                                                                            on_int32, &s, ctx);
        if (rc != 0) {
            fprintf(stderr, "soak: subscribing to %s failed: %d\n", s.url.c_str(), rc);
            return 2;
        }
    }
    rc = libqz_cap_ce_subscribe_g_cap_state_thread(global, "soak", on_state, &sub, ctx);
    if (rc == 0)
        rc = subscribe_subcards(global, sub);
    if (rc == 0)
        rc = qz_mom_client_set_reconnect_cb(global, 3, on_reconnect, &sub);
    if (rc != 0) {
        fprintf(stderr, "soak: subscribing to the readiness records failed: %d\n", rc);
        return 2;
    }
    sub.block->ready.store(1);

    while (board->phase.load() != kStopping) {
        sub.block->bus_subscriptions.store(qz_mom_test_subscription_count(global));
        usleep(20 * 1000);
    }
    // No callback may run once the handle is gone.
    qz_mom_client_destroy(global);
    return sub.block->faults.load() == 0 ? 0 : 1;
}

}  // namespace soak
