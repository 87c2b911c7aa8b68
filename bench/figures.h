// The benchmarks, and the library client they share.
#ifndef QZCAP_BENCH_FIGURES_H
#define QZCAP_BENCH_FIGURES_H

#include <string>

#include "bench.h"
#include "libqz_cap.h"
#include "qz_mom.h"
#include "redis_server.h"

namespace qzbench {

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
    libqz_cap_ctrl_info_t *ctx = nullptr;
};

Figure bench_redis_read(const Options &opts, RedisServer &server);
Figure bench_mem_read(const Options &opts);
Figure bench_push(const Options &opts, RedisServer &server);
Figure bench_renewal(const Options &opts, RedisServer &server);
Figure bench_load(const Options &opts, RedisServer &server);

}  // namespace qzbench

#endif  // QZCAP_BENCH_FIGURES_H
