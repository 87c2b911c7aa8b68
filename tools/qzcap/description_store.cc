#include "description_store.h"

#include <algorithm>
#include <deque>
#include <memory>
#include <tuple>

#include "cap_store.h"
#include "failure.h"
#include "message_json.h"
#include "p_dev.pb-c.h"
#include "p_libpub.pb-c.h"
#include "qz_mom_client.h"
#include "s_frame.pb-c.h"

namespace qzcap::tool {
namespace {

constexpr int32_t kCardIndexField = 5;

struct ResFree {
    void operator()(qz_mom_hash_res_t *r) const { qz_mom_hash_res_free(r); }
};
using ResPtr = std::unique_ptr<qz_mom_hash_res_t, ResFree>;

// The `ready` field (5) of an unkeyed readiness record, if it is stored.
template <class T>
std::optional<bool> read_flag(const Connection &conn, T key, const char *what) {
    ResPtr res(qz_mom_hgetall_sync(conn.handle(), kCapDb, &key.base));
    if (res == nullptr)
        throw Failure(kExitBadInput, std::string("reading ") + what + ": out of memory");
    conn.check(res->error_code, std::string("reading ") + what);
    if (res->view == nullptr || !holds_field(*res, 5))
        return std::nullopt;
    return static_cast<const T *>(res->view)->ready != 0;
}

template <class F>
void scan(const Connection &conn, ProtobufCMessage *pattern, const char *what, F &&on_record) {
    auto cb = [](void *, qz_mom_pmsg_t *pmsg, void *arg) -> int32_t {
        if (pmsg->result != nullptr && pmsg->result->view != nullptr)
            (*static_cast<F *>(arg))(*pmsg->result);
        return 0;
    };
    conn.check(qz_mom_scan_sync(conn.handle(), kCapDb, pattern, 0, cb, &on_record),
               std::string("reading ") + what);
}

// The batch ops of a load and the records and field lists they point into.
class Ops {
  public:
    void add(ProtobufCMessage *rec, std::vector<int32_t> fields) {
        const std::vector<int32_t> &f = fields_.emplace_back(std::move(fields));
        ops_.push_back(
            qz_mom_write_op_t{rec, static_cast<uint32_t>(f.size()), f.data(), 0, nullptr, 1});
    }
    // A record that lives as long as the ops.
    template <class T>
    T &keep(T value) {
        auto p = std::make_shared<T>(std::move(value));
        kept_.push_back(p);
        return *p;
    }
    CapMessage &cap(CapKey key) {
        return *caps_.emplace_back(std::make_unique<CapMessage>(std::move(key)));
    }
    MessageArena &arena() { return arena_; }
    const std::vector<qz_mom_write_op_t> &ops() const { return ops_; }

