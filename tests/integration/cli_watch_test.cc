// qzcap watch: the current values, then one line per pushed change, from
// qzcap set and from an operator's redis-cli; --count and JSON lines; subcard
// capabilities; and a redis-server restart in the middle of a watch.
#include <signal.h>

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cli_support.h"

namespace clitest {
namespace {

using ::testing::StartsWith;

class CliWatch : public CliTest {
  protected:
    void set(const std::vector<std::string> &args) {
        std::vector<std::string> all{"set"};
        all.insert(all.end(), args.begin(), args.end());
        Ran r = run(all);
        ASSERT_EQ(r.status, 0) << r.err;
    }
    // The next line, or a failure saying what was expected.
    static std::string next(Background &w) { return w.line().value_or("<no line>"); }
};

TEST_F(CliWatch, CurrentValuesThenEveryChangeAsItIsPushed) {
    set({"a/int", "int32", "1"});
    set({"a/str", "str", "x"});
    Background w({"watch", "a/int", "a/str", "a/new"}, store_env());
    // Printed once every subscription is in place: a change made now is seen.
    EXPECT_EQ(next(w), "now      a/int  int32  1");
    EXPECT_EQ(next(w), "now      a/str  str    x");
    EXPECT_EQ(next(w), "absent   a/new");

    set({"a/int", "int32", "2"});
    EXPECT_EQ(next(w), "changed  a/int  int32  2");
    redis({"HSET", "p_libpub.cap_table|a/str", "8", "y z"});
    EXPECT_EQ(next(w), "changed  a/str  str    y z");
    set({"a/new", "bool", "true"});
    EXPECT_EQ(next(w), "changed  a/new  bool   true");
    set({"a/int", "int32", "2"});  // the same value again: no change, no line
    // Another type: the int32 value goes, a string comes.
    set({"a/int", "str", "two"});
    EXPECT_EQ(next(w), "deleted  a/int  int32");
    EXPECT_EQ(next(w), "changed  a/int  str    two");
    ASSERT_EQ(run({"del", "a/new"}).status, 0);
    EXPECT_EQ(next(w), "deleted  a/new  bool");
    // Changes of capabilities it does not watch are not shown.
    set({"a/other", "int32", "1"});
    set({"a/int", "int32", "-7", "--node", "1"});
    set({"a/new", "bool", "false"});
    EXPECT_EQ(next(w), "changed  a/new  bool   false");

    EXPECT_EQ(w.stop(SIGINT), 0) << "interrupted is how a watch ends";
    EXPECT_EQ(w.err(), "");
}

TEST_F(CliWatch, CountEndsTheWatchAndJsonIsOneObjectPerLine) {
    set({"a/b", "bool", "false"});
    Background w({"watch", "--json", "a/b", "a/c", "--count", "3"}, store_env());
    EXPECT_EQ(next(w), R"({"event":"now","url":"a/b","type":"bool","value":false})");
    EXPECT_EQ(next(w), R"({"event":"absent","url":"a/c"})");
    set({"a/c", "str", "\"quoted\"\n"});
    EXPECT_EQ(next(w), R"({"event":"changed","url":"a/c","type":"str","value":"\"quoted\"\n"})");
    set({"a/b", "bool", "true"});
    EXPECT_EQ(next(w), R"({"event":"changed","url":"a/b","type":"bool","value":true})");
    ASSERT_EQ(run({"del", "a/b"}).status, 0);
    EXPECT_EQ(next(w), R"({"event":"deleted","url":"a/b","type":"bool"})");
    std::optional<int> status = w.wait_exit();
    ASSERT_TRUE(status.has_value()) << "still running after 3 changes";
    EXPECT_EQ(*status, 0);
    EXPECT_EQ(w.line(std::chrono::milliseconds(100)), std::nullopt);
}

TEST_F(CliWatch, ASubcardsCapabilitiesAreWatchedByNodeId) {
    set({"sub/ports", "int32", "8", "--node", "257"});
    Background w({"watch", "sub/ports", "sub/model", "--node", "257"}, store_env());
    EXPECT_EQ(next(w), "now      257  sub/ports  int32  8");
    EXPECT_EQ(next(w), "absent   257  sub/model");
    set({"sub/ports", "int32", "9", "--node", "258"});  // another subcard
    set({"sub/ports", "int32", "10"});                  // device-wide
    set({"sub/model", "str", "SC-8XS", "--node", "257"});
    EXPECT_EQ(next(w), "changed  257  sub/model  str    SC-8XS");
    redis({"HSET", "p_libpub.cap_subcard_table|257|sub/ports", "7", "4"});
    EXPECT_EQ(next(w), "changed  257  sub/ports  int32  4");
    EXPECT_EQ(w.stop(SIGTERM), 0);
}

TEST_F(CliWatch, AWatchSurvivesARedisServerRestartAndSaysSo) {
    set({"a/int", "int32", "1"});
    set({"a/str", "str", "x"});
    Background w({"watch", "a/int", "a/str"}, store_env());
    EXPECT_EQ(next(w), "now      a/int  int32  1");
    EXPECT_EQ(next(w), "now      a/str  str    x");

    server().stop();
    const std::string lost = next(w);
    EXPECT_THAT(lost, StartsWith("lost     connection to " + uri() + ": "));
    EXPECT_GT(lost.size(), ("lost     connection to " + uri() + ": ").size()) << "no reason";
    ASSERT_EQ(server().start(), "");  // without persistence: it comes back empty
    EXPECT_EQ(next(w), "back     connection to " + uri() + "; subscriptions renewed");
    // What changed while the server was away is delivered by the renewed subscriptions.
    EXPECT_EQ(next(w), "deleted  a/int  int32");
    EXPECT_EQ(next(w), "deleted  a/str  str");
    set({"a/int", "int32", "5"});
    EXPECT_EQ(next(w), "changed  a/int  int32  5");
    set({"a/str", "str", "back"});
    EXPECT_EQ(next(w), "changed  a/str  str    back");

    // Twice, with JSON lines this time.
    Background j({"--json", "watch", "a/int"}, store_env());
    EXPECT_EQ(next(j), R"({"event":"now","url":"a/int","type":"int32","value":5})");
    server().stop();
    EXPECT_THAT(next(j), StartsWith(R"({"event":"lost","store":")" + uri() + R"(","reason":")"));
    ASSERT_EQ(server().start(), "");
    EXPECT_EQ(next(j), R"({"event":"back","store":")" + uri() + R"("})");
    EXPECT_EQ(next(j), R"({"event":"deleted","url":"a/int","type":"int32"})");
    EXPECT_EQ(w.stop(SIGINT), 0);
    EXPECT_EQ(j.stop(SIGINT), 0);
    EXPECT_EQ(w.err(), "") << "the bus client's own lines are the watch's to say";
}

}  // namespace
}  // namespace clitest
