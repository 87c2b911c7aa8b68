#include "client.h"

#include <cstdlib>
#include <future>

#include "report.h"

namespace qzmom {

Client *Client::create(const char *uri, std::string *why, int32_t *code) {
    const char *u = uri;
    if (u == nullptr)
        u = getenv("QZ_MOM_URI");
    if (u == nullptr || *u == '\0')
        u = "mem:";
    std::unique_ptr<Client> c(new Client);
    c->uri_ = u;
    c->store_ = open_store(u, c.get(), why, code);
    if (c->store_ == nullptr)
        return nullptr;
    if (c->store_->serves()) {
        if (!c->wake_fd_.open()) {
            *why = "eventfd failed";
            *code = QZ_MOM_E_NOMEM;
            return nullptr;
        }
    }
    c->thread_ = std::thread([p = c.get()] { p->run(); });
    return c.release();
}

Client::~Client() {
    if (store_ != nullptr)
        store_->close();  // no on_change from here on
    {
        std::lock_guard<std::mutex> lk(q_mu_);
        stop_ = true;
    }
    wake();
    if (thread_.joinable())
        thread_.join();
    // Only now: a callback still running above may call the bus with this handle.
    magic_ = 0;
}

void Client::wake() {
    if (!wake_fd_) {
        q_cv_.notify_one();
        return;
    }
    wake_fd_.signal();
}

void Client::run() {
    thread_id_.store(std::this_thread::get_id(), std::memory_order_relaxed);
    std::unique_lock<std::mutex> lk(q_mu_);
    for (;;) {
        if (!wake_fd_) {
            q_cv_.wait(lk, [this] { return stop_ || !queue_.empty(); });
        } else {
            while (!stop_ && queue_.empty()) {
                waiting_ = true;
                lk.unlock();
                store_->serve(wake_fd_.fd());
                lk.lock();
                waiting_ = false;
            }
        }
        if (stop_)
            return;
        Item item = std::move(queue_.front());
        queue_.pop_front();
        lk.unlock();
        try {
            if (item.change != nullptr) {
                deliver_change(*item.change);
            } else {
                item.task();
            }
        } catch (const std::exception &e) {
            report("delivery failed: %s", e.what());
        } catch (...) {
            report("delivery failed");
        }
        item = Item{};  // release outside the lock
        lk.lock();
    }
}

void Client::post(Item item) {
    bool idle = false;
    {
        std::lock_guard<std::mutex> lk(q_mu_);
        queue_.push_back(std::move(item));
        idle = waiting_;
    }
    // From the delivery thread (a store serving it) nothing needs waking.
    if (!wake_fd_ || (idle && !on_delivery_thread()))
        wake();
}

void Client::on_change(ChangePtr change) {
    try {
        post(Item{std::move(change), {}});
    } catch (const std::exception &) {
        report("out of memory: a change was not queued");
    }
}

void Client::on_connection_lost(const std::string &why) {
    {
        std::lock_guard<std::mutex> lk(cbs_mu_);
        if (conn_cb_ == nullptr) {
            report(
                "connection to %s lost (%s); reconnecting, calls fail with QZ_MOM_E_CONN "
                "meanwhile",
                uri_.c_str(), why.c_str());
        }
    }
    // A subscription made after this point was made on the new connection.
    uint64_t below = 0;
    {
        std::lock_guard<std::mutex> lk(subs_mu_);
        below = next_sub_;
    }
    post(Item{nullptr, [this, below, why] {
                  drop_subs(below);
                  tell_conn(0, why);
              }});
}

void Client::on_reconnected() {
    {
        std::lock_guard<std::mutex> lk(cbs_mu_);
        if (conn_cb_ == nullptr)
            report("connection to %s is back", uri_.c_str());
    }
    post(Item{nullptr, [this] {
                  tell_conn(1, "");
                  run_reconnect_cbs();
              }});
}

bool Client::tell_conn(int32_t up, const std::string &why) {
    qz_mom_conn_cb cb = nullptr;
    void *user = nullptr;
    {
        std::lock_guard<std::mutex> lk(cbs_mu_);
        cb = conn_cb_;
        user = conn_user_;
    }
    if (cb == nullptr)
        return false;
    cb(this, up, why.c_str(), user);
    return true;
}

void Client::set_conn_cb(qz_mom_conn_cb cb, void *user) {
    std::lock_guard<std::mutex> lk(cbs_mu_);
    conn_cb_ = cb;
    conn_user_ = user;
}

void Client::run_reconnect_cbs() {
    std::vector<ReconnectCb> cbs;
    {
        std::lock_guard<std::mutex> lk(cbs_mu_);
        cbs = reconnect_cbs_;
    }
    renewing_ = true;
    try {
        for (const ReconnectCb &r : cbs)
            r.cb(this, r.db, 1, r.user);
    } catch (...) {
        renewing_ = false;
        throw;
    }
    renewing_ = false;
    if (!renewed_.empty()) {
        post(Item{nullptr, [this, subs = std::move(renewed_)] { confirm_renewed(subs); }});
        renewed_.clear();
    }
}

int32_t Client::add_reconnect_cb(int32_t db, qz_mom_reconnect_cb cb, void *user) {
    std::lock_guard<std::mutex> lk(cbs_mu_);
    for (const ReconnectCb &r : reconnect_cbs_) {
        if (r.cb == cb && r.user == user)
            return 0;  // kept once per pair
    }
    reconnect_cbs_.push_back(ReconnectCb{cb, user, db});
    return 0;
}

int32_t Client::simulate_reconnect() {
    static const std::string kWhy = "simulated";
    if (on_delivery_thread()) {
        drop_subs(UINT64_MAX);
        tell_conn(0, kWhy);
        tell_conn(1, "");
        run_reconnect_cbs();
        return 0;
    }
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> f = done->get_future();
    post(Item{nullptr, [this, done] {
                  try {
                      drop_subs(UINT64_MAX);
                      tell_conn(0, kWhy);
                      tell_conn(1, "");
                      run_reconnect_cbs();
                  } catch (...) {
                      done->set_value();
                      throw;
                  }
                  done->set_value();
              }});
    f.wait();
    return 0;
}

void Client::drain() {
    if (on_delivery_thread())
        return;
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> f = done->get_future();
    post(Item{nullptr, [done] { done->set_value(); }});
    f.wait();
}

}  // namespace qzmom
