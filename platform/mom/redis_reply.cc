#include "redis_reply.h"

#include <charconv>
#include <memory>

#include "qz_mom_client.h"

namespace qzmom::redis {
namespace {

constexpr std::string_view kChannelPrefix = "__keyspace@";

}  // namespace

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
    cursor->assign(text(r->element[0]));
    const redisReply *found = r->element[1];
    for (size_t i = 0; i < found->elements; ++i)
        keys->emplace_back(text(found->element[i]));
    return true;
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

std::string channel_prefix(int32_t db) {
    return std::string(kChannelPrefix) + std::to_string(db) + "__:";
}

bool parse_channel(std::string_view ch, int32_t *db, std::string_view *rest) {
    if (!ch.starts_with(kChannelPrefix))
        return false;
    ch.remove_prefix(kChannelPrefix.size());
    auto [end, ec] = std::from_chars(ch.data(), ch.data() + ch.size(), *db);
    if (ec != std::errc())
        return false;
    ch.remove_prefix(static_cast<size_t>(end - ch.data()));
    if (!ch.starts_with("__:"))
        return false;
    *rest = ch.substr(3);
    return true;
}

bool pattern_type(std::string_view rest, std::string *type) {
    if (!rest.ends_with("|*"))
        return false;
    rest.remove_suffix(2);
    type->clear();
    for (size_t i = 0; i < rest.size(); ++i) {
        if (rest[i] == '\\' && i + 1 < rest.size())
            ++i;
        type->push_back(rest[i]);
    }
    return true;
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
