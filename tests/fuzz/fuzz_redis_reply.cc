// Bytes as a redis-server might send them, parsed by hiredis's reader; every
// reply is then taken as each kind of answer the Redis store reads (a record,
// a SCAN page, the notification flags, a write's outcome, a message on the
// subscriber connection), and a record as the one a push delivers.
//
// Each must end in a defined outcome: a record or a reply error, a page or a
// refusal, and for a message an event, an acknowledgement or nothing, whose
// key and event text lie inside the reply.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "codec.h"
#include "p_libpub.pb-c.h"
#include "qz_mom_client.h"
#include "redis_conn.h"
#include "redis_reply.h"

namespace {

using qzmom::redis::ReplyPtr;
using qzmom::redis::SubMessage;

[[noreturn]] void fault(const char *what) {
    fprintf(stderr, "fuzz_redis_reply: %s\n", what);
    abort();
}

struct ReaderFree {
    void operator()(redisReader *r) const { redisReaderFree(r); }
};

bool inside(std::string_view part, const redisReply *r) {
    auto within = [&](const redisReply *e) {
        return e->str != nullptr && part.data() >= e->str &&
               part.data() + part.size() <= e->str + e->len;
    };
    for (size_t i = 0; r->type == REDIS_REPLY_ARRAY && i < r->elements; ++i) {
        if (within(r->element[i]))
            return true;
    }
    return false;
}

void as_record(const redisReply *r) {
    qzmom::Snapshot rec;
    std::string_view err;
    const int32_t rc = qzmom::redis::to_snapshot(r, &rec, &err);
    if (rc != 0) {
        if (rc != QZ_MOM_E_REPLY || rec != nullptr || err.empty())
            fault("a refused HGETALL reply without its code and reason");
        return;
    }
    if (rec == nullptr)
        return;
    // As a push would deliver it to a subscriber of the capability table.
    ProtobufCMessage *view = nullptr;
    int32_t *nums = nullptr;
    uint32_t count = 0;
    qzmom::DecodeError derr;
    if (qzmom::decode_record(&p_libpub__cap_table__descriptor, "p_libpub.cap_table|fuzz", *rec,
                             &view, &nums, &count, &derr) == 0) {
        protobuf_c_message_free_unpacked(view, nullptr);
        free(nums);
    }
}

void as_message(const redisReply *r) {
    const SubMessage m = qzmom::redis::read_sub_message(r);
    switch (m.kind) {
        case SubMessage::Kind::kEvent:
            if (!inside(m.key, r) || !inside(m.event, r))
                fault("an event whose key or event text is not in the reply");
            break;
        case SubMessage::Kind::kAck:
            if (m.has_type && !m.pattern)
                fault("a type taken from a plain subscription");
            break;
        case SubMessage::Kind::kNone:
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::unique_ptr<redisReader, ReaderFree> reader(redisReaderCreate());
    if (reader == nullptr)
        fault("out of memory");
    qzmom::redis::limit_replies(reader.get());  // as every connection of the store
    redisReaderFeed(reader.get(), reinterpret_cast<const char *>(data), size);
    std::vector<ReplyPtr> replies;
    for (;;) {
        void *r = nullptr;
        if (redisReaderGetReply(reader.get(), &r) != REDIS_OK || r == nullptr)
            break;
        replies.emplace_back(static_cast<redisReply *>(r));
    }
    for (const ReplyPtr &rp : replies) {
        const redisReply *r = rp.get();
        as_record(r);
        as_message(r);

        std::string cursor;
        std::vector<std::string> keys;
        if (!qzmom::redis::scan_page(r, &cursor, &keys) && !keys.empty())
            fault("a refused SCAN page added keys");

        std::string have;
        if (qzmom::redis::notify_flags(r, &have)) {
            // What the store then sets must leave nothing missing.
            if (!qzmom::redis::missing_flags(have + qzmom::redis::missing_flags(have)).empty())
                fault("the flags added still leave some missing");
        }
    }
    for (bool in_multi : {false, true}) {
        const int32_t rc = qzmom::redis::write_status(replies, in_multi);
        if (rc != 0 && rc != QZ_MOM_E_REPLY)
            fault("a write outcome that is neither success nor a reply error");
    }
    return 0;
}
