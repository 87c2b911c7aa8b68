#include "coordinator.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "children.h"
#include "items.h"
#include "private_redis_server.h"
#include "proc_stats.h"

namespace soak {
namespace {

constexpr int64_t kTickMs = 20;
constexpr int64_t kStopMs = 10000;  // for the children to end once asked
constexpr size_t kNamesShown = 5;   // of the stalled or lost, per report

volatile sig_atomic_t g_signal = 0;

void on_signal(int sig) {
    g_signal = sig;
}

struct Interrupted {
    int sig;
};

// Something that must show progress after the server is back: a
// subscriber's subscription to an item, a reader's reads or the publisher's
// writes. Named only when reported.
struct Watched {
    enum Who { kPublisher, kSubscriber, kReader } who;
    uint32_t index;  // of the subscriber or reader
    uint32_t item;   // of the subscription
    const std::atomic<int64_t> *seen_ns;
};

std::string seconds(int64_t ns) {
    char buf[32];
    snprintf(buf, sizeof buf, "%.2f s", static_cast<double>(ns) / 1e9);
    return buf;
}

std::string item_name(const Config &cfg, uint32_t item) {
    if (item < cfg.keys)
        return cap_url(item) + (is_bool_key(item) ? " (bool)" : " (int32)");
    if (item < cfg.keys + cfg.subcards)
        return "subcard " + std::to_string(item - cfg.keys + 1) + " state";
    return "device readiness";
}

std::string watched_name(const Config &cfg, const Watched &w) {
    switch (w.who) {
        case Watched::kPublisher:
            return "the publisher";
        case Watched::kReader:
            return "reader " + std::to_string(w.index);
        case Watched::kSubscriber:
            break;
    }
    return "subscriber " + std::to_string(w.index) + ": " + item_name(cfg, w.item);
}

std::string names(const std::vector<std::string> &all) {
    std::string out;
    for (size_t i = 0; i < all.size() && i < kNamesShown; ++i)
        out += (i == 0 ? "" : ", ") + all[i];
    if (all.size() > kNamesShown)
        out += ", and " + std::to_string(all.size() - kNamesShown) + " more";
    return out;
}

class Soak {
  public:
    Soak(const RunOptions &opt, Board &board, Children &children,
         qztest::PrivateRedisServer &server, std::string dir)
        : opt_(opt),
          cfg_(board.config),
          board_(board),
          children_(children),
          server_(server),
          dir_(std::move(dir)),
          board_path_(dir_ + "/board") {}

    int run();

  private:
    bool spawn(const std::string &role, uint32_t index, std::string name);
    void tick(int64_t ms);
    void reap();
    bool alive(int child) const { return child >= 0 && !children_.at(child).ended; }
    std::vector<Watched> watched() const;
    int64_t settle(int64_t since_ns, int64_t from_ns, int64_t bound_ms, std::string *outcome);
    bool fault(const Fault &f, std::string *line);
    void final_round();
    void stop_children();
    std::vector<ProcStats> measure() const;
    int verdict();

    const RunOptions &opt_;
    const Config &cfg_;
    Board &board_;
    Children &children_;
    qztest::PrivateRedisServer &server_;
    const std::string dir_, board_path_;

    int publisher_ = -1;
    std::vector<int> subscribers_, readers_;  // child indexes, by role index
    bool stopping_ = false;                   // children may end now

