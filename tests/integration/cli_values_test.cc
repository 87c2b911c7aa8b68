// qzcap get, set, del, list and ready on a private redis-server: what they
// print, what they leave in the store (seen through redis-cli's eyes), and
// their exit statuses.
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cli_support.h"

namespace clitest {
namespace {

using ::testing::ElementsAre;

const std::string kPorts = "global_spec/platform/max_ports";
const std::string kPoe = "global_spec/platform/has_poe";
const std::string kModel = "global_spec/platform/chassis_model";

class CliValues : public CliTest {};

// One value of each type: what set is given, the field and text it stores,
// and what get shows.
struct TypedValue {
    std::string url, type, value, field, stored, shown;
};
void PrintTo(const TypedValue &v, std::ostream *os) {
    *os << v.type;
}

const TypedValue kTypedValues[] = {
    {kPorts, "int32", "-48", "7", "-48", "int32  -48\n"},
    {kPoe, "bool", "true", "6", "1", "bool  true\n"},
    // One value, one line.
    {kModel, "str", "QX 9200\tbeta", "8", "QX 9200\tbeta", "str  QX 9200\\tbeta\n"},
};

class CliEachType : public CliValues, public ::testing::WithParamInterface<TypedValue> {};

TEST_P(CliEachType, SetStoresItWhereTheLibraryLooksAndGetShowsIt) {
    const TypedValue &v = GetParam();
    Ran r = run({"set", v.url, v.type, v.value});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "");
    EXPECT_THAT(hash("p_libpub.cap_table|" + v.url), ElementsAre(v.field, v.stored));
    EXPECT_EQ(run({"get", v.url}).out, v.shown);
}

INSTANTIATE_TEST_SUITE_P(Types, CliEachType, ::testing::ValuesIn(kTypedValues));

TEST_F(CliValues, GetShowsJsonWhenAskedWhereverTheOptionStands) {
    ASSERT_EQ(run({"set", kPorts, "int32", "-48"}).status, 0);
    ASSERT_EQ(run({"set", kModel, "str", "QX 9200\tbeta"}).status, 0);
    Ran j = run({"--json", "get", kModel});
    EXPECT_EQ(j.out,
              "{\"url\":\"" + kModel + "\",\"type\":\"str\",\"value\":\"QX 9200\\tbeta\"}\n");
    EXPECT_EQ(run({"get", kPorts, "--json"}).out,
              "{\"url\":\"" + kPorts + "\",\"type\":\"int32\",\"value\":-48}\n");
}

TEST_F(CliValues, SetOfAnotherTypeReplacesTheValueAndKeepsPriAndState) {
    redis({"HSET", "p_libpub.cap_table|" + kPorts, "6", "1", "8", "x", "21", "3", "22", "1"});
    ASSERT_EQ(run({"set", kPorts, "int32", "96"}).status, 0);
    EXPECT_THAT(hash("p_libpub.cap_table|" + kPorts), ElementsAre("21", "3", "22", "1", "7", "96"));
    EXPECT_EQ(run({"get", kPorts}).out, "int32  96\n");
    // bool accepts 1/0 as well as the words.
    ASSERT_EQ(run({"set", kPorts, "bool", "0"}).status, 0);
    EXPECT_EQ(run({"get", kPorts}).out, "bool  false\n");
}

TEST_F(CliValues, WhatAnOperatorPublishesWithRedisCliIsReadBack) {
    // Several value fields at once: get shows each, in bool, int32, str order.
    redis({"HSET", "p_libpub.cap_table|" + kPorts, "8", "ninety-six", "7", "96", "6", "5"});
    EXPECT_EQ(run({"get", kPorts}).out, "bool  true\nint32  96\nstr  ninety-six\n");
    // A record of pri alone has no value to show.
    redis({"HSET", "p_libpub.cap_table|x/pri-only", "21", "4"});
    Ran r = run({"get", "x/pri-only"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "qzcap: capability 'x/pri-only' holds no value (only pri or state)\n");
    // A value that does not parse as its field's type is named, not shown as 0.
    redis({"HSET", "p_libpub.cap_table|x/bad", "7", "forty"});
    r = run({"get", "x/bad"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err,
              "qzcap: reading 'x/bad': the stored record is malformed (a value does not parse as "
              "its field's type, or a field number the record type lacks)\n");
    // ...and del is the way out of it.
    r = run({"del", "x/bad"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_THAT(hash("p_libpub.cap_table|x/bad"), ElementsAre());
}

TEST_F(CliValues, SubcardCapabilitiesAreKeyedByNodeId) {
    ASSERT_EQ(run({"set", "subcard/ports", "int32", "8", "--node", "257"}).status, 0);
    ASSERT_EQ(run({"set", "subcard/model", "str", "SC-8XS", "--node", "-3"}).status, 0);
    EXPECT_THAT(hash("p_libpub.cap_subcard_table|257|subcard/ports"), ElementsAre("7", "8"));
    EXPECT_THAT(hash("p_libpub.cap_subcard_table|-3|subcard/model"), ElementsAre("8", "SC-8XS"));
    EXPECT_EQ(run({"get", "subcard/ports", "--node", "257"}).out, "int32  8\n");
    EXPECT_EQ(run({"get", "subcard/model", "--node", "-3"}).out, "str  SC-8XS\n");
    EXPECT_EQ(run({"--json", "get", "--node", "257", "subcard/ports"}).out,
              "{\"url\":\"subcard/ports\",\"node\":257,\"type\":\"int32\",\"value\":8}\n");

    Ran r = run({"get", "subcard/ports", "--node", "258"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "qzcap: no capability 'subcard/ports' on node 258\n");
    r = run({"get", "subcard/ports"});
    EXPECT_EQ(r.status, 2) << "a device-wide capability of that URL does not exist";
    EXPECT_EQ(r.err, "qzcap: no capability 'subcard/ports'\n");
}

TEST_F(CliValues, DelRemovesTheRecordAndSaysWhenThereIsNone) {
    ASSERT_EQ(run({"set", kPorts, "int32", "48"}).status, 0);
    ASSERT_EQ(run({"set", kPorts, "int32", "8", "--node", "1"}).status, 0);
    Ran r = run({"del", kPorts});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_THAT(hash("p_libpub.cap_table|" + kPorts), ElementsAre());
    EXPECT_THAT(hash("p_libpub.cap_subcard_table|1|" + kPorts), ElementsAre("7", "8"));
    r = run({"del", kPorts});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "qzcap: no capability '" + kPorts + "'\n");
    EXPECT_EQ(run({"del", kPorts, "--node", "1"}).status, 0);
    EXPECT_EQ(run({"get", kPorts, "--node", "1"}).status, 2);
}

TEST_F(CliValues, ListShowsEveryCapabilityInAlignedColumnsOrAsJsonLines) {
    ASSERT_EQ(run({"set", "b/url", "str", "two words"}).status, 0);
    ASSERT_EQ(run({"set", "a/url", "bool", "false"}).status, 0);
    ASSERT_EQ(run({"set", "subcard/ports", "int32", "8", "--node", "1001"}).status, 0);
    ASSERT_EQ(run({"set", "subcard/ports", "int32", "2", "--node", "257"}).status, 0);
    redis({"HSET", "p_libpub.cap_table|c/pri-only", "21", "1"});

    Ran r = run({"list"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "URL            NODE  TYPE   VALUE\n"
              "a/url          -     bool   false\n"
              "b/url          -     str    two words\n"
              "c/pri-only     -     -      -\n"
              "subcard/ports  257   int32  2\n"
              "subcard/ports  1001  int32  8\n");
    EXPECT_EQ(run({"list", "subcard/"}).out,
              "URL            NODE  TYPE   VALUE\n"
              "subcard/ports  257   int32  2\n"
              "subcard/ports  1001  int32  8\n");
    EXPECT_EQ(run({"list", "--node", "1001"}).out,
              "URL            NODE  TYPE   VALUE\n"
              "subcard/ports  1001  int32  8\n");
    EXPECT_EQ(run({"list", "nothing/"}).out, "") << "no rows, no header";
    EXPECT_EQ(run({"--json", "list", "b/"}).out,
              "{\"url\":\"b/url\",\"type\":\"str\",\"value\":\"two words\"}\n");
    EXPECT_EQ(run({"--json", "list", "c/"}).out,
              "{\"url\":\"c/pri-only\",\"type\":null,\"value\":null}\n");
    EXPECT_EQ(run({"--json", "list", "--node", "257"}).out,
              "{\"url\":\"subcard/ports\",\"node\":257,\"type\":\"int32\",\"value\":2}\n");
}

TEST_F(CliValues, ReadyReadsAndSetsTheFlagsApplicationsWaitFor) {
    Ran r = run({"ready"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "local   false\nglobal  false\n") << "nothing published reads as not ready";

    ASSERT_EQ(run({"ready", "local", "--set", "true"}).status, 0);
    EXPECT_THAT(hash("p_libpub.cap_state"), ElementsAre("5", "1"));
    EXPECT_EQ(run({"ready"}).out, "local   true\nglobal  false\n");
    ASSERT_EQ(run({"ready", "global", "--set", "1"}).status, 0);
    EXPECT_THAT(hash("s_frame.cap_glb_state"), ElementsAre("5", "1"));
    EXPECT_EQ(run({"ready", "global"}).out, "global  true\n");
    EXPECT_EQ(run({"--json", "ready"}).out, "{\"local\":true,\"global\":true}\n");

    // A subcard's flag is keyed by its card's configured type, found by node id.
    redis({"HSET", "p_dev.card_info|0|1|1|1", "6", "4102", "17", "257"});
    ASSERT_EQ(run({"ready", "subcard", "257", "--set", "true"}).status, 0);
    EXPECT_THAT(hash("p_libpub.cap_subcard_state|257|4102"), ElementsAre("6", "1"));
    EXPECT_EQ(run({"ready", "subcard", "257"}).out, "subcard 257  true\n");
    EXPECT_EQ(run({"--json", "ready", "subcard", "257"}).out, "{\"subcard\":257,\"ready\":true}\n");
    ASSERT_EQ(run({"ready", "subcard", "257", "--set", "false"}).status, 0);
    EXPECT_EQ(run({"ready", "subcard", "257"}).out, "subcard 257  false\n");

    for (const auto &args : std::vector<std::vector<std::string>>{
             {"ready", "subcard", "258"}, {"ready", "subcard", "258", "--set", "true"}}) {
        r = run(args);
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.err, "qzcap: no card with node id 258\n");
    }
    EXPECT_THAT(hash("p_libpub.cap_subcard_state|258|0"), ElementsAre());
}

}  // namespace
}  // namespace clitest
