#include "raw_redis.h"

#include <chrono>
#include <cstdarg>
#include <cstring>

#include "p_libpub.pb-c.h"
#include "qz_mom_client.h"

namespace qzbench {

Conn connect_unix(const std::string &path, std::string *why) {
    return qztest::connect("unix:" + path, kCapDb, why, std::chrono::seconds(2));
}

Reply command(redisContext *c, std::string *why, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    Reply r(static_cast<redisReply *>(redisvCommand(c, fmt, ap)));
    va_end(ap);
    if (!r) {
        *why = std::string("redis command failed: ") + (c->err != 0 ? c->errstr : "no reply");
        return nullptr;
    }
    if (r->type == REDIS_REPLY_ERROR) {
        *why = std::string("redis error: ") + std::string(r->str, r->len);
        return nullptr;
    }
    return r;
}

bool hash_field(const redisReply *r, std::string_view field, std::string_view *value) {
    if (r == nullptr || r->type != REDIS_REPLY_ARRAY)
        return false;
    for (size_t i = 0; i + 1 < r->elements; i += 2) {
        const redisReply *k = r->element[i];
        if (k->type == REDIS_REPLY_STRING && std::string_view(k->str, k->len) == field) {
            const redisReply *v = r->element[i + 1];
            *value = std::string_view(v->str, v->len);
            return true;
        }
    }
    return false;
}

std::string cap_key(const std::string &url) {
    PLibpub__CapTableIndex idx = P_LIBPUB__CAP_TABLE_INDEX__INIT;
    PLibpub__CapTable rec = P_LIBPUB__CAP_TABLE__INIT;
    idx.url = const_cast<char *>(url.c_str());
    rec.index = &idx;
    char buf[600];
    int32_t n = qz_mom_format_key(&rec.base, buf, sizeof buf);
    return n < 0 ? std::string() : std::string(buf, static_cast<size_t>(n));
}

std::string keyspace_channel(const std::string &key) {
    return "__keyspace@" + std::to_string(kCapDb) + "__:" + key;
}

bool put_cap_record(redisContext *c, const std::string &key, const char *value_field,
                    const char *value, std::string *why) {
    // Fields 21 (pri) and 22 (state) make the record as big as a published one.
    return command(c, why, "DEL %b", key.data(), key.size()) &&
           command(c, why, "HSET %b %s %s 21 5 22 1", key.data(), key.size(), value_field, value);
}

}  // namespace qzbench
