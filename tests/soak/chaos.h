// When and how the soak hurts the server: a seeded schedule of faults, so
// that a run can be repeated with its seed.
#ifndef QZCAP_TESTS_SOAK_CHAOS_H
#define QZCAP_TESTS_SOAK_CHAOS_H

#include <cstdint>
#include <random>

namespace soak {

enum class FaultKind {
    kRestart,  // SIGKILL, then start again on the same socket, empty
    kPause,    // SIGSTOP, then SIGCONT: connections stay, answers stop
};

struct Fault {
    FaultKind kind = FaultKind::kRestart;
    int64_t wait_ms = 0;  // from the previous recovery (or settling) to the fault
    int64_t down_ms = 0;  // how long the server stays killed or stopped
    bool settle = true;   // wait for every subscription to deliver before the next fault
};

struct ChaosShares {
    double pause = 0.3;   // of faults that pause rather than kill
    double burst = 0.25;  // of faults followed by the next one before things settle
};

class ChaosSchedule {
  public:
    ChaosSchedule(uint64_t seed, ChaosShares shares) : rng_(seed), shares_(shares) {}

    // The next fault. Right after an unsettled fault it comes within 300 ms
    // of the server's return, while the clients are still reconnecting and
    // renewing; otherwise at a random moment up to 1.5 s after settling.
    Fault next(bool previous_settled);

  private:
    int64_t uniform(int64_t lo, int64_t hi) {
        return std::uniform_int_distribution<int64_t>(lo, hi)(rng_);
    }
    bool chance(double p) { return std::uniform_real_distribution<double>(0, 1)(rng_) < p; }

    std::mt19937_64 rng_;
    ChaosShares shares_;
};

}  // namespace soak

#endif  // QZCAP_TESTS_SOAK_CHAOS_H
