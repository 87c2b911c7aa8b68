// watch: one line per change of the watched capabilities, as the store
// pushes it, until interrupted or --count changes.
//
// Device-wide bool and int32 values are watched with the library's own value
// subscriptions on a context of the tool's, so that the library renews them
// after a lost connection, and their values come out of the pushed messages
// through the library's extractors. The library has no subscription for a
// string, nor any for a subcard: those are field subscriptions of the bus
// client, which the tool renews itself. Every subscription of a capability
// watches one value field, so a capability of any type, published or not, is
// watched from the start.
#include <csignal>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "cap_record.h"
#include "cap_store.h"
#include "commands.h"
#include "failure.h"
#include "libqz_cap.h"
#include "output.h"
#include "qz_mom_client.h"

namespace qzcap::tool {
namespace {

constexpr CapType kTypes[] = {CapType::kBool, CapType::kInt32, CapType::kStr};

class Watch;

// The argument of one value subscription: one capability, one type.
struct Target {
    Watch *watch;
    CapKey key;
    CapType type;
};

class Watch {
  public:
    Watch(const GlobalOptions &g, std::vector<CapKey> keys, std::optional<long> count)
        : g_(g), keys_(std::move(keys)), count_(count) {
        for (const CapKey &k : keys_)
            url_width_ = std::max(url_width_, one_line(k.url).size());
    }
    Watch(const Watch &) = delete;
    Watch &operator=(const Watch &) = delete;
    // Closed in place rather than reset: a callback running meanwhile still
    // reads conn_, and closing waits for it to return. None runs after this.
    ~Watch() {
        if (conn_)
            conn_->close();
    }

    int run();

    static int32_t on_value(void *global, qz_mom_pmsg_t *pmsg, void *arg);
    static void on_conn(void *global, int32_t up, const char *why, void *arg);
    static int32_t on_reconnect(void *global, int32_t db, int32_t type, void *arg);

  private:
    void subscribe_all();
    int32_t subscribe_own();
    void show_current();
    void value_pushed(Target &t, qz_mom_pmsg_t *pmsg);
    // Prints a value event unless it repeats what was last shown for t;
    // whether it printed. REQUIRES: mu_ held.
    bool show_value(const Target &t, const char *event, const std::optional<CapValue> &v);
    void show_line(const Json &j, const std::string &text) const;

    const GlobalOptions &g_;
    std::vector<CapKey> keys_;
    std::optional<long> count_;
    size_t url_width_ = 0;
    std::unique_ptr<Connection> conn_;
    libqz_cap_ctrl_info_t *ctx_ = nullptr;
    std::vector<std::unique_ptr<Target>> targets_;

