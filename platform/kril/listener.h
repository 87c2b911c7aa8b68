// The shell seen from outside: one socket per process and a listener thread
// that reads operators' request lines, answers those it must refuse, and
// queues the others for the thread that serves their module.
#ifndef KRIL_LISTENER_H
#define KRIL_LISTENER_H

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "common/unique_fd.h"
#include "common/wake_fd.h"

namespace kril {

// Answers or queues one request line (its newline removed) that arrived on
// conn; conn is closed once answered. Safe from any thread.
void handle_line(qzplat::UniqueFd conn, std::string_view line);

class Listener {
  public:
    // The process's listener; never destroyed: static destructors must not
    // pull it from under its thread before the exit handler has stopped it.
    static Listener &instance();

    // Gives the calling thread a request queue and, the first time, starts
    // listening. Returns 0, or KRIL_E_IO when the queue could not be made;
    // a socket that cannot be made only costs reachability from outside
    // (one line on standard error says why).
    int32_t attach(std::thread::id thread);
    // Makes the listener rebuild its poll set: queued requests were taken,
    // and their connections must not stay in it.
    void refresh();
    // The socket's path; false when this process has none (a forked child
    // has none either: the socket is its parent's).
    bool path(std::string *out) const;

  private:
    using Clock = std::chrono::steady_clock;
    // A connection still sending its line.
    struct Reading {
        qzplat::UniqueFd conn;
        std::string buf;
        Clock::time_point since;
    };

    Listener() = default;
    void start();
    void stop();
    void loop();
    void accept_one();
    // Returns true when the listener is done with the connection.
    static bool read_request(Reading &r);

    mutable std::mutex mu_;  // guards path_ and creator_
    std::string path_;       // empty: reachable only in process
    pid_t creator_ = 0;

    std::once_flag started_;
    qzplat::UniqueFd listen_fd_;
    qzplat::WakeFd wake_;
    std::thread thread_;
    std::atomic<bool> stop_{false};
    std::vector<Reading> reading_;  // the listener thread's own
};

}  // namespace kril

#endif  // KRIL_LISTENER_H
