#include "faults.h"

namespace qzmom {

void FaultQueue::push(qz_mom_op_t op, Fault f, uint32_t times) {
    if (times == 0 || op < 0 || op >= QZ_MOM_OP_COUNT)
        return;
    std::lock_guard<std::mutex> lk(mu_);
    queues_[op].push_back(Pending{f, times});
    pending_.fetch_add(1, std::memory_order_release);
}

void FaultQueue::clear() {
    std::lock_guard<std::mutex> lk(mu_);
    for (auto &q : queues_)
        q.clear();
    pending_.store(0, std::memory_order_release);
}

bool FaultQueue::take_slow(qz_mom_op_t op, Fault *out) {
    std::lock_guard<std::mutex> lk(mu_);
    auto &q = queues_[op];
    if (q.empty())
        return false;
    *out = q.front().fault;
    if (--q.front().times == 0) {
        q.pop_front();
        pending_.fetch_sub(1, std::memory_order_release);
    }
    return true;
}

}  // namespace qzmom
