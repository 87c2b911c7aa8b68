// The reader every connection of the Redis store parses replies with, and
// the sockets it connects itself.
#include <fcntl.h>
#include <hiredis.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
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

// A listening socket that accepts nothing: connecting only needs the backlog.
struct Listener {
    int fd = -1;
    std::string dir, path;
    int port = 0;
    ~Listener() {
        if (fd >= 0)
            close(fd);
        if (!path.empty())
            unlink(path.c_str());
        if (!dir.empty())
            rmdir(dir.c_str());
    }
};

void expect_blocking_with_timeouts(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    EXPECT_EQ(flags & O_NONBLOCK, 0) << "hiredis reads a blocking socket";
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    for (int opt : {SO_RCVTIMEO, SO_SNDTIMEO}) {
        timeval tv{};
        socklen_t len = sizeof tv;
        ASSERT_EQ(getsockopt(fd, SOL_SOCKET, opt, &tv, &len), 0);
        EXPECT_EQ(tv.tv_sec * 1000 + tv.tv_usec / 1000, qzmom::redis::kTimeoutMs) << opt;
    }
}

// The timeouts are the socket's own: hiredis is handed no timeval.
TEST(RedisConn, ConnectsUnixAndTcpSocketsWithTheirTimeoutsSet) {
    Listener unix_l;
    char tmpl[] = "/tmp/qz_mom_conn_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    unix_l.dir = tmpl;
    unix_l.path = unix_l.dir + "/s.sock";
    unix_l.fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un ua{};
    ua.sun_family = AF_UNIX;
    strcpy(ua.sun_path, unix_l.path.c_str());
    ASSERT_EQ(bind(unix_l.fd, reinterpret_cast<sockaddr *>(&ua), sizeof ua), 0);
    ASSERT_EQ(listen(unix_l.fd, 4), 0);

    Listener tcp_l;
    tcp_l.fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in ta{};
    ta.sin_family = AF_INET;
    ta.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(tcp_l.fd, reinterpret_cast<sockaddr *>(&ta), sizeof ta), 0);
    ASSERT_EQ(listen(tcp_l.fd, 4), 0);
    socklen_t ta_len = sizeof ta;
    ASSERT_EQ(getsockname(tcp_l.fd, reinterpret_cast<sockaddr *>(&ta), &ta_len), 0);
    tcp_l.port = ntohs(ta.sin_port);

    for (const std::string &uri :
         {"unix:" + unix_l.path, "redis://127.0.0.1:" + std::to_string(tcp_l.port),
          "redis://localhost:" + std::to_string(tcp_l.port)}) {
        SCOPED_TRACE(uri);
        qzmom::redis::Endpoint ep;
        std::string why;
        ASSERT_TRUE(qzmom::redis::parse_endpoint(uri, &ep, &why)) << why;
        const int fd = qzmom::redis::connect_socket(ep, &why);
        ASSERT_GE(fd, 0) << why;
        expect_blocking_with_timeouts(fd);
        close(fd);
        if (uri.starts_with("redis://localhost"))
            continue;  // as 127.0.0.1 from here on

        // A connection that gets no answer fails within the timeout.
        std::unique_ptr<qzmom::redis::Conn> c = qzmom::redis::Conn::open(ep, &why);
        ASSERT_NE(c, nullptr) << why;
        expect_blocking_with_timeouts(c->fd());
        qzmom::redis::ReplyPtr reply;
        EXPECT_FALSE(c->run({"PING"}, &reply, &why));
        EXPECT_EQ(why, "no answer within 1000 ms");
    }

    // Nothing listening: the system's reason, as a message.
    const std::string closed_port = std::to_string(tcp_l.port);
    close(tcp_l.fd);
    tcp_l.fd = -1;
    const std::pair<std::string, std::string> refused[] = {
        {"unix:" + unix_l.dir + "/none.sock", "No such file or directory"},
        {"redis://127.0.0.1:" + closed_port, "Connection refused"},
        {"unix:/" + std::string(200, 'x'), "socket path too long"},
    };
    for (const auto &[uri, says] : refused) {
        qzmom::redis::Endpoint ep;
        std::string why;
        ASSERT_TRUE(qzmom::redis::parse_endpoint(uri, &ep, &why)) << uri;
        EXPECT_EQ(qzmom::redis::connect_socket(ep, &why), -1) << uri;
        EXPECT_EQ(why, says) << uri;
    }
}

}  // namespace
