// What callbacks on the bus's thread see, collected for the test's thread,
// with bounded waits.
#ifndef QZCAP_TESTS_SUPPORT_CALLBACK_INBOX_H
#define QZCAP_TESTS_SUPPORT_CALLBACK_INBOX_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <utility>
#include <vector>

namespace qztest {

inline constexpr std::chrono::seconds kCallbackWait{5};

template <class T>
class Inbox {
  public:
    void push(T v) {
        std::lock_guard<std::mutex> lock(m_);
        items_.push_back(std::move(v));
        cv_.notify_all();
    }
    // Waits until at least n items arrived; false after the timeout.
    bool wait_for(size_t n, std::chrono::milliseconds timeout = kCallbackWait) {
        std::unique_lock<std::mutex> lock(m_);
        return cv_.wait_for(lock, timeout, [&] { return items_.size() >= n; });
    }
    std::vector<T> items() {
        std::lock_guard<std::mutex> lock(m_);
        return items_;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(m_);
        items_.clear();
    }
    size_t size() {
        std::lock_guard<std::mutex> lock(m_);
        return items_.size();
    }

  private:
    std::mutex m_;
    std::condition_variable cv_;
    std::vector<T> items_;
};

}  // namespace qztest

#endif  // QZCAP_TESTS_SUPPORT_CALLBACK_INBOX_H
