// What the Redis store makes of replies and subscriber messages, from the
// bytes a server sends: each shape, well-formed or not, has one outcome.
#include <hiredis.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "qz_mom_client.h"
#include "redis_reply.h"

namespace {

using namespace std::string_literals;
using qzmom::redis::ReplyPtr;
using qzmom::redis::SubMessage;

// The one reply the bytes hold.
ReplyPtr parse(const std::string &bytes) {
    redisReader *reader = redisReaderCreate();
    redisReaderFeed(reader, bytes.data(), bytes.size());
    void *r = nullptr;
    const int rc = redisReaderGetReply(reader, &r);
    redisReaderFree(reader);
    EXPECT_EQ(rc, REDIS_OK) << bytes;
    EXPECT_NE(r, nullptr) << bytes;
    return ReplyPtr(static_cast<redisReply *>(r));
}

std::string bulk(const std::string &s) {
    return "$" + std::to_string(s.size()) + "\r\n" + s + "\r\n";
}

TEST(RedisReply, HgetallGivesARecordOrAReasonNeverEmpty) {
    qzmom::Snapshot rec;
    std::string_view err;
    ReplyPtr r = parse("*4\r\n" + bulk("6") + bulk("1") + bulk("7") + bulk("42"));
    ASSERT_EQ(qzmom::redis::to_snapshot(r.get(), &rec, &err), 0);
    ASSERT_NE(rec, nullptr);
    ASSERT_EQ(rec->size(), 2u);
    EXPECT_EQ((*rec)[1].name, "7");
    EXPECT_EQ((*rec)[1].value, "42");

    r = parse("*0\r\n");
    EXPECT_EQ(qzmom::redis::to_snapshot(r.get(), &rec, &err), 0);
    EXPECT_EQ(rec, nullptr) << "no fields: no record";

    const std::pair<std::string, std::string_view> refused[] = {
        {"-WRONGTYPE not a hash\r\n", "WRONGTYPE not a hash"},
        // An empty error text used to leave the skipped record's log line without a reason.
        {"-\r\n", "error reply without a text"},
        {"*3\r\n" + bulk("6") + bulk("1") + bulk("7"), "unexpected reply to HGETALL"},
        {"*2\r\n:6\r\n" + bulk("1"), "unexpected reply to HGETALL"},
        {"$-1\r\n", "unexpected reply to HGETALL"},
    };
    for (const auto &[bytes, reason] : refused) {
        r = parse(bytes);
        EXPECT_EQ(qzmom::redis::to_snapshot(r.get(), &rec, &err), QZ_MOM_E_REPLY) << bytes;
        EXPECT_EQ(rec, nullptr);
        EXPECT_EQ(err, reason) << bytes;
    }
}

TEST(RedisReply, SubscriberMessagesBecomeEventsAcksOrNothing) {
    const std::string ch = "__keyspace@3__:p_libpub.cap_table|a\\|b";
    ReplyPtr r = parse("*3\r\n" + bulk("message") + bulk(ch) + bulk("hset"));
    SubMessage m = qzmom::redis::read_sub_message(r.get());
    EXPECT_EQ(m.kind, SubMessage::Kind::kEvent);
    EXPECT_FALSE(m.pattern);
    EXPECT_EQ(m.db, 3);
    EXPECT_EQ(m.key, "p_libpub.cap_table|a\\|b");
    EXPECT_EQ(m.event, "hset");

    r = parse("*4\r\n" + bulk("pmessage") + bulk("__keyspace@3__:p_libpub.cap_table|*") +
              bulk("__keyspace@12__:k") + bulk("del"));
    m = qzmom::redis::read_sub_message(r.get());
    EXPECT_EQ(m.kind, SubMessage::Kind::kEvent);
    EXPECT_TRUE(m.pattern);
    EXPECT_EQ(m.db, 12);
    EXPECT_EQ(m.key, "k");

    // A whole-type pattern names its type with the glob characters escaped.
    r = parse("*3\r\n" + bulk("psubscribe") + bulk("__keyspace@3__:p\\*x|*") + ":1\r\n");
    m = qzmom::redis::read_sub_message(r.get());
    EXPECT_EQ(m.kind, SubMessage::Kind::kAck);
    EXPECT_TRUE(m.subscribe);
    EXPECT_TRUE(m.has_type);
    EXPECT_EQ(m.type, "p*x");
    r = parse("*3\r\n" + bulk("unsubscribe") + bulk(ch) + ":0\r\n");
    m = qzmom::redis::read_sub_message(r.get());
    EXPECT_EQ(m.kind, SubMessage::Kind::kAck);
    EXPECT_FALSE(m.subscribe);
    EXPECT_FALSE(m.has_type);

    const std::string nothing[] = {
        "*3\r\n" + bulk("message") + bulk(ch) + bulk("expire"),  // the hash is unchanged
        "*3\r\n" + bulk("message") + bulk("__keyspace@x__:k") + bulk("hset"),
        "*3\r\n" + bulk("message") + bulk("__keyevent@3__:hset") + bulk("k"),
        "*3\r\n" + bulk("message") + bulk(ch) + ":1\r\n",
        "*4\r\n" + bulk("message") + bulk(ch) + bulk("hset") + bulk("x"),
        "*1\r\n" + bulk("message"),
        "*2\r\n:1\r\n" + bulk("x"),
        "+OK\r\n",
        "-ERR\r\n",
    };
    for (const std::string &bytes : nothing) {
        r = parse(bytes);
        EXPECT_EQ(qzmom::redis::read_sub_message(r.get()).kind, SubMessage::Kind::kNone) << bytes;
    }
}

TEST(RedisReply, ScanConfigAndWriteReplies) {
    std::string cursor;
    std::vector<std::string> keys;
    ReplyPtr r = parse("*2\r\n" + bulk("17") + "*2\r\n" + bulk("k1") + bulk("k2"));
    ASSERT_TRUE(qzmom::redis::scan_page(r.get(), &cursor, &keys));
    EXPECT_EQ(cursor, "17");
    EXPECT_EQ(keys, (std::vector<std::string>{"k1", "k2"}));
    keys.clear();
    // A key that is not a string is no key at all, not an empty one.
    for (const std::string &bytes :
         {"*2\r\n:0\r\n*0\r\n"s, "*1\r\n" + bulk("0"), "-ERR\r\n"s,
          "*2\r\n" + bulk("0") + "*2\r\n" + bulk("k1") + ":7\r\n",
          "*2\r\n" + bulk("0") + "*1\r\n$-1\r\n", "*2\r\n" + bulk("0") + "*1\r\n*0\r\n"}) {
        r = parse(bytes);
        EXPECT_FALSE(qzmom::redis::scan_page(r.get(), &cursor, &keys)) << bytes;
        EXPECT_TRUE(keys.empty());
    }

    std::string have;
    r = parse("*2\r\n" + bulk("notify-keyspace-events") + bulk("Ex"));
    ASSERT_TRUE(qzmom::redis::notify_flags(r.get(), &have));
    EXPECT_EQ(have, "Ex");
    EXPECT_EQ(qzmom::redis::missing_flags(have), "Kghe");
    EXPECT_EQ(qzmom::redis::missing_flags("AE"), "K");
    EXPECT_EQ(qzmom::redis::missing_flags("KEA"), "");
    r = parse("-ERR unknown command 'CONFIG'\r\n");
    EXPECT_FALSE(qzmom::redis::notify_flags(r.get(), &have));

    auto replies = [](std::initializer_list<std::string> list) {
        std::vector<ReplyPtr> out;
        for (const std::string &bytes : list)
            out.push_back(parse(bytes));
        return out;
    };
    EXPECT_EQ(qzmom::redis::write_status(replies({":1\r\n", ":0\r\n"}), false), 0);
    EXPECT_EQ(qzmom::redis::write_status(replies({":1\r\n", "-ERR x\r\n"}), false), QZ_MOM_E_REPLY);
    EXPECT_EQ(qzmom::redis::write_status(
                  replies({"+OK\r\n", "+QUEUED\r\n", "+QUEUED\r\n", "*2\r\n:1\r\n:1\r\n"}), true),
              0);
    EXPECT_EQ(
        qzmom::redis::write_status(
            replies({"+OK\r\n", "+QUEUED\r\n", "+QUEUED\r\n", "*2\r\n:1\r\n-WRONGTYPE\r\n"}), true),
        QZ_MOM_E_REPLY);
    EXPECT_EQ(qzmom::redis::write_status(replies({"+OK\r\n", "$-1\r\n"}), true), QZ_MOM_E_REPLY)
        << "an aborted EXEC";
    EXPECT_EQ(qzmom::redis::write_status({}, true), QZ_MOM_E_REPLY);
}

// A walk ends: at cursor 0, at the first bad page, or after its page limit
// when the server's cursor never comes back to 0.
TEST(RedisReply, ScanWalksAreBounded) {
    using Step = qzmom::redis::ScanWalk::Step;
    std::string_view err;
    qzmom::redis::ScanWalk walk;
    EXPECT_EQ(walk.cursor(), "0");
    ReplyPtr r = parse("*2\r\n" + bulk("9") + "*2\r\n" + bulk("b") + bulk("a"));
    EXPECT_EQ(walk.take(r.get(), &err), Step::kMore);
    EXPECT_EQ(walk.cursor(), "9");
    r = parse("*2\r\n" + bulk("0") + "*2\r\n" + bulk("c") + bulk("a"));
    EXPECT_EQ(walk.take(r.get(), &err), Step::kDone);
    EXPECT_EQ(walk.keys(), (std::vector<std::string>{"a", "b", "c"})) << "sorted, each once";

    qzmom::redis::ScanWalk endless(4);
    r = parse("*2\r\n" + bulk("5") + "*1\r\n" + bulk("k"));
    EXPECT_EQ(endless.take(r.get(), &err), Step::kMore);
    EXPECT_EQ(endless.take(r.get(), &err), Step::kMore);
    EXPECT_EQ(endless.take(r.get(), &err), Step::kMore);
    EXPECT_EQ(endless.take(r.get(), &err), Step::kFailed);
    EXPECT_EQ(err, "SCAN cursor never returned to 0");

    const std::pair<std::string, std::string_view> bad[] = {
        {"-ERR invalid cursor\r\n", "ERR invalid cursor"},
        {"-\r\n", "error reply without a text"},
        {"*2\r\n" + bulk("0") + "*1\r\n:1\r\n", "unexpected reply to SCAN"},
        {"+OK\r\n", "unexpected reply to SCAN"},
    };
    for (const auto &[bytes, reason] : bad) {
        qzmom::redis::ScanWalk w;
        r = parse(bytes);
        EXPECT_EQ(w.take(r.get(), &err), Step::kFailed) << bytes;
        EXPECT_EQ(err, reason) << bytes;
        EXPECT_TRUE(w.keys().empty()) << bytes;
    }
}

TEST(RedisReply, BatchesRecordsAndRefusals) {
    auto replies = [](std::initializer_list<std::string> list) {
        std::vector<ReplyPtr> out;
        for (const std::string &bytes : list)
            out.push_back(parse(bytes));
        return out;
    };
    EXPECT_EQ(qzmom::redis::batch_status(
                  replies({"+OK\r\n", "+QUEUED\r\n", "+QUEUED\r\n", "*2\r\n:1\r\n:1\r\n"}), 2),
              0);
    EXPECT_EQ(qzmom::redis::batch_status(
                  replies({"+OK\r\n", "+QUEUED\r\n", "+QUEUED\r\n", "*2\r\n:1\r\n:1\r\n"}), 3),
              QZ_MOM_E_REPLY)
        << "an EXEC answering fewer commands than were queued";
    EXPECT_EQ(qzmom::redis::batch_status(replies({"+OK\r\n", "-ERR x\r\n", "-EXECABORT\r\n"}), 1),
              QZ_MOM_E_REPLY);
    EXPECT_EQ(qzmom::redis::batch_status(replies({"+OK\r\n", "*1\r\n-WRONGTYPE\r\n"}), 1),
              QZ_MOM_E_REPLY);

    auto rec = [](std::initializer_list<qzmom::Field> f) {
        return std::make_shared<const qzmom::Record>(f);
    };
    EXPECT_TRUE(qzmom::redis::same_record(nullptr, nullptr));
    EXPECT_FALSE(qzmom::redis::same_record(rec({}), nullptr));
    EXPECT_TRUE(qzmom::redis::same_record(rec({{"6", "1"}}), rec({{"6", "1"}})));
    EXPECT_FALSE(qzmom::redis::same_record(rec({{"6", "1"}}), rec({{"6", "2"}})));
    EXPECT_FALSE(qzmom::redis::same_record(rec({{"6", "1"}}), rec({{"7", "1"}})));
    EXPECT_FALSE(qzmom::redis::same_record(rec({{"6", "1"}}), rec({{"6", "1"}, {"7", "1"}})));

    ReplyPtr r = parse("-NOAUTH Authentication required.\r\n");
    EXPECT_EQ(qzmom::redis::refusal("CONFIG GET x", r.get()),
              "the server requires a password (NOAUTH Authentication required.); this client "
              "does not authenticate");
    r = parse("-ERR unknown command 'CONFIG'\r\n");
    EXPECT_EQ(qzmom::redis::refusal("CONFIG GET x", r.get()),
              "CONFIG GET x refused (ERR unknown command 'CONFIG'): keyspace notifications cannot "
              "be enabled; allow CONFIG for this client or set notify-keyspace-events KA in the "
              "server's configuration");
}

}  // namespace
