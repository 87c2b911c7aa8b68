// The stand-ins' shared helpers: descriptor ownership, the C entry barrier,
// wake-up descriptors and strict integer parsing.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <limits>
#include <new>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "common/c_barrier.h"
#include "common/parse_int.h"
#include "common/unique_fd.h"
#include "common/wake_fd.h"

namespace {

using qzplat::UniqueFd;
using qzplat::WakeFd;

bool is_open(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

bool readable(int fd) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, 0) == 1 && (p.revents & POLLIN) != 0;
}

struct Pipe {
    int r = -1, w = -1;
    Pipe() {
        int fds[2];
        EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0);
        r = fds[0];
        w = fds[1];
    }
};

TEST(UniqueFd, ClosesWhatItHoldsExactlyOnce) {
    Pipe p;
    {
        UniqueFd a(p.r);
        UniqueFd b(std::move(a));
        EXPECT_FALSE(a);
        EXPECT_EQ(a.get(), -1);
        EXPECT_EQ(b.get(), p.r);
        EXPECT_TRUE(is_open(p.r));
    }
    EXPECT_FALSE(is_open(p.r));

    UniqueFd w(p.w);
    Pipe q;
    w.reset(q.r);  // the old one closes, the new one is held
    EXPECT_FALSE(is_open(p.w));
    EXPECT_TRUE(is_open(q.r));
    UniqueFd other(q.w);
    w = std::move(other);
    EXPECT_FALSE(is_open(q.r));
    EXPECT_EQ(w.get(), q.w);
    int mine = w.release();
    EXPECT_FALSE(w);
    w.reset();
    EXPECT_TRUE(is_open(mine));
    close(mine);
}

TEST(CBarrier, PassesResultsAndTurnsEveryExceptionIntoTheFailureCode) {
    EXPECT_EQ(qzplat::c_barrier(-6, [] { return 42; }), 42);
    EXPECT_EQ(qzplat::c_barrier(-6, []() -> int { throw std::bad_alloc(); }), -6);
    EXPECT_EQ(qzplat::c_barrier(-6, []() -> int { throw std::runtime_error("x"); }), -6);
    EXPECT_EQ(qzplat::c_barrier(-6, []() -> int { throw 3; }), -6);
    int object = 0;
    EXPECT_EQ(qzplat::c_barrier(nullptr, [&] { return &object; }), &object);
    EXPECT_EQ(qzplat::c_barrier(nullptr, []() -> int * { throw std::bad_alloc(); }), nullptr);

    bool ran_to = false;
    qzplat::c_barrier_void([&] { ran_to = true; });
    EXPECT_TRUE(ran_to);
    bool before_throw = false;
    qzplat::c_barrier_void([&] {
        before_throw = true;
        throw std::bad_alloc();
    });
    EXPECT_TRUE(before_throw);
}

TEST(WakeFd, ReadableFromSignalUntilDrain) {
    WakeFd w;
    EXPECT_FALSE(w);
    EXPECT_EQ(w.fd(), -1);
    w.signal();  // nothing opened: does nothing, does not crash
    w.drain();
    ASSERT_TRUE(w.open()) << "eventfd: " << errno;
    EXPECT_TRUE(is_open(w.fd()));
    EXPECT_FALSE(readable(w.fd()));
    w.signal();
    w.signal();
    EXPECT_TRUE(readable(w.fd()));
    w.drain();  // one drain for any number of signals
    EXPECT_FALSE(readable(w.fd()));
    w.drain();  // draining an unsignalled one is harmless
    EXPECT_FALSE(readable(w.fd()));
    w.signal();
    WakeFd::drain(w.fd());
    EXPECT_FALSE(readable(w.fd()));
}

TEST(WakeFd, WakesAPollOnAnotherThread) {
    WakeFd w;
    ASSERT_TRUE(w.open());
    int ready = -1;
    std::thread poller([&] {
        pollfd p{w.fd(), POLLIN, 0};
        ready = poll(&p, 1, 10000);
    });
    w.signal();
    poller.join();
    EXPECT_EQ(ready, 1);
}

TEST(WakeFd, ClosesItsDescriptor) {
    int fd;
    {
        WakeFd w;
        ASSERT_TRUE(w.open());
        fd = w.fd();
    }
    EXPECT_FALSE(is_open(fd));
}

struct IntCase {
    const char *text;
    bool ok;
    int64_t value;
};

// Names each case by its text in the test list, escaped.
void PrintTo(const IntCase &c, std::ostream *os) {
    *os << testing::PrintToString(std::string(c.text));
}

class ParseInt32 : public testing::TestWithParam<IntCase> {};

TEST_P(ParseInt32, AcceptsOnlyAWholeInRangeDecimal) {
    const IntCase &c = GetParam();
    int32_t v = -77;
    EXPECT_EQ(qzplat::parse_int(c.text, &v), c.ok) << "'" << c.text << "'";
    EXPECT_EQ(v, c.ok ? c.value : -77) << "'" << c.text << "': untouched on failure";
}

INSTANTIATE_TEST_SUITE_P(
    Texts, ParseInt32,
    testing::Values(IntCase{"0", true, 0}, IntCase{"5", true, 5}, IntCase{"-5", true, -5},
                    IntCase{"007", true, 7}, IntCase{"2147483647", true, INT32_MAX},
                    IntCase{"-2147483648", true, INT32_MIN}, IntCase{"2147483648", false, 0},
                    IntCase{"-2147483649", false, 0}, IntCase{"99999999999999999999", false, 0},
                    IntCase{"", false, 0}, IntCase{"-", false, 0}, IntCase{"+5", false, 0},
                    IntCase{" 5", false, 0}, IntCase{"5 ", false, 0}, IntCase{"5\n", false, 0},
                    IntCase{"0x10", false, 0}, IntCase{"5a", false, 0}, IntCase{"1.0", false, 0},
                    IntCase{"--5", false, 0}, IntCase{"abc", false, 0}));

TEST(ParseInt, RangeIsTheTargetType) {
    uint16_t port = 1;
    EXPECT_TRUE(qzplat::parse_int("65535", &port));
    EXPECT_EQ(port, 65535);
    EXPECT_FALSE(qzplat::parse_int("65536", &port));
    EXPECT_FALSE(qzplat::parse_int("-1", &port));
    EXPECT_EQ(port, 65535);
    int64_t big = 0;
    EXPECT_TRUE(qzplat::parse_int("-9223372036854775808", &big));
    EXPECT_EQ(big, std::numeric_limits<int64_t>::min());
    // Only the view's bytes count, not what follows it in memory.
    const std::string text = "12345";
    int32_t part = 0;
    EXPECT_TRUE(qzplat::parse_int(std::string_view(text).substr(0, 2), &part));
    EXPECT_EQ(part, 12);
}

}  // namespace