  private:
    std::vector<qz_mom_write_op_t> ops_;
    std::deque<std::vector<int32_t>> fields_;  // a deque: elements never move
    std::vector<std::shared_ptr<void>> kept_;
    std::deque<std::unique_ptr<CapMessage>> caps_;
    MessageArena arena_;
};

struct SubcardStateMsg {
    PLibpub__CapSubcardState rec = P_LIBPUB__CAP_SUBCARD_STATE__INIT;
    PLibpub__CapSubcardStateIndex idx = P_LIBPUB__CAP_SUBCARD_STATE_INDEX__INIT;
};

}  // namespace

Description read_description(const Connection &conn) {
    Description d;
    d.local_ready =
        read_flag(conn, PLibpub__CapState(P_LIBPUB__CAP_STATE__INIT), "local readiness");
    d.global_ready =
        read_flag(conn, SFrame__CapGlbState(S_FRAME__CAP_GLB_STATE__INIT), "global readiness");
    for (ListedCap &c : list_capabilities(conn, "", std::nullopt)) {
        if (c.key.node)
            d.subcard_capabilities[*c.key.node].emplace(c.key.url, std::move(c.record));
        else
            d.capabilities.emplace(c.key.url, std::move(c.record));
    }

    SubcardStateMsg states;
    states.rec.index = &states.idx;
    scan(conn, &states.rec.base, "subcard states", [&](const qz_mom_hash_res_t &res) {
        const auto *v = static_cast<const PLibpub__CapSubcardState *>(res.view);
        SubcardState s;
        if (v->index != nullptr) {
            s.nodeid = v->index->nodeid;
            s.config_dev_type = v->index->config_dev_type;
        }
        if (holds_field(res, 6))
            s.ready = v->ready != 0;
        if (holds_field(res, 7))
            s.is_preinstall = v->is_preinstall != 0;
        d.subcard_states.push_back(s);
    });
    std::sort(d.subcard_states.begin(), d.subcard_states.end(),
              [](const SubcardState &a, const SubcardState &b) {
                  return std::tie(a.nodeid, a.config_dev_type) <
                         std::tie(b.nodeid, b.config_dev_type);
              });

    PDev__CardInfo cards = P_DEV__CARD_INFO__INIT;
    PDev__CardInfoIndex cards_idx = P_DEV__CARD_INFO_INDEX__INIT;
    cards.index = &cards_idx;
    using CardKey = std::tuple<int32_t, int32_t, int32_t, int32_t>;
    std::vector<std::pair<CardKey, Json>> found;
    scan(conn, &cards.base, "cards", [&](const qz_mom_hash_res_t &res) {
        const auto *v = static_cast<const PDev__CardInfo *>(res.view);
        CardKey k{};
        if (v->index != nullptr)
            k = {v->index->t_mod, v->index->devid, v->index->slotid, v->index->sslotid};
        const std::vector<int32_t> stored(res.field_nums, res.field_nums + res.field_count);
        found.emplace_back(k, message_json(&v->base, &stored));
    });
    std::sort(found.begin(), found.end(),
              [](const auto &a, const auto &b) { return a.first < b.first; });
    for (auto &[k, j] : found)
        d.cards.push_back(std::move(j));
    return d;
}

void write_description(const Connection &conn, const Description &d,
                       const std::function<void(size_t done, size_t total)> &progress) {
    Ops ops;
    auto add_flag = [&](const std::optional<bool> &flag, auto init) {
        if (!flag)
            return;
        auto &rec = ops.keep(init);
        rec.ready = *flag;
        ops.add(&rec.base, {5});
    };
    add_flag(d.local_ready, PLibpub__CapState(P_LIBPUB__CAP_STATE__INIT));
    add_flag(d.global_ready, SFrame__CapGlbState(S_FRAME__CAP_GLB_STATE__INIT));
    for (const auto &[url, rec] : d.capabilities) {
        CapMessage &m = ops.cap(CapKey{url, std::nullopt});
        ops.add(m.msg(), m.set(rec));
    }
    for (const auto &[node, caps] : d.subcard_capabilities) {
        for (const auto &[url, rec] : caps) {
            CapMessage &m = ops.cap(CapKey{url, node});
            ops.add(m.msg(), m.set(rec));
        }
    }
    for (const SubcardState &s : d.subcard_states) {
        SubcardStateMsg &m = ops.keep(SubcardStateMsg{});
        m.idx.nodeid = s.nodeid;
        m.idx.config_dev_type = s.config_dev_type;
        m.rec.index = &m.idx;
        std::vector<int32_t> fields;
        if (s.ready) {
            m.rec.ready = *s.ready;
            fields.push_back(6);
        }
        if (s.is_preinstall) {
            m.rec.is_preinstall = *s.is_preinstall;
            fields.push_back(7);
        }
        ops.add(&m.rec.base, std::move(fields));
    }
    for (size_t i = 0; i < d.cards.size(); ++i) {
        std::vector<int32_t> fields;
        ProtobufCMessage *m = ops.arena().build(&p_dev__card_info__descriptor, InJson(d.cards[i]),
                                                path_index(".cards", i), &fields);
        // The index is the key, never a stored field.
        std::erase(fields, kCardIndexField);
        ops.add(m, std::move(fields));
    }

    const std::vector<qz_mom_write_op_t> &all = ops.ops();
    for (size_t done = 0; done < all.size();) {
        const size_t n = std::min(kLoadBatch, all.size() - done);
        uint32_t failed = 0;
        const int32_t rc = qz_mom_write_batch(conn.handle(), kCapDb, all.data() + done,
                                              static_cast<uint32_t>(n), &failed);
        if (rc != 0) {
            conn.fail(rc, "writing records " + std::to_string(done + 1) + " to " +
                              std::to_string(done + n) + " of " + std::to_string(all.size()) +
                              " (" + std::to_string(done) + " written before)");
        }
        done += n;
        if (progress)
            progress(done, all.size());
    }
}

}  // namespace qzcap::tool