    uint32_t restarts_ = 0, pauses_ = 0;
    uint64_t stalls_ = 0, lost_subscriptions_ = 0, lost_updates_ = 0, crashes_ = 0;
    uint64_t miscounted_ = 0;          // subscribers whose handle holds more or fewer subscriptions
    std::vector<int64_t> recoveries_;  // from the server's return to every delivery
    int64_t last_back_ns_ = 0;
    std::vector<ProcStats> first_, last_;  // by child index
};

bool Soak::spawn(const std::string &role, uint32_t index, std::string name) {
    std::string why;
    std::vector<std::string> wrapper;
    if (role == "subscriber" && index == 0) {
        std::stringstream words(opt_.wrap_subscriber);
        for (std::string w; words >> w;)
            wrapper.push_back(w);
    }
    const int child = children_.spawn(
        name,
        {role, "--board", board_path_, "--uri", server_.uri(), "--index", std::to_string(index)},
        wrapper, &why);
    if (child < 0) {
        printf("soak: cannot start %s: %s\n", name.c_str(), why.c_str());
        return false;
    }
    if (role == "publisher")
        publisher_ = child;
    else
        (role == "subscriber" ? subscribers_ : readers_).push_back(child);
    return true;
}

void Soak::tick(int64_t ms) {
    const int64_t until = now_ns() + ms * 1000000;
    do {
        if (g_signal != 0)
            throw Interrupted{g_signal};
        reap();
        const int64_t left_ms = (until - now_ns()) / 1000000;
        usleep(static_cast<useconds_t>(std::clamp<int64_t>(left_ms, 0, kTickMs) * 1000));
    } while (now_ns() < until);
}

// Before the stop, any end is a crash; after it, a non-zero exit is (a child
// exits 1 when it saw wrong data).
void Soak::reap() {
    for (int i : children_.reap()) {
        const Child &c = children_.at(i);
        if (stopping_ && ended_cleanly(c.status))
            continue;
        ++crashes_;
        printf("soak: crash: %s (pid %d) %s; the end of %s:\n%s", c.name.c_str(),
               static_cast<int>(c.pid), describe_end(c.status).c_str(), c.log.c_str(),
               tail_of(c.log, 8).c_str());
    }
}

std::vector<Watched> Soak::watched() const {
    std::vector<Watched> w;
    if (alive(publisher_))
        w.push_back({Watched::kPublisher, 0, 0, &board_.publisher.progress_ns});
    for (uint32_t s = 0; s < subscribers_.size(); ++s) {
        if (!alive(subscribers_[s]))
            continue;
        for (uint32_t item = 0; item < cfg_.items(); ++item)
            w.push_back(
                {Watched::kSubscriber, s, item, &board_.subscribers[s].slots[item].seen_ns});
    }
    for (uint32_t r = 0; r < readers_.size(); ++r) {
        if (alive(readers_[r]))
            w.push_back({Watched::kReader, r, 0, &board_.readers[r].progress_ns});
    }
    return w;
}

// Waits until everything watched shows progress after since_ns, at most
// bound_ms after from_ns. Returns how many did not (each a stall).
int64_t Soak::settle(int64_t since_ns, int64_t from_ns, int64_t bound_ms, std::string *outcome) {
    const int64_t deadline = from_ns + bound_ms * 1000000;
    uint64_t crashes = crashes_;
    std::vector<Watched> all = watched(), pending;
    for (;;) {
        if (crashes != crashes_) {  // a crash is counted as one, not as its silence
            crashes = crashes_;
            all = watched();
        }
        pending.clear();
        for (const Watched &w : all) {
            if (w.seen_ns->load() <= since_ns)
                pending.push_back(w);
        }
        const int64_t now = now_ns();
        if (pending.empty()) {
            recoveries_.push_back(now - from_ns);
            *outcome = "all delivering after " + seconds(now - from_ns);
            return 0;
        }
        if (now >= deadline)
            break;
        tick(kTickMs);
    }
    std::vector<std::string> stalled;
    for (const Watched &w : pending)
        stalled.push_back(watched_name(cfg_, w));
    *outcome = std::to_string(stalled.size()) + " stalled for " + seconds(bound_ms * 1000000) +
               ": " + names(stalled);
    return static_cast<int64_t>(stalled.size());
}

bool Soak::fault(const Fault &f, std::string *line) {
    char buf[128];
    if (f.kind == FaultKind::kRestart) {
        server_.kill();
        tick(f.down_ms);
        const std::string why = server_.start();
        if (!why.empty()) {
            printf("soak: redis-server did not come back: %s\n", why.c_str());
            return false;
        }
        ++restarts_;
        snprintf(buf, sizeof buf, "restart %u/%u (down %" PRId64 " ms)", restarts_, opt_.restarts,
                 f.down_ms);
    } else {
        server_.pause();
        tick(f.down_ms);
        server_.resume();
        ++pauses_;
        snprintf(buf, sizeof buf, "pause %u (%" PRId64 " ms)", pauses_, f.down_ms);
    }
    last_back_ns_ = now_ns();
    *line = buf;
    return true;
}

// The publisher writes every item once more; then every subscriber must
// hold each item's last value.
void Soak::final_round() {
    const PublisherBlock &pub = board_.publisher;
    board_.phase.store(kFinalRound);
    const int64_t deadline =
        now_ns() + (2 * static_cast<int64_t>(cfg_.cycle_ms) + opt_.final_ms) * 1000000;
    while (alive(publisher_) && pub.final_done.load() == 0 && now_ns() < deadline)
        tick(kTickMs);
    if (pub.final_done.load() == 0) {
        printf("soak: the publisher did not write its final round\n");
        ++stalls_;
        return;
    }
    auto wanted = [&](uint32_t item) {
        const int64_t seq = pub.final_seq[item].load();
        return item == cfg_.state_item() ? (seq & 1) : seq;
    };
    // Lists (or only counts) the final values the subscribers do not hold.
    auto not_held = [&](std::vector<std::string> *names) {
        size_t n = 0;
        for (uint32_t s = 0; s < subscribers_.size(); ++s) {
            if (!alive(subscribers_[s]))
                continue;
            for (uint32_t item = 0; item < cfg_.items(); ++item) {
                const int64_t got = board_.subscribers[s].slots[item].value.load();
                if (got == wanted(item))
                    continue;
                ++n;
                if (names != nullptr)
                    names->push_back("subscriber " + std::to_string(s) + ": " +
                                     item_name(cfg_, item) + " holds " + std::to_string(got) +
                                     ", not " + std::to_string(wanted(item)));
            }
        }
        return n;
    };
    const int64_t quiet_by = now_ns() + opt_.final_ms * 1000000;
    while (not_held(nullptr) != 0 && now_ns() < quiet_by)
        tick(kTickMs);
    std::vector<std::string> missing;
    not_held(&missing);
    lost_updates_ = missing.size();
    if (!missing.empty())
        printf("soak: final values not delivered within %s: %s\n",
               seconds(opt_.final_ms * 1000000).c_str(), names(missing).c_str());

    std::vector<std::string> lost;
    for (const Watched &w : watched()) {
        if (w.who == Watched::kSubscriber && w.seen_ns->load() <= last_back_ns_)
            lost.push_back(watched_name(cfg_, w));
    }
    lost_subscriptions_ = lost.size();
    if (!lost.empty())
        printf("soak: never delivered again after the server's last return: %s\n",
               names(lost).c_str());

    // A renewal made twice delivers twice and holds the server's resources
    // twice: each handle must hold its subscriptions exactly once.
    const int64_t want = cfg_.keys + 2;
    tick(100);  // a sample taken after the last delivery
    for (uint32_t s = 0; s < subscribers_.size(); ++s) {
        const int64_t held = board_.subscribers[s].bus_subscriptions.load();
        if (alive(subscribers_[s]) && held != want) {
            ++miscounted_;
            printf("soak: subscriber %u's bus handle holds %" PRId64 " subscriptions, not %" PRId64
                   "\n",
                   s, held, want);
        }
    }
}

void Soak::stop_children() {
    stopping_ = true;
    board_.phase.store(kStopping);
    const int64_t deadline = now_ns() + kStopMs * 1000000;
    auto running = [&] {
        for (const Child &c : children_.all()) {
            if (!c.ended)
                return true;
        }
        return false;
    };
    while (running() && now_ns() < deadline)
        tick(kTickMs);
    for (size_t i = 0; i < children_.all().size(); ++i) {
        const Child &c = children_.at(static_cast<int>(i));
        if (c.ended)
            continue;
        ++crashes_;
        printf("soak: crash: %s (pid %d) did not stop within %s; the end of %s:\n%s",
               c.name.c_str(), static_cast<int>(c.pid), seconds(kStopMs * 1000000).c_str(),
               c.log.c_str(), tail_of(c.log, 8).c_str());
        children_.kill(static_cast<int>(i));
    }
}

std::vector<ProcStats> Soak::measure() const {
    std::vector<ProcStats> s(children_.all().size());
    for (size_t i = 0; i < s.size(); ++i) {
        if (alive(static_cast<int>(i)))
            s[i] = proc_stats(children_.at(static_cast<int>(i)).pid);
    }
    return s;
}

int Soak::verdict() {
    int64_t fd_growth = 0, rss_growth = 0;
    bool measured = false;
    std::string detail;
    for (size_t i = 0; i < first_.size() && i < last_.size(); ++i) {
        const ProcStats &a = first_[i], &b = last_[i];
        if (!a.valid() || !b.valid())
            continue;
        const int64_t f = b.fds - a.fds, k = b.rss_kb - a.rss_kb;
        fd_growth = measured ? std::max(fd_growth, f) : f;
        rss_growth = measured ? std::max(rss_growth, k) : k;
        measured = true;
        char buf[160];
        snprintf(buf, sizeof buf, "%s%s %" PRId64 "->%" PRId64 " fds, %" PRId64 "->%" PRId64 " kB",
                 detail.empty() ? "" : "; ", children_.at(static_cast<int>(i)).name.c_str(), a.fds,
                 b.fds, a.rss_kb, b.rss_kb);
        detail += buf;
    }
    printf("soak: first and last quiet point: %s\n", measured ? detail.c_str() : "not measured");

    std::vector<int64_t> r = recoveries_;
    std::sort(r.begin(), r.end());
    if (!r.empty())
        printf("soak: back to delivering after a fault: median %s, max %s (stall bound %s)\n",
               seconds(r[r.size() / 2]).c_str(), seconds(r.back()).c_str(),
               seconds(opt_.stall_ms * 1000000).c_str());
    const PublisherBlock &pub = board_.publisher;
    printf("soak: %u pauses; the publisher wrote %" PRIu64
           " times through the bus client and %" PRIu64 " through hiredis (%" PRIu64
           " tries failed while the server was away)\n",
           pauses_, pub.bus_writes.load(), pub.raw_writes.load(), pub.failed_writes.load());
    uint64_t confirmations = 0, reconnects = 0, reads = 0;
    for (uint32_t s = 0; s < subscribers_.size(); ++s) {
        confirmations += board_.subscribers[s].confirmations.load();
        reconnects += board_.subscribers[s].reconnects.load();
    }
    for (uint32_t i = 0; i < readers_.size(); ++i)
        reads += board_.readers[i].ops.load();
    printf("soak: subscribers saw %" PRIu64 " reconnections and %" PRIu64
           " confirmations; readers made %" PRIu64 " reads\n",
           reconnects, confirmations, reads);

    const bool fd_ok = !measured || fd_growth <= opt_.max_fd_growth;
    const bool rss_ok = !measured || rss_growth <= opt_.max_rss_growth_kb;
    if (!fd_ok || !rss_ok)
        printf("soak: growth over its bound (%" PRId64 " descriptors, %" PRId64 " kB)\n",
               opt_.max_fd_growth, opt_.max_rss_growth_kb);
    const bool clean = stalls_ == 0 && lost_subscriptions_ == 0 && lost_updates_ == 0 &&
                       crashes_ == 0 && miscounted_ == 0 && fd_ok && rss_ok && measured;
    if (!clean || opt_.keep_logs)
        printf("soak: logs kept in %s\n", dir_.c_str());
    printf("soak: %u restarts, %" PRIu64 " stalls, %" PRIu64 " lost subscriptions, %" PRIu64
           " lost updates, %" PRIu64 " crashes, fd growth %" PRId64 ", rss growth %" PRId64 " kB\n",
           restarts_, stalls_, lost_subscriptions_, lost_updates_, crashes_, fd_growth, rss_growth);
    return clean ? 0 : 1;
}

int Soak::run() {
    if (!spawn("publisher", 0, "publisher"))
        return 2;
    for (uint32_t i = 0; i < cfg_.subscribers; ++i) {
        if (!spawn("subscriber", i, "subscriber " + std::to_string(i)))
            return 2;
    }
    for (uint32_t i = 0; i < cfg_.readers; ++i) {
        if (!spawn("reader", i, "reader " + std::to_string(i)))
            return 2;
    }
    printf(
        "soak: %u subscriber(s) with %u subscriptions each, %u reader(s), %u items written "
        "every %u ms\n",
        cfg_.subscribers, cfg_.keys + 2, cfg_.readers, cfg_.items(), cfg_.cycle_ms);

    std::string outcome;
    stalls_ += settle(0, now_ns(), opt_.start_ms, &outcome);
    recoveries_.clear();  // the start is no recovery
    printf("soak: start: %s\n", outcome.c_str());
    first_ = measure();

    ChaosSchedule schedule(cfg_.seed ^ 0x6368616f73ull, opt_.shares);
    bool settled = true;
    while (restarts_ < opt_.restarts) {
        if (!alive(publisher_)) {
            printf("soak: the publisher is gone: the run ends early\n");
            break;
        }
        Fault f = schedule.next(settled);
        if (f.kind == FaultKind::kRestart && restarts_ + 1 == opt_.restarts)
            f.settle = true;  // the run ends on a settled server
        tick(f.wait_ms);
        std::string line;
        if (!fault(f, &line))
            return 2;
        if (f.settle) {
            stalls_ += settle(last_back_ns_, last_back_ns_, opt_.stall_ms, &outcome);
            line += ": " + outcome;
        } else {
            line += ": the next fault comes before things settle";
        }
        printf("soak: %s\n", line.c_str());
        settled = f.settle;
    }

    if (alive(publisher_))
        final_round();
    last_ = measure();
    stop_children();
    return verdict();
}

std::string make_run_dir() {
    char tmpl[] = "/tmp/qzcap_soak.XXXXXX";
    if (mkdtemp(tmpl) == nullptr)
        return "";
    const std::string dir = tmpl;
    for (const char *sub : {"/data-root", "/kril"}) {
        if (mkdir((dir + sub).c_str(), 0700) != 0)
            return "";
    }
    return dir;
}

std::string self_exe() {
    char buf[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
}

}  // namespace

int run_soak(RunOptions opt) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (opt.config.seed == 0)
        opt.config.seed =
            (static_cast<uint64_t>(std::random_device{}()) << 32) ^ std::random_device{}();
    printf("soak: seed %" PRIu64 " (--seed %" PRIu64 " repeats this run's schedule)\n",
           opt.config.seed, opt.config.seed);

    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        sigaction(sig, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    const std::string exe = self_exe();
    const std::string dir = make_run_dir();
    if (exe.empty() || dir.empty()) {
        printf("soak: cannot find the driver or make a temporary directory\n");
        return 2;
    }
    int rc = 2;
    {
        std::string why;
        Board *board = create_board(dir + "/board", opt.config, &why);
        qztest::PrivateRedisServer server;
        if (board != nullptr)
            why = server.start();
        if (!why.empty()) {
            printf("soak: %s\n", why.c_str());
        } else {
            Children children(exe, dir,
                              {"QZCAP_DATA_ROOT=" + dir + "/data-root",
                               "KRIL_RUN_DIR=" + dir + "/kril", "QZ_ZLOG_FILE="});
            Soak soak(opt, *board, children, server, dir);
            try {
                rc = soak.run();
            } catch (const Interrupted &i) {
                printf("soak: interrupted by signal %d\n", i.sig);
                rc = 128 + i.sig;
            }
        }
    }
    if (rc == 0 && !opt.keep_logs) {
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    } else if (rc != 0 && rc != 1) {  // a finished run said so before its last line
        printf("soak: logs kept in %s\n", dir.c_str());
    }
    return rc;
}

}  // namespace soak
