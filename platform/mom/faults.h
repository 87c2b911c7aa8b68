// Injected faults of one handle (qz_mom_test.h): a queue per operation,
// consumed by the operation's next calls. Costs one atomic load per call
// while nothing is pending.
#ifndef QZ_MOM_IMPL_FAULTS_H
#define QZ_MOM_IMPL_FAULTS_H

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>

#include "qz_mom_test.h"

namespace qzmom {

struct Fault {
    enum Kind { kStatus, kNull, kError } kind = kStatus;
    int32_t code = 0;        // the status, or the result's error code
    bool with_view = false;  // kError: the result carries the decoded record too
};

// True for the operations that return a result or object (GET, HGETALL*).
inline bool returns_result(qz_mom_op_t op) {
    return op == QZ_MOM_OP_GET || op == QZ_MOM_OP_HGETALL || op == QZ_MOM_OP_HGETALL_EXT;
}

class FaultQueue {
  public:
    // `times` faults of `f` for op (no effect when times is 0 or op invalid).
    void push(qz_mom_op_t op, Fault f, uint32_t times);
    void clear();

    // Takes the next fault of op into *out; false when none is pending.
    bool take(qz_mom_op_t op, Fault *out) {
        if (pending_.load(std::memory_order_acquire) == 0)
            return false;
        return take_slow(op, out);
    }

  private:
    struct Pending {
        Fault fault;
        uint32_t times;
    };
    bool take_slow(qz_mom_op_t op, Fault *out);

    std::atomic<uint32_t> pending_{0};  // entries in all queues
    std::mutex mu_;
    std::array<std::deque<Pending>, QZ_MOM_OP_COUNT> queues_;
};

}  // namespace qzmom

#endif  // QZ_MOM_IMPL_FAULTS_H
