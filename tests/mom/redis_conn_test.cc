// The reader every connection of the Redis store parses replies with.
#include <hiredis.h>

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "redis_conn.h"

namespace {

struct ReaderFree {
    void operator()(redisReader *r) const { redisReaderFree(r); }
};
using ReaderPtr = std::unique_ptr<redisReader, ReaderFree>;

ReaderPtr limited_reader() {
    ReaderPtr r(redisReaderCreate());
    qzmom::redis::limit_replies(r.get());
    return r;
}

// hiredis used to allocate the element table of "*300000000" (2.4 GB) from
// the header alone.
TEST(RedisConn, RefusesAnArrayCountBeyondTheLimitBeforeAllocating) {
    const std::string over = std::to_string(qzmom::redis::kMaxReplyElements + 1);
    for (const std::string &bytes : {"*" + over + "\r\n", "*1\r\n*" + over + "\r\n",
                                     std::string("*2\r\n:1\r\n*2000000000\r\n")}) {
        ReaderPtr r = limited_reader();
        redisReaderFeed(r.get(), bytes.data(), bytes.size());
        void *reply = nullptr;
        EXPECT_EQ(redisReaderGetReply(r.get(), &reply), REDIS_ERR) << bytes;
        EXPECT_EQ(r->err, REDIS_ERR_OOM) << bytes;
        EXPECT_EQ(reply, nullptr);
    }

    // Up to the limit, and twice limited, replies read as before.
    ReaderPtr r = limited_reader();
    qzmom::redis::limit_replies(r.get());
    const std::string ok = "*3\r\n:1\r\n*0\r\n$2\r\nab\r\n";
    redisReaderFeed(r.get(), ok.data(), ok.size());
    void *reply = nullptr;
    ASSERT_EQ(redisReaderGetReply(r.get(), &reply), REDIS_OK);
    ASSERT_NE(reply, nullptr);
    qzmom::redis::ReplyPtr owned(static_cast<redisReply *>(reply));
    EXPECT_EQ(owned->elements, 3u);
    EXPECT_EQ(qzmom::redis::text(owned->element[2]), "ab");
}

}  // namespace
