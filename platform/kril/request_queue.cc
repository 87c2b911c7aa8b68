#include "request_queue.h"

#include "kril_shell.h"

namespace kril {

RequestQueues &RequestQueues::instance() {
    static RequestQueues *q = new RequestQueues;
    return *q;
}

int32_t RequestQueues::attach(std::thread::id thread) {
    std::lock_guard<std::mutex> lock(mu_);
    auto &q = queues_[thread];
    if (!q) {
        auto fresh = std::make_unique<Queue>();
        if (!fresh->event.open()) {
            queues_.erase(thread);
            return KRIL_E_IO;
        }
        q = std::move(fresh);
    }
    return 0;
}

int RequestQueues::wait_fd(std::thread::id thread) const {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = queues_.find(thread);
    return it == queues_.end() ? -1 : it->second->event.fd();
}

int32_t RequestQueues::push(std::thread::id thread, Request *r) {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = queues_.find(thread);
    if (it == queues_.end())
        return KRIL_E_NO_MODULE;
    Queue &q = *it->second;
    if (q.pending.size() >= kMaxPending)
        return KRIL_E_BUSY;
    r->id = ++next_id_;
    q.pending.push_back(std::move(*r));
    q.event.signal();
    return 0;
}

bool RequestQueues::take(std::thread::id thread, std::deque<Request> *out) {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = queues_.find(thread);
    if (it == queues_.end())
        return false;
    out->swap(it->second->pending);
    it->second->event.drain();
    return true;
}

void RequestQueues::drop(uint64_t id) {
    std::lock_guard<std::mutex> lock(mu_);
    for (auto &[thread, q] : queues_) {
        for (auto it = q->pending.begin(); it != q->pending.end(); ++it) {
            if (it->id == id) {
                q->pending.erase(it);
                if (q->pending.empty())
                    q->event.drain();
                return;
            }
        }
    }
}

void RequestQueues::waiting(std::vector<std::pair<uint64_t, int>> *out) const {
    std::lock_guard<std::mutex> lock(mu_);
    for (const auto &[thread, q] : queues_) {
        for (const auto &r : q->pending)
            out->emplace_back(r.id, r.conn.get());
    }
}

}  // namespace kril
