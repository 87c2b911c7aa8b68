#include "many_child.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "figures.h"
#include "qz_mom_test.h"
#include "renewal_tracker.h"

namespace qzbench {
namespace {

struct Slot {
    RenewRun *run;
    int index;
};

int32_t on_event(void *, qz_mom_pmsg_t *pmsg, void *arg) {
    auto *s = static_cast<Slot *>(arg);
    s->run->on_lib_event(s->index, pmsg);
    return 0;
}

void answer(const std::string &line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

int fail(const std::string &why) {
    answer("fail " + why);
    return 1;
}

}  // namespace

int many_child_main(int argc, char **argv) {
    if (argc != 7) {
        std::fprintf(stderr, "%s SOCKET SUBSCRIPTIONS TIMEOUT_MS RENEW_TIMEOUT_MS INDEX\n",
                     kChildFlag);
        return 2;
    }
    const std::string socket = argv[2];
    const int n = std::atoi(argv[3]), timeout_ms = std::atoi(argv[4]),
              renew_ms = std::atoi(argv[5]), index = std::atoi(argv[6]);
    if (n < 1 || timeout_ms < 1 || renew_ms < 1 || index < 0)
        return fail("bad arguments");
    std::signal(SIGPIPE, SIG_IGN);

    // Declared before the client: the handle (and its callbacks) go first.
    RenewRun run(n, format("bench/many/%d/", index));
    Publisher pub(&run);
    run.pub = &pub;
    std::vector<Slot> slots;
    for (int i = 0; i < n; ++i)
        slots.push_back({&run, i});
    LibClient lib;
    std::string why;
    if (!run.cb_ctx)
        return fail("libqz_cap_ctrl_info_init returned NULL");
    if (!lib.open("unix:" + socket, &why, stamp_reconnect, &run))
        return fail(why);

    run.reset(1);
    pub.start(socket);
    const int64_t t0 = now_ns();
    for (int i = 0; i < n; ++i) {
        int32_t rc = libqz_cap_ce_subscribe_g_cap_int32_ext_thread(
            lib.global, run.urls[static_cast<size_t>(i)].c_str(), on_event,
            &slots[static_cast<size_t>(i)], lib.ctx.get());
        if (rc != 0)
            return fail(format("libqz_cap_ce_subscribe_g_cap_int32_ext_thread #%d: %d", i, rc));
    }
    if (!run.wait_done(timeout_ms, &why) || !run.check(&why))
        return fail("initial subscriptions: " + why);
    answer(format("ready %.1f", static_cast<double>(run.t_done - t0) / 1e6));

    char line[256];
    while (std::fgets(line, sizeof line, stdin) != nullptr) {
        if (std::strncmp(line, "quit", 4) == 0)
            break;
        int gen = 0;
        if (std::sscanf(line, "arm %d", &gen) != 1)
            return fail(format("unknown command '%s'", line));
        pub.stop();
        run.reset(gen);
        pub.start(socket);
        answer("armed");
        if (!run.wait_done(renew_ms, &why) || !run.check(&why)) {
            answer("fail after the restart: " + why);
            continue;
        }
        qz_mom_test_drain(lib.global);
        answer(format("done %lld %lld %lld %d %lld %u %d",
                      static_cast<long long>(run.t_start.load()),
                      static_cast<long long>(run.t_confirmed.load()),
                      static_cast<long long>(run.t_done.load()), run.n_recon.load(),
                      static_cast<long long>(run.subs_at_recon.load()),
                      qz_mom_test_subscription_count(lib.global), run.n_other.load()));
    }
    pub.stop();
    return 0;
}

}  // namespace qzbench