    std::mutex mu_;  // guards what follows and the output
    std::map<const Target *, std::optional<CapValue>> shown_;
    long changes_ = 0;
    std::atomic<bool> done_{false};
};

// The first column of a line: the event, padded to the longest one.
std::string event_column(const std::string &event) {
    return event + std::string(9 - event.size(), ' ');
}

bool same(const std::optional<CapValue> &a, const std::optional<CapValue> &b) {
    if (!a || !b)
        return !a && !b;
    return a->type == b->type && a->b == b->b && a->i == b->i && a->s == b->s;
}

void Watch::show_line(const Json &j, const std::string &text) const {
    if (g_.json) {
        print_json_line(j);
        return;
    }
    fputs((text + "\n").c_str(), stdout);
    fflush(stdout);
}

bool Watch::show_value(const Target &t, const char *event, const std::optional<CapValue> &v) {
    auto it = shown_.find(&t);
    if (it != shown_.end() && same(it->second, v))
        return false;  // a change made while the current values were read, seen twice
    shown_[&t] = v;
    Json j{{"event", event}, {"url", t.key.url}};
    std::string text = event_column(event);
    if (t.key.node) {
        j["node"] = *t.key.node;
        text += std::to_string(*t.key.node) + "  ";
    }
    const std::string url = one_line(t.key.url);
    text += url + std::string(url_width_ - url.size() + 2, ' ') + type_name(t.type);
    j["type"] = type_name(t.type);
    if (v) {
        j["value"] = value_json(*v);
        text += std::string(7 - std::string(type_name(t.type)).size(), ' ') + value_text(*v);
    }
    show_line(j, text);
    return true;
}

void Watch::value_pushed(Target &t, qz_mom_pmsg_t *pmsg) {
    const int32_t field = field_of(t.type);
    std::optional<CapValue> v;
    if (pmsg->cmd == QZ_MOM_CMD_CHANGED && pmsg->result != nullptr &&
        pmsg->result->view != nullptr && holds_field(*pmsg->result, field)) {
        if (!t.key.node && t.type != CapType::kStr) {
            // Out of the pushed message the way an application takes it.
            char url[kMaxUrlLen + 1] = "";
            uint32_t len = 0;
            CapValue got;
            got.type = t.type;
            bool b = false;
            const int32_t rc = t.type == CapType::kBool
                                   ? libqz_cap_ce_get_g_cap_bool_by_pmsg_thread(pmsg, sizeof url,
                                                                                url, ctx_, &b, &len)
                                   : libqz_cap_ce_get_g_cap_int32_by_pmsg_thread(
                                         pmsg, sizeof url, url, ctx_, &got.i, &len);
            got.b = b;
            if (rc != 0)
                return;  // the library has logged why
            v = got;
        } else {
            for (const CapValue &x :
                 cap_record_of(*pmsg->result, t.key.node.has_value()).values()) {
                if (x.type == t.type)
                    v = x;
            }
        }
    } else if (pmsg->cmd != QZ_MOM_CMD_CHANGED && pmsg->cmd != QZ_MOM_CMD_DELETED) {
        return;  // 29: the subscription is in place
    }
    std::lock_guard<std::mutex> lk(mu_);
    if (done_)
        return;
    if (show_value(t, v ? "changed" : "deleted", v) && count_ && ++changes_ >= *count_)
        done_ = true;
}

int32_t Watch::on_value(void *, qz_mom_pmsg_t *pmsg, void *arg) {
    auto *t = static_cast<Target *>(arg);
    t->watch->value_pushed(*t, pmsg);
    return 0;
}

void Watch::on_conn(void *, int32_t up, const char *why, void *arg) {
    auto *w = static_cast<Watch *>(arg);
    if (up != 0)
        return;  // said once the subscriptions are renewed
    std::lock_guard<std::mutex> lk(w->mu_);
    const std::string store = w->conn_->uri();
    w->show_line(Json{{"event", "lost"}, {"store", store}, {"reason", why}},
                 event_column("lost") + "connection to " + store + ": " + why);
}

// Runs after the library's own reconnect callback has renewed its subscriptions.
int32_t Watch::on_reconnect(void *, int32_t, int32_t, void *arg) {
    auto *w = static_cast<Watch *>(arg);
    const int32_t rc = w->subscribe_own();
    std::lock_guard<std::mutex> lk(w->mu_);
    const std::string store = w->conn_->uri();
    Json j{{"event", "back"}, {"store", store}};
    std::string text = event_column("back") + "connection to " + store;
    if (rc == 0) {
        text += "; subscriptions renewed";
    } else {
        j["renew_status"] = rc;
        text += "; renewing the subscriptions failed (bus status " + std::to_string(rc) + ")";
    }
    w->show_line(j, text);
    return 0;
}

// The bus-client subscriptions: strings, and everything of a subcard.
int32_t Watch::subscribe_own() {
    for (size_t k = 0; k < keys_.size(); ++k) {
        CapMessage m(keys_[k]);
        std::vector<int32_t> fields;
        std::vector<qz_mom_record_cb> cbs;
        std::vector<void *> args;
        for (size_t i = 0; i < 3; ++i) {
            Target *t = targets_[k * 3 + i].get();
            if (t->key.node || t->type == CapType::kStr) {
                fields.push_back(field_of(t->type));
                cbs.push_back(on_value);
                args.push_back(t);
            }
        }
        const int32_t rc = qz_mom_subscribe_field(conn_->handle(), kCapDb, m.msg(),
                                                  static_cast<uint32_t>(fields.size()),
                                                  fields.data(), cbs.data(), args.data(), 1);
        if (rc != 0)
            return rc;
    }
    return 0;
}

void Watch::subscribe_all() {
    void *global = conn_->handle();
    for (const CapKey &k : keys_) {
        for (CapType t : kTypes)
            targets_.push_back(std::make_unique<Target>(Target{this, k, t}));
    }
    if (!keys_.front().node) {
        // The library's context: its registry is what gets renewed. What the
        // library allocates for subscriptions is never released, so the
        // context stays with the process, reachable, instead of being freed.
        static libqz_cap_ctrl_info_t *const ctx = libqz_cap_ctrl_info_init();
        ctx_ = ctx;
        if (ctx_ == nullptr)
            throw Failure(kExitBadInput, "out of memory");
        conn_->check(libqz_cap_init_thread(global, "qzcap", ctx_), "setting up libqz_cap");
        for (const auto &t : targets_) {
            const char *url = t->key.url.c_str();
            if (t->type == CapType::kBool) {
                conn_->check(libqz_cap_ce_subscribe_g_cap_bool_ext_thread(global, url, on_value,
                                                                          t.get(), ctx_),
                             "subscribing to " + t->key.describe());
            } else if (t->type == CapType::kInt32) {
                conn_->check(libqz_cap_ce_subscribe_g_cap_int32_ext_thread(global, url, on_value,
                                                                           t.get(), ctx_),
                             "subscribing to " + t->key.describe());
            }
        }
    }
    // Registered after the library's, so that it runs after the library renewed its own.
    conn_->check(qz_mom_client_set_reconnect_cb(global, kCapDb, on_reconnect, this),
                 "watching for reconnections");
    conn_->check(qz_mom_client_set_conn_cb(global, on_conn, this), "watching the connection");
    conn_->check(subscribe_own(), "subscribing");
}

void Watch::show_current() {
    // Held while reading, so that a push waits and is compared with what was shown.
    std::lock_guard<std::mutex> lk(mu_);
    for (size_t k = 0; k < keys_.size(); ++k) {
        std::vector<CapValue> values;
        try {
            values = read_capability(*conn_, keys_[k]);
        } catch (const Failure &f) {
            if (f.exit() != kExitNotFound)
                throw;
        }
        for (size_t i = 0; i < 3; ++i) {
            const Target &t = *targets_[k * 3 + i];
            std::optional<CapValue> v;
            for (const CapValue &x : values) {
                if (x.type == t.type)
                    v = x;
            }
            if (v)
                show_value(t, "now", v);
            else
                shown_.try_emplace(&t, std::nullopt);
        }
        if (values.empty()) {
            Json j{{"event", "absent"}, {"url", keys_[k].url}};
            std::string text = event_column("absent");
            if (keys_[k].node) {
                j["node"] = *keys_[k].node;
                text += std::to_string(*keys_[k].node) + "  ";
            }
            show_line(j, text + one_line(keys_[k].url));
        }
    }
}

int Watch::run() {
    // Only this thread takes the signals that end a watch; the bus client's
    // thread, started below, inherits the mask.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    conn_ = Connection::open(g_);
    subscribe_all();
    show_current();
    const timespec tick{0, 50'000'000};  // 50 ms
    while (!done_) {
        if (sigtimedwait(&stop, nullptr, &tick) > 0)
            break;
    }
    return 0;
}

}  // namespace

Command add_watch(CLI::App &app, const GlobalOptions &g) {
    CLI::App *sub =
        app.add_subcommand("watch",
                           "Print one line per change of the capabilities as it is pushed, until "
                           "interrupted or --count changes");
    struct Args {
        std::vector<std::string> urls;
        std::string node, count;
        CLI::Option *node_opt = nullptr, *count_opt = nullptr;
    };
    auto a = std::make_shared<Args>();
    sub->add_option("URL", a->urls, "Capability URLs")->required()->type_name("");
    a->node_opt = sub->add_option("--node", a->node, "Capabilities of this subcard (node id)")
                      ->type_name("ID");
    a->count_opt = sub->add_option("--count", a->count, "Stop after N changes")->type_name("N");
    return {sub, [a, &g] {
                std::optional<int32_t> node;
                if (a->node_opt->count() > 0)
                    node = parse_node(a->node);
                std::optional<long> count;
                if (a->count_opt->count() > 0) {
                    const std::optional<int32_t> n = to_int32(a->count);
                    if (!n || *n < 1)
                        bad_input("--count wants a number of changes (1 or more), not '" +
                                  one_line(a->count) + "'");
                    count = *n;
                }
                std::vector<CapKey> keys;
                for (const std::string &url : a->urls) {
                    check_url(url);
                    if (std::find_if(keys.begin(), keys.end(),
                                     [&](const CapKey &k) { return k.url == url; }) == keys.end())
                        keys.push_back(CapKey{url, node});
                }
                Watch w(g, std::move(keys), count);
                return w.run();
            }};
}

}  // namespace qzcap::tool
