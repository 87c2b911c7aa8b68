// What a renewal measurement tracks: N value subscriptions of int32
// capabilities, each confirmed (cmd 29) and then delivering a value written
// after its confirmation, with the stamps of the first and last of each.
// Benchmark 4 runs one set in the bench process; benchmark 5 runs one set in
// each of its application processes.
#ifndef QZCAP_BENCH_RENEWAL_TRACKER_H
#define QZCAP_BENCH_RENEWAL_TRACKER_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "bench.h"
#include "figures.h"
#include "raw_redis.h"

namespace qzbench {

class Publisher;

// State of one round, shared by main, the subscriber's thread and the publisher.
struct RenewRun {
    RenewRun(int count, const std::string &url_prefix);

    int n = 0;
    std::vector<std::string> urls, keys;
    std::unordered_map<std::string, int> by_channel;
    CtxPtr cb_ctx;  // the extractor's, on the bus's thread
    Publisher *pub = nullptr;

    std::atomic<int32_t> gen{0};  // the value this phase publishes
    std::unique_ptr<std::atomic<uint8_t>[]> confirmed, delivered;
    std::atomic<int> n_confirmed{0}, n_delivered{0}, n_other{0}, n_early{0}, n_dup{0};
    std::atomic<int> n_recon{0};
    std::atomic<int64_t> subs_at_recon{-1};
    std::atomic<int64_t> t_start{0}, t_confirmed{0}, t_done{0};

    std::mutex mu;
    std::condition_variable cv;
    std::string error;

    // REQUIRES: no subscriber or publisher activity.
    void reset(int32_t g);

    void on_confirmed(int i);
    // True for the delivery that completes the set.
    bool on_value(int i, int32_t v);
    // What subscription i's library callback got.
    void on_lib_event(int i, qz_mom_pmsg_t *pmsg);
    void fail(const std::string &why);

    bool wait_done(int ms, std::string *why);
    // Everything a finished phase must show; *why names the first miss.
    bool check(std::string *why);
};

// A bus reconnect callback for the handle of `run` (user data), registered
// before libqz_cap_init_thread so that it runs before the library's: it
// stamps the start of the library's renewal and counts the subscriptions
// already in place (none, when the order holds).
int32_t stamp_reconnect(void *global, int32_t db, int32_t type, void *run);

// Writes each subscription's new value once it is confirmed, on its own
// connection (made when the first value is due, so that it reaches the
// server that confirmed), pipelining whatever has queued up meanwhile.
class Publisher {
  public:
    explicit Publisher(RenewRun *run) : run_(run) {}
    ~Publisher() { stop(); }
    Publisher(const Publisher &) = delete;
    Publisher &operator=(const Publisher &) = delete;

    void start(const std::string &socket);
    void push(int i);
    void stop();

  private:
    void loop();
    bool write(const std::deque<int> &batch);

    RenewRun *run_;
    std::string socket_;
    Conn conn_;
    std::thread thread_;
    std::mutex mu_;
    std::condition_variable cv_;
    std::deque<int> queue_;
    bool stopping_ = false;
};

}  // namespace qzbench

#endif  // QZCAP_BENCH_RENEWAL_TRACKER_H
