// Requests waiting for the threads that serve them: one queue per thread
// that registered a module, filled by the listener and emptied by that
// thread's kril_poll. Every member is safe to call from any thread.
#ifndef KRIL_REQUEST_QUEUE_H
#define KRIL_REQUEST_QUEUE_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/unique_fd.h"
#include "common/wake_fd.h"

namespace kril {

struct Request {
    uint64_t id = 0;  // set by RequestQueues::push
    qzplat::UniqueFd conn;
    std::string module, cmd, arg;
};

class RequestQueues {
  public:
    static constexpr size_t kMaxPending = 64;  // per serving thread

    // The process's queues; never destroyed, so that static destructors
    // cannot pull them from under the listener.
    static RequestQueues &instance();

    // Gives thread a queue unless it has one. Returns 0, or KRIL_E_IO when
    // no wake-up descriptor could be opened for it.
    int32_t attach(std::thread::id thread);
    // Descriptor of thread's queue that is readable exactly while requests
    // wait in it; -1 when the thread has none. Owned by the queue, which
    // lives as long as the process.
    int wait_fd(std::thread::id thread) const;
    // Queues *r for thread and moves it out. Returns 0, KRIL_E_NO_MODULE
    // when thread has no queue, or KRIL_E_BUSY when kMaxPending requests
    // already wait; *r is then untouched (its connection still open).
    int32_t push(std::thread::id thread, Request *r);
    // Takes every request waiting for thread; false when it has no queue.
    bool take(std::thread::id thread, std::deque<Request> *out);
    // Drops the waiting request id, if it still waits.
    void drop(uint64_t id);
    // Appends (id, connection descriptor) of every waiting request.
    void waiting(std::vector<std::pair<uint64_t, int>> *out) const;

  private:
    struct Queue {
        qzplat::WakeFd event;  // readable exactly while requests wait
        std::deque<Request> pending;
    };

    mutable std::mutex mu_;
    std::map<std::thread::id, std::unique_ptr<Queue>> queues_;  // never erased once filled
    uint64_t next_id_ = 0;
};

}  // namespace kril

#endif  // KRIL_REQUEST_QUEUE_H
