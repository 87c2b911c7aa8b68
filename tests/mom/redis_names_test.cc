// The names the Redis store uses on the server, and their way back.
#include <string>

#include <gtest/gtest.h>

#include "redis_names.h"

namespace {

using qzmom::redis::Channel;

TEST(RedisNames, WatchChannelsAndPatternsReadBackAsTheyWereMade) {
    Channel key = qzmom::redis::watch_channel(3, "p_libpub.cap_table|a*b", false);
    EXPECT_EQ(key.name, "__keyspace@3__:p_libpub.cap_table|a*b") << "an exact channel is literal";
    EXPECT_FALSE(key.pattern);
    EXPECT_EQ(key.subscribe_command(), "SUBSCRIBE");
    EXPECT_EQ(key.unsubscribe_command(), "UNSUBSCRIBE");

    Channel type = qzmom::redis::watch_channel(12, "odd*[type]?", true);
    EXPECT_EQ(type.name, "__keyspace@12__:odd\\*\\[type\\]\\?|*");
    EXPECT_TRUE(type.pattern);
    EXPECT_EQ(type.subscribe_command(), "PSUBSCRIBE");
    EXPECT_EQ(type.unsubscribe_command(), "PUNSUBSCRIBE");

    int32_t db = 0;
    std::string_view rest;
    std::string back;
    ASSERT_TRUE(qzmom::redis::parse_channel(type.name, &db, &rest));
    EXPECT_EQ(db, 12);
    ASSERT_TRUE(qzmom::redis::pattern_type(rest, &back));
    EXPECT_EQ(back, "odd*[type]?");

    // A channel and a pattern of the same text are two subscriptions.
    Channel same{type.name, false};
    EXPECT_NE(same.id(), type.id());
    for (const Channel &c : {key, type, same}) {
        const Channel again = Channel::from_id(c.id());
        EXPECT_EQ(again.name, c.name);
        EXPECT_EQ(again.pattern, c.pattern);
    }

    EXPECT_EQ(qzmom::redis::type_pattern("a\\b"), "a\\\\b|*");
    EXPECT_EQ(qzmom::redis::channel_prefix(0), "__keyspace@0__:");
    for (const char *bad : {"__keyevent@3__:k", "__keyspace@__:k", "__keyspace@3:k", "k"}) {
        EXPECT_FALSE(qzmom::redis::parse_channel(bad, &db, &rest)) << bad;
    }
    EXPECT_FALSE(qzmom::redis::pattern_type("type|x", &back));
}

}  // namespace
