#include "redis_reply.h"

#include <algorithm>
#include <memory>

#include "qz_mom_client.h"
#include "redis_names.h"

namespace qzmom::redis {

int32_t to_snapshot(const redisReply *r, Snapshot *out, std::string_view *err) {
    out->reset();
    if (r->type != REDIS_REPLY_ARRAY || r->elements % 2 != 0) {
        if (!is_error(r))
            *err = "unexpected reply to HGETALL";
        else  // the reason goes into a log line: never an empty one
            *err = r->len != 0 ? text(r) : std::string_view("error reply without a text");
        return QZ_MOM_E_REPLY;
    }
    if (r->elements == 0)
        return 0;
    auto rec = std::make_shared<Record>();
    rec->reserve(r->elements / 2);
    for (size_t i = 0; i < r->elements; i += 2) {
        const redisReply *name = r->element[i], *value = r->element[i + 1];
        if (name->type != REDIS_REPLY_STRING || value->type != REDIS_REPLY_STRING) {
            *err = "unexpected reply to HGETALL";
            return QZ_MOM_E_REPLY;
        }
        rec->push_back(Field{std::string(text(name)), std::string(text(value))});
    }
    *out = std::move(rec);
    return 0;
}

bool scan_page(const redisReply *r, std::string *cursor, std::vector<std::string> *keys) {
    if (r->type != REDIS_REPLY_ARRAY || r->elements != 2 ||
        r->element[0]->type != REDIS_REPLY_STRING || r->element[1]->type != REDIS_REPLY_ARRAY) {
        return false;
    }
    const redisReply *found = r->element[1];
    for (size_t i = 0; i < found->elements; ++i) {
        if (found->element[i]->type != REDIS_REPLY_STRING)
            return false;
    }
    cursor->assign(text(r->element[0]));
    for (size_t i = 0; i < found->elements; ++i)
        keys->emplace_back(text(found->element[i]));
    return true;
}

ScanWalk::Step ScanWalk::take(const redisReply *r, std::string_view *err) {
    if (is_error(r)) {
        *err = r->len != 0 ? text(r) : std::string_view("error reply without a text");
        return Step::kFailed;
    }
    if (!scan_page(r, &cursor_, &keys_)) {
        *err = "unexpected reply to SCAN";
        return Step::kFailed;
    }
    if (cursor_ == "0")
        return Step::kDone;
    if (++pages_ >= max_pages_) {
        *err = "SCAN cursor never returned to 0";
        return Step::kFailed;
    }
    return Step::kMore;
}

std::vector<std::string> ScanWalk::keys() {
    std::sort(keys_.begin(), keys_.end());
    keys_.erase(std::unique(keys_.begin(), keys_.end()), keys_.end());
    return std::move(keys_);
}

bool notify_flags(const redisReply *r, std::string *have) {
    if (is_error(r) || r->type != REDIS_REPLY_ARRAY || r->elements != 2 ||
        r->element[1]->type != REDIS_REPLY_STRING) {
        return false;
    }
    have->assign(text(r->element[1]));
    return true;
}

// K (keyspace channel), g (del, rename), h (hash commands), x (expired),
// e (evicted). 'A' stands for every class.
std::string missing_flags(std::string_view have) {
    std::string missing;
    for (char f : std::string_view("Kghxe")) {
        if (have.find(f) == std::string_view::npos &&
            (f == 'K' || have.find('A') == std::string_view::npos)) {
            missing.push_back(f);
        }
    }
    return missing;
}

int32_t write_status(const std::vector<ReplyPtr> &replies, bool in_multi) {
    int32_t rc = 0;
    for (const ReplyPtr &r : replies) {
        if (is_error(r.get()))
            rc = QZ_MOM_E_REPLY;
    }
    if (!in_multi)
        return rc;
    const redisReply *exec = replies.empty() ? nullptr : replies.back().get();
    if (exec == nullptr || exec->type != REDIS_REPLY_ARRAY)
        return QZ_MOM_E_REPLY;
    for (size_t i = 0; i < exec->elements; ++i) {
        if (is_error(exec->element[i]))
            rc = QZ_MOM_E_REPLY;
    }
    return rc;
}

int32_t batch_status(const std::vector<ReplyPtr> &replies, size_t queued) {
    const int32_t rc = write_status(replies, true);
    if (rc == 0 && replies.back()->elements != queued)
        return QZ_MOM_E_REPLY;
    return rc;
}

bool same_record(const Snapshot &a, const Snapshot &b) {
    if (a == nullptr || b == nullptr)
        return a == b;
    return std::equal(
        a->begin(), a->end(), b->begin(), b->end(),
        [](const Field &x, const Field &y) { return x.name == y.name && x.value == y.value; });
}

std::string refusal(std::string_view command, const redisReply *r) {
    std::string_view t = text(r);
    if (t.starts_with("NOAUTH") || t.starts_with("WRONGPASS"))
        return "the server requires a password (" + std::string(t) +
               "); this client does not authenticate";
    return std::string(command) + " refused (" + std::string(t) +
           "): keyspace notifications cannot be enabled; allow CONFIG for this client or set "
           "notify-keyspace-events KA in the server's configuration";
}

SubMessage read_sub_message(const redisReply *r) {
    SubMessage m;
    if (r->type != REDIS_REPLY_ARRAY || r->elements < 2 ||
        r->element[0]->type != REDIS_REPLY_STRING) {
        return m;
    }
    const std::string_view kind = text(r->element[0]);
    const bool plain = kind == "message" && r->elements == 3;
    if (plain || (kind == "pmessage" && r->elements == 4)) {
        const redisReply *ch = r->element[plain ? 1 : 2];
        const redisReply *ev = r->element[plain ? 2 : 3];
        if (ch->type != REDIS_REPLY_STRING || ev->type != REDIS_REPLY_STRING ||
            !parse_channel(text(ch), &m.db, &m.key)) {
            return m;
        }
        m.event = text(ev);
        // Events that leave a hash as it was.
        if (m.event == "expire" || m.event == "persist" || m.event == "new")
            return m;
        m.kind = SubMessage::Kind::kEvent;
        m.pattern = !plain;
    } else if (kind == "psubscribe" || kind == "punsubscribe") {
        m.kind = SubMessage::Kind::kAck;
        m.pattern = true;
        m.subscribe = kind == "psubscribe";
        std::string_view rest;
        m.has_type = r->element[1]->type == REDIS_REPLY_STRING &&
                     parse_channel(text(r->element[1]), &m.db, &rest) &&
                     pattern_type(rest, &m.type);
    } else if (kind == "subscribe" || kind == "unsubscribe") {
        m.kind = SubMessage::Kind::kAck;
        m.subscribe = kind == "subscribe";
    }
    return m;
}

}  // namespace qzmom::redis
