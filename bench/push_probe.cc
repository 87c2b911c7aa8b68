#include "push_probe.h"

#include "qz_mom.h"

namespace qzbench {
namespace {

// What an application's value callback does: take URL and value out.
int32_t lib_push_cb(void *, qz_mom_pmsg *pmsg, void *arg) {
    auto *p = static_cast<LibProbe *>(arg);
    if (pmsg->cmd == QZ_MOM_CMD_SUBSCRIBED) {
        p->waiter.confirmed();
        return 0;
    }
    char url[256] = "";
    bool v = false;
    uint32_t len = 0;
    int32_t rc =
        libqz_cap_ce_get_g_cap_bool_by_pmsg_thread(pmsg, sizeof url, url, p->ctx.get(), &v, &len);
    int64_t t = now_ns();
    if (rc != 0 || p->url != url) {
        p->waiter.fail(
            format("library callback: cmd %d, extractor %d, url '%s'", pmsg->cmd, rc, url));
        return 0;
    }
    p->waiter.deliver(v ? 1 : 0, t);
    return 0;
}

}  // namespace

bool LibProbe::subscribe(LibClient &lib, int timeout_ms, std::string *why) {
    if (!ctx) {
        *why = "libqz_cap_ctrl_info_init returned NULL";
        return false;
    }
    int32_t rc = libqz_cap_ce_subscribe_g_cap_bool_ext_thread(lib.global, url.c_str(), lib_push_cb,
                                                              this, lib.ctx.get());
    if (rc != 0) {
        *why = format("libqz_cap_ce_subscribe_g_cap_bool_ext_thread: %d", rc);
        return false;
    }
    if (!waiter.wait_confirmed(timeout_ms)) {
        *why = "the library subscription was never confirmed (no cmd 29)";
        return false;
    }
    return true;
}

}  // namespace qzbench
