// The serving side: a thread that registered a module runs the requests
// queued for it, with its standard output captured for the requester.
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "common/c_barrier.h"
#include "kril_shell.h"
#include "listener.h"
#include "protocol.h"
#include "registry.h"
#include "request_queue.h"
#include "stdout_capture.h"

namespace kril {
namespace {

// Returns whether the handler ran.
bool run_request(Request &r) {
    if (!send_all(r.conn.get(), kRunLine))
        return false;  // the requester left: its command is not wanted any more
    int32_t rv = 0;
    int32_t code;
    std::string out;
    {
        std::lock_guard<std::recursive_mutex> lock(capture_mutex());
        StdoutCapture cap;
        if (!cap.begin()) {
            send_all(r.conn.get(), error_line(KRIL_E_IO, std::string("cannot capture output: ") +
                                                             strerror(errno)));
            return false;
        }
        code = kril_call(r.module.c_str(), r.cmd.c_str(), r.arg.c_str(), &rv);
        out = cap.end();
    }
    if (code != 0) {
        // The module changed between the check and the run.
        Target t;
        find_target(r.module, r.cmd, &t);
        send_all(r.conn.get(),
                 error_line(code, error_text(code, r.module, r.cmd, r.arg, t.argfmt)));
        return false;
    }
    send_all(r.conn.get(), output_answer(out, rv));
    return true;
}

// The listener may still hold the connection in its poll set: only a
// shutdown makes the requester see the end of the answer at once.
void hang_up(qzplat::UniqueFd &conn) {
    shutdown(conn.get(), SHUT_RDWR);
    conn.reset();
}

}  // namespace
}  // namespace kril

extern "C" int32_t kril_poll(int32_t timeout_ms) {
    return qzplat::c_barrier(KRIL_E_NOMEM, [&]() -> int32_t {
        kril::RequestQueues &queues = kril::RequestQueues::instance();
        const auto self = std::this_thread::get_id();
        const int fd = queues.wait_fd(self);
        if (fd < 0)
            return KRIL_E_NO_MODULE;
        if (timeout_ms != 0) {
            pollfd p{fd, POLLIN, 0};
            poll(&p, 1, timeout_ms < 0 ? -1 : timeout_ms);
        }
        std::deque<kril::Request> batch;
        queues.take(self, &batch);
        if (!batch.empty())
            kril::Listener::instance().refresh();
        int32_t ran = 0;
        for (auto &r : batch) {
            ran += kril::run_request(r) ? 1 : 0;
            kril::hang_up(r.conn);
        }
        return ran;
    });
}

extern "C" int32_t kril_fd(void) {
    return qzplat::c_barrier(KRIL_E_NOMEM, []() -> int32_t {
        const int fd = kril::RequestQueues::instance().wait_fd(std::this_thread::get_id());
        return fd >= 0 ? fd : KRIL_E_NO_MODULE;
    });
}
