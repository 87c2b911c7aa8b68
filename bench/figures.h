// The benchmarks, and the library client they share.
#ifndef QZCAP_BENCH_FIGURES_H
#define QZCAP_BENCH_FIGURES_H

#include <memory>
#include <string>

#include "bench.h"
#include "libqz_cap.h"
#include "private_redis_server.h"
#include "qz_mom.h"

namespace qzbench {

using RedisServer = qztest::PrivateRedisServer;

struct CtxFree {
    void operator()(libqz_cap_ctrl_info_t *c) const { libqz_cap_ctrl_info_free(c); }
};
using CtxPtr = std::unique_ptr<libqz_cap_ctrl_info_t, CtxFree>;

// A bus handle with a library context bound to it; the handle goes first on
// destruction, so no callback can still reach the context.
class LibClient {
  public:
    LibClient() = default;
    ~LibClient();
    LibClient(const LibClient &) = delete;
    LibClient &operator=(const LibClient &) = delete;

    // Creates the handle; its reconnect callback `recon` (if any) is
    // registered before libqz_cap_init_thread, so it runs before the
    // library's own.
    bool open(const std::string &uri, std::string *why, qz_mom_reconnect_cb recon = nullptr,
              void *recon_arg = nullptr);

    void *global = nullptr;
    CtxPtr ctx;
};

Figure bench_redis_read(const Options &opts, RedisServer &server);
Figure bench_mem_read(const Options &opts);
Figure bench_push(const Options &opts, RedisServer &server);
Figure bench_renewal(const Options &opts, RedisServer &server);
Figure bench_many_processes(const Options &opts, RedisServer &server);
Figure bench_load(const Options &opts, RedisServer &server);

}  // namespace qzbench

#endif  // QZCAP_BENCH_FIGURES_H
