#include "connection.h"

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>

#include "failure.h"
#include "qz_mom_client.h"

namespace qzcap::tool {
namespace {

using Clock = std::chrono::steady_clock;

std::string seconds_text(double s) {
    char buf[32];
    snprintf(buf, sizeof buf, "%g s", s);
    return buf;
}

// Ends the process with exit status 3 if it is still trying at the deadline:
// one connection attempt may itself take longer than the time left.
class Watchdog {
  public:
    Watchdog(Clock::time_point deadline, std::string prefix) : prefix_(std::move(prefix)) {
        thread_ = std::thread([this, deadline] {
            std::unique_lock<std::mutex> lk(mu_);
            if (!cv_.wait_until(lk, deadline, [this] { return done_; })) {
                const std::string line = "qzcap: " + prefix_ + why_ + "\n";
                fflush(stdout);
                fputs(line.c_str(), stderr);
                _exit(kExitNoStore);
            }
        });
    }
    Watchdog(const Watchdog &) = delete;
    Watchdog &operator=(const Watchdog &) = delete;
    ~Watchdog() {
        stop();
        thread_.join();
    }
    // Once this returns the watchdog never fires (it prints and exits with
    // its lock held, so a stop() that comes too late never returns).
    void stop() {
        {
            std::lock_guard<std::mutex> lk(mu_);
            done_ = true;
        }
        cv_.notify_all();
    }
    // Why the last attempt failed, for the line at the deadline.
    void note(const std::string &why) {
        std::lock_guard<std::mutex> lk(mu_);
        why_ = why;
    }

  private:
    const std::string prefix_;
    std::string why_ = "no answer";
    std::mutex mu_;
    std::condition_variable cv_;
    bool done_ = false;
    std::thread thread_;
};

}  // namespace

std::unique_ptr<Connection> Connection::open(const GlobalOptions &opts) {
    const std::string &uri = opts.uri;
    if (uri.empty())
        bad_input("no store given: pass --uri or set QZ_MOM_URI ('qzcap store up' starts one)");
    if (uri.starts_with("mem:")) {
        bad_input("'" + uri +
                  "' is the embedded store, which lives inside one process and cannot be shared "
                  "with qzcap: use a redis-server store ('qzcap store up' starts one)");
    }
    const auto deadline =
        Clock::now() + std::chrono::microseconds(static_cast<int64_t>(opts.timeout_s * 1e6));
    const std::string unreachable =
        "store " + uri + " unreachable within " + seconds_text(opts.timeout_s) + ": ";
    Watchdog watchdog(deadline, unreachable);
    for (;;) {
        int32_t code = 0;
        char why[512] = "";
        void *h = qz_mom_client_open(uri.c_str(), &code, why, sizeof why);
        if (h != nullptr)
            return std::unique_ptr<Connection>(new Connection(h, uri));
        watchdog.note(why);
        if (code == QZ_MOM_E_ARG) {
            watchdog.stop();
            bad_input("bad store URI '" + uri + "': " + why);
        }
        if (code == QZ_MOM_E_REPLY) {  // a password, CONFIG refused: waiting will not help
            watchdog.stop();
            throw Failure(kExitNoStore, "store " + uri + " refuses qzcap: " + why);
        }
        const auto left = deadline - Clock::now();
        if (left <= Clock::duration::zero()) {
            watchdog.stop();
            throw Failure(kExitNoStore, unreachable + why);
        }
        std::this_thread::sleep_for(
            std::min<Clock::duration>(left, std::chrono::milliseconds(100)));
    }
}

Connection::~Connection() {
    close();
}

void Connection::close() {
    if (handle_ == nullptr)
        return;
    qz_mom_client_destroy(handle_);
    handle_ = nullptr;
}

void Connection::fail(int32_t code, const std::string &doing) const {
    switch (code) {
        case QZ_MOM_E_CONN:
            throw Failure(kExitNoStore,
                          doing + ": store " + uri_ + " unreachable (connection lost)");
        case QZ_MOM_E_DECODE:
            throw Failure(kExitBadInput,
                          doing +
                              ": the stored record is malformed (a value does not parse as "
                              "its field's type, or a field number the record type lacks)");
        case QZ_MOM_E_REPLY:
            throw Failure(kExitBadInput, doing +
                                             ": the store answered something unexpected (a "
                                             "key that is not a hash?)");
        default:
            throw Failure(kExitBadInput, doing + " failed: bus status " + std::to_string(code));
    }
}

}  // namespace qzcap::tool
