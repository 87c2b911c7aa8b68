#include "chaos.h"

namespace soak {

Fault ChaosSchedule::next(bool previous_settled) {
    Fault f;
    f.wait_ms = previous_settled ? uniform(100, 1500) : uniform(0, 300);
    f.kind = chance(shares_.pause) ? FaultKind::kPause : FaultKind::kRestart;
    // Pauses reach past the clients' 1 s answer timeout half of the time.
    f.down_ms = f.kind == FaultKind::kRestart ? uniform(0, 800) : uniform(50, 2000);
    f.settle = !chance(shares_.burst);
    return f;
}

}  // namespace soak
